"""A wait for the workers ends when it is asked to."""

from __future__ import annotations

import signal
from concurrent.futures import Future
from typing import Any

import pytest

from fullwaveform.cli.signals import Ended
from fullwaveform.cluster.dispatch import Dispatcher
from fullwaveform.io.interruption import request_end


class _BusyWorker:
    """Takes units and is never done with one."""

    def __init__(self) -> None:
        self.withdrawn = 0

    def ncores(self) -> dict[str, int]:
        return {"worker": 1}

    def submit(self, *_: Any, pure: bool) -> Future[Any]:
        return Future()

    def cancel(self, futures: list[Any], force: bool) -> None:
        self.withdrawn += len(futures)


def test_a_signal_that_came_while_the_manifest_was_written_ends_the_wait() -> None:
    """There it is not raised; the next output may be hours away."""
    client = _BusyWorker()
    units = Dispatcher(client, lambda _: None).run(lambda unit: unit, [(0, dict), (1, dict)])
    request_end(Ended(signal.SIGTERM))
    try:
        with pytest.raises(Ended):
            next(units)
    finally:
        request_end(None)
    assert client.withdrawn == 2
