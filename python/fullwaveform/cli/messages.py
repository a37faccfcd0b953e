"""What is told during a run: messages counted by kind, each shown only when asked for."""

from __future__ import annotations

import logging
from collections import Counter
from collections.abc import Iterator
from contextlib import contextmanager

import typer

from fullwaveform.core.messages import message_kind
from fullwaveform.io.base import WaveformReader


class _MessageCounter(logging.Handler):
    """Counts messages that differ in their numbers only as one kind."""

    def __init__(self, verbose: bool) -> None:
        super().__init__()
        self.kinds: Counter[str] = Counter()
        self._verbose = verbose

    def emit(self, record: logging.LogRecord) -> None:
        text = record.getMessage()
        self.kinds[message_kind(text)] += 1
        if self._verbose:
            told_to_people(text)


def told_to_people(sentence: str) -> None:
    """Write a line of a verbose run."""
    typer.echo(sentence, err=True)


def tell_unreadable(reader: WaveformReader, verbose: bool) -> None:
    """Have the reader tell each waveform that it leaves out, in a verbose run."""
    reader.on_unreadable = told_to_people if verbose else None


@contextmanager
def counted_messages(verbose: bool) -> Iterator[Counter[str]]:
    """Yield the messages of the ``with`` block by kind, their numbers left out."""
    logger = logging.getLogger("fullwaveform")
    handler = _MessageCounter(verbose)
    propagated, logger.propagate = logger.propagate, False
    logger.addHandler(handler)
    try:
        yield handler.kinds
    finally:
        logger.removeHandler(handler)
        logger.propagate = propagated
