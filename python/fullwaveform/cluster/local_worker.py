"""Loaded by the workers of a local cluster when they start."""

from __future__ import annotations

from typing import Any

from fullwaveform.cluster.executors import ignore_keyboard_interrupts


def dask_setup(worker: Any) -> None:
    """Leave Ctrl-C to the main process."""
    ignore_keyboard_interrupts()
