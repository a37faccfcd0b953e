"""The library's console messages, passed on to Python's logging."""

from __future__ import annotations

import logging

from fullwaveform import _core

logger = logging.getLogger("fullwaveform")


def forward_messages() -> list[str]:
    """Logs what the library said on this thread since the last call, and returns it."""
    messages = _core.take_messages()
    for message in messages:
        logger.warning(message)
    return messages
