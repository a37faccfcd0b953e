"""Map of echoes whose places are known, read back from its picture."""

from __future__ import annotations

import base64
import io
import re

import numpy as np
import pytest
from matplotlib import image

from fullwaveform.view.axes import Axes
from fullwaveform.view.coordinate_system import CoordinateSystem
from fullwaveform.view.echo_raster import EchoRaster
from fullwaveform.view.map_svg import map_svg

PLANE = CoordinateSystem("", Axes.of(None))
DEGREES = CoordinateSystem(
    "WGS 84",
    Axes(
        [
            {"name": n, "unit": u}
            for n, u in (("longitude", "°"), ("latitude", "°"), ("height", "m"))
        ],
        True,
    ),
)


def drawn(
    x: list[float], y: list[float], z: list[float], system: CoordinateSystem = PLANE
) -> tuple[str, np.ndarray, str]:
    """The map, the pixels (rows, columns, 3) of its picture, and its note."""
    raster = EchoRaster(2.0**-7 if system is PLANE else 2.0**-22)
    raster.add(np.array(x), np.array(y), np.array(z))
    svg, note = map_svg(raster, system)
    found = re.search('base64,([^"]*)', svg)
    assert found is not None
    picture = image.imread(io.BytesIO(base64.b64decode(found[1])))[:, :, :3]
    return svg, np.round(picture * 255).astype(int), note


def middles(pixels: np.ndarray, colour: tuple[int, int, int]) -> tuple[float, float]:
    """Middle column and row of the pixels of a colour, as shares of the picture."""
    rows, columns = np.nonzero((abs(pixels - np.array(colour)) <= 1).all(axis=2))
    assert len(rows) > 0
    return columns.mean() / pixels.shape[1], rows.mean() / pixels.shape[0]


YELLOW, BLUE = (253, 231, 37), (65, 68, 135)  # ends of the colours


def test_echoes_are_at_their_places_in_the_colours_of_their_heights() -> None:
    """South west low, north east high, in a square of 100."""
    _, pixels, note = drawn(
        [0.0, 100.0, 0.0, 100.0], [0.0, 0.0, 100.0, 100.0], [0.0, 5.0, 5.0, 9.0]
    )
    assert pixels.shape == (640, 640, 3)
    assert middles(pixels, BLUE) == pytest.approx((0.0, 1.0), abs=0.02)
    assert middles(pixels, YELLOW) == pytest.approx((1.0, 0.0), abs=0.02)
    assert note == ""


def test_sides_have_the_ratio_of_the_area() -> None:
    _, pixels, _ = drawn([0.0, 100.0], [0.0, 25.0], [0.0, 1.0])
    assert pixels.shape[:2] == (160, 640)


def test_degrees_are_shortened_towards_the_pole() -> None:
    """At 60 degrees a degree of longitude is half as long as one of latitude."""
    svg, pixels, _ = drawn([10.0, 10.002], [59.999, 60.001], [0.0, 1.0], DEGREES)
    assert pixels.shape[:2] == (640, 320)
    for label in ("longitude, °", "latitude, °", "height, m, of the highest echo", " m</text>"):
        assert label in svg


def test_scale_bar_is_as_long_as_it_says() -> None:
    svg, pixels, _ = drawn([0.0, 100.0], [0.0, 100.0], [0.0, 1.0])
    found = re.search(r'class="scale" d="M[\d.]+ [\d.]+v6h([\d.]+)v-6"/><text[^>]*>([\d.]+) ', svg)
    assert found is not None
    length, units = float(found[1]), float(found[2])
    assert units == 50.0
    assert length / pixels.shape[1] == pytest.approx(units / 100.0, abs=0.001)


def test_far_echoes_are_left_out_and_counted() -> None:
    random = np.random.default_rng(1)
    near = random.uniform(0.0, 100.0, (2, 500))
    x, y = [*near[0], 1e6], [*near[1], -1e6]
    svg, pixels, note = drawn(x, y, [1.0] * 501)
    assert note == "Not shown: 1 cell far from all others."
    assert "Map of 501 echoes" in svg
    assert pixels.shape[0] == pytest.approx(640, abs=10)


def test_equal_places_and_heights() -> None:
    svg, pixels, _ = drawn([5.0, 5.0], [6.0, 6.0], [7.0, 7.0])
    assert pixels.shape == (640, 640, 3)
    assert "heights 6.50 to 7.50" in svg


def test_no_echoes_make_no_map() -> None:
    assert map_svg(EchoRaster(1.0), PLANE) == ("", "")
