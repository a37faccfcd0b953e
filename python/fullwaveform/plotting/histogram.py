"""Histogram of a quantity."""

from __future__ import annotations

import os

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray
from fullwaveform.plotting import style

_BINS = 60
_BIN_RANGE = (0.5, 99.5)  # percentiles; outliers would squeeze the other values together


def draw_histogram(
    path: str | os.PathLike[str],
    values: npt.ArrayLike,
    *,
    title: str,
    label: str,
    overwrite: bool = False,
) -> None:
    """Histogram of the finite values with their median, over all but the outermost percent.

    Raises ValueError for an unknown file suffix, OSError if the file cannot be written, also as
    `save_figure` for an existing one.
    """
    style.plot_format(path)
    numbers = np.asarray(values, dtype=np.float64).ravel()
    numbers = numbers[np.isfinite(numbers)]
    figure = style.new_figure(6.4, 4.0)
    axes = figure.subplots()
    if numbers.size:
        median = float(np.median(numbers))
        axes.hist(numbers, bins=_bin_edges(numbers).tolist(), color=style.MEASURED, alpha=0.85)
        axes.axvline(median, color=style.FOUND, linewidth=1.2, label=f"median {median:+.3f}")
        style.legend_below(figure)
    else:
        axes.text(0.5, 0.5, "no values", transform=axes.transAxes, ha="center", color=style.GREY)
    style.label_axes(axes, label, "count", title)
    style.save_figure(figure, path, overwrite=overwrite)


def _bin_edges(numbers: FloatArray) -> FloatArray:
    low, high = np.percentile(numbers, _BIN_RANGE)
    if high <= low:
        low, high = low - 0.5, high + 0.5
    edges: FloatArray = np.linspace(low, high, _BINS + 1)
    return edges
