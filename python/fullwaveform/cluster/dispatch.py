"""Handing units to the workers, a bounded number at a time, and taking what comes back."""

from __future__ import annotations

import queue
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import CancelledError
from typing import Any

from fullwaveform.cluster.work import Plain
from fullwaveform.io.interruption import raise_if_requested

_PER_THREAD = 2  # units with the scheduler per thread of the workers: one runs, one is next
_TICK = 0.5  # s


class Dispatcher:
    """Runs a function of plain data over many units with the workers of a client.

    A unit whose worker is lost is done again by another one; that is the scheduler's work. When it
    has lost several its result says so, under ``lost_workers``; units that were only waiting with
    the same workers may be among these.

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
        self, function: Callable[[Plain], Plain], units: Sequence[tuple[int, Callable[[], Plain]]]
    ) -> Iterator[tuple[int, Plain]]:
        """Yield number and result of each unit as it is done.

        A unit is a number and what makes its data, called when it is handed over. When the caller
        stops, units that have not begun are withdrawn.

        Raises
        ------
        OSError
            The scheduler is gone, or the workers cannot run the function at all.
        """
        done: queue.SimpleQueue[Any] = queue.SimpleQueue()
        numbers: dict[Any, int] = {}
        waiting = iter(units)
        left = len(units)
        try:
            while left > 0:
                self._hand_over(function, waiting, numbers, done)
                future = self._next(done)
                number = numbers.pop(future)
                left -= 1
                yield number, _result(future)
        finally:
            if numbers:
                self._withdraw(list(numbers))

    def _hand_over(
        self,
        function: Callable[[Plain], Plain],
        waiting: Iterator[tuple[int, Callable[[], Plain]]],
        numbers: dict[Any, int],
        done: queue.SimpleQueue[Any],
    ) -> None:
        room = _PER_THREAD * max(self._threads(), 1) - len(numbers)
        for _ in range(room):
            number, plain = next(waiting, (None, None))
            if number is None or plain is None:
                return
            future = self._client.submit(function, plain(), pure=False)
            numbers[future] = number
            future.add_done_callback(done.put)

    def _next(self, done: queue.SimpleQueue[Any]) -> Any:
        while True:
            raise_if_requested()  # a signal that came while the manifest was written
            try:
                future = done.get(timeout=_TICK)
            except queue.Empty:
                self._tick(self._threads() > 0)
            else:
                self._tick(True)
                return future

    def _threads(self) -> int:
        try:
            return sum(self._client.ncores().values())
        except (OSError, TimeoutError) as error:
            raise OSError(_GONE) from error

    def _withdraw(self, futures: list[Any]) -> None:
        try:
            self._client.cancel(futures, force=True)
        except (OSError, TimeoutError):  # with the scheduler the units are gone as well
            return


_GONE = "the connection to the scheduler is lost; start it again and continue with --resume"


def _result(future: Any) -> Plain:
    try:
        result: Plain = future.result()
    except CancelledError as error:
        raise OSError(_GONE) from error
    except Exception as error:
        return _of_exception(error)
    return result


def _of_exception(error: Exception) -> Plain:
    """What became of a unit that did not come back with data."""
    if type(error).__name__ == "KilledWorker":
        times = error.allowed_failures + 1  # type: ignore[attr-defined]
        return {
            "trouble": f"{times} workers died one after the other while they worked on it; "
            "their memory may be too small for --block",
            "ends_the_job": False,
            "lost_workers": True,
        }
    raise OSError(
        f"a worker cannot run the extraction ({type(error).__name__}: {error}); all machines must "
        "have the same fullwaveform installed"
    ) from error
