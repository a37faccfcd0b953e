"""Memory of the process."""

from __future__ import annotations

from fullwaveform import _core


def keep_freed_memory() -> None:
    """Let the process keep the memory that it frees, up to 128 MB for each thread.

    For commands that work on one block after the other: only the first blocks touch new pages.
    No effect with other C libraries than glibc.
    """
    _core.keep_freed_memory()
