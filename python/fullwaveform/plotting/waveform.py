"""Plot of waveforms: samples, threshold, segments, and the echoes and signals of the methods."""

from __future__ import annotations

import os
import textwrap
from collections.abc import Sequence

import numpy as np
import numpy.typing as npt
from matplotlib.axes import Axes
from matplotlib.figure import Figure
from matplotlib.ticker import MaxNLocator

from fullwaveform.analysis.waveform_views import MethodView, WaveformView
from fullwaveform.data.arrays import FloatArray
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

#: Colours by mode, distinguishable with colour vision deficiencies (Okabe and Ito 2008).
METHOD_COLOURS = ("#0072b2", "#d55e00", "#009e73", "#aa4499")
_CHANNELS = {0: "high-power channel", 1: "low-power channel"}
_WIDTH_INCHES, _PANEL_INCHES, _EDGE_INCHES = 10.0, 3.6, 0.75
_MARGIN, _MIN_VIEW = 15.0, 50.0  # samples
_CURVE_WIDTHS = (2.6, 2.0, 1.4, 0.9)  # points, in the order of drawing
_REACH = 4.0  # standard deviations from an echo to which its curve is drawn
_SEGMENTS_AT = 0.02  # share of the panel's height
_LINE = 1.0 / 22.0  # height of a line of text, share of the panel
_LINES_PER_METHOD = 2.0  # heading and gap
_COLUMNS = (0.22, 0.50, 0.86)  # right ends of the columns of numbers, share of the width
_NANOSECONDS = 1e9


def draw_waveforms(
    path: str | os.PathLike[str], views: Sequence[WaveformView], *, overwrite: bool = False
) -> None:
    """Draw waveforms one below the other; see `waveform_figure`.

    Raises ValueError for an unknown file suffix or without waveforms, OSError if the file cannot
    be written, also as `save_figure` for an existing one.
    """
    plot_format(path)
    save_figure(waveform_figure(views), path, overwrite=overwrite)


def waveform_figure(views: Sequence[WaveformView]) -> Figure:
    """One panel per waveform, and to its right the list of echoes of each method.

    A panel shows the samples, the threshold, the segments as bars on the axis and, in the colour of
    each method, its fitted or deconvolved signal and its echoes: a stem as high as the amplitude,
    and a bar of one standard deviation to either side at the height where the Gaussian has this
    width. Long waveforms are cropped to their echoes.

    Raises ValueError without waveforms.
    """
    if not views:
        raise ValueError("no waveforms to draw")
    height = _PANEL_INCHES * len(views) + _EDGE_INCHES
    figure = new_figure(_WIDTH_INCHES, height)
    grid = figure.subplots(len(views), 2, squeeze=False, width_ratios=(1.0, 0.34))
    first, last = _shown_samples(views)
    for view, (panel, list_axes) in zip(views, grid, strict=True):
        panel.set_xlim(first, last)
        _draw_panel(panel, view)
        _add_nanoseconds(panel, view.interval)
        _list_echoes(list_axes, view)
    grid[-1][0].set_xlabel("sample", fontsize=TEXT_SIZE, color=INK)
    return figure


def _draw_panel(axes: Axes, view: WaveformView) -> None:
    values = view.samples.astype(np.float64)
    index = np.arange(len(values))
    axes.fill_between(index, values, step="mid", color=FAINT, linewidth=0, zorder=1)
    axes.plot(index, values, ".", color=INK, markersize=3.2, label="samples", zorder=6)
    axes.axhline(view.threshold, color=GREY, linewidth=0.8, linestyle=DASHED, zorder=2)
    _label_threshold(axes, view)
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
    axes.set_ylim(-0.06 * height, 1.08 * height)
    axes.yaxis.set_major_locator(MaxNLocator(6, integer=True, steps=[1, 2, 5, 10]))
    label_axes(axes, "", "digitiser counts", _title(view))


def _draw_method(axes: Axes, method: MethodView, width: float) -> None:
    name, colour = method.name, METHOD_COLOURS[method.mode]
    for curve, kind in ((_around_echoes(method), "fitted"), (method.deconvolved, "deconvolved")):
        axes.plot(*curve.T, color=colour, linewidth=width, label=f"{name}, {kind}", zorder=5)
    axes.vlines(method.positions, method.feet, method.tops, color=colour, linewidth=0.8, zorder=3)
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


def _around_echoes(method: MethodView) -> FloatArray:
    """The fitted sum near echoes, NaN elsewhere."""
    curve, reach = method.fitted.copy(), _REACH * method.widths
    near = np.zeros(len(curve), dtype=np.bool_)
    first = np.searchsorted(curve[:, 0], method.positions - reach)
    end = np.searchsorted(curve[:, 0], method.positions + reach, side="right")
    for start, stop in zip(first, end, strict=True):
        near[start:stop] = True
    curve[~near, 1] = np.nan
    return curve


def _label_threshold(axes: Axes, view: WaveformView) -> None:
    """Label the line at the end of the panel where the waveform is lower."""
    low, high = axes.get_xlim()
    shown = view.samples[max(int(low), 0) : int(high) + 1]
    end = max(len(shown) // 5, 1)
    right = int(shown[-end:].max(initial=0)) <= int(shown[:end].max(initial=0))
    axes.annotate(
        f"threshold {view.threshold}",
        (0.995 if right else 0.005, view.threshold),
        xycoords=axes.get_yaxis_transform(),
        xytext=(0, 2),
        textcoords="offset points",
        ha="right" if right else "left",
        fontsize=SMALL_TEXT_SIZE,
        color=GREY,
        bbox={"color": "white", "alpha": 0.7, "pad": 0.5, "linewidth": 0},
    )


def _label_right(axes: Axes, text: str, height: float) -> None:
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


def _max_height(view: WaveformView) -> float:
    tops = [float(top) for method in view.methods for top in method.tops]
    curves = [
        float(curve[:, 1].max(initial=0.0))
        for method in view.methods
        for curve in (method.fitted, method.deconvolved)
    ]
    return max([float(view.samples.max(initial=1)), 1.5 * view.threshold, *tops, *curves])


def _title(view: WaveformView) -> str:
    channel = _CHANNELS.get(view.channel_flag, f"channel {view.channel_flag}")
    time = f", GPS time {view.gps_time:.6f} s" if np.isfinite(view.gps_time) else ""
    return f"waveform {view.number}, {channel}{time}"


def _shown_samples(views: Sequence[WaveformView]) -> tuple[float, float]:
    """Range of samples around all echoes; all samples without echoes."""
    count = max(max(len(view.samples) for view in views), 1)
    echoes: list[FloatArray] = [method.positions for view in views for method in view.methods]
    positions = np.concatenate(echoes) if echoes else np.empty(0)
    if not len(positions):
        return -0.5, count - 0.5
    widths = np.concatenate([method.widths for view in views for method in view.methods])
    margin = np.fmax(_MARGIN, _REACH * widths)  # also where the width is NaN
    first = max(float((positions - margin).min()), 0.0)
    last = min(max(float((positions + margin).max()), first + _MIN_VIEW), count - 1.0)
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


def _list_echoes(axes: Axes, view: WaveformView) -> None:
    """List the echoes of each method in its colour, as many as fit."""
    axes.set_axis_off()
    axes.set_xlim(0.0, 1.0)
    axes.set_ylim(0.0, 1.0)
    y = 1.0
    for heading, right in zip(("sample", "counts", "width [ns]"), _COLUMNS, strict=True):
        axes.text(right, y, heading, ha="right", va="top", fontsize=SMALL_TEXT_SIZE, color=GREY)
    y -= 1.5 * _LINE
    for method, lines in zip(view.methods, _lines_per_method(view.methods), strict=True):
        y = _list_method(axes, method, view.interval * _NANOSECONDS, y, lines)


def _lines_per_method(methods: Sequence[MethodView]) -> list[int]:
    """Lines for the echoes of each method: all of them, or an equal share of the panel."""
    free = int(1.0 / _LINE - 2.5 - _LINES_PER_METHOD * len(methods))
    needed = [len(method.positions) for method in methods]
    share = max(free // max(len(methods), 1), 1)
    return needed if sum(needed) <= free else [min(count, share) for count in needed]


def _list_method(axes: Axes, method: MethodView, step: float, y: float, lines: int) -> float:
    """List the echoes from height y downwards; return the height of the next line."""
    colour, count = METHOD_COLOURS[method.mode], len(method.positions)
    heading = f"{method.name}, {count or 'no'} echo{'' if count == 1 else 'es'}"
    axes.text(0.0, y, heading, va="top", fontsize=TEXT_SIZE, color=colour, weight="bold")
    y -= 1.15 * _LINE
    shown = count if count <= lines else lines - 1
    echoes = (method.positions, method.amplitudes, method.widths * step)
    for position, amplitude, width in zip(*(column[:shown] for column in echoes), strict=True):
        texts = (f"{position:.2f}", f"{amplitude:.0f}", f"{width:.2f}" if width > 0 else "–")
        for text, right in zip(texts, _COLUMNS, strict=True):
            axes.text(right, y, text, ha="right", va="top", fontsize=TEXT_SIZE, color=INK)
        y -= _LINE
    rest = [f"and {count - shown} more"] if count > shown else []
    rest += textwrap.wrap(method.note, 36)
    for line in rest:
        axes.text(0.0, y, line, va="top", fontsize=SMALL_TEXT_SIZE, color=GREY)
        y -= _LINE
    return y - 0.8 * _LINE
