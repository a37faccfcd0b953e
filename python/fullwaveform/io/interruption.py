"""A request to end that is not lost when its exception is discarded.

An exception that a signal handler raises inside a finalizer, a weak-reference callback or a library
callback is discarded. So the request is stored as well, and checked where a run can stop.
"""

from __future__ import annotations

import shutil
import sys
from contextlib import suppress
from pathlib import Path
from types import FrameType

# Interrupting HDF5 while it opens or closes a file prints to standard error or ends the program.
_UNINTERRUPTED = ("h5py", "fullwaveform.io.atomic")
_requested: BaseException | None = None
#: Temporary files and folders of outputs that have not got their names yet.
unfinished: set[Path] = set()


def request_end(interruption: BaseException | None) -> None:
    """Have `raise_if_requested` raise this from now on; None withdraws the request."""
    global _requested
    _requested = interruption


def may_be_raised_in(frame: FrameType | None) -> bool:
    """Whether an exception may be raised in the frame and its callers.

    It must not in h5py, nor in the writing of outputs, which libraries call and whose exceptions
    they replace by their own.
    """
    while frame is not None:
        module = str(frame.f_globals.get("__name__"))
        if module.startswith(_UNINTERRUPTED):
            return False
        frame = frame.f_back
    return True


def raise_if_requested() -> None:
    """Raise a stored request, unless it is already being handled."""
    if _requested is not None and not _is_handled(_requested):
        raise _requested


def _is_handled(interruption: BaseException) -> bool:
    handled = sys.exc_info()[1]
    while handled is not None and handled is not interruption:
        handled = handled.__context__
    return handled is interruption


def remove_unfinished(older: set[Path]) -> None:
    """Remove the unfinished outputs but for the older ones.

    An interruption between the opening of an output and the beginning of its ``with`` statement
    leaves its file to nobody else.
    """
    for path in unfinished - older:
        if path.is_dir():
            shutil.rmtree(path, ignore_errors=True)
        else:
            with suppress(OSError):
                path.unlink()
        unfinished.discard(path)
