"""Submits units to the workers, a bounded number at a time, and collects the results."""

from __future__ import annotations

import queue
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import CancelledError
from typing import Any

from fullwaveform.cluster.work import UnitResult, read_result
from fullwaveform.io.interruption import raise_if_requested

_UNITS_PER_THREAD = 2  # submitted per worker thread: one runs, one is next
_TICK_S = 0.5

#: A unit: its number, and what makes its JSON text when it is submitted.
NumberedUnit = tuple[int, Callable[[], str]]


class Dispatcher:
    """Runs a function of JSON text over many units with the workers of a client.

    The scheduler repeats a unit whose worker is lost on another worker. After several losses the
    result has `lost_workers` set; units that were only queued on the same workers may be among
    these.

    Parameters
    ----------
    client
        Of dask.distributed.
    tick
        Called about twice a second, and after each unit, with whether there are workers.
    """

    def __init__(self, client: Any, tick: Callable[[bool], None]) -> None:
        self._client = client
        self._tick = tick

    def run(
        self, function: Callable[[str], str], units: Sequence[NumberedUnit]
    ) -> Iterator[tuple[int, UnitResult]]:
        """Yield number and result of each unit as it finishes.

        When the caller stops, units that have not started are cancelled.

        Raises
        ------
        OSError
            The connection to the scheduler is lost, or the workers cannot run the function at all.
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
                yield number, _result(future)
        finally:
            if numbers:
                self._cancel(list(numbers))

    def _submit(
        self,
        function: Callable[[str], str],
        waiting: Iterator[NumberedUnit],
        numbers: dict[Any, int],
        done: queue.SimpleQueue[Any],
    ) -> None:
        free = _UNITS_PER_THREAD * max(self._threads(), 1) - len(numbers)
        for _ in range(free):
            number, text = next(waiting, (None, None))
            if number is None or text is None:
                return
            future = self._client.submit(function, text(), pure=False)
            numbers[future] = number
            future.add_done_callback(done.put)

    def _next(self, done: queue.SimpleQueue[Any]) -> Any:
        while True:
            raise_if_requested()  # a signal that arrived while the manifest was written
            try:
                future = done.get(timeout=_TICK_S)
            except queue.Empty:
                self._tick(self._threads() > 0)
            else:
                self._tick(True)
                return future

    def _threads(self) -> int:
        try:
            return sum(self._client.ncores().values())
        except (OSError, TimeoutError) as error:
            raise OSError(_CONNECTION_LOST) from error

    def _cancel(self, futures: list[Any]) -> None:
        try:
            self._client.cancel(futures, force=True)
        except (OSError, TimeoutError):  # the units are gone with the scheduler
            return


_CONNECTION_LOST = (
    "connection to the scheduler lost; restart the scheduler and continue with --resume"
)


def _result(future: Any) -> UnitResult:
    try:
        text = future.result()
    except CancelledError as error:
        raise OSError(_CONNECTION_LOST) from error
    except Exception as error:
        return _failure(error)
    return read_result(text)


def _failure(error: Exception) -> UnitResult:
    """The result of a unit whose worker returned an exception."""
    if type(error).__name__ == "KilledWorker":
        workers = error.allowed_failures + 1  # type: ignore[attr-defined]
        return UnitResult(
            error=f"unit failed on {workers} workers (out of memory?); reduce --block",
            lost_workers=True,
        )
    raise OSError(
        f"a worker cannot run the extraction ({type(error).__name__}: {error}); install the same "
        "version of fullwaveform on all machines"
    ) from error
