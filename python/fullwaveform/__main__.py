"""Run the command line with ``python -m fullwaveform``."""

from fullwaveform.cli.main import main

main()
