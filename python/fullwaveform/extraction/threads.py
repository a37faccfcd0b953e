"""Processing of blocks in one or several threads, with results in the order of the blocks."""

from __future__ import annotations

import threading
from collections import deque
from collections.abc import Callable, Generator, Iterable
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Any, TypeVar

from fullwaveform.data.blocks import WaveformBlock

_Processed = TypeVar("_Processed")


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
