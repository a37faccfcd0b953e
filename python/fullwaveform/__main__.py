"""``python -m fullwaveform`` is the command line."""

from fullwaveform.cli.start import main

main()
