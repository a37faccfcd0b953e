"""Submits units to workers, a bounded number at a time, and collects the results."""

from __future__ import annotations

import queue
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import CancelledError
from typing import Any

from fullwaveform.cluster.executors import LostWorkersError, Workers, call_when_done
from fullwaveform.cluster.work import UnitResult, read_result
from fullwaveform.io.interruption import raise_if_requested

_TICK_S = 0.5

#: A unit: its number, and what makes its JSON text when it is submitted.
NumberedUnit = tuple[int, Callable[[], str]]


class Dispatcher:
    """Runs a function of JSON text over many units.

    A Dask scheduler repeats a unit whose worker is lost on another worker. After several losses the
    result has `lost_workers` set; units that were only queued on the same workers may be among
    these.

    Parameters
    ----------
    workers
        What runs the units.
    tick
        Called about twice a second, and after each unit, with whether there are workers.
    """

    def __init__(self, workers: Workers, tick: Callable[[bool], None]) -> None:
        self._workers = workers
        self._tick = tick

    def run(
        self, function: Callable[[str], str], units: Sequence[NumberedUnit]
    ) -> Iterator[tuple[int, UnitResult]]:
        """Yield number and result of each unit as it finishes.

        When the caller stops, units that have not started are cancelled.

        Raises
        ------
        OSError
            The workers are lost, or cannot run the function at all.
        """
        done: queue.SimpleQueue[Any] = queue.SimpleQueue()
        numbers: dict[Any, int] = {}
        waiting = iter(units)
        remaining = len(units)
        try:
            while remaining > 0:
                self._submit(function, waiting, numbers, done)
                future = self._next(done)
                number = numbers.pop(future)
                remaining -= 1
                yield number, self._result(future)
        finally:
            if numbers:
                self._workers.cancel(list(numbers))

    def _submit(
        self,
        function: Callable[[str], str],
        waiting: Iterator[NumberedUnit],
        numbers: dict[Any, int],
        done: queue.SimpleQueue[Any],
    ) -> None:
        for _ in range(self._workers.capacity() - len(numbers)):
            number, text = next(waiting, (None, None))
            if number is None or text is None:
                return
            future = self._workers.submit(function, text())
            numbers[future] = number
            call_when_done(future, done.put)

    def _next(self, done: queue.SimpleQueue[Any]) -> Any:
        while True:
            raise_if_requested()  # a signal that arrived while the manifest was written
            try:
                future = done.get(timeout=_TICK_S)
            except queue.Empty:
                self._tick(self._workers.has_workers())
            else:
                self._tick(True)
                return future

    def _result(self, future: Any) -> UnitResult:
        try:
            text = future.result()
        except (Exception, CancelledError) as error:
            failure = self._workers.failure(error)
            if isinstance(failure, LostWorkersError):
                return UnitResult(error=str(failure), lost_workers=True)
            raise failure from error
        return read_result(text)
