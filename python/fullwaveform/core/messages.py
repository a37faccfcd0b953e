"""Console messages of the library: passed on to Python's logging, and counted."""

from __future__ import annotations

import logging
import re
import threading
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import contextmanager

from fullwaveform import _core

logger = logging.getLogger("fullwaveform")
_NUMBER = re.compile(r"\d+(\.\d+)?")
_filters_lock = threading.Lock()


def forward_messages() -> list[str]:
    """Log the messages of this thread since the last call, and return them."""
    messages = _core.take_messages()
    for message in messages:
        logger.warning(message)
    return messages


@contextmanager
def counted_messages(
    each: Callable[[str], None] | None = None, *, own_thread: bool = False
) -> Iterator[Counter[str]]:
    """Yield a counter of the messages logged in the block, by text without numbers.

    Counted messages go to `each` and to no handler. With `own_thread` those of other threads are
    neither counted nor held back.
    """
    kinds = Counter[str]()
    thread = threading.get_ident()

    def count(record: logging.LogRecord) -> bool:
        if own_thread and threading.get_ident() != thread:
            return True
        text = record.getMessage()
        kinds[_NUMBER.sub("…", text)] += 1
        if each is not None:
            each(text)
        return False

    # The list is replaced, not changed: other threads may be iterating over it.
    with _filters_lock:
        logger.filters = [*logger.filters, count]
    try:
        yield kinds
    finally:
        with _filters_lock:
            logger.filters = [one for one in logger.filters if one is not count]
