"""Pictures of waveforms with their echoes and of the points they give."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import numpy.typing as npt
from matplotlib import colormaps
from matplotlib.axes import Axes
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.colors import ListedColormap
from matplotlib.figure import Figure, SubFigure
from matplotlib.ticker import MaxNLocator

from fullwaveform.data.arrays import FloatArray
from fullwaveform.io.atomic import atomic_open

SIZE_INCHES = (10.0, 4.375)
HISTOGRAM_INCHES = (6.4, 4.0)
DOTS_PER_INCH = 160
_INK, _GREY, _FAINT = "#1f2a36", "#7b8794", "#e4e8ec"
_SIGNAL, _ECHO = "#2f6690", "#c8501e"
# Without the lightest yellow, which would vanish on paper.
_COLOURS = ListedColormap(colormaps["viridis"](np.linspace(0.0, 0.93, 256)))
_MARGIN, _SHORTEST_VIEW = 15.0, 50.0  # samples
_HALF_BAR_HEIGHT = float(np.exp(-0.5))  # a Gaussian has this share of its top at one width
_FORMATS = {".png": "png", ".pdf": "pdf", ".svg": "svg"}
#: What the name of a picture may end in.
PLOT_ENDINGS = tuple(_FORMATS)


@dataclass(frozen=True, slots=True)
class WaveformPicture:
    """A waveform and its echoes, as a picture needs them."""

    samples: npt.NDArray[np.uint16]  # (width,), counts
    count: int  # valid samples; what lies behind them is not drawn
    threshold: float  # counts
    positions: FloatArray  # (m,), samples
    amplitudes_counts: FloatArray  # (m,), from 0, as the extraction gives them
    widths_samples: FloatArray  # (m,), standard deviations
    title: str


def draw_overview(
    path: Path | str,
    waveforms: Sequence[WaveformPicture],
    xyz: npt.ArrayLike,
    amplitude_db: npt.ArrayLike,
    *,
    title: str = "Extracted echoes, seen from the side",
) -> None:
    """Example waveforms with their echoes, beside a side view of the points: 1600 x 700 pixels.

    The side view looks along the horizontal direction in which the points spread least. Points
    (n, 3) in m and amplitudes (n,) in dB; points that are not finite are left out. The ending of
    the name, `.png`, `.pdf` or `.svg`, chooses the format; the file appears when it is whole.

    Raises ValueError for another ending, no waveform or shapes that do not fit together, OSError
    when the file cannot be written.
    """
    path = Path(path)
    if path.suffix.lower() not in _FORMATS:
        raise ValueError(f"{path.name!r} does not end in one of {', '.join(_FORMATS)}")
    points, level = _checked_points(xyz, amplitude_db)
    if not waveforms:
        raise ValueError("an overview needs at least one waveform")
    figure = Figure(figsize=SIZE_INCHES, dpi=DOTS_PER_INCH, layout="constrained")
    FigureCanvasAgg(figure)
    grid = figure.add_gridspec(1, 2, width_ratios=(1.0, 1.25), wspace=0.02)
    left, right = figure.add_subfigure(grid[0, 0]), figure.add_subfigure(grid[0, 1])
    axes = left.subplots(len(waveforms), 1, squeeze=False)[:, 0]
    for waveform, at in zip(waveforms, axes, strict=True):
        draw_waveform(at, waveform)
    _add_legend(left, axes[0])
    axes[-1].set_xlabel("sample", fontsize=8, color=_INK)
    left.supylabel("digitiser counts", fontsize=8, color=_INK)
    draw_side_view(right.subplots(), points, level, title)
    _save(figure, path)


def draw_histogram(path: Path | str, values: npt.ArrayLike, *, title: str, label: str) -> None:
    """Histogram of the values with their median; the bulk of them sets its range.

    Values that are not finite are left out; without any the page says so. The ending of the name
    chooses the format as in `draw_overview`, with the same errors.
    """
    path = Path(path)
    if path.suffix.lower() not in _FORMATS:
        raise ValueError(f"{path.name!r} does not end in one of {', '.join(_FORMATS)}")
    numbers = np.asarray(values, dtype=np.float64).ravel()
    numbers = numbers[np.isfinite(numbers)]
    figure = Figure(figsize=HISTOGRAM_INCHES, dpi=DOTS_PER_INCH, layout="constrained")
    FigureCanvasAgg(figure)
    axes = figure.subplots()
    if numbers.size:
        median = float(np.median(numbers))
        axes.hist(numbers, bins=_bins(numbers).tolist(), color=_SIGNAL, alpha=0.85)
        axes.axvline(median, color=_ECHO, linewidth=1.2, label=f"median {median:+.3f}")
        axes.legend(fontsize=7, frameon=False)
    else:
        axes.text(0.5, 0.5, "no values", transform=axes.transAxes, ha="center", color=_GREY)
    axes.set_title(title, fontsize=9, loc="left", color=_INK)
    axes.set_xlabel(label, fontsize=8, color=_INK)
    axes.set_ylabel("count", fontsize=8, color=_INK)
    _style(axes)
    _save(figure, path)


def _bins(numbers: FloatArray) -> FloatArray:
    """Sixty bins over all but the outermost values, which would squeeze the others together."""
    low, high = np.percentile(numbers, (0.5, 99.5))
    if high <= low:
        low, high = low - 0.5, high + 0.5
    edges: FloatArray = np.linspace(low, high, 61)
    return edges


def draw_waveform(axes: Axes, waveform: WaveformPicture) -> None:
    """Samples as steps, the threshold, and for each echo a stem with a bar of its width.

    The bar reaches one standard deviation to either side, at the height where a Gaussian is that
    wide. Of a long record only the part around its echoes is shown. Raises ValueError when the
    columns of the echoes differ in length or the count exceeds the samples.
    """
    _check_waveform(waveform)
    values = np.asarray(waveform.samples[: waveform.count], dtype=np.float64)
    index = np.arange(len(values))
    axes.fill_between(index, values, step="mid", color=_SIGNAL, alpha=0.16, linewidth=0)
    axes.step(index, values, where="mid", color=_SIGNAL, linewidth=0.9, label="samples")
    axes.axhline(
        waveform.threshold, color=_INK, linewidth=0.8, linestyle=(0, (4, 2)), label="threshold"
    )
    position, top = np.asarray(waveform.positions), np.asarray(waveform.amplitudes_counts)
    width = np.asarray(waveform.widths_samples)
    height = top * _HALF_BAR_HEIGHT
    axes.vlines(position, 0.0, top, color=_ECHO, linewidth=0.9)
    axes.hlines(height, position - width, position + width, color=_ECHO, linewidth=1.6)
    axes.plot(position, top, "o", color=_ECHO, markersize=3.6, label="echo, amplitude and width")
    highest = max([float(values.max(initial=1.0)), waveform.threshold, *top.tolist()])
    axes.set_ylim(0.0, 1.22 * highest)
    axes.set_xlim(_shown_samples(len(values), position))
    axes.yaxis.set_major_locator(MaxNLocator(3, integer=True))
    axes.set_title(waveform.title, loc="left", fontsize=8.5, color=_INK, pad=3)
    _style(axes)


def draw_side_view(axes: Axes, xyz: FloatArray, amplitude_db: FloatArray, title: str) -> None:
    """Points by height and by distance along their longest horizontal extent, coloured by dB.

    Points (n, 3) in m, finite; the weak points are drawn first so that none hides a strong one.
    """
    distance = _distance_along(xyz[:, :2])
    order = np.argsort(amplitude_db, kind="stable")
    low, high = _colour_range(amplitude_db)
    size = float(np.clip(9000.0 / max(len(order), 1), 0.6, 9.0))
    cloud = axes.scatter(
        distance[order],
        xyz[order, 2],
        c=amplitude_db[order],
        s=size,
        cmap=_COLOURS,
        vmin=low,
        vmax=high,
        linewidths=0,
        rasterized=True,
    )
    axes.set_xlabel("distance along the profile [m]", fontsize=8, color=_INK)
    axes.set_ylabel("height [m]", fontsize=8, color=_INK)
    axes.set_title(title, loc="left", fontsize=8.5, color=_INK, pad=3)
    axes.margins(x=0.02, y=0.06)
    _style(axes)
    axes.grid(color=_FAINT, linewidth=0.6)
    axes.set_axisbelow(True)
    bar = axes.figure.colorbar(cloud, ax=axes, pad=0.02, fraction=0.05, aspect=32, extend="both")
    bar.set_label("amplitude [dB]", fontsize=8, color=_INK)
    bar.ax.tick_params(labelsize=7, colors=_INK, length=2)
    bar.outline.set_visible(False)


def _checked_points(
    xyz: npt.ArrayLike, amplitude_db: npt.ArrayLike
) -> tuple[FloatArray, FloatArray]:
    points, level = np.asarray(xyz, dtype=np.float64), np.asarray(amplitude_db, dtype=np.float64)
    if points.ndim != 2 or points.shape[1] != 3 or level.shape != points.shape[:1]:
        raise ValueError(
            f"points {points.shape} and amplitudes {level.shape} must have the shapes (n, 3), (n,)"
        )
    finite = np.isfinite(points).all(axis=1) & np.isfinite(level)
    return points[finite], level[finite]


def _check_waveform(waveform: WaveformPicture) -> None:
    if not 0 <= waveform.count <= len(waveform.samples):
        raise ValueError(
            f"count {waveform.count} of {waveform.title!r} exceeds its "
            f"{len(waveform.samples)} samples"
        )
    echoes = (waveform.positions, waveform.amplitudes_counts, waveform.widths_samples)
    if len({len(column) for column in echoes}) != 1:
        raise ValueError(f"the echo columns of {waveform.title!r} differ in length")


def _shown_samples(count: int, positions: FloatArray) -> tuple[float, float]:
    """The echoes with some samples to either side, at least 50 samples, all without an echo."""
    inside = positions[np.isfinite(positions)]
    if len(inside) == 0:
        return -0.5, max(count, 1) - 0.5
    first = max(float(inside.min()) - _MARGIN, 0.0)
    last = max(float(inside.max()) + _MARGIN, first + _SHORTEST_VIEW)
    last = min(last, max(count, 1) - 1.0)
    return min(first, max(last - _SHORTEST_VIEW, 0.0)) - 0.5, last + 0.5


def _distance_along(xy: FloatArray) -> FloatArray:
    """Distance from the first point of the profile along the main axis, eastwards if it can."""
    if len(xy) == 0:
        return np.empty(0)
    centred = xy - xy.mean(axis=0)
    _, vectors = np.linalg.eigh(centred.T @ centred)
    axis = vectors[:, -1]
    towards_east = axis if (axis[0], axis[1]) > (0.0, 0.0) else -axis
    along = centred @ towards_east
    return np.asarray(along - along.min())


def _colour_range(amplitude_db: FloatArray) -> tuple[float, float]:
    """Bounds of the colours: without the few weakest and strongest, which would use them up."""
    if len(amplitude_db) == 0:
        return 0.0, 1.0
    low, high = np.percentile(amplitude_db, [2.0, 98.0])
    return float(low), float(high if high > low else low + 1.0)


def _add_legend(figure: SubFigure, axes: Axes) -> None:
    """One line above the waveforms that names the marks of all of them."""
    marks, names = axes.get_legend_handles_labels()
    figure.legend(
        marks,
        names,
        loc="outside upper center",
        ncols=len(names),
        frameon=False,
        fontsize=7.5,
        labelcolor=_INK,
        handlelength=1.8,
        columnspacing=1.6,
        borderaxespad=0.2,
    )


def _style(axes: Axes) -> None:
    axes.spines[["top", "right"]].set_visible(False)
    axes.spines[["left", "bottom"]].set_color(_GREY)
    axes.tick_params(labelsize=7, colors=_INK, color=_GREY, length=2.5)


def _save(figure: Figure, path: Path) -> None:
    with atomic_open(path) as stream:
        figure.savefig(stream, format=_FORMATS[path.suffix.lower()])
