"""Run the command line with ``python -m fullwaveform``."""

from fullwaveform.cli.start import main

main()
