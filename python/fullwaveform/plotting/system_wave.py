"""Plot of an averaged pulse and its system wave."""

from __future__ import annotations

import os
from dataclasses import dataclass

from matplotlib.axes import Axes

from fullwaveform.data.arrays import FloatArray
from fullwaveform.plotting import style


@dataclass(frozen=True, slots=True)
class SystemWaveCurves:
    """Curves as shares of the pulse's maximum, over time from the start of the window; (m,) each.

    wave : NaN outside the window
    """

    time_ns: FloatArray
    pulse: FloatArray
    wave: FloatArray
    window_ns: float
    pulse_label: str
    wave_label: str
    title: str


def draw_system_wave(
    path: str | os.PathLike[str], curves: SystemWaveCurves, *, overwrite: bool = False
) -> None:
    """Averaged pulse and fitted exponentials, and below them their difference.

    Raises ValueError for an unknown file suffix, OSError if the file cannot be written, also as
    `save_figure` for an existing one.
    """
    style.plot_format(path)
    figure = style.new_figure(7.5, 5.6)
    upper, lower = figure.subplots(2, 1, sharex=True, height_ratios=(3.0, 1.0))
    _draw_curves(upper, curves)
    lower.plot(
        curves.time_ns, 100.0 * (curves.wave - curves.pulse), color=style.FOUND, linewidth=1.0
    )
    lower.axhline(0.0, color=style.GREY, linewidth=0.6)
    style.label_axes(lower, "time from the start of the window [ns]", "difference [%]")
    for axes in (upper, lower):
        axes.axvspan(0.0, curves.window_ns, color=style.FAINT, alpha=0.6, linewidth=0, zorder=0)
    style.legend_below(figure)
    style.save_figure(figure, path, overwrite=overwrite)


def _draw_curves(axes: Axes, curves: SystemWaveCurves) -> None:
    axes.plot(
        curves.time_ns,
        curves.pulse,
        color=style.MEASURED,
        linewidth=3.0,
        alpha=0.45,
        label=curves.pulse_label,
    )
    axes.plot(
        curves.time_ns, curves.wave, color=style.FOUND, linewidth=1.1, label=curves.wave_label
    )
    axes.set_ylim(bottom=min(-0.05, 1.1 * float(curves.pulse.min())))
    style.label_axes(axes, "", "share of the maximum", curves.title)
