"""Small parts of the records on disk."""

from __future__ import annotations

import pytest

from fullwaveform.analysis import record_files


@pytest.fixture
def parts_of_two(monkeypatch: pytest.MonkeyPatch) -> None:
    """Two records are sorted, read and merged at a time."""
    for name in ("_BLOCK_ROWS", "_RUN_ROWS", "_MIN_ROWS"):
        monkeypatch.setattr(record_files, name, 2)
