"""The program: ready for signals first, then everything else is loaded."""

from __future__ import annotations

import sys

from fullwaveform.cli.signals import end_at_once_on_signals


def main() -> None:
    """Runs the command line; exit code 0 done, 1 trouble with the data, 2 with the call.

    After Ctrl-C 130, after SIGTERM 143, after SIGHUP 129.
    """
    end_at_once_on_signals()
    from fullwaveform.cli.main import main as command_line

    try:
        command_line()
    except OSError as error:  # of the texts that are shown; files are spoken of where they belong
        sys.exit(f"fullwaveform: standard output: {error.strerror}")
