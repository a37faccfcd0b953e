"""What all tests find when they begin."""

from __future__ import annotations

import signal


def pytest_configure() -> None:
    """Signals have their usual effect here and in the processes that tests start.

    A shell starts what runs in the background with the signals of the terminal ignored, and
    processes hand that on.
    """
    for number in (signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
        if signal.getsignal(number) is signal.SIG_IGN:
            usual = signal.default_int_handler if number is signal.SIGINT else signal.SIG_DFL
            signal.signal(number, usual)
