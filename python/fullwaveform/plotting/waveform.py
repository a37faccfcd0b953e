"""The picture of a waveform: samples, threshold, segments, and what the methods made of them."""

from __future__ import annotations

import os
import textwrap
from collections.abc import Sequence
from pathlib import Path
from typing import Any

import matplotlib as mpl
import numpy as np
import numpy.typing as npt
from matplotlib.axes import Axes
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.figure import Figure
from matplotlib.ticker import MaxNLocator

from fullwaveform.analysis.waveform_views import MethodView, WaveformView
from fullwaveform.core.driver import Mode
from fullwaveform.data.arrays import FloatArray
from fullwaveform.extraction.waveform_table import WaveformState
from fullwaveform.io.atomic import atomic_open
from fullwaveform.plotting.plots import PLOT_ENDINGS

#: Colours of the methods; told apart with every kind of colour vision (Okabe and Ito 2008).
METHOD_COLOURS = {
    Mode.THREE_POINT: "#0072b2",
    Mode.DECOMPOSITION: "#d55e00",
    Mode.DECONVOLUTION: "#009e73",
    Mode.HYBRID: "#aa4499",
}
METHOD_NAMES = {mode: mode.name.lower().replace("_", "-") for mode in Mode}
_CHANNELS = {0: "high-power channel", 1: "low-power channel"}
_INK, _GREY, _FAINT = "#1f2a36", "#7b8794", "#dfe4e8"
_WIDTH_INCHES, _PANEL_INCHES, _EDGE_INCHES = 10.0, 3.6, 0.75
_DOTS_PER_INCH = 160
_MARGIN, _SHORTEST_VIEW = 15.0, 50.0  # samples
_TEXT, _SMALL = 8.5, 7.5  # points
_CURVE_WIDTHS = (2.6, 2.0, 1.4, 0.9)  # points, in the order of drawing
_REACH = 4.0  # standard deviations from an echo to which its curve is drawn
_SEGMENTS_AT = 0.02  # share of the panel's height
_LINE = 1.0 / 22.0  # height of a line of text beside a panel, share of the panel
_LINES_AROUND = 2.0  # heading of a method and the gap behind it
_COLUMNS = (0.22, 0.50, 0.86)  # right ends of the columns of numbers, share of the room
_NANOSECONDS = 1e9
_SETTINGS: dict[Any, str] = {"svg.fonttype": "none", "svg.hashsalt": "fullwaveform"}


def draw_waveforms(path: str | os.PathLike[str], views: Sequence[WaveformView]) -> None:
    """Draw waveforms under each other; see `waveform_figure`.

    The ending of the name, `.png`, `.pdf` or `.svg`, chooses the format. Equal waveforms make
    equal files; a file appears when it is whole.

    Raises ValueError for another ending or without a waveform, OSError when the file cannot be
    written.
    """
    final = Path(path)
    kind = final.suffix.lower()
    if kind not in PLOT_ENDINGS:
        raise ValueError(f"{final.name!r} does not end in one of {', '.join(PLOT_ENDINGS)}")
    figure = waveform_figure(views)
    dates = {".pdf": {"CreationDate": None}, ".svg": {"Date": None}}
    with mpl.rc_context(_SETTINGS), atomic_open(final) as stream:
        figure.savefig(stream, format=kind[1:], metadata=dates.get(kind, {}))


def waveform_figure(views: Sequence[WaveformView]) -> Figure:
    """A panel per waveform, beside it the echoes of each method in numbers.

    Drawn are the samples, the threshold, the segments above it as a bar on the axis,
    and, in the colour of each method, its fitted or deconvolved signal and its echoes: a stem as
    high as the amplitude, with a bar that reaches one standard deviation to either side where a
    Gaussian is that wide. Long records are shown around their echoes.

    Raises ValueError without a waveform.
    """
    if not views:
        raise ValueError("there is no waveform to draw")
    height = _PANEL_INCHES * len(views) + _EDGE_INCHES
    figure = Figure(figsize=(_WIDTH_INCHES, height), dpi=_DOTS_PER_INCH, layout="constrained")
    FigureCanvasAgg(figure)
    grid = figure.subplots(len(views), 2, squeeze=False, width_ratios=(1.0, 0.34))
    first, last = _shown_samples(views)
    for view, (panel, beside) in zip(views, grid, strict=True):
        panel.set_xlim(first, last)
        _draw_panel(panel, view)
        _add_nanoseconds(panel, view.interval)
        _tell_echoes(beside, view)
    grid[-1][0].set_xlabel("sample", fontsize=_TEXT, color=_INK)
    return figure


def _draw_panel(axes: Axes, view: WaveformView) -> None:
    values = view.samples.astype(np.float64)
    index = np.arange(len(values))
    axes.fill_between(index, values, step="mid", color=_FAINT, linewidth=0, zorder=1)
    axes.plot(index, values, ".", color=_INK, markersize=3.2, label="samples", zorder=6)
    axes.axhline(view.threshold, color=_GREY, linewidth=0.8, linestyle=(0, (4, 2)), zorder=2)
    _name_threshold(axes, view)
    first, last = view.segments.T if len(view.segments) else (np.empty(0), np.empty(0))
    axes.hlines(
        np.full(len(first), _SEGMENTS_AT),
        first,
        last,
        color=_GREY,
        linewidth=3.0,
        transform=axes.get_xaxis_transform(),
        label="segments",
    )
    if len(view.segments):
        _name_beside(axes, "above the threshold", _SEGMENTS_AT)
    # What is drawn first is broader, so that equal curves are all seen.
    for method, width in zip(view.methods, _CURVE_WIDTHS, strict=False):
        _draw_method(axes, method, width)
    highest = _highest(view)
    axes.set_ylim(-0.06 * highest, 1.08 * highest)
    axes.yaxis.set_major_locator(MaxNLocator(6, integer=True, steps=[1, 2, 5, 10]))
    axes.set_ylabel("digitiser counts", fontsize=_TEXT, color=_INK)
    axes.set_title(_title(view), loc="left", fontsize=_TEXT, color=_INK, pad=6)
    axes.spines["right"].set_visible(False)
    axes.spines[["left", "bottom", "top"]].set_color(_GREY)
    axes.tick_params(labelsize=_SMALL, labelcolor=_INK, color=_GREY, length=2.5)


def _draw_method(axes: Axes, method: MethodView, width: float) -> None:
    name, colour = METHOD_NAMES[method.mode], METHOD_COLOURS[method.mode]
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
    """The fitted sum where a Gaussian still shows; gaps are NaN."""
    curve, reach = method.fitted.copy(), _REACH * method.widths
    shows = np.zeros(len(curve), dtype=np.bool_)
    first = np.searchsorted(curve[:, 0], method.positions - reach)
    behind = np.searchsorted(curve[:, 0], method.positions + reach, side="right")
    for start, stop in zip(first, behind, strict=True):
        shows[start:stop] = True
    curve[~shows, 1] = np.nan
    return curve


def _name_threshold(axes: Axes, view: WaveformView) -> None:
    """Says above the line what it is, at the end of the panel where the record is lower."""
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
        fontsize=_SMALL,
        color=_GREY,
        bbox={"color": "white", "alpha": 0.7, "pad": 0.5, "linewidth": 0},
    )


def _name_beside(axes: Axes, text: str, height: float) -> None:
    """A word to the right of the panel, at a share of its height; it takes no room of its own."""
    label = axes.annotate(
        text,
        (1.0, height),
        xycoords="axes fraction",
        xytext=(4, 0),
        textcoords="offset points",
        va="center",
        fontsize=_SMALL,
        color=_GREY,
    )
    label.set_in_layout(False)


def _highest(view: WaveformView) -> float:
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
    """The echoes of all with some samples to either side, all samples without an echo."""
    count = max(max(len(view.samples) for view in views), 1)
    echoes: list[FloatArray] = [method.positions for view in views for method in view.methods]
    positions = np.concatenate(echoes) if echoes else np.empty(0)
    if not len(positions):
        return -0.5, count - 0.5
    widths = np.concatenate([method.widths for view in views for method in view.methods])
    margin = np.maximum(_MARGIN, _REACH * widths)
    first = max(float((positions - margin).min()), 0.0)
    last = min(max(float((positions + margin).max()), first + _SHORTEST_VIEW), count - 1.0)
    return min(first, max(last - _SHORTEST_VIEW, 0.0)) - 0.5, last + 0.5


def _add_nanoseconds(axes: Axes, interval: float) -> None:
    step = interval * _NANOSECONDS

    def time_of(position: npt.ArrayLike) -> FloatArray:
        return np.asarray(position, dtype=np.float64) * step

    def position_at(time: npt.ArrayLike) -> FloatArray:
        return np.asarray(time, dtype=np.float64) / step

    top = axes.secondary_xaxis("top", functions=(time_of, position_at))
    top.tick_params(labelsize=_SMALL, labelcolor=_GREY, color=_GREY, length=2.5)
    _name_beside(axes, "ns", 1.02)


def _tell_echoes(axes: Axes, view: WaveformView) -> None:
    """The echoes of each method as numbers, in its colour; as many as there is room for."""
    axes.set_axis_off()
    axes.set_xlim(0.0, 1.0)
    axes.set_ylim(0.0, 1.0)
    y = 1.0
    for heading, right in zip(("sample", "counts", "width [ns]"), _COLUMNS, strict=True):
        axes.text(right, y, heading, ha="right", va="top", fontsize=_SMALL, color=_GREY)
    y -= 1.5 * _LINE
    for method, room in zip(view.methods, _rooms(view.methods), strict=True):
        y = _tell_method(axes, method, view.interval * _NANOSECONDS, y, room)


def _rooms(methods: Sequence[MethodView]) -> list[int]:
    """Lines for the echoes of each method: as many as it has, or an equal share of the panel."""
    free = int(1.0 / _LINE - 2.5 - _LINES_AROUND * len(methods))
    wanted = [len(method.positions) for method in methods]
    share = max(free // max(len(methods), 1), 1)
    return wanted if sum(wanted) <= free else [min(count, share) for count in wanted]


def _tell_method(axes: Axes, method: MethodView, step: float, y: float, room: int) -> float:
    """Writes from the height y downwards; returns the height of the next line."""
    colour, count = METHOD_COLOURS[method.mode], len(method.positions)
    heading = (
        f"{METHOD_NAMES[method.mode]}, {count if count else 'no'} echo{'es'[: 2 * (count != 1)]}"
    )
    axes.text(0.0, y, heading, va="top", fontsize=_TEXT, color=colour, weight="bold")
    y -= 1.15 * _LINE
    shown = count if count <= room else room - 1
    echoes = (method.positions, method.amplitudes, method.widths * step)
    for position, amplitude, width in zip(*(column[:shown] for column in echoes), strict=True):
        texts = (f"{position:.2f}", f"{amplitude:.0f}", f"{width:.2f}" if width > 0 else "–")
        for text, right in zip(texts, _COLUMNS, strict=True):
            axes.text(right, y, text, ha="right", va="top", fontsize=_TEXT, color=_INK)
        y -= _LINE
    rest = [f"and {count - shown} more"] if count > shown else []
    if method.state is not WaveformState.WITH_ECHOES:
        rest += textwrap.wrap(method.state.phrase, 36)
    for line in rest:
        axes.text(0.0, y, line, va="top", fontsize=_SMALL, color=_GREY)
        y -= _LINE
    return y - 0.8 * _LINE
