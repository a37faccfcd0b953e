"""Size and marks of the plot of a scan in examples/python."""

from __future__ import annotations

import sys
from dataclasses import replace
from pathlib import Path

import numpy as np
from matplotlib import image
from matplotlib.figure import Figure

sys.path.insert(0, str(Path(__file__).resolve().parents[3] / "examples" / "python"))
from scan_overview import Waveform, draw_overview, draw_side_view, draw_waveform

sys.path.pop(0)

WAVEFORM = Waveform(
    samples=np.array([10] * 20 + [20, 100, 20] + [10] * 17, dtype=np.uint16),
    threshold=14.0,
    positions=np.array([21.0, 30.0]),
    amplitudes=np.array([100.0, 50.0]),
    widths=np.array([0.7, 2.0]),
    title="Two echoes",
)
XYZ = np.array([[0.0, 0.0, 5.0], [3.0, 4.0, 6.0], [30.0, 40.0, 7.0]])
AMPLITUDE = np.array([10.0, 30.0, 20.0])


def share_of_colour(pixels: np.ndarray, rgb: tuple[int, int, int]) -> float:
    """Share of the pixels within 6 of 255 of a colour."""
    close = np.abs(pixels[..., :3] * 255.0 - np.array(rgb)).max(axis=-1) < 6.0
    return float(close.mean())


def test_overview_has_the_requested_size_and_echo_marks(tmp_path: Path) -> None:
    path = tmp_path / "overview.png"
    draw_overview(path, [WAVEFORM, WAVEFORM, WAVEFORM], XYZ, AMPLITUDE)
    pixels = image.imread(path)
    assert pixels.shape == (700, 1600, 4)
    left, right = pixels[:, :700], pixels[:, 760:]
    echo = (0xC8, 0x50, 0x1E)
    assert share_of_colour(left, echo) > 0.001
    assert share_of_colour(right, echo) == 0.0
    assert share_of_colour(right, (0x44, 0x01, 0x54)) > 0.0005  # weakest end of the colours
    assert [entry.name for entry in tmp_path.iterdir()] == ["overview.png"]


def test_echo_marks_are_at_position_amplitude_and_width() -> None:
    axes = Figure().subplots()
    draw_waveform(axes, WAVEFORM)
    lines = {line.get_label(): np.asarray(line.get_xydata()) for line in axes.get_lines()}
    assert len(lines["samples"]) == 40
    assert lines["samples"][:, 1].max() == 100.0
    assert lines["threshold"][:, 1].tolist() == [14.0, 14.0]
    assert lines["echo, amplitude and width"].tolist() == [[21.0, 100.0], [30.0, 50.0]]
    bars = [segment for part in axes.collections if hasattr(part, "get_segments")
            for segment in part.get_segments()]  # fmt: skip
    across = [bar for bar in bars if bar[0][1] == bar[1][1]]
    np.testing.assert_allclose(across[0], [[20.3, 60.653], [21.7, 60.653]], atol=1e-3)
    np.testing.assert_allclose(across[1], [[28.0, 30.327], [32.0, 30.327]], atol=1e-3)
    assert axes.get_title(loc="left") == "Two echoes"


def test_long_waveform_is_cropped_to_its_echoes() -> None:
    axes = Figure().subplots()
    samples = np.full(400, 10, dtype=np.uint16)
    draw_waveform(axes, replace(WAVEFORM, samples=samples, positions=np.array([100.0, 180.0])))
    assert axes.get_xlim() == (84.5, 195.5)


def test_waveform_without_echoes_is_not_cropped() -> None:
    axes = Figure().subplots()
    none = np.empty(0)
    draw_waveform(axes, replace(WAVEFORM, positions=none, amplitudes=none, widths=none))
    assert axes.get_xlim() == (-0.5, 39.5)


def test_side_view_measures_along_the_profile() -> None:
    axes = Figure().subplots()
    draw_side_view(axes, XYZ, AMPLITUDE)
    cloud = axes.collections[0]
    # All on one line: 0, 5 and 50 m from its start; the strongest is drawn last.
    np.testing.assert_allclose(
        np.asarray(cloud.get_offsets()), [[0, 5], [50, 7], [5, 6]], atol=1e-9
    )
    assert np.asarray(cloud.get_array()).tolist() == [10.0, 20.0, 30.0]
