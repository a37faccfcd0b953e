"""Plot of waveforms: samples, threshold, segments, and the echoes and signals of the methods."""

from __future__ import annotations

import os
from collections.abc import Sequence

import numpy as np
import numpy.typing as npt
from matplotlib.axes import Axes
from matplotlib.figure import Figure
from matplotlib.text import Annotation
from matplotlib.ticker import MaxNLocator

from fullwaveform.analysis.waveform_views import GAUSSIAN_REACH, MethodView, WaveformView
from fullwaveform.data.arrays import FloatArray
from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.plotting.echo_list import LINES_PER_INCH, list_echoes
from fullwaveform.plotting.style import (
    DASHED,
    FAINT,
    GREY,
    INK,
    SMALL_TEXT_SIZE,
    TEXT_SIZE,
    label_axes,
    new_figure,
    plot_format,
    save_figure,
)

_CHANNELS = {0: "high-power channel", 1: "low-power channel"}
_WIDTH_INCHES, _PANEL_INCHES, _EDGE_INCHES = 10.0, 3.6, 0.75
_RESIDUALS_INCHES = 1.0
_RESIDUALS_APART = 0.25  # samples, between those of two methods
_MARGIN, _MIN_VIEW = 15.0, 50.0  # samples
_CURVE_WIDTHS = (2.6, 2.0, 1.4, 0.9, 0.6)  # points, in the order of drawing
_RETURN_GAP = 0.08  # from a sample to the mark of a return, share of the panel's height
_SEGMENTS_AT = 0.02  # share of the panel's height
_NANOSECONDS = 1e9


def draw_waveforms(
    path: str | os.PathLike[str],
    views: Sequence[WaveformView],
    *,
    whole: bool = False,
    overwrite: bool = False,
) -> None:
    """Draw waveforms one below the other; see `waveform_figure`.

    Raises ValueError for an unknown file suffix or without waveforms, OSError if the file cannot
    be written, also as `save_figure` for an existing one.
    """
    plot_format(path)
    save_figure(waveform_figure(views, whole=whole), path, overwrite=overwrite)


def waveform_figure(views: Sequence[WaveformView], *, whole: bool = False) -> Figure:
    """One panel per waveform, and to its right the list of echoes of each method.

    A panel shows the samples, the threshold, the segments as bars on the axis, the scanner's
    discrete returns as triangles above the samples and, in the colour of each method, its fitted or
    deconvolved signal and its echoes: a stem as high as the amplitude, and a bar of one standard
    deviation to either side at the height where the Gaussian has this width. Below it are the
    residuals of decompositions and pulse fits. Long waveforms are cropped to their echoes and
    returns unless `whole` is set.

    Raises ValueError without waveforms.
    """
    if not views:
        raise ValueError("no waveforms to draw")
    heights = []
    for view in views:
        heights += [_PANEL_INCHES, _RESIDUALS_INCHES] if _has_residuals(view) else [_PANEL_INCHES]
    figure = new_figure(_WIDTH_INCHES, sum(heights) + _EDGE_INCHES)
    grid = figure.add_gridspec(len(heights), 2, width_ratios=(1.0, 0.34), height_ratios=heights)
    first, last = _all_samples(views) if whole else shown_samples(views)
    row = 0
    for view in views:
        lowest = panel = figure.add_subplot(grid[row, 0])
        panel.set_xlim(first, last)
        _draw_panel(panel, view)
        _add_nanoseconds(panel, view.interval)
        rows = 2 if _has_residuals(view) else 1
        beside = figure.add_subplot(grid[row : row + rows, 1])
        list_echoes(beside, view, sum(heights[row : row + rows]))
        if _has_residuals(view):
            row += 1
            lowest = figure.add_subplot(grid[row, 0], sharex=panel)
            _draw_residuals(lowest, view)
            panel.tick_params(labelbottom=False)
        row += 1
    lowest.set_xlabel("sample", fontsize=TEXT_SIZE, color=INK)
    return figure


def _has_residuals(view: WaveformView) -> bool:
    return any(len(method.residuals) for method in view.methods)


def _draw_residuals(axes: Axes, view: WaveformView) -> None:
    """What the fitted sums leave of the samples, side by side where there are several."""
    methods = [method for method in view.methods if len(method.residuals)]
    for number, method in enumerate(methods):
        aside = (number - (len(methods) - 1) / 2) * _RESIDUALS_APART
        at, rest = method.residuals.T
        known = np.isfinite(rest)
        axes.vlines(
            at[known] + aside,
            0.0,
            rest[known],
            color=METHOD_COLOURS[method.mode],
            linewidth=1.2,
            label=f"{method.name}, residuals",
        )
    axes.axhline(0.0, color=GREY, linewidth=0.8)
    axes.yaxis.set_major_locator(MaxNLocator(3, steps=[1, 2, 5, 10]))
    label_axes(axes, "", "residual")


def _draw_panel(axes: Axes, view: WaveformView) -> None:
    values = view.samples.astype(np.float64)
    index = np.arange(len(values))
    axes.fill_between(index, values, step="mid", color=FAINT, linewidth=0, zorder=1)
    axes.plot(index, values, ".", color=INK, markersize=3.2, label="samples", zorder=6)
    axes.axhline(view.threshold, color=GREY, linewidth=0.8, linestyle=DASHED, zorder=2)
    first, last = view.segments.T if len(view.segments) else (np.empty(0), np.empty(0))
    axes.hlines(
        np.full(len(first), _SEGMENTS_AT),
        first,
        last,
        color=GREY,
        linewidth=3.0,
        transform=axes.get_xaxis_transform(),
        label="segments",
    )
    if len(view.segments):
        _label_right(axes, "above the threshold", _SEGMENTS_AT)
    # Curves drawn first are wider, so that equal curves are all visible.
    for method, width in zip(view.methods, _CURVE_WIDTHS, strict=False):
        _draw_method(axes, method, width)
    height = _max_height(view)
    _draw_returns(axes, view, height)
    room = 0.08 + (_RETURN_GAP if len(view.returns) else 0.0)
    axes.set_ylim(-0.06 * height, (1.0 + room) * height)
    _label_threshold(axes, view)
    axes.yaxis.set_major_locator(MaxNLocator(6, integer=True, steps=[1, 2, 5, 10]))
    label_axes(axes, "", "digitiser counts", waveform_title(view))


def _draw_method(axes: Axes, method: MethodView, width: float) -> None:
    name, colour = method.name, METHOD_COLOURS[method.mode]
    # Gaussians of the three-point fit are separate curves already.
    fitted = method.fitted_near_echoes if method.fits_a_sum else method.fitted
    for curve, kind in ((fitted, "fitted"), (method.deconvolved, "deconvolved")):
        axes.plot(*curve.T, color=colour, linewidth=width, label=f"{name}, {kind}", zorder=5)
    axes.vlines(method.positions, method.foot, method.tops, color=colour, linewidth=0.8, zorder=3)
    wide = method.widths > 0
    axes.hlines(
        method.bar_heights[wide],
        (method.positions - method.widths)[wide],
        (method.positions + method.widths)[wide],
        color=colour,
        linewidth=2.2,
        zorder=7,
        label=f"{name}, widths",
    )
    axes.plot(
        method.positions,
        method.tops,
        "o",
        color=colour,
        markersize=5.5,
        markeredgecolor="white",
        markeredgewidth=0.8,
        label=f"{name}, echoes",
        zorder=8,
    )


def _draw_returns(axes: Axes, view: WaveformView, height: float) -> None:
    """Triangles above the samples, or above the nearest one for returns outside the waveform."""
    if not len(view.returns):
        return
    heights = np.interp(view.returns, np.arange(len(view.samples)), view.samples)
    axes.plot(
        view.returns,
        heights + _RETURN_GAP * height,
        "v",
        color=INK,
        markersize=5.0,
        markerfacecolor="white",
        label="returns",
        zorder=9,
    )


def _label_threshold(axes: Axes, view: WaveformView) -> None:
    """Label the line to the right of the panel, above the label of the segments."""
    low, high = axes.get_ylim()
    height = (view.threshold - low) / (high - low)
    label = _label_right(
        axes,
        f"threshold {view.threshold}",
        max(height, _SEGMENTS_AT + 1.0 / (LINES_PER_INCH * _PANEL_INCHES)),
    )
    label.set_in_layout(True)  # keeps the list of echoes clear of it


def _label_right(axes: Axes, text: str, height: float) -> Annotation:
    """Text to the right of the panel, at a share of its height, ignored by the layout."""
    label = axes.annotate(
        text,
        (1.0, height),
        xycoords="axes fraction",
        xytext=(4, 0),
        textcoords="offset points",
        va="center",
        fontsize=SMALL_TEXT_SIZE,
        color=GREY,
    )
    label.set_in_layout(False)
    return label


def _max_height(view: WaveformView) -> float:
    tops = [float(top) for method in view.methods for top in method.tops]
    curves = [
        float(curve[:, 1].max(initial=0.0))
        for method in view.methods
        for curve in (method.fitted, method.deconvolved)
    ]
    return max([float(view.samples.max(initial=1)), 1.5 * view.threshold, *tops, *curves])


def waveform_title(view: WaveformView) -> str:
    """Number, beam or channel, and time of a waveform, and the smoothing before its methods."""
    channel = _CHANNELS.get(view.channel_flag, f"channel {view.channel_flag}")
    time = f", GPS time {view.gps_time:.6f} s" if np.isfinite(view.gps_time) else ""
    # The samples are drawn as recorded, which the curves of the echoes do not follow.
    width = view.smoothing * _NANOSECONDS
    smoothing = f"; echoes of samples smoothed with {width:g} ns" if width else ""
    return f"waveform {view.number}, {view.beam or channel}{time}{smoothing}"


def _all_samples(views: Sequence[WaveformView]) -> tuple[float, float]:
    return -0.5, max(max(len(view.samples) for view in views), 1) - 0.5


def shown_samples(views: Sequence[WaveformView]) -> tuple[float, float]:
    """Range of samples around all echoes and returns of waveforms; all samples without echoes."""
    methods = [method for view in views for method in view.methods]
    positions = [method.positions for method in methods]
    if not sum(map(len, positions)):
        return _all_samples(views)
    # Widths of deconvolved echoes are unknown.
    margins = [np.fmax(_MARGIN, GAUSSIAN_REACH * method.widths) for method in methods]
    for view in views:
        inside = view.returns[(view.returns >= 0) & (view.returns < len(view.samples))]
        positions.append(inside)
        margins.append(np.full(len(inside), _MARGIN))
    low = float((np.concatenate(positions) - np.concatenate(margins)).min())
    high = float((np.concatenate(positions) + np.concatenate(margins)).max())
    count = _all_samples(views)[1] + 0.5
    first = max(low, 0.0)
    last = min(max(high, first + _MIN_VIEW), count - 1.0)
    return min(first, max(last - _MIN_VIEW, 0.0)) - 0.5, last + 0.5


def _add_nanoseconds(axes: Axes, interval: float) -> None:
    step = interval * _NANOSECONDS

    def time_of(position: npt.ArrayLike) -> FloatArray:
        return np.asarray(position, dtype=np.float64) * step

    def position_at(time: npt.ArrayLike) -> FloatArray:
        return np.asarray(time, dtype=np.float64) / step

    top = axes.secondary_xaxis("top", functions=(time_of, position_at))
    top.tick_params(labelsize=SMALL_TEXT_SIZE, labelcolor=GREY, color=GREY, length=2.5)
    top.spines["top"].set_color(GREY)
    _label_right(axes, "ns", 1.02)
