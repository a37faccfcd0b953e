"""Set-up of all tests."""

from __future__ import annotations

import math
import signal
from collections.abc import Iterator

import pytest


def pytest_configure() -> None:
    """Restore the default effect of signals, here and in the processes that tests start.

    A shell starts background processes with the signals of the terminal ignored, and child
    processes inherit that.
    """
    for number in (signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
        if signal.getsignal(number) is signal.SIG_IGN:
            default = signal.default_int_handler if number is signal.SIGINT else signal.SIG_DFL
            signal.signal(number, default)


@pytest.fixture(scope="session", autouse=True)
def _no_lines_of_progress() -> Iterator[None]:
    """A command prints one every half minute, and takes that long on a busy machine."""
    from fullwaveform.cli import progress

    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(progress, "_LINE_PAUSE_S", math.inf)
        yield
