"""Keeps Python's garbage collector from blocking the threads that serve remote reads."""

from __future__ import annotations

import asyncio
import gc
import sys
import threading


class _CollectorPause:
    """Pauses the garbage collector of Python inside ``with`` statements, in any thread.

    h5py holds a lock while it reads from a file object. If the collector ran in the thread that
    serves the requests and found an object of h5py there, that thread would wait for this lock, and
    so for itself.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._count = 0
        self._was_enabled = True

    def __enter__(self) -> None:
        with self._lock:
            if self._count == 0:
                self._was_enabled = gc.isenabled()
                gc.disable()
            self._count += 1

    def __exit__(self, *error: object) -> None:
        with self._lock:
            self._count -= 1
            if self._count == 0 and self._was_enabled:
                gc.enable()


collector_pause = _CollectorPause()


def _spare_request_thread(phase: str, info: object) -> None:
    """Leave nothing to collect when Python starts its collector in fsspec's thread.

    h5py keeps its lock between two reads, too. Objects that are frozen are not looked at; they are
    left for the next collection in another thread.
    """
    try:
        loop = asyncio.get_running_loop()
    except RuntimeError:
        return
    requests = getattr(sys.modules.get("fsspec.asyn"), "loop", [None])[0]
    if loop is requests:
        if phase == "start":
            gc.freeze()
        else:
            gc.unfreeze()


gc.callbacks.append(_spare_request_thread)
