"""A request to end that must not get lost.

What a handler of signals raises is dropped when it happens to be in a finalizer, a callback of a
weak reference or of a library. So the request is also kept, and looked for where a run can stop.
"""

from __future__ import annotations

import sys
from types import FrameType

# Files of HDF5 that are open or closed by halves are told of on standard error, or end the program.
_UNINTERRUPTED = ("h5py", "fullwaveform.io.atomic")
_requested: BaseException | None = None


def request_end(interruption: BaseException | None) -> None:
    """Have `raise_if_requested` raise this from now on; None takes the request back."""
    global _requested
    _requested = interruption


def may_be_raised_in(frame: FrameType | None) -> bool:
    """Whether neither the frame nor one that led to it must be left in the middle.

    That is h5py, and the writing of outputs, which libraries call and of whose exceptions they make
    errors of their own.
    """
    while frame is not None:
        module = str(frame.f_globals.get("__name__"))
        if module.startswith(_UNINTERRUPTED):
            return False
        frame = frame.f_back
    return True


def raise_if_requested() -> None:
    """Raise what was requested, if anything was, unless it was raised and is being handled."""
    if _requested is not None and not _is_handled(_requested):
        raise _requested


def _is_handled(interruption: BaseException) -> bool:
    handled = sys.exc_info()[1]
    while handled is not None and handled is not interruption:
        handled = handled.__context__
    return handled is interruption
