"""``fullwaveform report``: the library's text reports of single waveforms."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.analysis.reports import block_reports
from fullwaveform.analysis.waveform_selection import SelectedShot, Selector, find_shot
from fullwaveform.calibration.calibration import measure
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.extract_options import scanner_for
from fullwaveform.cli.option_values import integer_from
from fullwaveform.cli.options import (
    AfterPulseOption,
    ChannelOption,
    IntervalOption,
    MaxSamples,
    ModeOption,
    ScannerFile,
    SourceFile,
    ThresholdOption,
    TimeOption,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.reader_options import ReaderOptions
from fullwaveform.core.driver import Mode, check_system_wave
from fullwaveform.extraction.prepare import Preparation, prepare
from fullwaveform.io.atomic import FileKind, atomic_open
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES

# First words of a full report, of a line on the extent, and of the scanner's parameters.
_REPORT_STARTS = ("bin_shift: ", "#", "empty", "t_ref: ")


def _is_report(path: Path) -> bool:
    with path.open(encoding="utf-8") as file:
        return file.readline(4096).startswith(_REPORT_STARTS)


_REPORT_KIND = FileKind("a report", _is_report)


def report(
    source: SourceFile,
    waveform: Annotated[
        list[int] | None,
        typer.Option(
            parser=integer_from(0), metavar="N", help="Number of a waveform, from 0; repeatable"
        ),
    ] = None,
    time: TimeOption = None,
    extent: Annotated[
        bool, typer.Option("--extent", help="Print one line per waveform: extent of its echoes")
    ] = False,
    scanner_report: Annotated[
        bool, typer.Option("--scanner-report", help="Print the scanner's parameters first")
    ] = False,
    mode: ModeOption = Mode.THREE_POINT,
    threshold: ThresholdOption = None,
    scanner: ScannerFile = None,
    channel: ChannelOption = None,
    after_pulse: AfterPulseOption = None,
    interval: IntervalOption = None,
    max_samples: MaxSamples = DEFAULT_MAX_SAMPLES,
    output: Annotated[
        Path | None,
        typer.Option("-o", "--output", metavar="FILE", help="Text file. Default: standard output"),
    ] = None,
    overwrite: OverwriteOption = False,
) -> None:
    """Print the analysis of single waveforms: levels, segments, echoes.

    A high baseline is subtracted as in extract; the position offset of deconvolved echoes is not.

    Examples:

        fullwaveform report scan.las --waveform 2 --waveform 40

        fullwaveform report scan.las --waveform 2 --mode decomposition --extent -o extent.txt

        fullwaveform report scan.las --scanner-report
    """
    numbers = sorted(set(waveform or []))
    if not (numbers or time is not None or scanner_report):
        raise typer.BadParameter("expected --waveform, --time or --scanner-report")
    if extent and not (numbers or time is not None):
        raise typer.BadParameter("needs --waveform or --time", param_hint="--extent")
    if mode is Mode.PULSE_FIT:
        raise typer.BadParameter(
            "the library's report has no place for the pulse fit; use plot or extract",
            param_hint="--mode",
        )
    outputs = [] if output is None else [Output(output, _REPORT_KIND, "-o")]
    options = ReaderOptions(
        interval=interval, channel=channel, max_samples=max_samples, skip_unreadable=True
    )
    with (
        checked_outputs(*outputs, overwrite=overwrite, inputs=(source, scanner)),
        report_errors(),
    ):
        with options.open([source]) as reader:
            description = scanner_for(scanner, after_pulse, [reader.scanner()])
            check_system_wave(mode, description)
            shots = [find_shot(reader, Selector.WAVEFORM, number) for number in numbers]
            if time is not None:
                shots.append(find_shot(reader, Selector.TIME, time))
            calibration = measure(reader, "off")
            first = shots[0] if shots else find_shot(reader, Selector.WAVEFORM, 0)
        found, notes = {}, []
        # Samples keep their scale, so that the amplitudes of the report are counts of the input.
        preparation = Preparation(mode, threshold, "auto", 1, calibration)
        for shot in shots:
            prepared = prepare(shot.block, preparation)
            for number, text, state in block_reports(
                prepared.block, shot.rows, description, mode, prepared.thresholds, extent=extent
            ):
                found[number] = text, state
            for row in shot.rows[prepared.removed[shot.rows] > 0]:
                number, counts = shot.block.waveform_numbers[row], prepared.removed[row]
                notes.append(f"waveform {number}: without {counts} counts of its baseline")
        texts = [text for _, (text, _) in sorted(found.items()) if text is not None]
        missing = [f"waveform {n}: {state}" for n, (text, state) in found.items() if text is None]
        if scanner_report:
            parameters = description.at_interval(_interval(first)).report()
            texts.insert(0, parameters.removesuffix("\n"))
        if not texts:
            raise ValueError(f"{source}: no report; {'; '.join(missing)}")
        _write("".join(f"{text}\n" for text in texts), output, overwrite)
    for note in missing + notes:
        typer.echo(f"note: {note}", err=True)


def _interval(shot: SelectedShot) -> float:
    """Sampling interval of the first chosen waveform, s."""
    return float(shot.block.sampling_intervals[shot.rows[0]])


def _write(text: str, output: Path | None, overwrite: bool) -> None:
    if output is None:
        typer.echo(text, nl=False)
        return
    with atomic_open(output, _REPORT_KIND, overwrite=overwrite) as stream:
        stream.write(text.encode("utf-8"))
    typer.echo(f"result: {output}")
