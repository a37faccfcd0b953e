"""Processing of blocks in one or several threads, with results in the order of the blocks."""

from __future__ import annotations

import threading
from collections import deque
from collections.abc import Callable, Generator, Iterable, Iterator
from concurrent.futures import Future, ThreadPoolExecutor
from contextlib import contextmanager
from typing import Any, TypeVar

from fullwaveform.data.blocks import WaveformBlock

_Item = TypeVar("_Item")
_Processed = TypeVar("_Processed")

_MAX_BEHIND = 2  # items that wait or are worked on


def checked_workers(workers: int) -> int:
    """A number of threads; ValueError if it is invalid."""
    if isinstance(workers, bool) or not isinstance(workers, int) or workers < 1:
        raise ValueError(f"invalid workers {workers!r}; expected an integer of at least 1")
    return workers


def processed_in_order(
    blocks: Iterable[WaveformBlock],
    new_worker: Callable[[], Callable[[WaveformBlock], _Processed]],
    workers: int,
    on_failure: Callable[[], Any] = lambda: None,
) -> Generator[_Processed]:
    """Process blocks in `workers` threads; yields the results in the order of the blocks.

    Each thread calls `new_worker` once and its result for each block. At most ``workers + 1``
    blocks are in memory. `on_failure` is called after an error, or when the generator is closed,
    before the threads are awaited.
    """
    if workers == 1:
        process = new_worker()
        for block in blocks:
            yield process(block)
        return
    thread = threading.local()

    def in_thread(block: WaveformBlock) -> _Processed:
        if not hasattr(thread, "process"):
            thread.process = new_worker()
        processed: _Processed = thread.process(block)
        return processed

    pool = ThreadPoolExecutor(workers, thread_name_prefix="extraction")
    pending: deque[Future[_Processed]] = deque()
    try:
        for block in blocks:
            pending.append(pool.submit(in_thread, block))
            if len(pending) > workers:
                yield pending.popleft().result()
        while pending:
            yield pending.popleft().result()
    except BaseException:
        on_failure()
        raise
    finally:
        pool.shutdown(wait=True, cancel_futures=True)


@contextmanager
def worked_behind(work: Callable[[_Item], object]) -> Iterator[Callable[[_Item], None]]:
    """Yield a function that hands an item to a thread, which calls `work` on one after the other.

    The function waits while two items are not finished. It raises what `work` raised on an earlier
    item, as does the end of the ``with`` statement, which waits for all items. After an exception
    the items that wait are dropped.
    """
    pool = ThreadPoolExecutor(1, thread_name_prefix="writing")
    behind: deque[Future[object]] = deque()
    has_failed = False

    def work_unless_failed(item: _Item) -> None:
        nonlocal has_failed
        if has_failed:  # the next item may begin before its future can be cancelled
            return
        try:
            work(item)
        except BaseException:
            has_failed = True
            raise

    def hand_over(item: _Item) -> None:
        while behind and (len(behind) == _MAX_BEHIND or behind[0].done()):
            behind.popleft().result()
        behind.append(pool.submit(work_unless_failed, item))

    try:
        yield hand_over
        while behind:
            behind.popleft().result()
    finally:
        pool.shutdown(wait=True, cancel_futures=True)
