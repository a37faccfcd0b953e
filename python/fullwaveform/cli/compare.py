"""``fullwaveform compare``: extracted echoes beside the scanner's own."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import numpy as np
import typer
from rich.console import Console
from rich.table import Table

from fullwaveform.analysis.comparison import Comparison, compare_with_returns
from fullwaveform.cli.errors import told_in_a_sentence
from fullwaveform.plotting.histogram import draw_histogram
from fullwaveform.plotting.style import PLOT_ENDINGS

_SHARES = (50, 90, 95, 99)  # percent


def compare(
    scan: Annotated[
        Path, typer.Argument(metavar="SCAN.las", help="The scan, with discrete returns.")
    ],
    echoes: Annotated[Path, typer.Argument(metavar="ECHOES.las", help="What was extracted of it.")],
    tolerance: Annotated[
        float, typer.Option(help="Metres of range within which two echoes are the same.")
    ] = 1.0,
    plot: Annotated[
        Path | None, typer.Option(help="Histogram of the differences, .png, .pdf or .svg.")
    ] = None,
) -> None:
    """Set extracted echoes beside the discrete returns of the same pulses.

    Worked examples:

        fullwaveform compare scan.las echoes.las

        fullwaveform compare scan.las echoes.las --tolerance 0.5 --plot differences.pdf
    """
    if not (np.isfinite(tolerance) and tolerance > 0):
        raise typer.BadParameter(f"{tolerance} must be above 0 m", param_hint="--tolerance")
    if plot is not None and plot.suffix.lower() not in PLOT_ENDINGS:
        raise typer.BadParameter(
            f"{plot} must end in {', '.join(PLOT_ENDINGS)}", param_hint="--plot"
        )
    with told_in_a_sentence():
        comparison = compare_with_returns(scan, echoes, tolerance)
        if plot is not None:
            draw_histogram(
                plot,
                comparison.matching.difference,
                title=f"{len(comparison.matching):,} echoes against on-board returns",
                label="extracted minus on-board range [m]",
            )
        _show(comparison, tolerance, Console())
        if plot is not None:
            typer.echo(f"histogram: {plot}")


def _show(comparison: Comparison, tolerance: float, console: Console) -> None:
    matching, returns = comparison.matching, comparison.returns.rows
    table = Table(title=f"Echoes within {tolerance:g} m of range", show_header=False)
    table.add_column(style="bold", no_wrap=True)
    table.add_column(justify="right", no_wrap=True)
    table.add_column()
    table.add_row("returns", f"{returns:,}", "")
    if comparison.duplicate_returns:
        table.add_row(
            "duplicates", f"{comparison.duplicate_returns:,}", "of another channel, left out"
        )
    table.add_row("extracted", f"{len(comparison.extracted_ranges):,}", "")
    share = len(matching) / returns if returns else 0.0
    table.add_row("matched", f"{len(matching):,}", f"{share:.1%} of the returns")
    table.add_row("missed", f"{len(matching.unmatched_ref):,}", "returns only")
    table.add_row("extra", f"{len(matching.unmatched_found):,}", "extracted only")
    if len(matching):
        _add_differences(matching.difference, table)
    console.print(table)


def _add_differences(
    difference: np.ndarray[tuple[int], np.dtype[np.float64]], table: Table
) -> None:
    median = float(np.median(difference))
    table.add_row("median", f"{median:+.3f} m", "extracted minus return")
    for share in _SHARES:
        distance = np.percentile(np.abs(difference - median), share)
        table.add_row(f"{share} % within", f"{distance:.3f} m", "of that median")
