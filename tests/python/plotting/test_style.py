"""Formats and refusals of plot files."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from fullwaveform.plotting.histogram import draw_histogram
from fullwaveform.plotting.style import PLOT_ENDINGS


@pytest.mark.parametrize(
    ("name", "start"), [("a.png", b"\x89PNG"), ("a.pdf", b"%PDF"), ("a.SVG", b"<?xml")]
)
def test_ending_selects_the_format(tmp_path: Path, name: str, start: bytes) -> None:
    draw_histogram(tmp_path / name, [1.0, 2.0], title="title", label="label")
    assert (tmp_path / name).read_bytes().startswith(start)
    assert [entry.name for entry in tmp_path.iterdir()] == [name]


@pytest.mark.parametrize("ending", PLOT_ENDINGS)
def test_equal_plots_are_equal_files(tmp_path: Path, ending: str) -> None:
    paths = [tmp_path / f"{name}{ending}" for name in "ab"]
    for path in paths:
        draw_histogram(path, [1.0, 2.0], title="title", label="label")
    assert paths[0].read_bytes() == paths[1].read_bytes()
    assert not re.search(rb"CreationDate|<dc:date>", paths[0].read_bytes())


def test_unknown_ending_is_refused(tmp_path: Path) -> None:
    with pytest.raises(ValueError, match=r"unknown plot format 'a\.bmp'; use \.png, \.pdf, \.svg"):
        draw_histogram(tmp_path / "a.bmp", [1.0], title="title", label="label")
    assert list(tmp_path.iterdir()) == []
