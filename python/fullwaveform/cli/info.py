"""``fullwaveform info``: contents of a waveform file."""

from __future__ import annotations

import json
from collections.abc import Mapping, Sequence
from contextlib import ExitStack
from dataclasses import asdict
from itertools import pairwise
from pathlib import Path
from typing import Annotated, Any

import typer
from rich import box
from rich.console import Console
from rich.markup import escape
from rich.table import Table

from fullwaveform.analysis.histograms import Histogram
from fullwaveform.analysis.inspection import FileContents, Level, inspect_sample, inspect_waveforms
from fullwaveform.analysis.origin import point_file
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.calibration.outgoing_phase import OutgoingPhase
from fullwaveform.calibration.receiver_names import CHANNEL_NAMES
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.info_origin import (
    json_origin,
    json_receiver,
    origin_rows,
    receiver_rows,
    show_point_file,
)
from fullwaveform.cli.options import (
    AsOne,
    ChannelOption,
    IntervalOption,
    KeepDegraded,
    MaxSamples,
    SourceFiles,
    VerboseOption,
    refuse_quiet_and_verbose,
)
from fullwaveform.cli.progress import blocks_with_progress, print_line
from fullwaveform.cli.reader_options import ReaderOptions, check_as_one
from fullwaveform.cli.summary import threshold_rows
from fullwaveform.core.scanner import Scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.remote import is_remote

_NANOSECONDS = 1e9
_MAX_BAR, _MIN_BAR = 40, 8  # characters
_EIGHTHS = " ▏▎▍▌▋▊▉"
_MAX_LISTED = 6  # entries of a distribution that are printed one by one


def info(
    sources: SourceFiles,
    as_one: AsOne = False,
    interval: IntervalOption = None,
    max_samples: MaxSamples = DEFAULT_MAX_SAMPLES,
    keep_degraded: KeepDegraded = False,
    channel: ChannelOption = None,
    whole: Annotated[
        bool | None,
        typer.Option(
            "--all/--sample",
            show_default=False,
            help="Read all waveforms, or a sample spread over the file. Default: all of a file, a "
            "sample of a URL",
        ),
    ] = None,
    as_json: Annotated[bool, typer.Option("--json", help="Print machine-readable JSON")] = False,
    verbose: VerboseOption = False,
    quiet: Annotated[bool, typer.Option("-q", "--quiet", help="Print no progress")] = False,
) -> None:
    """Show the contents of a waveform file: counts, times, levels.

    Examples:

        fullwaveform info scan.las

        fullwaveform info scan.las --channel 2=high --json

        fullwaveform info s3://bucket/scan.las

        fullwaveform info line_1.pls line_2.pls --as-one
    """
    refuse_quiet_and_verbose(quiet, verbose)
    check_as_one(sources, as_one)
    options = ReaderOptions(
        interval=interval,
        channel=channel,
        skip_unreadable=True,
        max_samples=max_samples,
        keep_degraded=keep_degraded,
    )
    with report_errors():
        if len(sources) == 1 and (points := point_file(sources[0])) is not None:
            show_point_file(sources[0], points, as_json=as_json)
            return
        sampled = any(map(is_remote, sources)) if whole is None else not whole
        with options.open(sources) as reader, ExitStack() as shown:
            reader.on_unreadable = print_line if verbose else None
            if sampled:
                contents = inspect_sample(reader)
            else:
                blocks = shown.enter_context(blocks_with_progress(reader, quiet))
                contents = inspect_waveforms(reader, blocks)
        if as_json:
            typer.echo(json.dumps(_json(sources, contents), indent=2))
        else:
            _show(sources, contents, Console())


def _json(sources: Sequence[Path], contents: FileContents) -> dict[str, Any]:
    """All contents; intervals and times in s, levels in counts."""
    return {
        "file": str(sources[0]),
        "files": list(map(str, sources)),
        "format": contents.format,
        "points": contents.points,
        "points_without_waveform": contents.points_without_waveform,
        "points_sharing_waveform": contents.points_sharing_waveform,
        "waveforms": contents.waveforms,
        "sampled": contents.sampled,
        "shots": contents.shots,
        "samples": contents.samples,
        "samples_per_waveform": _pairs(contents.sample_counts, "samples"),
        "sampling_intervals": _pairs(contents.sampling_intervals, "seconds"),
        "channels": _pairs(contents.channels, "flag"),
        "descriptors": [json_receiver(receiver) for receiver in contents.receivers],
        "point_sources": _pairs(contents.point_sources, "id"),
        "origin": json_origin(contents.origin),
        "shots_by_waveforms": _pairs(contents.waveforms_per_shot, "waveforms", "shots"),
        "first_time": contents.first_time,
        "last_time": contents.last_time,
        "thresholds": [_json_threshold(level) for level in contents.calibration.levels],
        "baseline": _json_level(contents.baseline),
        "noise_rms": _json_level(contents.noise_rms),
        "outgoing_phase": _json_phase(contents.calibration.outgoing_phase),
        "smallest_value": contents.smallest,
        "largest_value": contents.largest,
        "bits": contents.bits,
        "saturated_share": contents.saturated,
        "value_histogram": _json_histogram(contents.values()),
        "maximum_histogram": _json_histogram(contents.maxima()),
        "beams": _pairs(contents.beams, "beam", "shots"),
        "left_out": dict(contents.left_out),
        "rejected": dict(contents.rejected),
        "notes": list(contents.notes),
    }


def _pairs(
    counts: Mapping[Any, int], name: str, counted: str = "waveforms"
) -> list[dict[str, Any]]:
    return [{name: key, counted: count} for key, count in counts.items()]


def _json_level(level: Level | None) -> dict[str, float] | None:
    if level is None:
        return None
    return {"median": level.median, "low": level.low, "high": level.high}


def _json_phase(phase: OutgoingPhase | None) -> dict[str, Any] | None:
    """The decision of `extract`, scatter in m; None without outgoing pulses."""
    if phase is None:
        return None
    return {
        "taken_off": phase.form,
        "pairs": phase.pairs,
        "scatter_without": phase.scatter_without,
        "scatter_with": phase.scatter_with,
    }


def _json_threshold(level: ChannelLevels) -> dict[str, float]:
    """What `extract` uses without options."""
    preparation = ExtractionSettings(Scanner.default()).preparation
    return {**asdict(level), "threshold": preparation.threshold_of(level)}


def _json_histogram(histogram: Histogram) -> dict[str, list[int]]:
    return {"edges": histogram.edges.tolist(), "counts": histogram.counts.tolist()}


def _show(sources: Sequence[Path], contents: FileContents, console: Console) -> None:
    plain = not console.encoding.startswith("utf")
    more = f" and {len(sources) - 1} more" if len(sources) > 1 else ""
    table = Table(
        title=escape(f"{sources[0].name}{more}: {contents.format}"),
        show_header=False,
        box=box.ASCII if plain else box.SQUARE,
    )
    table.add_column(style="bold", no_wrap=True)
    table.add_column(overflow="fold")
    for row in _rows(contents):
        table.add_row(*map(escape, row))
    console.print(table)
    _show_histogram(console, "samples by value, counts", contents.values(), plain)
    _show_histogram(console, "waveforms by largest sample, counts", contents.maxima(), plain)
    for reason, count in contents.rejected.items():
        console.print(f"{count:,} skipped: {reason}", markup=False, highlight=False)
    for note in contents.notes:
        console.print(f"note: {note}", markup=False, highlight=False)


def _rows(contents: FileContents) -> list[tuple[str, str]]:
    """Names and values; without waveforms only the counts."""
    rows = [("points", f"{contents.points:,}")]
    if contents.sampled:
        rows.append(("waveforms", f"{contents.waveforms:,}, a sample spread over the file (--all)"))
    else:
        rows += [
            ("points without waveform", f"{contents.points_without_waveform:,}"),
            ("points sharing a waveform", f"{contents.points_sharing_waveform:,}"),
            ("waveforms", f"{contents.waveforms:,}"),
        ]
    rows += [(f"beam {name}", _number(count, "shots")) for name, count in contents.beams.items()]
    rows += [("left out", f"{count:,}: {reason}") for reason, count in contents.left_out.items()]
    if not contents.waveforms:
        return rows
    shown = {CHANNEL_NAMES.get(flag, str(flag)): n for flag, n in contents.channels.items()}
    intervals = {f"{s * _NANOSECONDS:.6g} ns": n for s, n in contents.sampling_intervals.items()}
    rows += [
        ("shots", f"{contents.shots:,}"),
        ("waveforms per shot", _listed(contents.waveforms_per_shot, "shots")),
        ("channels", _listed(shown, "waveforms")),
        *receiver_rows(contents.receivers),
        ("samples", f"{contents.samples:,}"),
        ("samples per waveform", _sample_counts(contents)),
        ("sampling interval", _listed(intervals, "waveforms")),
        ("GPS time", _times(contents)),
        ("point source ID", _listed(contents.point_sources, "waveforms")),
        *origin_rows(contents.origin),
    ]
    phase = contents.calibration.outgoing_phase
    if phase is not None:
        rows.append(("outgoing phase", f"{phase.result()} ({phase.reason()})"))
    return rows + _levels(contents)


def _levels(contents: FileContents) -> list[tuple[str, str]]:
    rows = []
    for name, level in (("baseline", contents.baseline), ("noise rms", contents.noise_rms)):
        if level is not None:
            span = f"90 % of the waveforms {level.low:.4g} to {level.high:.4g}"
            rows.append((name, f"{level.median:.4g} counts ({span})"))
    settings = ExtractionSettings(Scanner.default())
    for name, value, measured in threshold_rows(settings, {"": contents.calibration}):
        rows.append((name, f"{value} in extract ({measured})"))
    if contents.largest is not None:
        values = f"{contents.smallest:,} to {contents.largest:,} counts, {contents.bits} bits"
        top = f"{contents.saturated:.2%} of the waveforms have a plateau at {contents.largest:,}"
        rows += [("sample values", values), ("saturation", top)]
    return rows


def _listed(counts: Mapping[Any, int], counted: str) -> str:
    """Each value with its count; of many values only their number and the most frequent one."""
    if len(counts) == 1:
        return str(next(iter(counts)))
    if len(counts) <= _MAX_LISTED:
        return ", ".join(f"{key} ({_number(count, counted)})" for key, count in counts.items())
    mode = max(counts, key=lambda key: counts[key])
    return f"{len(counts):,} different values, most often {mode} ({_number(counts[mode], counted)})"


def _number(count: int, counted: str) -> str:
    """A number of things, whose plural ends in s."""
    return f"{count:,} {counted if count != 1 else counted[:-1]}"


def _sample_counts(contents: FileContents) -> str:
    counts = contents.sample_counts
    if len(counts) == 1:
        return f"{next(iter(counts)):,}"
    return f"{min(counts):,} to {max(counts):,}, median {contents.median_sample_count:,g}"


def _times(contents: FileContents) -> str:
    if contents.first_time is None or contents.last_time is None:
        return "none"
    duration = contents.last_time - contents.first_time
    return f"{contents.first_time:.6f} to {contents.last_time:.6f} s ({duration:.6g} s)"


def _show_histogram(console: Console, title: str, histogram: Histogram, plain: bool) -> None:
    if not len(histogram):
        return
    edges = histogram.edges.tolist()
    names = [
        f"{low:,}" if end == low + 1 else f"{low:,} to {end - 1:,}" for low, end in pairwise(edges)
    ]
    numbers = [f"{count:,}" for count in histogram.counts.tolist()]
    left, right = max(map(len, names)), max(map(len, numbers))
    largest = int(histogram.counts.max())
    length = max(min(console.width - left - right - 5, _MAX_BAR), _MIN_BAR)
    console.print(f"\n{title}", style="bold", markup=False, highlight=False)
    for name, number, count in zip(names, numbers, histogram.counts.tolist(), strict=True):
        line = f"{name:>{left}}  {number:>{right}}  {_bar(count / largest * length, plain)}"
        console.print(line.rstrip(), markup=False, highlight=False, no_wrap=True)


def _bar(length: float, plain: bool) -> str:
    """A bar of this many characters; a count above 0 always shows."""
    if plain:
        return "#" * (max(round(length), 1) if length > 0 else 0)
    eighths = max(round(length * 8), 1) if length > 0 else 0
    return "█" * (eighths // 8) + _EIGHTHS[eighths % 8].strip()
