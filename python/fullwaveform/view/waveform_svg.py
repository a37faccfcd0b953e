"""Picture of a waveform with the echoes of a method as SVG, small enough for a page of many."""

from __future__ import annotations

from dataclasses import dataclass
from html import escape

import numpy as np

from fullwaveform.analysis.waveform_views import MethodView, WaveformView
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.counting import counted
from fullwaveform.plotting.waveform import shown_samples
from fullwaveform.view.svg_axes import TickStyle, axes_svg
from fullwaveform.view.svg_paths import (
    bars_path,
    curve_path,
    dots_path,
    flat_bars_path,
    upright_bars_path,
)
from fullwaveform.view.svg_scale import Scale

# Units of the pictures, of which about two are a pixel; paths have whole numbers of them.
_WIDTH, _HEIGHT, _RESIDUALS = 1080, 400, 180
_LEFT, _RIGHT, _TOP, _BOTTOM = 104, 14, 16, 76
_DOT_DISTANCE = 5.0  # between samples, below which they are drawn as bars
_TICKS = TickStyle(length=8, below=32, aside=14, drop=7, digits=0)
_MARK_HEIGHT = 24  # of a return of the scanner, above its sample


@dataclass(frozen=True, slots=True)
class Detail:
    """How much of a waveform is shown where there is too much of it.

    column : width of the columns in which lines and samples are drawn, units of the picture
    marks : echoes that are drawn and returns, the strongest
    """

    column: int
    marks: int


def waveform_svg(view: WaveformView, detail: Detail) -> str:
    """The part of a waveform around the echoes of its only method, and its residuals below.

    The marks are those of the waveform panel: samples, threshold, baseline, parts above the
    threshold, returns of the scanner, curve and echoes with widths and uncertainties.
    """
    (method,) = view.methods
    has_residuals = bool(len(method.residuals))
    height = _HEIGHT + (_RESIDUALS if has_residuals else 0)
    first, last = shown_samples([view])
    x = Scale(first, last, _LEFT, _WIDTH - _RIGHT)
    parts = [_main(view, method, x, detail)]
    if has_residuals:
        parts.append(_residuals(method, x, detail))
    return (
        f'<svg viewBox="0 0 {_WIDTH} {height}" role="img" '
        f'aria-label="{escape(_description(view, method))}">{"".join(parts)}</svg>'
    )


def _description(view: WaveformView, method: MethodView) -> str:
    found = counted(len(method.positions), "echo", "echoes")
    return (
        f"Waveform {view.number} of {counted(len(view.samples), 'sample')}, threshold "
        f"{view.threshold} counts, baseline {method.foot:.1f} counts, {found} of {method.name}. "
        "The table lists them."
    )


def _main(view: WaveformView, method: MethodView, x: Scale, detail: Detail) -> str:
    shown = slice(max(int(np.ceil(x.first)), 0), int(np.floor(x.last)) + 1)
    samples = view.samples[shown].astype(np.float64)
    curves = [_inside(curve, x) for curve in (_fitted(method), method.deconvolved)]
    marked = strongest(method, detail.marks)
    tops = method.tops[marked]
    top = max(
        [1.5 * view.threshold, float(samples.max(initial=1.0)), float(tops.max(initial=0.0))]
        + [float(np.nan_to_num(curve[:, 1]).max(initial=0.0)) for curve in curves]
    )
    y = Scale(-0.06 * top, 1.12 * top, _HEIGHT - _BOTTOM, _TOP)
    at = np.arange(shown.start, shown.start + len(samples), dtype=np.float64)
    parts = [
        _axes(x, y, _HEIGHT, "sample", "counts"),
        f'<text x="{_WIDTH - _RIGHT}" y="{_HEIGHT - 8}" class="end">1 sample = '
        f"{view.interval * 1e9:.4g} ns</text>",
        _level(y, view.threshold, "threshold", f"threshold: {view.threshold} counts"),
        _level(y, method.foot, "baseline", f"baseline: {method.foot:.1f} counts"),
        _path("segments", _segments(view, x, y, detail)),
        _samples(x, x.of(at), y.of(samples), detail),
        _path("fitted", curve_path(x.of(curves[0][:, 0]), y.of(curves[0][:, 1]), detail.column)),
        _path(
            "deconvolved", curve_path(x.of(curves[1][:, 0]), y.of(curves[1][:, 1]), detail.column)
        ),
        _returns(view, x, y, detail),
        _echoes(method, marked, x, y),
    ]
    return "".join(parts)


def _fitted(method: MethodView) -> FloatArray:
    return method.fitted_near_echoes if method.fits_a_sum else method.fitted


def _inside(curve: FloatArray, x: Scale) -> FloatArray:
    """The part of a curve (k, 2) that is drawn."""
    return curve[(curve[:, 0] >= x.first) & (curve[:, 0] <= x.last)]


def strongest(method: MethodView, count: int) -> IntArray:
    """The echoes with the largest amplitudes, in the order of their positions."""
    return np.sort(np.argsort(-method.amplitudes, kind="stable")[:count])


def _samples(scale: Scale, x: FloatArray, y: FloatArray, detail: Detail) -> str:
    """Dots, or bars from the lowest to the highest sample of a column where they are too dense."""
    distance = (scale.stop - scale.start) / (scale.last - scale.first)
    if distance >= _DOT_DISTANCE:
        return _path("samples", dots_path(x, y))
    return _path("columns", bars_path(x, y, y, detail.column))


def _segments(view: WaveformView, x: Scale, y: Scale, detail: Detail) -> str:
    """The parts above the threshold, on the line of 0; short gaps between them are closed."""
    segments = view.segments.astype(np.float64)
    inside = (segments[:, 1] >= x.first) & (segments[:, 0] <= x.last)
    first, last = (np.clip(x.of(column), x.start, x.stop) for column in segments[inside].T)
    gaps = np.flatnonzero(first[1:] - last[:-1] > detail.column)
    begins = first[np.concatenate([[0], gaps + 1])] if len(first) else first
    ends = last[np.concatenate([gaps, [len(last) - 1]])] if len(last) else last
    return flat_bars_path(begins, ends, np.full(len(begins), y.place(0.0)))


def _returns(view: WaveformView, x: Scale, y: Scale, detail: Detail) -> str:
    """Triangles above the samples at the returns that the scanner listed."""
    inside = view.returns[(view.returns >= x.first) & (view.returns <= x.last)][: detail.marks]
    if not len(inside) or not len(view.samples):
        return ""
    heights = np.interp(inside, np.arange(len(view.samples)), view.samples)
    places = zip(x.of(inside), y.of(heights) - _MARK_HEIGHT, strict=True)
    return _path("returns", "".join(f"M{at - 10:.0f} {top:.0f}h20l-10 16z" for at, top in places))


def _echoes(method: MethodView, marked: IntArray, x: Scale, y: Scale) -> str:
    positions, tops = method.positions[marked], method.tops[marked]
    widths, bars = method.widths[marked], method.bar_heights[marked]
    uncertain = method.uncertainties[marked]
    at, top = x.of(positions), y.of(tops)
    foot = np.full(len(at), y.place(method.foot))
    return "".join(
        (
            _path("stems", upright_bars_path(at, foot, top)),
            _path(
                "widths",
                flat_bars_path(x.of(positions - widths), x.of(positions + widths), y.of(bars)),
            ),
            _path("echoes", dots_path(at, top)),
            _path(
                "uncertainties",
                flat_bars_path(
                    x.of(positions - uncertain[:, 0]), x.of(positions + uncertain[:, 0]), top
                )
                + upright_bars_path(at, y.of(tops - uncertain[:, 1]), y.of(tops + uncertain[:, 1])),
            ),
        )
    )


def _residuals(method: MethodView, x: Scale, detail: Detail) -> str:
    at, rest = _inside(method.residuals, x).T
    largest = max(1.0, float(np.nanmax(np.abs(rest), initial=0.0)))
    y = Scale(-1.1 * largest, 1.1 * largest, _HEIGHT + _RESIDUALS - _BOTTOM, _HEIGHT + _TOP)
    middle = np.full(len(at), y.place(0.0))
    places = y.of(rest)
    bars = bars_path(x.of(at), np.fmin(middle, places), np.fmax(middle, places), detail.column)
    axes = _axes(x, y, _HEIGHT + _RESIDUALS, "sample", "residual")
    return axes + _level(y, 0.0, "zero", "") + _path("residuals", bars)


def _axes(x: Scale, y: Scale, bottom: float, x_label: str, y_label: str) -> str:
    """Lines with ticks, numbers and labels."""
    up = y.ticks(max(int((y.start - y.stop) / 70), 2))
    middle = (y.start + y.stop) / 2.0
    return (
        f"{axes_svg(x, y, x.ticks(8), up, style=_TICKS)}"
        f'<text x="{(x.start + x.stop) / 2:.0f}" y="{bottom - 8}" class="mid">{x_label}</text>'
        f'<text transform="translate(24 {middle:.0f})rotate(-90)" class="mid">{y_label}</text>'
    )


def _level(y: Scale, height: float, name: str, title: str) -> str:
    place = y.place(height)
    described = f"<title>{escape(title)}</title>" if title else ""
    path = f'd="M{_LEFT} {place:.0f}H{_WIDTH - _RIGHT}"'
    return f'<path class="{name}" {path}>{described}</path>'


def _path(name: str, path: str) -> str:
    return f'<path class="{name}" d="{path}"/>' if path else ""
