"""Set-up of all tests."""

from __future__ import annotations

import signal


def pytest_configure() -> None:
    """Restore the default effect of signals, here and in the processes that tests start.

    A shell starts background processes with the signals of the terminal ignored, and child
    processes inherit that.
    """
    for number in (signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
        if signal.getsignal(number) is signal.SIG_IGN:
            default = signal.default_int_handler if number is signal.SIGINT else signal.SIG_DFL
            signal.signal(number, default)
