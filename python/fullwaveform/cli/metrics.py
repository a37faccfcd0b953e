"""``fullwaveform metrics``: a row of metrics for each waveform of a file."""

from __future__ import annotations

from contextlib import closing
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.convert import print_left_out
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.option_values import integer_from
from fullwaveform.cli.options import (
    AsOne,
    QuietOption,
    SourceFiles,
    VerboseOption,
    refuse_quiet_and_verbose,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.progress import blocks_with_progress, print_line
from fullwaveform.cli.reader_options import ReaderOptions, check_as_one, with_options
from fullwaveform.data.counting import counted
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.remote import location
from fullwaveform.waveform_metrics.files import (
    METRICS_ENDINGS,
    metrics_outputs,
    open_metrics_file,
)
from fullwaveform.waveform_metrics.pipeline import block_metrics, measured_run
from fullwaveform.waveform_metrics.settings import MetricsSettings

_DEFAULTS = MetricsSettings()


def _number(text: str | float) -> float:
    try:
        return float(text)
    except ValueError as error:
        raise typer.BadParameter(f"{text!r} must be a number") from error


@with_options
def metrics(
    sources: SourceFiles,
    output: Annotated[
        Path,
        typer.Option(
            "-o",
            "--output",
            metavar="OUT",
            parser=location,
            help=f"Table of metrics: {', '.join(METRICS_ENDINGS)}",
        ),
    ],
    *,
    smoothing: Annotated[
        float,
        typer.Option(
            parser=_number,
            metavar="NS",
            help="Standard deviation of the smoothing in ns, about half the width of the pulses",
        ),
    ] = _DEFAULTS.smoothing,
    front_threshold: Annotated[
        float,
        typer.Option(
            parser=_number,
            metavar="N",
            help="Threshold for the top of the canopy, in noise rms above the baseline",
        ),
    ] = _DEFAULTS.front_threshold,
    back_threshold: Annotated[
        float,
        typer.Option(
            parser=_number,
            metavar="N",
            help="Threshold for modes and the end of the signal, in noise rms above the baseline",
        ),
    ] = _DEFAULTS.back_threshold,
    reflectance_ratio: Annotated[
        float,
        typer.Option(
            parser=_number, metavar="R", help="Ratio of the reflectances of vegetation and ground"
        ),
    ] = _DEFAULTS.reflectance_ratio,
    projection: Annotated[
        float,
        typer.Option(parser=_number, metavar="G", help="Projection of the leaves along the beam"),
    ] = _DEFAULTS.projection,
    clumping: Annotated[
        float, typer.Option(parser=_number, metavar="OMEGA", help="Clumping index of the leaves")
    ] = _DEFAULTS.clumping,
    profile_step: Annotated[
        float,
        typer.Option(parser=_number, metavar="M", help="Height step of the profiles in m"),
    ] = _DEFAULTS.profile_step,
    profile_top: Annotated[
        float,
        typer.Option(parser=_number, metavar="M", help="Height at which the profiles end, in m"),
    ] = _DEFAULTS.profile_top,
    diversity_step: Annotated[
        float,
        typer.Option(
            parser=_number, metavar="M", help="Height step of the foliage height diversity in m"
        ),
    ] = _DEFAULTS.diversity_step,
    workers: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1), metavar="N", help="Number of threads. Default: all processors"
        ),
    ] = None,
    as_one: AsOne = False,
    options: ReaderOptions,
    overwrite: OverwriteOption = False,
    verbose: VerboseOption = False,
    quiet: QuietOption = False,
) -> None:
    """Compute metrics of whole waveforms: heights of energy, canopy cover, plant area.

    Writes a row for each waveform. The defaults are for large footprints (GEDI, LVIS); use
    --smoothing 2 for airborne scanners with pulses of 4 ns.

    Examples:

        fullwaveform metrics scan.las -o metrics.parquet --smoothing 2

        fullwaveform metrics scan.las -o metrics.csv --smoothing 2 --profile-step 1 --profile-top 30
    """
    refuse_quiet_and_verbose(quiet, verbose)
    check_as_one(sources, as_one)
    try:
        settings = MetricsSettings(
            smoothing=smoothing,
            front_threshold=front_threshold,
            back_threshold=back_threshold,
            reflectance_ratio=reflectance_ratio,
            projection=projection,
            clumping=clumping,
            profile_step=profile_step,
            profile_top=profile_top,
            diversity_step=diversity_step,
        )
    except ValueError as error:
        name, _, rule = str(error).partition(" ")
        raise typer.BadParameter(rule, param_hint=f"--{name.replace('_', '-')}") from error
    try:
        kinds = metrics_outputs(output)
    except ValueError as error:
        raise typer.BadParameter(str(error), param_hint="-o") from error
    outputs = [Output(path, kind, "-o") for path, kind in kinds.items()]
    with checked_outputs(*outputs, overwrite=overwrite, inputs=(*sources,)), report_errors():
        with options.open(sources) as reader:
            reader.on_unreadable = print_line if verbose else None
            run = measured_run(reader, settings)
            writer = open_metrics_file(
                output,
                settings,
                sources=reader.paths,
                header=reader.header,
                shot_columns=reader.shot_columns,
                overwrite=overwrite,
            )
            found = 0
            with (
                writer,
                blocks_with_progress(reader, quiet) as blocks,
                closing(block_metrics(blocks, run, workers or available_workers())) as tables,
            ):
                for table in tables:
                    writer.write_table(table)
                    found += table.with_signal
        if not quiet:
            total = counted(reader.tally.waveforms, "waveform")
            typer.echo(f"{total}, {found:,} with a signal: {output}")
            print_left_out(reader.tally)
