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

    status = "running"

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


class ClosedClientError(Exception):
    """As Dask's: it has no base class of its own."""


@pytest.mark.parametrize(
    "error",
    [
        OSError("Timed out trying to connect"),
        CommClosedError("in <TCP (closed)>"),
        TimeoutError("timed out"),
        RuntimeError("IOLoop is closed"),
        AttributeError("'NoneType' object has no attribute 'ncores'"),
        ClosedClientError("Client is closed"),
    ],
)
@pytest.mark.parametrize("call", ["ncores", "submit"])
def test_lost_scheduler_ends_the_run(
    monkeypatch: pytest.MonkeyPatch, call: str, error: Exception
) -> None:
    """Whatever the client does at that moment, and also if the units cannot be cancelled."""
    scheduler = Scheduler()
    run = Dispatcher(DaskWorkers(scheduler), lambda _: None).run(doubled, units(50))
    next(run)

    def failing(*_: Any, **__: Any) -> Any:
        raise error

    monkeypatch.setattr(scheduler, call, failing)
    monkeypatch.setattr(scheduler, "cancel", failing)
    with pytest.raises(OSError, match="connection to the scheduler lost"):
        list(run)


def test_client_that_connects_again_has_lost_its_units(monkeypatch: pytest.MonkeyPatch) -> None:
    """The scheduler is not asked then: the client would try to reach it for half a minute."""
    scheduler = Scheduler()

    def unreachable() -> dict[str, int]:
        raise AssertionError

    run = Dispatcher(DaskWorkers(scheduler), lambda _: None).run(doubled, units(50))
    next(run)
    monkeypatch.setattr(scheduler, "status", "connecting")
    monkeypatch.setattr(scheduler, "ncores", unreachable)
    with pytest.raises(OSError, match="connection to the scheduler lost"):
        next(run)


def test_error_of_a_lost_client_is_not_that_of_a_worker(monkeypatch: pytest.MonkeyPatch) -> None:
    scheduler = Scheduler()

    def failing(text: str) -> str:
        monkeypatch.setattr(scheduler, "status", "closed")
        raise AttributeError("'NoneType' object has no attribute 'gather'")

    with pytest.raises(OSError, match="connection to the scheduler lost"):
        next(Dispatcher(DaskWorkers(scheduler), lambda _: None).run(failing, units(1)))
