"""``fullwaveform convert``: waveforms of any file that can be read, as a scan container."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.common_options import (
    BlockSize,
    ChannelTexts,
    IntervalNs,
    LeftOutTold,
    Quiet,
)
from fullwaveform.cli.errors import told_in_a_sentence
from fullwaveform.cli.extract_options import open_checked
from fullwaveform.cli.messages import tell_unreadable
from fullwaveform.cli.options import (
    channel_flags_from,
    refuse_quiet_and_verbose,
    refuse_same_file,
    seconds_from,
)
from fullwaveform.cli.progress import progress_of
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import ReadTally
from fullwaveform.io.container.writer import ScanContainerWriter

_ENDINGS = (".h5", ".hdf5")


def convert(
    source: Annotated[
        Path, typer.Argument(metavar="IN", help="LAS, LAZ, PulseWaves .pls, .npz or a container.")
    ],
    output: Annotated[
        Path, typer.Argument(metavar="OUT.h5", help="The scan container (HDF5), .h5 or .hdf5.")
    ],
    scanner: Annotated[
        Path | None,
        typer.Option(help="Scanner description (TOML) to store; else that of IN, if it has one."),
    ] = None,
    interval: IntervalNs = None,
    channel: ChannelTexts = None,
    block: BlockSize = 20_000,
    skip_unreadable: Annotated[
        bool,
        typer.Option("--skip-unreadable", help="Leave out waveforms that cannot be used."),
    ] = False,
    verbose: LeftOutTold = False,
    quiet: Quiet = False,
) -> None:
    """Write the waveforms of a file into a scan container, from which the same echoes come.

    Worked examples:

        fullwaveform convert scan.las scan.h5 --channel 2=high

        fullwaveform convert scan.las described.h5 --scanner scanner.toml --block 5000
    """
    _check(source, output)
    refuse_quiet_and_verbose(quiet, verbose)
    channels, seconds = channel_flags_from(channel or []), seconds_from(interval)
    with told_in_a_sentence():
        description = Scanner.from_toml(scanner) if scanner is not None else None
        with open_checked(
            source,
            channels,
            interval=seconds,
            waveforms_per_block=block,
            skip_unreadable=skip_unreadable,
        ) as reader:
            tell_unreadable(reader, verbose)
            writer = ScanContainerWriter(output, reader.header, description or reader.scanner())
            with writer, progress_of(reader, quiet) as blocks:
                for waveforms in blocks:
                    writer.write(waveforms)
        if not quiet:
            _tell(reader.tally, output)


def _check(source: Path, output: Path) -> None:
    if output.suffix.lower() not in _ENDINGS:
        raise typer.BadParameter(
            f"{output} must end in {' or '.join(_ENDINGS)}", param_hint="OUT.h5"
        )
    refuse_same_file(source, output, "OUT.h5")


def _tell(tally: ReadTally, output: Path) -> None:
    typer.echo(f"{tally.waveforms:,} waveforms: {output}")
    for reason, count in sorted(tally.rejected.items()):
        typer.echo(f"{count:,} left out: {reason}")
    for note in tally.notes:
        typer.echo(note)
