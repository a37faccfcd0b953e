"""Reads of parts of a file in any order, and from files truncated meanwhile."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io import file_bytes
from fullwaveform.io.file_bytes import FileBytes


@pytest.fixture
def noise(tmp_path: Path) -> tuple[Path, bytes]:
    content = np.random.default_rng(5).integers(0, 256, 300_000, dtype=np.uint8).tobytes()
    path = tmp_path / "noise.bin"
    path.write_bytes(content)
    return path, content


@pytest.mark.parametrize("at_a_time", [1 << 24, 1000, 1])
@pytest.mark.parametrize("width", [1, 7, 160, 5000])
def test_rows_are_read_in_any_order(
    noise: tuple[Path, bytes], width: int, at_a_time: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Close and distant offsets, some repeated or overlapping, with the last byte."""
    monkeypatch.setattr(file_bytes, "_READ_SIZE", at_a_time)
    path, content = noise
    places = np.random.default_rng(6).integers(0, len(content) - 50 - width, 60)
    places = np.concatenate([places, places[:9] + 3, places[:4], [len(content) - 50 - width, 0]])
    data = FileBytes(path, start=50)
    rows = data.rows(places, width)
    assert rows.flags.c_contiguous
    assert [bytes(row) for row in rows] == [
        content[50 + place : 50 + place + width] for place in places
    ]
    data.close()
    data.close()


def test_read_of_no_rows_is_empty(noise: tuple[Path, bytes]) -> None:
    data = FileBytes(noise[0], 10, 20)
    assert data.size == 10
    assert data.rows(np.zeros(0, np.int64), 5).shape == (0, 5)
    assert data.rows(np.array([3, 10]), 0).shape == (2, 0)
    data.close()


def test_file_truncated_while_open_is_an_error(noise: tuple[Path, bytes]) -> None:
    path, content = noise
    data = FileBytes(path)
    assert data.size == len(content)
    with path.open("r+b") as stream:
        stream.truncate(1000)
    assert bytes(data.rows(np.array([990]), 10)[0]) == content[990:1000]
    with pytest.raises(WaveformFileError, match=r"noise\.bin was truncated while it was read"):
        data.rows(np.array([990]), 11)
    data.close()
