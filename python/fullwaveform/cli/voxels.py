"""``fullwaveform voxels``: the light of the waveforms and the paths of the pulses per voxel."""

from __future__ import annotations

from functools import partial
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.convert import print_left_out
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.option_values import local_path
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
from fullwaveform.volumes.files import TIFF_ENDINGS, ZARR_ENDING, volume_file
from fullwaveform.volumes.grid import checked_size
from fullwaveform.volumes.quantities import QUANTITIES, checked_quantity
from fullwaveform.volumes.volume import CHANNELS, VolumeSettings, VolumeSummary, write_volume


def _size(text: str) -> float:
    try:
        return checked_size(float(text))
    except ValueError as error:
        raise typer.BadParameter(f"{text!r} must be a finite number above 0") from error


def _quantity(text: str) -> str:
    try:
        return checked_quantity(text).name
    except ValueError as error:
        raise typer.BadParameter(str(error)) from error


def _channel(text: str) -> str:
    if text not in CHANNELS:
        raise typer.BadParameter(f"{text!r} must be {' or '.join(CHANNELS)}")
    return text


@with_options
def voxels(
    sources: SourceFiles,
    output: Annotated[
        Path,
        typer.Option(
            "-o",
            "--output",
            metavar="OUT.zarr|OUT.tif",
            parser=local_path,
            help="Volume: a Zarr folder with all quantities, or a GeoTIFF with one, a band per "
            "layer",
        ),
    ],
    size: Annotated[
        float,
        typer.Option(
            parser=_size, metavar="SIZE", help="Edge of a voxel in coordinate units of IN"
        ),
    ],
    *,
    quantity: Annotated[
        str | None,
        typer.Option(
            parser=_quantity,
            metavar="|".join(QUANTITIES),
            help="Quantity of a GeoTIFF. Default: sum",
        ),
    ] = None,
    only: Annotated[
        str | None,
        typer.Option(
            parser=_channel,
            metavar="|".join(CHANNELS),
            help="Use the waveforms of this channel only. Default: all waveforms",
        ),
    ] = None,
    as_one: AsOne = False,
    options: ReaderOptions,
    overwrite: OverwriteOption = False,
    verbose: VerboseOption = False,
    quiet: QuietOption = False,
) -> None:
    """Write sum, mean and maximum of the samples above the baseline, and pulses, per voxel.

    A voxel without a sample through which no pulse passes is hidden or outside the scan. Needs the
    packages of the extra volumes.

    Examples:

        fullwaveform voxels scan.las -o volume.zarr --size 0.5 --channel 2=high --only low

        fullwaveform voxels scan.las -o pulses.tif --size 2 --quantity pulses
    """
    require_suffix(output, (ZARR_ENDING, *TIFF_ENDINGS), "-o")
    if quantity is not None and output.suffix.lower() == ZARR_ENDING:
        raise typer.BadParameter(
            "only for a GeoTIFF; a Zarr volume has all", param_hint="--quantity"
        )
    refuse_quiet_and_verbose(quiet, verbose)
    check_as_one(sources, as_one)
    with report_errors():
        kind = volume_file(output, quantity).kind
    with (
        checked_outputs(Output(output, kind, "-o"), overwrite=overwrite, inputs=(*sources,)),
        report_errors(),
    ):
        with options.open(sources) as reader:
            reader.on_unreadable = print_line if verbose else None
            summary = write_volume(
                reader,
                output,
                VolumeSettings(size, only),
                quantity=quantity,
                overwrite=overwrite,
                blocks=partial(blocks_with_progress, quiet=quiet),
            )
        if not quiet:
            _print_summary(summary, reader.tally, output)


def _print_summary(summary: VolumeSummary, tally: ReadTally, output: Path) -> None:
    layers, rows, columns = summary.shape
    typer.echo(
        f"{counted(summary.waveforms, 'waveform')} of {counted(summary.pulses, 'pulse')} in "
        f"{columns:,} x {rows:,} x {layers:,} voxels of size {summary.size:g}: {output}"
    )
    for reason, count in sorted(summary.left_out.items()):
        typer.echo(f"{count:,} left out: {reason}")
    print_left_out(tally)
