"""``fullwaveform extract``: echoes of one file."""

from __future__ import annotations

import time
from dataclasses import replace
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console

from fullwaveform.calibration.calibration import measure
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.extract_options import ExtractOptions, open_checked
from fullwaveform.cli.options import (
    AfterPulseOption,
    AllowEmpty,
    BaselineOption,
    BlockOption,
    Carry,
    ChannelOption,
    IntervalOption,
    KeepEmpty,
    ModeOption,
    OutgoingPhaseOption,
    QuietOption,
    SampleScaleOption,
    ScannerFile,
    SkipUnreadable,
    SourceFile,
    ThresholdOption,
    WithWaveforms,
    channel_flags_from,
    integer_from,
    refuse_quiet_and_verbose,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.progress import blocks_with_progress, print_line
from fullwaveform.cli.summary import RunSummary
from fullwaveform.core.driver import Mode
from fullwaveform.core.messages import counted_messages
from fullwaveform.data.counting import counted
from fullwaveform.extraction.extractor import ExtractionSettings, ExtractionTally
from fullwaveform.extraction.pipeline import available_workers, extracted_blocks, write_echoes
from fullwaveform.extraction.prepare import checked_baseline
from fullwaveform.extraction.run_metadata import run_metadata
from fullwaveform.extraction.warning_file import warning_path
from fullwaveform.io.base import EchoWriter, WaveformReader
from fullwaveform.io.echo_writers.opening import (
    ECHO_ENDINGS,
    check_takes_empty,
    echo_outputs,
    open_echo_file,
)


def extract(
    source: SourceFile,
    output: Annotated[
        Path,
        typer.Option("-o", "--output", metavar="OUT", help=f"Echoes: {', '.join(ECHO_ENDINGS)}"),
    ],
    mode: ModeOption = Mode.THREE_POINT,
    threshold: ThresholdOption = None,
    baseline: BaselineOption = "auto",
    sample_scale: SampleScaleOption = "auto",
    scanner: ScannerFile = None,
    channel: ChannelOption = None,
    after_pulse: AfterPulseOption = None,
    interval: IntervalOption = None,
    outgoing_phase: OutgoingPhaseOption = "auto",
    keep_empty: KeepEmpty = False,
    carry: Carry = True,
    with_waveforms: WithWaveforms = False,
    skip_unreadable: SkipUnreadable = False,
    workers: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1), metavar="N", help="Number of threads. Default: all processors"
        ),
    ] = None,
    block: BlockOption = 20_000,
    overwrite: OverwriteOption = False,
    allow_empty: AllowEmpty = False,
    verbose: Annotated[
        bool,
        typer.Option(
            "-v", "--verbose", help="Print a line for each waveform skipped or without echoes"
        ),
    ] = False,
    quiet: QuietOption = False,
) -> None:
    """Extract the echoes from the waveforms of a file.

    Examples:

        fullwaveform extract scan.las -o echoes.las --threshold 20

        fullwaveform extract scan.las -o echoes.parquet --mode decomposition --keep-empty

        fullwaveform extract scan.las -o echoes.csv --channel 2=high --workers 2 --verbose
    """
    refuse_quiet_and_verbose(quiet, verbose)
    try:
        check_takes_empty(output, keep_empty)
        kinds = echo_outputs(output, with_waveforms)
    except ValueError as error:
        raise typer.BadParameter(str(error), param_hint="-o") from error
    options = ExtractOptions(
        mode=mode,
        threshold=threshold,
        baseline=checked_baseline(baseline),
        sample_scale=sample_scale,
        scanner=scanner,
        after_pulse=after_pulse,
        keep_empty=keep_empty,
        carry=carry,
        with_waveforms=with_waveforms,
        channels=channel_flags_from(channel),
        interval=interval,
        skip_unreadable=skip_unreadable,
        block=block,
        outgoing_phase=outgoing_phase,
    )
    results = [Output(path, kind, "-o") for path, kind in kinds.items()]
    with (
        checked_outputs(*results, overwrite=overwrite, inputs=(source, scanner)),
        report_errors(),
    ):
        with open_checked(
            source,
            options.channels,
            interval=interval,
            block=block,
            skip_unreadable=skip_unreadable,
        ) as reader:
            settings = replace(
                options.settings([reader.scanner()]), calibration=measure(reader, outgoing_phase)
            )
            threads = workers or available_workers()
            writer = open_echo_file(
                output,
                reader.header,
                run_metadata(settings, reader.path),
                carry=settings.carry,
                with_waveforms=settings.with_waveforms,
                overwrite=overwrite,
            )
            summary = _extract(
                reader,
                settings,
                writer,
                threads,
                allow_empty=allow_empty,
                verbose=verbose,
                quiet=quiet,
            )
        if not quiet:
            summary.show(Console())


def _extract(
    reader: WaveformReader,
    settings: ExtractionSettings,
    writer: EchoWriter,
    workers: int,
    *,
    allow_empty: bool,
    verbose: bool,
    quiet: bool,
) -> RunSummary:
    start = time.perf_counter()
    each = print_line if verbose else None
    reader.on_unreadable = each
    statistics = warning_path(writer.path.absolute().parent, reader.path)
    with (
        writer,
        blocks_with_progress(reader, quiet) as blocks,
        counted_messages(each) as messages,
    ):
        tally = write_echoes(
            extracted_blocks(blocks, settings, workers),
            writer,
            statistics=statistics,
            on_rejected=each,
        )
        if not allow_empty:
            _check_not_empty(tally, settings, writer)
    return RunSummary(
        name=reader.path.name,
        destination=writer.path,
        settings=settings,
        read=reader.tally,
        extracted=tally,
        calibrations={reader.path.name: settings.calibration},
        written=writer.count,
        notes=writer.notes(),
        messages=messages,
        statistics=statistics,
        seconds=time.perf_counter() - start,
    )


def _check_not_empty(
    tally: ExtractionTally, settings: ExtractionSettings, writer: EchoWriter
) -> None:
    if writer.count > 0 or (settings.keep_empty and tally.waveforms > 0):
        return
    if tally.echoes > 0:
        raise ValueError(
            f"{writer.path} would be empty: none of the {tally.echoes:,} echoes has coordinates "
            "that it can hold; write a table (.csv, .parquet, .h5) instead"
        )
    reasons = ", ".join(f"{count:,} x {reason}" for reason, count in tally.rejected.items())
    raise ValueError(
        f"{writer.path} would be empty: no echoes in {counted(tally.waveforms, 'waveform')}"
        f"{f' ({reasons})' if reasons else ''}; give a lower --threshold, or --allow-empty"
    )
