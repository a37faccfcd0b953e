"""Signals that ask the program to end: one sentence, no traceback, nothing half-written.

Light on purpose: this is loaded before the libraries whose loading takes most of a short run.
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

from fullwaveform.io.interruption import may_be_raised_in, request_end

#: Ctrl-C, a request of the system to end, and a terminal that is closed: what they did to the run.
PARTICIPLES = {
    signal.SIGINT: "interrupted",
    signal.SIGTERM: "terminated",
    signal.SIGHUP: "hung up",
}
_OFFSET = 128  # of the exit codes, as shells have them: 130, 143 and 129


class Ended(KeyboardInterrupt):
    """A signal asked the program to end; unwinding removes unfinished files.

    To libraries, which know KeyboardInterrupt, each of the signals is one.
    """

    def __init__(self, number: int) -> None:
        super().__init__(number)
        self.participle = PARTICIPLES[signal.Signals(number)]
        self.exit_code = _OFFSET + number


def end_at_once_on_signals() -> None:
    """From now on a signal ends the program where it is: for times when nothing is written.

    Libraries that are being loaded make errors of their own of an exception in the middle.
    """
    for number in _heeded():
        signal.signal(number, _end_at_once)


@contextmanager
def unwinding_on_signals() -> Iterator[None]:
    """Raise `Ended` in the block for the first signal; those after it are ignored meanwhile.

    So a second Ctrl-C does not disturb the removal of unfinished files. Where raising it would do
    harm or no good it is raised at the next block, or instead of giving an output its name.

    Afterwards the former handlers are back, unless they would end the program at once: that is what
    it is doing already, and the signals stay ignored. In another thread than the main one, which
    signals do not reach, nothing is changed.
    """
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    former = {number: signal.getsignal(number) for number in _heeded()}
    told = sys.unraisablehook
    came: Ended | None = None

    def unwind(number: int, frame: FrameType | None) -> None:
        nonlocal came
        came = Ended(number)
        for heeded in former:
            signal.signal(heeded, _pass_over)
        request_end(came)
        sys.unraisablehook = _silent_about_ends(told)
        if may_be_raised_in(frame):
            raise came

    for number in former:
        signal.signal(number, unwind)
    try:
        yield
    except Exception as error:
        if came is not None:  # and a library made an error of its own of it
            raise came from error
        raise
    finally:
        request_end(None)
        sys.unraisablehook = told
        for number, handler in former.items():
            ending = came is not None and handler is _end_at_once
            signal.signal(number, signal.SIG_IGN if ending else handler)


def _heeded() -> list[signal.Signals]:
    """The signals without those that whoever started the program has it ignore, as nohup does."""
    return [number for number in PARTICIPLES if signal.getsignal(number) is not signal.SIG_IGN]


def _silent_about_ends(tell: Callable[[Any], Any]) -> Callable[[Any], Any]:
    """As `tell`, which shows what Python drops, but for `Ended`, which is not lost with that."""

    def hook(dropped: Any) -> None:
        if not isinstance(dropped.exc_value, Ended):
            tell(dropped)

    return hook


def _pass_over(number: int, frame: FrameType | None) -> None:
    """Unlike SIG_IGN fit for a signal that came together with another one."""


def _end_at_once(number: int, frame: FrameType | None) -> None:
    ended = Ended(number)
    os.write(2, f"{ended.participle}\n".encode("ascii"))
    os._exit(ended.exit_code)
