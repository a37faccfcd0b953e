"""``fullwaveform compare``: the echoes of two files, such as a scan's discrete returns."""

from __future__ import annotations

import json
from collections.abc import Callable
from dataclasses import asdict
from math import isfinite
from pathlib import Path
from typing import Annotated, Any

import typer

from fullwaveform.analysis.comparison import (
    CompareSettings,
    Comparison,
    MatchedBy,
    Spread,
    compare_echoes,
)
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.option_values import local_path
from fullwaveform.cli.options import require_suffix
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.summary import Row, print_table
from fullwaveform.data.echo_records import QUANTITIES
from fullwaveform.io.remote import location
from fullwaveform.io.unmatched_file import DETAILS_ENDINGS, details_kind
from fullwaveform.plotting.histogram import draw_histogram
from fullwaveform.plotting.style import PLOT_ENDINGS, plot_kind

_SHOWN_SETTINGS = ("mode", "threshold", "baseline", "outgoing_phase", "false_alarms")


def _positive(unit: str) -> Callable[[str | float], float]:
    def parse(text: str | float) -> float:
        try:
            value = float(text)
        except ValueError:
            value = float("nan")
        if not (isfinite(value) and value > 0):
            raise typer.BadParameter(f"{value} must be a finite number above 0, in {unit}")
        return value

    return parse


def compare(
    reference: Annotated[
        Path,
        typer.Argument(
            metavar="REFERENCE",
            parser=location,
            help="Scan with discrete returns, or file of echoes",
        ),
    ],
    echoes: Annotated[
        Path,
        typer.Argument(
            metavar="ECHOES",
            parser=location,
            help="File of echoes: LAS, LAZ, Parquet, HDF5, CSV or .npz",
        ),
    ],
    tolerance: Annotated[
        float,
        typer.Option(
            parser=_positive("m"),
            metavar="M",
            help="Largest difference in range between matched echoes, in m",
        ),
    ] = 1.0,
    time_tolerance: Annotated[
        float,
        typer.Option(
            parser=_positive("s"),
            metavar="S",
            help="Largest difference between the GPS times of a shot, in s, if they are not equal",
        ),
    ] = 1e-6,
    across: Annotated[
        float,
        typer.Option(
            parser=_positive("m"),
            metavar="M",
            help="Largest distance across the beam, in m, between echoes matched by place",
        ),
    ] = 0.1,
    details: Annotated[
        Path | None,
        typer.Option(
            metavar="FILE", parser=location, help="Missed and extra echoes: .csv or .parquet"
        ),
    ] = None,
    plot: Annotated[
        Path | None,
        typer.Option(
            metavar="FILE",
            parser=local_path,
            help="Histogram of the differences: .png, .pdf or .svg",
        ),
    ] = None,
    as_json: Annotated[bool, typer.Option("--json", help="Print machine-readable JSON")] = False,
    overwrite: OverwriteOption = False,
) -> None:
    """Compare echoes with the discrete returns of a scan, or with other echoes.

    Examples:

        fullwaveform compare scan.las echoes.las

        fullwaveform compare scan.las echoes.csv --tolerance 0.5 --details unmatched.csv

        fullwaveform compare echoes.las echoes.csv --plot differences.pdf --json
    """
    outputs = []
    for output, endings, kind_of, hint in (
        (details, DETAILS_ENDINGS, details_kind, "--details"),
        (plot, PLOT_ENDINGS, plot_kind, "--plot"),
    ):
        if output is not None:
            require_suffix(output, endings, hint)
            outputs.append(Output(output, kind_of(output), hint))
    with (
        checked_outputs(*outputs, overwrite=overwrite, inputs=(reference, echoes)),
        report_errors(),
    ):
        comparison = compare_echoes(
            reference,
            echoes,
            CompareSettings(tolerance, time_tolerance, across),
            details,
            overwrite=overwrite,
        )
        if plot is not None:
            draw_histogram(
                plot,
                comparison.drawn,
                title=f"{comparison.matched:,} echoes matched with {_names(comparison)[0]}",
                label="range, found minus reference [m]",
                overwrite=overwrite,
            )
        if as_json:
            typer.echo(json.dumps(_json(comparison), indent=2))
            return
        results = [path for path in (details, plot) if path is not None]
        title = f"Echoes matched within {tolerance:g} m of range"
        print_table(title, _rows(comparison), _notes(comparison), results)


def _names(comparison: Comparison) -> tuple[str, str]:
    """Words for the echoes of the reference and of the other file."""
    if comparison.reference.has_returns and not comparison.found.has_returns:
        return "returns", "extracted"
    return "reference", "compared"


def _rows(comparison: Comparison) -> list[Row]:
    references, found = _names(comparison)
    rows = [(references, f"{comparison.reference_count:,}", "")]
    if comparison.duplicates:
        rows.append(("duplicates", f"{comparison.duplicates:,}", "in another channel, skipped"))
    rows.append((found, f"{comparison.found_count:,}", ""))
    rows += _shot_rows(comparison)
    share = comparison.matched / comparison.reference_count if comparison.reference_count else 0.0
    rows += [
        ("matched", f"{comparison.matched:,}", f"{share:.1%} of the {references}"),
        ("missed", f"{comparison.missed:,}", f"{references} only"),
        ("extra", f"{comparison.extra:,}", f"{found} only"),
    ]
    if comparison.matched:
        one = references.removesuffix("s")
        rows.append(("median", f"{comparison.distance.median:+.3f} m", f"{found} minus {one}"))
        rows += [
            (f"{percent} % within", f"{value:.3f} m", "of the median")
            for percent, value in comparison.distance.within.items()
        ]
    return rows + [_quantity_row(*item) for item in comparison.quantities.items()]


def _shot_rows(comparison: Comparison) -> list[Row]:
    if comparison.matched_by is MatchedBy.PLACE:
        return [("shots", "unknown", "no GPS time in common; matched by place")]
    equal = "equal GPS times"
    if comparison.matched_by is MatchedBy.NUMBER:
        equal = "equal shot numbers"
    if comparison.matched_by is MatchedBy.TIME:
        equal = f"GPS times within {comparison.settings.time_tolerance:g} s"
    counts = f"of {comparison.reference_shots:,} and {comparison.found_shots:,}"
    return [("shots shared", f"{comparison.shared_shots:,}", f"{counts}; {equal}")]


def _quantity_row(name: str, spread: Spread) -> Row:
    ninety = f"90 % within {spread.within[90]:.3g} of the median"
    if name == "intensity":
        return ("intensity", f"x {spread.median:.3g}", f"median ratio; {ninety}")
    unit = QUANTITIES[name]
    return (name, f"{spread.median:+.3g} {unit}", f"median; {ninety}, {spread.pairs:,} pairs")


def _notes(comparison: Comparison) -> list[str]:
    notes = []
    if comparison.without_flight:
        notes.append(
            f"the direction of {comparison.without_flight:,} shots is not recorded; ranges are "
            "along the line through their echoes, as seen from above"
        )
    for file in (comparison.reference, comparison.found):
        shown = [f"{key} {file.settings[key]}" for key in _SHOWN_SETTINGS if key in file.settings]
        if shown:
            notes.append(f"{file.path.name} was extracted with {', '.join(shown)}")
    return notes


def _json(comparison: Comparison) -> dict[str, Any]:
    """All figures; distances in the unit of the coordinates, times in s."""
    return {
        "reference": str(comparison.reference.path),
        "echoes": str(comparison.found.path),
        **asdict(comparison.settings),
        "matched_by": comparison.matched_by.value,
        "reference_count": comparison.reference_count,
        "echo_count": comparison.found_count,
        "duplicates": comparison.duplicates,
        "reference_shots": comparison.reference_shots,
        "echo_shots": comparison.found_shots,
        "shared_shots": comparison.shared_shots,
        "matched": comparison.matched,
        "missed": comparison.missed,
        "extra": comparison.extra,
        "distance": _json_spread(comparison.distance),
        "quantities": {
            name: _json_spread(spread) for name, spread in comparison.quantities.items()
        },
        "notes": _notes(comparison),
    }


def _json_spread(spread: Spread) -> dict[str, Any]:
    return {
        "pairs": spread.pairs,
        "median": spread.median if spread.pairs else None,
        "distance_from_median": {str(key): value for key, value in spread.within.items()},
    }
