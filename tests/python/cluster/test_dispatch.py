"""Handing units over: a bounded number at a time, and what comes back in place of data."""

from __future__ import annotations

from collections.abc import Callable
from concurrent.futures import CancelledError
from functools import partial
from typing import Any

import pytest

from fullwaveform.cluster.dispatch import Dispatcher
from fullwaveform.cluster.work import Plain


class Done:
    """A unit that is done at once."""

    def __init__(self, work: Callable[[], Plain]) -> None:
        self.result = work

    def add_done_callback(self, call: Callable[[Any], None]) -> None:
        call(self)


class Scheduler:
    """Two workers of one thread each; what the dispatcher asks of a client."""

    def __init__(self) -> None:
        self.handed_over = 0
        self.withdrawn = 0

    def ncores(self) -> dict[str, int]:
        return {"one": 1, "other": 1}

    def submit(self, function: Callable[[Plain], Plain], plain: Plain, *, pure: bool) -> Done:
        assert not pure
        self.handed_over += 1
        return Done(partial(function, plain))

    def cancel(self, futures: list[Done], *, force: bool) -> None:
        self.withdrawn += len(futures)


def units(count: int) -> list[tuple[int, Callable[[], Plain]]]:
    return [(number, partial(dict, value=number)) for number in range(count)]


def doubled(plain: Plain) -> Plain:
    return {"value": 2 * plain["value"]}


def test_two_units_per_thread_are_handed_over() -> None:
    scheduler, results = Scheduler(), {}
    for number, result in Dispatcher(scheduler, lambda _: None).run(doubled, units(50)):
        results[number] = result["value"]
        assert scheduler.handed_over <= len(results) + 3
    assert results == {number: 2 * number for number in range(50)}
    assert (scheduler.handed_over, scheduler.withdrawn) == (50, 0)


def test_units_that_are_not_wanted_any_more_are_withdrawn() -> None:
    scheduler = Scheduler()
    run = Dispatcher(scheduler, lambda _: None).run(doubled, units(50))
    next(run)
    run.close()  # type: ignore[attr-defined]
    assert (scheduler.handed_over, scheduler.withdrawn) == (4, 3)


@pytest.mark.parametrize(
    ("error", "sentence"),
    [
        (ModuleNotFoundError("No module named 'fullwaveform'"), "all machines must have the same"),
        (CancelledError(), "the connection to the scheduler is lost"),
    ],
)
def test_what_comes_back_in_place_of_data(error: BaseException, sentence: str) -> None:
    def failing(plain: Plain) -> Plain:
        raise error

    with pytest.raises(OSError, match=sentence):
        next(Dispatcher(Scheduler(), lambda _: None).run(failing, units(1)))


def test_the_scheduler_does_not_answer(monkeypatch: pytest.MonkeyPatch) -> None:
    def silent(self: Scheduler) -> dict[str, int]:
        raise OSError("closed")

    monkeypatch.setattr(Scheduler, "ncores", silent)
    with pytest.raises(OSError, match="the connection to the scheduler is lost"):
        next(Dispatcher(Scheduler(), lambda _: None).run(doubled, units(1)))
