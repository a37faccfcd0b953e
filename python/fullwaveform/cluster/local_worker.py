"""Loaded by the workers of a local cluster when they start."""

from __future__ import annotations

import signal
from typing import Any


def dask_setup(worker: Any) -> None:
    """Ignore Ctrl-C, which a terminal sends to all its processes; the main process handles it."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
