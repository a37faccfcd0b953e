"""The library's messages of one thread, counted by kind."""

from __future__ import annotations

import logging
import threading
from collections import Counter
from collections.abc import Iterator
from contextlib import contextmanager

from fullwaveform.core.messages import logger, message_kind

_own = threading.local()


@contextmanager
def messages_of_this_thread() -> Iterator[Counter[str]]:
    """Yield the messages of the ``with`` block by kind; they go nowhere else.

    Messages of other threads, which may work on units of their own, are left alone.
    """
    logger.addFilter(_count)
    _own.kinds = kinds = Counter[str]()
    try:
        yield kinds
    finally:
        del _own.kinds


def _count(record: logging.LogRecord) -> bool:
    """Count a message where its thread wants that; else let it pass. Stays with the logger."""
    kinds: Counter[str] | None = getattr(_own, "kinds", None)
    if kinds is None:
        return True
    kinds[message_kind(record.getMessage())] += 1
    return False
