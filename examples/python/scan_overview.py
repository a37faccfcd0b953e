"""Plot of example waveforms with their echoes, and of the points of a scan from the side."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import numpy.typing as npt
from matplotlib import colormaps
from matplotlib.axes import Axes
from matplotlib.colors import ListedColormap, LogNorm
from matplotlib.figure import SubFigure
from matplotlib.ticker import MaxNLocator

from fullwaveform.plotting import style

FloatArray = npt.NDArray[np.float64]

# Without the lightest yellow, which is invisible on paper.
_COLOURS = ListedColormap(colormaps["viridis"](np.linspace(0.0, 0.93, 256)))
_MARGIN, _MIN_VIEW = 15.0, 50.0  # samples
_HEIGHT_AT_ONE_WIDTH = float(np.exp(-0.5))  # of a Gaussian, share of its maximum


@dataclass(frozen=True, slots=True)
class Waveform:
    """A waveform and its echoes."""

    samples: npt.NDArray[np.uint16]  # (n,), counts
    threshold: float  # counts
    positions: FloatArray  # (m,), samples
    amplitudes: FloatArray  # (m,), counts
    widths: FloatArray  # (m,), samples, standard deviations
    title: str


def draw_overview(
    path: Path, waveforms: Sequence[Waveform], xyz: FloatArray, amplitude: FloatArray
) -> None:
    """Waveforms with their echoes, and a side view of the points: 1600 x 700 pixels.

    Points (n, 3) in m and amplitudes (n,) in counts.
    """
    figure = style.new_figure(10.0, 4.375)
    grid = figure.add_gridspec(1, 2, width_ratios=(1.0, 1.25), wspace=0.02)
    left, right = figure.add_subfigure(grid[0, 0]), figure.add_subfigure(grid[0, 1])
    panels = left.subplots(len(waveforms), 1, squeeze=False)[:, 0]
    for waveform, axes in zip(waveforms, panels, strict=True):
        draw_waveform(axes, waveform)
    _add_legend(left, panels[0])
    panels[-1].set_xlabel("sample", fontsize=style.TEXT_SIZE, color=style.INK)
    left.supylabel("digitiser counts", fontsize=style.TEXT_SIZE, color=style.INK)
    draw_side_view(right.subplots(), xyz, amplitude)
    style.save_figure(figure, path, overwrite=True)


def draw_waveform(axes: Axes, waveform: Waveform) -> None:
    """Samples as steps, the threshold, and for each echo a stem with a bar of its width.

    The bar is one standard deviation to either side, at the height where the Gaussian has this
    width. Long waveforms are cropped to their echoes.
    """
    values = waveform.samples.astype(np.float64)
    index = np.arange(len(values))
    axes.fill_between(index, values, step="mid", color=style.MEASURED, alpha=0.16, linewidth=0)
    axes.step(index, values, where="mid", color=style.MEASURED, linewidth=0.9, label="samples")
    axes.axhline(
        waveform.threshold,
        color=style.INK,
        linewidth=0.8,
        linestyle=style.DASHED,
        label="threshold",
    )
    position, top, width = waveform.positions, waveform.amplitudes, waveform.widths
    height = top * _HEIGHT_AT_ONE_WIDTH
    axes.vlines(position, 0.0, top, color=style.FOUND, linewidth=0.9)
    axes.hlines(height, position - width, position + width, color=style.FOUND, linewidth=1.6)
    axes.plot(
        position, top, "o", color=style.FOUND, markersize=3.6, label="echo, amplitude and width"
    )
    axes.set_ylim(0.0, 1.22 * max([values.max(initial=1.0), waveform.threshold, *top]))
    axes.set_xlim(_shown_samples(len(values), position))
    axes.yaxis.set_major_locator(MaxNLocator(3, integer=True))
    style.label_axes(axes, title=waveform.title)


def draw_side_view(axes: Axes, xyz: FloatArray, amplitude: FloatArray) -> None:
    """Points by height and by distance along their main direction, coloured by amplitude.

    Weak points are drawn first, so that they do not cover strong ones.
    """
    order = np.argsort(amplitude, kind="stable")
    low, high = np.percentile(amplitude, [2.0, 98.0])
    cloud = axes.scatter(
        _distance_along(xyz[:, :2])[order],
        xyz[order, 2],
        c=amplitude[order],
        s=float(np.clip(9000.0 / len(order), 0.6, 9.0)),
        cmap=_COLOURS,
        norm=LogNorm(low, high),
        linewidths=0,
        rasterized=True,
    )
    style.label_axes(
        axes,
        "distance along the profile [m]",
        "height [m]",
        "Extracted echoes, seen from the side",
    )
    axes.margins(x=0.02, y=0.06)
    axes.grid(color=style.FAINT, linewidth=0.6)
    axes.set_axisbelow(True)
    bar = axes.figure.colorbar(cloud, ax=axes, pad=0.02, fraction=0.05, aspect=32, extend="both")
    bar.set_label("amplitude [counts]", fontsize=style.TEXT_SIZE, color=style.INK)
    bar.ax.tick_params(labelsize=style.SMALL_TEXT_SIZE, colors=style.INK, length=2)
    bar.outline.set_visible(False)


def _shown_samples(count: int, positions: FloatArray) -> tuple[float, float]:
    """Range of samples around the echoes; all samples without echoes."""
    if len(positions) == 0:
        return -0.5, count - 0.5
    first = max(float(positions.min()) - _MARGIN, 0.0)
    last = min(max(float(positions.max()) + _MARGIN, first + _MIN_VIEW), count - 1.0)
    return min(first, max(last - _MIN_VIEW, 0.0)) - 0.5, last + 0.5


def _distance_along(xy: FloatArray) -> FloatArray:
    """Distance from the first point of the profile along the main axis, to the east if possible."""
    centred = xy - xy.mean(axis=0)
    _, vectors = np.linalg.eigh(centred.T @ centred)
    axis = vectors[:, -1]
    along = centred @ (axis if (axis[0], axis[1]) > (0.0, 0.0) else -axis)
    return np.asarray(along - along.min())


def _add_legend(figure: SubFigure, axes: Axes) -> None:
    """One line above the waveforms, with the marks of all of them."""
    marks, names = axes.get_legend_handles_labels()
    figure.legend(
        marks,
        names,
        loc="outside upper center",
        ncols=len(names),
        frameon=False,
        fontsize=style.SMALL_TEXT_SIZE,
        labelcolor=style.INK,
        handlelength=1.8,
        columnspacing=1.6,
        borderaxespad=0.2,
    )
