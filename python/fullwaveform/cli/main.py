"""Entry point of the program: handles signals first, then loads the command line."""

from __future__ import annotations

import gc
import os
import sys

from fullwaveform.cli.signals import exit_on_signals

# The matrices are small, and idle threads of the linear algebra library, which it starts when NumPy
# is loaded, use processor time that the workers need.
_THREADS_OF_LINEAR_ALGEBRA = ("OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS")


def main() -> None:
    """Run the command line and exit.

    Exit codes: 0 success, 1 data or file error, 2 usage error, 130, 143 and 129 after SIGINT,
    SIGTERM and SIGHUP.
    """
    exit_on_signals()
    for variable in _THREADS_OF_LINEAR_ALGEBRA:
        os.environ.setdefault(variable, "1")
    # Nothing that is loaded becomes garbage; enabled again when the command is loaded.
    gc.disable()
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
