"""Submission of units: a bounded number at a time, and results of failed units."""

from __future__ import annotations

from collections.abc import Callable
from concurrent.futures import CancelledError
from functools import partial
from typing import Any

import pytest
from distributed.comm import CommClosedError

from fullwaveform.cluster.dispatch import Dispatcher, NumberedUnit
from fullwaveform.cluster.executors import DaskWorkers


class Done:
    """A future that is done at once."""

    def __init__(self, work: Callable[[], str]) -> None:
        self.result = work

    def add_done_callback(self, call: Callable[[Any], None]) -> None:
        call(self)


class Scheduler:
    """Two workers of one thread each; the part of a client that the dispatcher uses."""

    def __init__(self) -> None:
        self.submitted = 0
        self.cancelled = 0

    def ncores(self) -> dict[str, int]:
        return {"one": 1, "other": 1}

    def submit(self, function: Callable[[str], str], text: str, *, pure: bool) -> Done:
        assert not pure
        self.submitted += 1
        return Done(partial(function, text))

    def cancel(self, futures: list[Done], *, force: bool) -> None:
        self.cancelled += len(futures)


class KilledWorker(Exception):  # noqa: N818, the name of Dask's exception
    """As Dask's: the number of allowed failures is one less than the number of lost workers."""

    allowed_failures = 3


def units(count: int) -> list[NumberedUnit]:
    return [(number, partial(str, number)) for number in range(count)]


def doubled(text: str) -> str:
    return f'{{"blocks": {2 * int(text)}}}'


def test_two_units_per_thread_are_submitted() -> None:
    scheduler, results = Scheduler(), {}
    for number, result in Dispatcher(DaskWorkers(scheduler), lambda _: None).run(
        doubled, units(50)
    ):
        results[number] = result.blocks
        assert scheduler.submitted <= len(results) + 3
    assert results == {number: 2 * number for number in range(50)}
    assert (scheduler.submitted, scheduler.cancelled) == (50, 0)


def test_remaining_units_are_cancelled() -> None:
    scheduler = Scheduler()
    run = Dispatcher(DaskWorkers(scheduler), lambda _: None).run(doubled, units(50))
    next(run)
    run.close()  # type: ignore[attr-defined]
    assert (scheduler.submitted, scheduler.cancelled) == (4, 3)


@pytest.mark.parametrize(
    ("error", "message"),
    [
        (ModuleNotFoundError("No module named 'fullwaveform'"), "install the same version"),
        (CancelledError(), "connection to the scheduler lost; restart the scheduler"),
        (CommClosedError("in <TCP (closed) ConnectionPool.gather>"), "connection to the scheduler"),
        (OSError("Timed out trying to connect to tcp://"), "connection to the scheduler lost"),
    ],
)
def test_errors_that_end_the_run(error: BaseException, message: str) -> None:
    def failing(text: str) -> str:
        raise error

    with pytest.raises(OSError, match=message):
        next(Dispatcher(DaskWorkers(Scheduler()), lambda _: None).run(failing, units(1)))


def test_unit_that_loses_its_workers_is_marked() -> None:
    def killing(text: str) -> str:
        raise KilledWorker

    ((_, result),) = Dispatcher(DaskWorkers(Scheduler()), lambda _: None).run(killing, units(1))
    assert result.lost_workers
    assert not result.ends_run
    assert result.error == "unit failed on 4 workers (out of memory?); reduce --block"


def test_unresponsive_scheduler_ends_the_run(monkeypatch: pytest.MonkeyPatch) -> None:
    def silent(self: Scheduler) -> dict[str, int]:
        raise OSError("closed")

    monkeypatch.setattr(Scheduler, "ncores", silent)
    with pytest.raises(OSError, match="connection to the scheduler lost"):
        next(Dispatcher(DaskWorkers(Scheduler()), lambda _: None).run(doubled, units(1)))
