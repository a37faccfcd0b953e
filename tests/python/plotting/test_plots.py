"""Size, marks and refusals of the pictures."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
from matplotlib import image
from matplotlib.figure import Figure

from fullwaveform.plotting.plots import (
    WaveformPicture,
    draw_overview,
    draw_side_view,
    draw_waveform,
)

WAVEFORM = WaveformPicture(
    samples=np.array([10] * 20 + [20, 100, 20] + [10] * 17 + [999] * 40, dtype=np.uint16),
    count=40,
    threshold=14.0,
    positions=np.array([21.0, 30.0]),
    amplitudes_counts=np.array([100.0, 50.0]),
    widths_samples=np.array([0.7, 2.0]),
    title="One echo",
)
XYZ = np.array([[0.0, 0.0, 5.0], [3.0, 4.0, 6.0], [30.0, 40.0, 7.0]])
LEVEL = np.array([10.0, 30.0, 20.0])


def share_of_colour(pixels: np.ndarray, rgb: tuple[int, int, int]) -> float:
    """Share of the pixels within 6 of 255 of a colour."""
    close = np.abs(pixels[..., :3] * 255.0 - np.array(rgb)).max(axis=-1) < 6.0
    return float(close.mean())


def test_picture_has_its_size_and_its_marks(tmp_path: Path) -> None:
    path = tmp_path / "overview.png"
    draw_overview(path, [WAVEFORM, WAVEFORM, WAVEFORM], XYZ, LEVEL)
    pixels = image.imread(path)
    assert pixels.shape == (700, 1600, 4)
    left, right = pixels[:, :700], pixels[:, 760:]
    echo = (0xC8, 0x50, 0x1E)
    assert share_of_colour(left, echo) > 0.001
    assert share_of_colour(right, echo) == 0.0
    assert share_of_colour(right, (0x44, 0x01, 0x54)) > 0.0005  # weakest end of the colours
    assert [entry.name for entry in tmp_path.iterdir()] == ["overview.png"]


@pytest.mark.parametrize(("name", "start"), [("a.pdf", b"%PDF"), ("a.SVG", b"<?xml")])
def test_ending_chooses_the_format(tmp_path: Path, name: str, start: bytes) -> None:
    draw_overview(tmp_path / name, [WAVEFORM], XYZ, LEVEL)
    assert (tmp_path / name).read_bytes().startswith(start)


def test_echo_marks_stand_where_they_should() -> None:
    axes = Figure().subplots()
    draw_waveform(axes, WAVEFORM)
    lines = {line.get_label(): np.asarray(line.get_xydata()) for line in axes.get_lines()}
    assert len(lines["samples"]) == 40  # nothing behind the count
    assert lines["samples"][:, 1].max() == 100.0
    assert lines["threshold"][:, 1].tolist() == [14.0, 14.0]
    assert lines["echo, amplitude and width"].tolist() == [[21.0, 100.0], [30.0, 50.0]]
    bars = [segment for part in axes.collections if hasattr(part, "get_segments")
            for segment in part.get_segments()]  # fmt: skip
    across = [bar for bar in bars if bar[0][1] == bar[1][1]]
    np.testing.assert_allclose(across[0], [[20.3, 60.653], [21.7, 60.653]], atol=1e-3)
    np.testing.assert_allclose(across[1], [[28.0, 30.327], [32.0, 30.327]], atol=1e-3)
    assert axes.get_title(loc="left") == "One echo"


def test_long_record_is_shown_around_its_echoes() -> None:
    axes = Figure().subplots()
    long = replace(
        WAVEFORM, samples=np.full(400, 10, dtype=np.uint16), count=400,
        positions=np.array([100.0, 180.0]),
    )  # fmt: skip
    draw_waveform(axes, long)
    assert axes.get_xlim() == (84.5, 195.5)


def test_waveform_without_echo_is_shown_whole() -> None:
    axes = Figure().subplots()
    none = np.empty(0)
    draw_waveform(
        axes, replace(WAVEFORM, positions=none, amplitudes_counts=none, widths_samples=none)
    )
    assert axes.get_xlim() == (-0.5, 39.5)


def test_side_view_measures_along_the_profile() -> None:
    axes = Figure().subplots()
    draw_side_view(axes, XYZ, LEVEL, "side")
    cloud = axes.collections[0]
    # All on one line: 0, 5 and 50 m from its start; the strongest is drawn last.
    np.testing.assert_allclose(
        np.asarray(cloud.get_offsets()), [[0, 5], [50, 7], [5, 6]], atol=1e-9
    )
    assert np.asarray(cloud.get_array()).tolist() == [10.0, 20.0, 30.0]


def test_points_that_are_not_finite_are_left_out(tmp_path: Path) -> None:
    xyz = np.vstack([XYZ, [[np.nan, 0.0, 0.0], [1e9, 1e9, np.inf]]])
    draw_overview(tmp_path / "with.png", [WAVEFORM], xyz, [*LEVEL, 1.0, 2.0])
    draw_overview(tmp_path / "less.png", [WAVEFORM], XYZ, LEVEL)
    np.testing.assert_array_equal(
        image.imread(tmp_path / "with.png"), image.imread(tmp_path / "less.png")
    )


def test_no_points_still_give_a_picture(tmp_path: Path) -> None:
    draw_overview(tmp_path / "none.png", [WAVEFORM], np.empty((0, 3)), [])
    assert image.imread(tmp_path / "none.png").shape == (700, 1600, 4)


def test_what_does_not_fit_is_refused(tmp_path: Path) -> None:
    path = tmp_path / "a.png"
    with pytest.raises(ValueError, match=r"a\.bmp"):
        draw_overview(tmp_path / "a.bmp", [WAVEFORM], XYZ, LEVEL)
    with pytest.raises(ValueError, match="at least one waveform"):
        draw_overview(path, [], XYZ, LEVEL)
    with pytest.raises(ValueError, match=r"\(3, 2\)"):
        draw_overview(path, [WAVEFORM], XYZ[:, :2], LEVEL)
    with pytest.raises(ValueError, match="count 81"):
        draw_overview(path, [replace(WAVEFORM, count=81)], XYZ, LEVEL)
    with pytest.raises(ValueError, match="differ in length"):
        draw_overview(path, [replace(WAVEFORM, positions=np.zeros(3))], XYZ, LEVEL)
    assert list(tmp_path.iterdir()) == []
