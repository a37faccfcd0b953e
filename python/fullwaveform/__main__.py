"""``python -m fullwaveform`` is the command line."""

from fullwaveform.cli.main import main

main()
