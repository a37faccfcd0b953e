"""Pictures of the document."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from matplotlib.axes import Axes
from matplotlib.figure import Figure

from accuracy.constructed import PAIR_SNR
from accuracy.methods import METHODS, PULSE_FIT
from accuracy.plan import Row
from accuracy.results import Results
from fullwaveform.plotting.style import (
    DASHED,
    FAINT,
    FOUND,
    GREY,
    INK,
    MEASURED,
    label_axes,
    legend_below,
    new_figure,
)

COLOURS = dict(zip(METHODS, (MEASURED, "#d99a1c", "#3f8f5b", "#8a5fa8", FOUND), strict=True))
_MIN_FOUND = 50.0  # % of the pairs; the errors of fewer are those of lucky ones


def detection(results: Results) -> Figure:
    """Share of the pairs that are found as two, against the separation."""
    figure = new_figure(9.0, 3.2)
    for axes, snr in zip(figure.subplots(1, 3, sharey=True), PAIR_SNR, strict=True):
        for method in _methods(results, "pairs"):
            rows = results.rows("pairs", widening=1.0, ratio="1:1", snr=snr, method=method)
            axes.plot(*_columns(rows, "separation", "two"), "o-", **_style(method))
        axes.axhline(95.0, color=GREY, linewidth=0.8, linestyle=DASHED)
        label_axes(axes, "separation, FWHM", "found as exactly two, %", f"SNR {snr:g}")
        axes.label_outer()
    _one_legend(figure)
    return figure


def pair_errors(results: Results) -> Figure:
    """Rms of the positions of pairs, against the separation, with the bound."""
    figure = new_figure(9.0, 3.2)
    for axes, snr in zip(figure.subplots(1, 3, sharey=True), PAIR_SNR, strict=True):
        rows = results.rows("pairs", widening=1.0, ratio="1:1", snr=snr)
        bound = _columns([r for r in rows if r["method"] == rows[0]["method"]], *_BOUND)
        axes.semilogy(*bound, color=INK, linewidth=1.2, linestyle=DASHED, label="bound")
        for method in _methods(results, "pairs"):
            found = [r for r in rows if r["method"] == method and float(r["two"]) >= _MIN_FOUND]
            separation, over = _columns(found, "separation", "first_rms")
            _, deviation = _columns(found, *_BOUND)
            axes.semilogy(separation, over * deviation, "o-", **_style(method))
        label_axes(axes, "separation, FWHM", "rms of the first position, samples", f"SNR {snr:g}")
        axes.grid(color=FAINT, linewidth=0.6)
        axes.label_outer()
    _one_legend(figure)
    return figure


def isolated_errors(results: Results) -> Figure:
    """Rms over the bound of isolated echoes, against the SNR."""
    figure = new_figure(9.0, 3.2)
    axes: Axes
    quantities = (("rms", "position"), ("rms_height", "amplitude"), ("rms_fwhm", "width"))
    for axes, (column, title) in zip(figure.subplots(1, 3, sharey=True), quantities, strict=True):
        for method in _methods(results, "isolated"):
            rows = results.rows("isolated", pulse="Gaussian", bits="12 bit", method=method)
            found = [row for row in rows if float(row["detected"]) >= _MIN_FOUND]
            axes.loglog(*_columns(found, "snr", column), "o-", **_style(method))
        axes.axhline(1.0, color=INK, linewidth=1.2, linestyle=DASHED, label="bound")
        axes.set_ylim(0.8, 20.0)
        label_axes(axes, "SNR", "rms over the bound", title)
        axes.grid(color=FAINT, linewidth=0.6)
        axes.label_outer()
    _one_legend(figure)
    return figure


_BOUND = ("separation", "first_bound")
PICTURES: dict[str, Callable[[Results], Figure]] = {
    "accuracy_detection": detection,
    "accuracy_pairs": pair_errors,
    "accuracy_isolated": isolated_errors,
}


def _columns(rows: list[Row], x: str, y: str) -> tuple[np.ndarray, np.ndarray]:
    return (
        np.array([float(row[x]) for row in rows]),
        np.array([float(row[y]) for row in rows]),
    )


def _style(method: str) -> dict[str, object]:
    width = 1.8 if method == PULSE_FIT else 1.0
    return {"color": COLOURS[method], "linewidth": width, "markersize": 3.0, "label": method}


def _methods(results: Results, table: str) -> list[str]:
    present = {row["method"] for row in results.tables[table]}
    return [method for method in METHODS if method in present]


def _one_legend(figure: Figure) -> None:
    """List each label once, although every panel has it."""
    for axes in figure.axes[1:]:
        for line in axes.lines:
            line.set_label(f"_{line.get_label()}")
    legend_below(figure)
