"""Ends the program on signals: one line, an exit code, no unfinished output.

Imported before the heavy libraries, so it must not import any of them.
"""

from __future__ import annotations

import os
import signal
import sys
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import FrameType
from typing import Any

from fullwaveform.io.interruption import (
    may_be_raised_in,
    remove_unfinished,
    request_end,
    unfinished,
)

#: Handled signals, and what is printed after them.
DESCRIPTIONS = {
    signal.SIGINT: "interrupted",
    signal.SIGTERM: "terminated",
    signal.SIGHUP: "hung up",
}
_EXIT_CODE_OFFSET = 128  # the shells' convention: 130, 143 and 129


class SignalExit(KeyboardInterrupt):
    """A signal ended the program; unwinding removes unfinished files.

    Derived from KeyboardInterrupt because libraries pass that on.
    """

    def __init__(self, number: int) -> None:
        super().__init__(number)
        self.description = DESCRIPTIONS[signal.Signals(number)]
        self.exit_code = _EXIT_CODE_OFFSET + number


def exit_on_signals() -> None:
    """Exit at once on a signal from now on, for times when no output is being written.

    An exception in the middle of an import would be replaced by the library's own error.
    """
    for number in _handled_signals():
        signal.signal(number, _exit_at_once)


@contextmanager
def raise_on_signals() -> Iterator[None]:
    """Raise `SignalExit` in the block for the first signal; ignore later ones.

    So a second Ctrl-C does not disturb the removal of unfinished files. Where the exception would
    get lost or do harm, it is raised at the next block of waveforms, before or after an output is
    renamed to its final name, or at the end of the ``with`` block. After it, outputs that the block
    has opened and not finished are removed.

    Restores the former handlers at the end, except `exit_on_signals` after a signal: the program is
    ending already, and signals stay ignored. Does nothing outside the main thread, which signals do
    not reach.
    """
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    former = {number: signal.getsignal(number) for number in _handled_signals()}
    former_hook = sys.unraisablehook
    received: SignalExit | None = None
    older = set(unfinished)

    def unwind(number: int, frame: FrameType | None) -> None:
        nonlocal received
        received = SignalExit(number)
        for handled in former:
            signal.signal(handled, _ignore)
        request_end(received)
        sys.unraisablehook = _without_signal_exits(former_hook)
        if may_be_raised_in(frame):
            raise received

    for number in former:
        signal.signal(number, unwind)
    try:
        yield
    except Exception as error:
        if received is not None:  # a library replaced it by its own error
            raise received from error
        raise
    else:
        if received is not None:  # it was not raised where the signal arrived, nor later
            raise received
    finally:
        if received is not None:
            remove_unfinished(older)
        request_end(None)
        sys.unraisablehook = former_hook
        for number, handler in former.items():
            ending = received is not None and handler is _exit_at_once
            signal.signal(number, signal.SIG_IGN if ending else handler)


def _handled_signals() -> list[signal.Signals]:
    """Signals to handle; those ignored from outside, as by nohup, stay ignored."""
    return [number for number in DESCRIPTIONS if signal.getsignal(number) is not signal.SIG_IGN]


def _without_signal_exits(hook: Callable[[Any], Any]) -> Callable[[Any], Any]:
    """The hook, but silent about `SignalExit`, which `request_end` keeps."""

    def filtered(dropped: Any) -> None:
        if not isinstance(dropped.exc_value, SignalExit):
            hook(dropped)

    return filtered


def _ignore(number: int, frame: FrameType | None) -> None:
    """Unlike SIG_IGN also takes a signal that arrived together with the first one."""


def _exit_at_once(number: int, frame: FrameType | None) -> None:
    ended = SignalExit(number)
    os.write(2, f"{ended.description}\n".encode("ascii"))
    os._exit(ended.exit_code)
