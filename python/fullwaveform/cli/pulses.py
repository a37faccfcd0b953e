"""``fullwaveform pulses``: a row for each shot of a file."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.analysis.pulse_table import PulseTable, pulse_columns
from fullwaveform.cli.convert import print_left_out
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.options import (
    AsOne,
    QuietOption,
    SourceFiles,
    VerboseOption,
    refuse_quiet_and_verbose,
    require_suffix,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.progress import blocks_with_progress, print_line
from fullwaveform.cli.reader_options import ReaderOptions, check_as_one, with_options
from fullwaveform.data.blocks import ReadTally
from fullwaveform.data.counting import counted
from fullwaveform.io.pulse_writer import PulseWriter
from fullwaveform.io.remote import location


@with_options
def pulses(
    sources: SourceFiles,
    output: Annotated[
        Path,
        typer.Option(
            "-o", "--output", metavar="OUT.parquet", parser=location, help="Table of pulses"
        ),
    ],
    *,
    as_one: AsOne = False,
    options: ReaderOptions,
    overwrite: OverwriteOption = False,
    verbose: VerboseOption = False,
    quiet: QuietOption = False,
) -> None:
    """Write a table with a row for each shot, with or without echoes.

    A row has origin, first and last sample in space, direction, time, channels and outgoing pulse.

    Examples:

        fullwaveform pulses scan.las -o pulses.parquet

        fullwaveform pulses scan.las -o pulses.parquet --channel 2=high --overwrite
    """
    require_suffix(output, (".parquet",), "-o")
    refuse_quiet_and_verbose(quiet, verbose)
    check_as_one(sources, as_one)
    result = Output(output, PulseWriter.kind, "-o")
    with checked_outputs(result, overwrite=overwrite, inputs=(*sources,)), report_errors():
        with options.open(sources) as reader:
            reader.on_unreadable = print_line if verbose else None
            reader.with_outgoing = True
            writer = PulseWriter(output, pulse_columns(reader.shot_columns))
            writer.overwrite = overwrite
            with writer, blocks_with_progress(reader, quiet) as blocks:
                for waveforms in blocks:
                    writer.write(PulseTable.of(waveforms))
        if not quiet:
            _print_summary(reader.tally, writer.count, output)


def _print_summary(tally: ReadTally, shots: int, output: Path) -> None:
    typer.echo(f"{counted(shots, 'shot')} of {counted(tally.waveforms, 'waveform')}: {output}")
    print_left_out(tally)
