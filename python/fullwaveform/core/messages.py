"""The library's console messages, passed on to Python's logging."""

from __future__ import annotations

import logging
import re

from fullwaveform import _core

logger = logging.getLogger("fullwaveform")
_NUMBER = re.compile(r"\d+(\.\d+)?")


def message_kind(message: str) -> str:
    """The message without its numbers: those that differ in them only are of one kind."""
    return _NUMBER.sub("…", message)


def forward_messages() -> list[str]:
    """Logs what the library said on this thread since the last call, and returns it."""
    messages = _core.take_messages()
    for message in messages:
        logger.warning(message)
    return messages
