"""The program: ready for signals first, then everything else is loaded."""

from __future__ import annotations

import os
import sys

from fullwaveform.cli.signals import end_at_once_on_signals


def main() -> None:
    """Runs the command line; exit code 0 done, 1 trouble with the data, 2 with the call.

    After Ctrl-C 130, after SIGTERM 143, after SIGHUP 129.
    """
    end_at_once_on_signals()
    from fullwaveform.cli.main import main as command_line

    code: str | int | None = None
    try:
        command_line()
    except SystemExit as end:
        code = end.code
    except OSError as error:  # of the texts that are shown; files are spoken of where they belong
        code = _not_shown(error)
    try:
        if sys.stdout is not None:
            sys.stdout.flush()
    except OSError as error:
        # What is left of the texts would be tried once more when the interpreter ends.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        code = code or _not_shown(error)
    sys.exit(code)


def _not_shown(error: OSError) -> str:
    return f"fullwaveform: standard output: {error.strerror}"
