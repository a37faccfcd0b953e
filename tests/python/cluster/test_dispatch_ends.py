"""Waiting for the workers ends after a signal."""

from __future__ import annotations

import signal
from concurrent.futures import Future
from typing import Any

import pytest

from fullwaveform.cli.signals import SignalExit
from fullwaveform.cluster.dispatch import Dispatcher
from fullwaveform.cluster.executors import DaskWorkers
from fullwaveform.io.interruption import request_end


class _BusyWorker:
    """Accepts units and never finishes one."""

    status = "running"

    def __init__(self) -> None:
        self.cancelled = 0

    def ncores(self) -> dict[str, int]:
        return {"worker": 1}

    def submit(self, *_: Any, pure: bool) -> Future[Any]:
        return Future()

    def cancel(self, futures: list[Any], force: bool) -> None:
        self.cancelled += len(futures)


def test_signal_during_writing_of_the_manifest_ends_the_wait() -> None:
    """Writing is not interrupted, and the next output may be hours away."""
    client = _BusyWorker()
    units = Dispatcher(DaskWorkers(client), lambda _: None).run(
        lambda unit: unit, [(0, str), (1, str)]
    )
    request_end(SignalExit(signal.SIGTERM))
    try:
        with pytest.raises(SignalExit):
            next(units)
    finally:
        request_end(None)
    assert client.cancelled == 2
