"""Map of the heights of echoes: a picture of their cells with axes, scale and colour bar."""

from __future__ import annotations

import base64
import io
import math
from dataclasses import dataclass
from html import escape

import matplotlib as mpl
import numpy as np
from matplotlib.image import imsave

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray
from fullwaveform.data.counting import counted
from fullwaveform.view.axes import Axes, degree_ratio
from fullwaveform.view.coordinate_system import CoordinateSystem
from fullwaveform.view.echo_raster import EchoRaster
from fullwaveform.view.svg_axes import axes_svg, upright_ticks
from fullwaveform.view.svg_scale import Scale

_PIXELS = 640  # of the longer side
_MARGIN = {"left": 110, "right": 150, "top": 20, "bottom": 60}
_MAX_MARK = 7  # pixels, of single echoes
_COVERED = 0.3  # share of the picture that the marks of few echoes cover
_FAR = 1.0  # distance of echoes that are left out, extents of the others
_HEIGHT_RANGE = (1.0, 99.0)  # percentiles at the ends of the colours
# The background is darker than every colour of the map.
_BACKGROUND = (32, 38, 45)
_COLOURS = ("viridis", 0.2, 1.0)
_STEPS = 96  # of the colours; few of them make a small file
_M_PER_DEGREE = 111_320.0  # of latitude


@dataclass(frozen=True)
class _Window:
    """Part of the plane that is drawn: its edges, and its size in pixels."""

    x: tuple[float, float]
    y: tuple[float, float]
    columns: int
    rows: int


def map_svg(raster: EchoRaster, system: CoordinateSystem) -> tuple[str, str]:
    """The map as SVG, and a line on what it does not show; both empty without placed echoes."""
    x, y, heights = raster.cells()
    if not len(x):
        return "", ""
    window, inside = _window(x, y, raster.size, system.axes)
    x, y, heights = x[inside], y[inside], heights[inside]
    low, high = (float(value) for value in np.percentile(heights, _HEIGHT_RANGE))
    if not high > low:
        low, high = low - 0.5, high + 0.5
    picture = _picture(window, raster.size, (x, y, heights), (low, high))
    svg = _with_axes(picture, window, (low, high), system, raster.placed)
    left_out = int(np.count_nonzero(~inside))
    note = f"Not shown: {counted(left_out, 'cell')} far from all others." if left_out else ""
    return svg, note


def _window(x: FloatArray, y: FloatArray, size: float, axes: Axes) -> tuple[_Window, BoolArray]:
    """The window of all cells but those far from the others, and which are in it."""
    edges = []
    inside = np.ones(len(x), np.bool_)
    for values in (x, y):
        first, last = np.percentile(values, (1.0, 99.0))
        reach = _FAR * (last - first) + size
        inside &= (values >= first - reach) & (values <= last + reach)
    for values in (x[inside], y[inside]):
        edges.append((float(values.min()) - size / 2, float(values.max()) + size / 2))
    shrink = degree_ratio(sum(edges[1]) / 2) if axes.is_geographic else 1.0
    width, height = (edges[0][1] - edges[0][0]) * shrink, edges[1][1] - edges[1][0]
    per_pixel = max(width, height) / _PIXELS
    columns, rows = (max(round(length / per_pixel), 80) for length in (width, height))
    return _Window(edges[0], edges[1], columns, rows), inside


def _picture(
    window: _Window,
    size: float,
    cells: tuple[FloatArray, FloatArray, FloatArray],
    height_range: tuple[float, float],
) -> bytes:
    """The cells in the colours of their heights, as PNG."""
    x, y, heights = cells
    left, top = _pixels(x, window.x, window.columns), _pixels(-y, _mirrored(window.y), window.rows)
    highest = np.full((window.rows, window.columns), -np.inf)
    np.maximum.at(highest, (top, left), heights)
    cell = size / (window.x[1] - window.x[0]) * window.columns
    few = math.sqrt(_COVERED * highest.size / len(x))
    highest = _widened(highest, int(max(min(few, _MAX_MARK), math.ceil(cell), 1)))
    low, high = height_range
    step = np.clip(np.nan_to_num((highest - low) / (high - low), neginf=0.0), 0.0, 1.0)
    colours = np.array(_colours(_STEPS), np.uint8)[np.rint(step * (_STEPS - 1)).astype(int)]
    colours[np.isneginf(highest)] = _BACKGROUND
    stream = io.BytesIO()
    imsave(stream, colours, format="png", metadata={"Software": "fullwaveform"})
    return stream.getvalue()


def _pixels(values: FloatArray, edges: tuple[float, float], count: int) -> IntArray:
    share = (values - edges[0]) / (edges[1] - edges[0])
    return np.clip((share * count).astype(np.int64), 0, count - 1)


def _mirrored(edges: tuple[float, float]) -> tuple[float, float]:
    return -edges[1], -edges[0]


def _widened(highest: FloatArray, size: int) -> FloatArray:
    """Each value as a square of `size` pixels around it; the higher one where two overlap."""
    for axis in (0, 1):
        found = highest.copy()
        for shift in range(-((size - 1) // 2), size // 2 + 1):
            moved = np.roll(highest, shift, axis)
            edge = slice(0, shift) if shift > 0 else slice(shift or len(moved) * 2, None)
            np.moveaxis(moved, axis, 0)[edge] = -np.inf
            found = np.maximum(found, moved)
        highest = found
    return highest


def _colours(count: int) -> list[list[int]]:
    """Red, green and blue from 0 to 255 of equal steps of height."""
    name, first, last = _COLOURS
    colours = mpl.colormaps[name](np.linspace(first, last, count))[:, :3]
    return np.rint(colours * 255).astype(int).tolist()  # type: ignore[no-any-return]


def _with_axes(
    picture: bytes,
    window: _Window,
    height_range: tuple[float, float],
    system: CoordinateSystem,
    echoes: int,
) -> str:
    left, top = _MARGIN["left"], _MARGIN["top"]
    right, bottom = left + window.columns, top + window.rows
    width, height = right + _MARGIN["right"], bottom + _MARGIN["bottom"]
    x, y = Scale(*window.x, left, right), Scale(*window.y, bottom, top)
    labels = [f"{axis['name']}, {axis['unit']}" for axis in system.axes.described]
    low, high = height_range
    described = (
        f"Map of {echoes:,} echoes from above, x {window.x[0]:.10g} to {window.x[1]:.10g}, "
        f"y {window.y[0]:.10g} to {window.y[1]:.10g}; heights {low:.2f} to {high:.2f}"
    )
    image = base64.b64encode(picture).decode("ascii")
    return (
        f'<svg class="map" viewBox="0 0 {width} {height}" role="img" '
        f'aria-label="{escape(described)}">'
        f'<image x="{left}" y="{top}" width="{window.columns}" height="{window.rows}" '
        f'href="data:image/png;base64,{image}"/>'
        f"{axes_svg(x, y, x.ticks(4), y.ticks(6))}"
        f'<text x="{(left + right) / 2:.0f}" y="{bottom + 40}" class="mid">'
        f"{escape(labels[0])}</text>"
        f'<text transform="translate(14 {(top + bottom) / 2:.0f})rotate(-90)" class="mid">'
        f"{escape(labels[1])}</text>"
        f"{_scale_bar(window, x, bottom, system.axes)}"
        f"{_colour_bar(right, top, bottom, height_range, labels[2])}"
        "</svg>"
    )


def _scale_bar(window: _Window, x: Scale, bottom: int, axes: Axes) -> str:
    """A bar of a round length, a fifth of the map or somewhat more, in its lower left corner."""
    extent, unit = window.x[1] - window.x[0], axes.described[0]["unit"]
    metres = 1.0
    if axes.is_geographic:
        metres = _M_PER_DEGREE * degree_ratio(sum(window.y) / 2)
        unit = "m"
    fifth = extent * metres / 5.0
    magnitude = 10.0 ** math.floor(math.log10(fifth))
    length = next(step * magnitude for step in (1, 2, 5, 10) if step * magnitude >= fifth)
    pixels = length / metres / extent * (x.stop - x.start)
    start, low = x.start + 14, bottom - 14
    return (
        f'<path class="scale" d="M{start} {low - 6}v6h{pixels:.1f}v-6"/>'
        f'<text class="scale mid" x="{start + pixels / 2:.1f}" y="{low - 10}">{length:g} '
        f"{escape(unit)}</text>"
    )


def _colour_bar(
    right: int,
    top: int,
    bottom: int,
    height_range: tuple[float, float],
    label: str,
) -> str:
    stops = _colours(9)
    gradient = "".join(
        f'<stop offset="{number / (len(stops) - 1):.3f}" stop-color="rgb({r},{g},{b})"/>'
        for number, (r, g, b) in enumerate(stops)
    )
    at = right + 24
    scale = Scale(*height_range, bottom, top)
    marks, numbers = upright_ticks(scale, at + 16, scale.ticks(6), 1)
    return (
        f'<linearGradient id="heights" x1="0" y1="1" x2="0" y2="0">{gradient}</linearGradient>'
        f'<rect x="{at}" y="{top}" width="16" height="{bottom - top}" fill="url(#heights)"/>'
        f'<path class="axes" d="{marks}"/>{numbers}'
        f'<text transform="translate({at + 110} {(top + bottom) / 2:.0f})rotate(-90)" '
        f'class="mid">{escape(label)}, of the highest echo</text>'
    )
