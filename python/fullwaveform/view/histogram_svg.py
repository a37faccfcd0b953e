"""Histograms as SVG, with their numbers as a table."""

from __future__ import annotations

from html import escape
from itertools import pairwise

import numpy as np

from fullwaveform.view.svg_axes import axes_svg
from fullwaveform.view.svg_scale import Scale
from fullwaveform.view.value_counts import Histogram

_WIDTH, _HEIGHT = 460, 230
_LEFT, _RIGHT, _TOP, _BOTTOM = 66, 12, 10, 48


def histogram_figure(histogram: Histogram, name: str, unit: str, of: str) -> str:
    """A histogram with a caption and the table of its classes.

    name, unit : of the quantity; the unit may be empty
    of : what was counted, in the plural
    """
    label = f"{name}, {unit}" if unit else name
    if not histogram.total:
        return f"<figure><figcaption>{escape(label)}: no values</figcaption></figure>"
    low, middle, high = histogram.quantiles
    of_unit = f" {unit}" if unit else ""
    described = (
        f"{name[:1].upper()}{name[1:]} of {histogram.total:,} {of}: median {middle:.4g}{of_unit}, "
        f"90 % from {low:.4g} to {high:.4g}{of_unit}"
    )
    edges, counts = histogram.edges, histogram.counts
    x = Scale(float(edges[0]), float(edges[-1]), _LEFT, _WIDTH - _RIGHT)
    y = Scale(0.0, 1.05 * float(counts.max()), _HEIGHT - _BOTTOM, _TOP)
    bars = "".join(
        f"M{left:.1f} {y.start:.0f}V{top:.1f}H{right:.1f}V{y.start:.0f}z"
        for left, right, top in zip(x.of(edges[:-1]), x.of(edges[1:]), y.of(counts), strict=True)
    )
    axes = axes_svg(x, y, x.ticks(6), y.ticks(5, whole=True), text=lambda value: f"{value:,.10g}")
    svg = (
        f'<svg viewBox="0 0 {_WIDTH} {_HEIGHT}" role="img" aria-label="{escape(described)}">'
        f'<path class="bars" d="{bars}"/>{axes}'
        f'<text x="{(x.start + x.stop) / 2:.0f}" y="{_HEIGHT - 8}" class="mid">{escape(label)}'
        f"</text>"
        f'<text transform="translate(14 {(y.start + y.stop) / 2:.0f})rotate(-90)" class="mid">'
        f"{escape(of)}</text></svg>"
    )
    caption = f"<figcaption>{escape(described)}.</figcaption>"
    return f"<figure>{svg}{caption}{_table(histogram, label, of)}</figure>"


def _table(histogram: Histogram, label: str, of: str) -> str:
    """The classes; whole numbers by themselves, others by their edges."""
    edges = histogram.edges
    if bool(np.all(edges % 1.0 == 0.5) and edges[1] - edges[0] == 1.0):
        names = [f"{value:g}" for value in edges[:-1] + 0.5]
    else:
        names = [f"{first:.5g} to {last:.5g}" for first, last in pairwise(edges.tolist())]
    rows = "".join(
        f"<tr><td>{name}<td>{count:,}"
        for name, count in zip(names, histogram.counts.tolist(), strict=True)
    )
    return (
        "<details><summary>Table of this histogram</summary><table><thead><tr>"
        f'<th scope="col">{escape(label)}<th scope="col">{escape(of)}<tbody>{rows}</table>'
        "</details>"
    )
