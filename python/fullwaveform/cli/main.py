"""Entry point of the program: handles signals first, then loads the command line."""

from __future__ import annotations

import os
import sys

from fullwaveform.cli.signals import exit_on_signals


def main() -> None:
    """Run the command line and exit.

    Exit codes: 0 success, 1 data or file error, 2 usage error, 130, 143 and 129 after SIGINT,
    SIGTERM and SIGHUP.
    """
    exit_on_signals()
    from fullwaveform.cli.app import app

    code: str | int | None = None
    try:
        app(prog_name="fullwaveform")
    except SystemExit as end:
        code = end.code
    except OSError as error:  # from printing; file errors are reported by the commands
        code = _stdout_error(error)
    try:
        if sys.stdout is not None:
            sys.stdout.flush()
    except OSError as error:
        # Otherwise the interpreter flushes the buffered text once more at its end, and fails again.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        code = code or _stdout_error(error)
    sys.exit(code)


def _stdout_error(error: OSError) -> str:
    return f"fullwaveform: standard output: {error.strerror}"
