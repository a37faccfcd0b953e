"""A picture of an averaged pulse and its system wave."""

from __future__ import annotations

import os
from pathlib import Path

import numpy as np
from matplotlib.axes import Axes
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.figure import Figure

from fullwaveform.data.arrays import FloatArray
from fullwaveform.io.atomic import atomic_open
from fullwaveform.system_wave.fitting import WINDOW_SAMPLES, SystemWave

#: Endings of the name and the formats they choose.
PICTURE_FORMATS = {".png": "png", ".pdf": "pdf"}
_INK, _GREY, _FAINT = "#1f2a36", "#7b8794", "#e4e8ec"
_PULSE, _WAVE = "#2f6690", "#c8501e"
_VALUES_PER_SAMPLE = 50
_MARGIN = 6.0  # samples shown on either side of the window


def draw_system_wave(path: str | os.PathLike[str], wave: SystemWave) -> None:
    """Averaged pulse and fitted exponentials, and below them their difference.

    The ending of the name, `.png` or `.pdf`, chooses the format; the file appears when it is
    whole. Raises ValueError for another ending, OSError when the file cannot be written.
    """
    final = Path(path)
    kind = PICTURE_FORMATS.get(final.suffix.lower())
    if kind is None:
        raise ValueError(f"{final.name!r} does not end in one of {', '.join(PICTURE_FORMATS)}")
    figure = Figure(figsize=(7.5, 5.6), dpi=160, layout="constrained")
    FigureCanvasAgg(figure)
    upper, lower = figure.subplots(2, 1, sharex=True, height_ratios=(3.0, 1.0))
    position = _shown(wave)
    _draw_curves(upper, wave, position)
    _draw_difference(lower, wave, position)
    with atomic_open(final) as stream:
        figure.savefig(stream, format=kind)


def _shown(wave: SystemWave) -> FloatArray:
    first = max(wave.begin - _MARGIN, wave.pulse.position[0])
    last = min(wave.begin + WINDOW_SAMPLES + _MARGIN, wave.pulse.position[-1])
    return np.linspace(first, last, int((last - first) * _VALUES_PER_SAMPLE) + 1)


def _draw_curves(axes: Axes, wave: SystemWave, position: FloatArray) -> None:
    pulse, fit = wave.pulse, wave.fit
    nanoseconds = _nanoseconds(wave, position)
    axes.plot(
        nanoseconds,
        pulse.at(position),
        color=_PULSE,
        linewidth=3.0,
        alpha=0.45,
        label=f"average of {pulse.used:,} pulses",
    )
    axes.plot(
        nanoseconds,
        wave.at(position),
        color=_WAVE,
        linewidth=1.1,
        label=f"sum of {fit.sum.order} exponentials",
    )
    axes.set_ylim(bottom=min(-0.05, 1.1 * float(pulse.value.min())))
    axes.set_ylabel("share of the maximum", fontsize=9, color=_INK)
    axes.set_title(
        f"System wave from {pulse.origin}: misfit {fit.misfit.rms:.2%} rms, "
        f"{fit.misfit.largest:.2%} at most",
        loc="left",
        fontsize=9.5,
        color=_INK,
    )
    axes.legend(frameon=False, fontsize=8.5, labelcolor=_INK)
    _finish(axes, wave)


def _draw_difference(axes: Axes, wave: SystemWave, position: FloatArray) -> None:
    difference = 100.0 * (wave.at(position) - wave.pulse.at(position))
    axes.plot(_nanoseconds(wave, position), difference, color=_WAVE, linewidth=1.0)
    axes.axhline(0.0, color=_GREY, linewidth=0.6)
    axes.set_ylabel("difference [%]", fontsize=9, color=_INK)
    axes.set_xlabel("time from the beginning of the window [ns]", fontsize=9, color=_INK)
    _finish(axes, wave)


def _nanoseconds(wave: SystemWave, position: FloatArray) -> FloatArray:
    return np.asarray((position - wave.begin) * wave.pulse.sampling_interval * 1e9)


def _finish(axes: Axes, wave: SystemWave) -> None:
    """Marks the window and styles the axes."""
    end = WINDOW_SAMPLES * wave.pulse.sampling_interval * 1e9
    axes.axvspan(0.0, end, color=_FAINT, alpha=0.6, linewidth=0, zorder=0)
    axes.spines[["top", "right"]].set_visible(False)
    axes.spines[["left", "bottom"]].set_color(_GREY)
    axes.tick_params(labelsize=8, colors=_INK, color=_GREY, length=2.5)
