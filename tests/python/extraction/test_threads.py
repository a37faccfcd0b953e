"""Work of a thread behind that of the caller: order, bound, exceptions."""

from __future__ import annotations

import threading
from concurrent.futures import ThreadPoolExecutor

import pytest

from fullwaveform.extraction.threads import worked_behind

from ..support.child_processes import TIMEOUT_S


def test_items_are_worked_on_in_order_by_another_thread() -> None:
    done: list[tuple[int, int]] = []
    with worked_behind(lambda item: done.append((item, threading.get_ident()))) as hand_over:
        for item in range(50):
            hand_over(item)
    assert [item for item, _ in done] == list(range(50))
    assert {thread for _, thread in done}.isdisjoint({threading.get_ident()})
    assert len({thread for _, thread in done}) == 1


def test_caller_waits_while_two_items_are_not_finished() -> None:
    may_work, done = threading.Semaphore(0), []

    def work(item: int) -> None:
        assert may_work.acquire(timeout=TIMEOUT_S)
        done.append(item)

    with worked_behind(work) as hand_over:
        hand_over(0)
        hand_over(1)
        releaser = threading.Timer(0.05, may_work.release)
        releaser.start()
        hand_over(2)  # returns when the first item is finished
        assert done == [0]
        may_work.release(2)
    assert done == [0, 1, 2]


def test_exception_is_raised_at_the_next_item_and_later_items_are_dropped() -> None:
    done, failed = [], threading.Event()

    def work(item: int) -> None:
        if item == 1:
            failed.set()
            raise OSError("disk full")
        done.append(item)

    def run() -> None:
        with worked_behind(work) as hand_over:
            for item in range(100):
                hand_over(item)
            pytest.fail("the exception was not raised")

    with pytest.raises(OSError, match="disk full"):
        run()
    assert failed.is_set()
    assert done == [0]


def test_exception_at_the_last_item_is_raised_at_the_end() -> None:
    def work(item: int) -> None:
        raise OSError(f"item {item}")

    with pytest.raises(OSError, match="item 7"), worked_behind(work) as hand_over:
        hand_over(7)


def test_exception_of_the_caller_waits_for_the_current_item_only(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    started, may_end, done = threading.Event(), threading.Event(), []
    shutdown = ThreadPoolExecutor.shutdown

    def cancel_and_let_end(pool: ThreadPoolExecutor, wait: bool, cancel_futures: bool) -> None:
        assert wait
        shutdown(pool, wait=False, cancel_futures=cancel_futures)
        may_end.set()
        shutdown(pool)

    def work(item: int) -> None:
        started.set()
        assert may_end.wait(TIMEOUT_S)
        done.append(item)

    def run() -> None:
        with worked_behind(work) as hand_over:
            hand_over(0)
            hand_over(1)
            assert started.wait(TIMEOUT_S)
            raise KeyboardInterrupt

    monkeypatch.setattr(ThreadPoolExecutor, "shutdown", cancel_and_let_end)
    with pytest.raises(KeyboardInterrupt):
        run()
    assert done == [0]
