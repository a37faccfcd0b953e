"""Plot of a pulse model with the pulses of which it was made."""

from __future__ import annotations

import os
from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np
from matplotlib.axes import Axes

from fullwaveform.data.arrays import FloatArray
from fullwaveform.plotting import style

_MAX_DOTS = 20_000
_BINS = 60
_SHOWN = (0.5, 97.0)  # percentiles of the variances; merged echoes would squeeze the others


@dataclass(frozen=True, slots=True)
class PulseModelCurves:
    """What is drawn of a receiver.

    lag_ns, pulse : (m,) the pulse, as a share of its maximum
    sample_lag_ns, sample : (k,) samples of the pulses at their lags, as shares of the amplitudes
    residual : (k,) samples minus fit, as shares of the amplitudes
    band_lag_ns, band : (b,) by lag, what 68 % of the residuals do not exceed
    variances : (n,) by which the pulses are wider than the model, samples squared
    prior_variance, prior : (p,) density of the model
    """

    lag_ns: FloatArray
    pulse: FloatArray
    sample_lag_ns: FloatArray
    sample: FloatArray
    residual: FloatArray
    band_lag_ns: FloatArray
    band: FloatArray
    variances: FloatArray
    prior_variance: FloatArray
    prior: FloatArray
    title: str


def draw_pulse_models(
    path: str | os.PathLike[str], receivers: Sequence[PulseModelCurves], *, overwrite: bool = False
) -> None:
    """A row of three plots per receiver: pulse, residuals, widths.

    Raises ValueError for an unknown file suffix, OSError if the file cannot be written, also as
    `save_figure` for an existing one.
    """
    style.plot_format(path)
    figure = style.new_figure(11.0, 3.4 * len(receivers))
    rows = figure.subplots(len(receivers), 3, squeeze=False, width_ratios=(1.3, 1.3, 1.0))
    for (pulse, residuals, widths), curves in zip(rows, receivers, strict=True):
        _draw_pulse(pulse, curves)
        _draw_residuals(residuals, curves)
        _draw_widths(widths, curves)
    style.save_figure(figure, path, overwrite=overwrite)


def _draw_pulse(axes: Axes, curves: PulseModelCurves) -> None:
    dots = _spread(len(curves.sample))
    axes.plot(
        curves.sample_lag_ns[dots],
        curves.sample[dots],
        ".",
        color=style.MEASURED,
        markersize=1.2,
        alpha=0.35,
        rasterized=True,
    )
    axes.plot(curves.lag_ns, curves.pulse, color=style.FOUND, linewidth=1.2)
    low = min(-0.05, 1.3 * float(curves.pulse.min()))
    axes.set_ylim(low, 1.1)
    style.label_axes(axes, "time from the maximum [ns]", "share of the amplitude", curves.title)


def _draw_residuals(axes: Axes, curves: PulseModelCurves) -> None:
    dots = _spread(len(curves.residual))
    axes.plot(
        curves.sample_lag_ns[dots],
        100.0 * curves.residual[dots],
        ".",
        color=style.MEASURED,
        markersize=1.2,
        alpha=0.35,
        rasterized=True,
    )
    for sign in (-1.0, 1.0):
        axes.plot(curves.band_lag_ns, 100.0 * sign * curves.band, color=style.FOUND, linewidth=1.0)
    limit = 500.0 * float(np.median(curves.band)) if len(curves.band) else 1.0
    axes.set_ylim(-limit, limit)
    style.label_axes(
        axes,
        "time from the maximum [ns]",
        "residual [% of the amplitude]",
        "residuals and their rms",
    )


def _draw_widths(axes: Axes, curves: PulseModelCurves) -> None:
    low, high = np.percentile(curves.variances, _SHOWN)
    if not high > low:
        low, high = low - 0.5, high + 0.5
    edges = np.linspace(low, high, _BINS + 1)
    axes.hist(curves.variances, bins=edges.tolist(), color=style.MEASURED, alpha=0.85)
    expected = len(curves.variances) * (edges[1] - edges[0]) * curves.prior
    axes.plot(curves.prior_variance, expected, color=style.FOUND, linewidth=1.2)
    axes.set_xlim(low, high)
    style.label_axes(
        axes, "variance added to the pulse [samples²]", "pulses", "widths, and those expected"
    )


def _spread(count: int) -> slice:
    """A part of the samples, so that single dots remain visible."""
    return slice(None, None, max(count // _MAX_DOTS, 1))
