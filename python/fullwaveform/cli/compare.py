"""``fullwaveform compare``: extracted echoes against the scanner's discrete returns."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import numpy as np
import typer
from rich.console import Console

from fullwaveform.analysis.comparison import Comparison, compare_with_returns
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.options import require_suffix
from fullwaveform.cli.summary import Row, print_table
from fullwaveform.plotting.histogram import draw_histogram
from fullwaveform.plotting.style import PLOT_ENDINGS

_PERCENTILES = (50, 90, 95, 99)


def compare(
    scan: Annotated[Path, typer.Argument(metavar="SCAN.las", help="Scan with discrete returns")],
    echoes: Annotated[Path, typer.Argument(metavar="ECHOES.las", help="Echoes extracted from it")],
    tolerance: Annotated[
        float, typer.Option(metavar="M", help="Largest difference in range of a match, in m")
    ] = 1.0,
    plot: Annotated[
        Path | None,
        typer.Option(metavar="FILE", help="Histogram of the differences: .png, .pdf or .svg"),
    ] = None,
) -> None:
    """Compare extracted echoes with the discrete returns of the same pulses.

    Examples:

        fullwaveform compare scan.las echoes.las

        fullwaveform compare scan.las echoes.las --tolerance 0.5 --plot differences.pdf
    """
    if not (np.isfinite(tolerance) and tolerance > 0):
        raise typer.BadParameter(
            f"{tolerance} must be a finite number above 0, in m", param_hint="--tolerance"
        )
    if plot is not None:
        require_suffix(plot, PLOT_ENDINGS, "--plot")
    with report_errors():
        comparison = compare_with_returns(scan, echoes, tolerance)
        if plot is not None:
            draw_histogram(
                plot,
                comparison.matching.difference,
                title=f"{len(comparison.matching):,} echoes matched with discrete returns",
                label="range, extracted minus return [m]",
            )
        title = f"Echoes matched within {tolerance:g} m of range"
        print_table(Console(), title, _rows(comparison), [], [plot] if plot is not None else [])


def _rows(comparison: Comparison) -> list[Row]:
    matching, returns = comparison.matching, comparison.returns.rows
    rows = [("returns", f"{returns:,}", "")]
    if comparison.duplicate_returns:
        rows.append(
            ("duplicates", f"{comparison.duplicate_returns:,}", "in another channel, skipped")
        )
    share = len(matching) / returns if returns else 0.0
    rows += [
        ("extracted", f"{len(comparison.extracted_ranges):,}", ""),
        ("matched", f"{len(matching):,}", f"{share:.1%} of the returns"),
        ("missed", f"{len(matching.unmatched_ref):,}", "returns only"),
        ("extra", f"{len(matching.unmatched_found):,}", "extracted only"),
    ]
    if len(matching):
        median = float(np.median(matching.difference))
        rows.append(("median", f"{median:+.3f} m", "extracted minus return"))
        for percent in _PERCENTILES:
            distance = np.percentile(np.abs(matching.difference - median), percent)
            rows.append((f"{percent} % within", f"{distance:.3f} m", "of the median"))
    return rows
