"""``fullwaveform convert``: the waveforms of a file as a scan container."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.options import (
    AsOne,
    QuietOption,
    ScannerFile,
    SourceFiles,
    VerboseOption,
    refuse_quiet_and_verbose,
    require_suffix,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.progress import blocks_with_progress, print_line
from fullwaveform.cli.reader_options import ReaderOptions, check_as_one, with_options
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import ReadTally
from fullwaveform.data.counting import counted
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.remote import location


@with_options
def convert(
    sources: SourceFiles,
    output: Annotated[
        Path,
        typer.Argument(metavar="OUT.h5", parser=location, help="Scan container: .h5 or .hdf5"),
    ],
    *,
    scanner: ScannerFile = None,
    as_one: AsOne = False,
    options: ReaderOptions,
    overwrite: OverwriteOption = False,
    verbose: VerboseOption = False,
    quiet: QuietOption = False,
) -> None:
    """Convert waveforms to a scan container (lossless for extraction).

    Examples:

        fullwaveform convert scan.las scan.h5 --channel 2=high

        fullwaveform convert scan.las described.h5 --scanner scanner.toml --block 5000
    """
    require_suffix(output, (".h5", ".hdf5"), "OUT.h5")
    refuse_quiet_and_verbose(quiet, verbose)
    check_as_one(sources, as_one)
    result = Output(output, ScanContainerWriter.kind, "OUT.h5")
    with (
        checked_outputs(result, overwrite=overwrite, inputs=(*sources, scanner)),
        report_errors(),
    ):
        description = Scanner.from_toml(scanner) if scanner is not None else None
        with options.open(sources) as reader:
            reader.on_unreadable = print_line if verbose else None
            reader.with_outgoing = True
            writer = ScanContainerWriter(output, reader.header, description or reader.scanner())
            writer.overwrite = overwrite
            with writer, blocks_with_progress(reader, quiet) as blocks:
                for waveforms in blocks:
                    writer.write(waveforms)
        if not quiet:
            _print_summary(reader.tally, output)


def _print_summary(tally: ReadTally, output: Path) -> None:
    typer.echo(f"{counted(tally.waveforms, 'waveform')}: {output}")
    print_left_out(tally)


def print_left_out(tally: ReadTally) -> None:
    """Print what was not read of a file, and the notes on it."""
    for reason, count in sorted(tally.rejected.items()):
        typer.echo(f"{count:,} skipped: {reason}")
    for reason, count in sorted(tally.left_out.items()):
        typer.echo(f"{count:,} left out: {reason}")
    for note in tally.notes:
        typer.echo(f"note: {note}")
