"""``fullwaveform extract``: echoes of one file, or of several into a folder."""

from __future__ import annotations

import json
import os
from dataclasses import replace
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.extract_file import FileRun
from fullwaveform.cli.extract_many import extract_many
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.many_files import (
    DEFAULT_FORMAT,
    FormatOption,
    SkipBadFiles,
    check_folder,
    check_format,
    check_names,
)
from fullwaveform.cli.option_values import integer_from
from fullwaveform.cli.options import AsOne, QuietOption, SourceFiles, refuse_quiet_and_verbose
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.progress import print_line, progress_bar
from fullwaveform.cli.reader_options import with_options
from fullwaveform.core.memory import keep_freed_memory
from fullwaveform.core.messages import counted_messages
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, check_takes_empty, echo_outputs
from fullwaveform.io.remote import is_remote, location


@with_options
def extract(
    sources: SourceFiles,
    output: Annotated[
        Path,
        typer.Option(
            "-o",
            "--output",
            metavar="OUT",
            parser=location,
            help=f"Echoes: {', '.join(ECHO_ENDINGS)}; for several files a folder",
        ),
    ],
    options: ExtractOptions,
    as_one: AsOne = False,
    file_format: FormatOption = None,
    jobs: Annotated[
        int,
        typer.Option(
            parser=integer_from(1), metavar="N", help="Number of files extracted at the same time"
        ),
    ] = 1,
    workers: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1),
            metavar="N",
            help="Number of threads per file. Default: all processors, divided by --jobs",
        ),
    ] = None,
    overwrite: OverwriteOption = False,
    skip_bad_files: SkipBadFiles = False,
    verbose: Annotated[
        bool,
        typer.Option(
            "-v", "--verbose", help="Print a line for each waveform skipped or without echoes"
        ),
    ] = False,
    as_json: Annotated[
        bool, typer.Option("--json", help="Print the summary of one file as JSON")
    ] = False,
    quiet: QuietOption = False,
) -> None:
    """Extract the echoes from the waveforms of files.

    Several files are written to a folder, under their own names, or read as one with --as-one.

    Examples:

        fullwaveform extract scan.las -o echoes.las

        fullwaveform extract scan.las -o echoes.parquet --mode decomposition --keep-empty

        fullwaveform extract scan.las -o echoes.csv --channel 2=high --workers 2 --verbose

        fullwaveform extract scan.las second.las -o folder --format las --jobs 2
    """
    refuse_quiet_and_verbose(quiet, verbose)
    # Path.is_dir raises an error for a name that is too long.
    is_folder = not is_remote(output) and os.path.isdir(output)  # noqa: PTH112
    many = (len(sources) > 1 and not as_one) or file_format is not None or is_folder
    if as_one and many:
        raise typer.BadParameter("does not apply to output in a folder", param_hint="--as-one")
    if as_json and many:
        raise typer.BadParameter("does not apply to output in a folder", param_hint="--json")
    targets = _in_folder(sources, output, file_format, options) if many else [output]
    outputs = []
    for target in targets:
        try:
            check_takes_empty(target, options.keep_empty)
            kinds = echo_outputs(target, options.with_waveforms)
        except ValueError as error:
            raise typer.BadParameter(str(error), param_hint="-o") from error
        outputs += [Output(path, kind, "-o") for path, kind in kinds.items()]

    def print_waveform(source: Path, text: str) -> None:
        print_line(f"{source.name}: {text}" if many else text)

    with (
        checked_outputs(*outputs, overwrite=overwrite, inputs=(*sources, options.scanner)),
        report_errors(),
    ):
        with (
            progress_bar(quiet) as progress,
            counted_messages(print_line if verbose else None) as messages,
        ):
            keep_freed_memory()
            threads = workers or max(1, available_workers() // min(jobs, len(sources)))
            each = print_waveform if verbose else None
            run = FileRun(options, threads, overwrite, progress, quiet, each)
            if many:
                output.mkdir(exist_ok=True)
                pairs = list(zip(sources, targets, strict=True))
                extract_many(run, pairs, jobs, skip_bad_files=skip_bad_files)
                return
            summary = replace(run.extract(sources, output), messages=messages)
        if as_json:
            typer.echo(json.dumps(summary.as_dict(), indent=2))
        elif not quiet:
            summary.show()


def _in_folder(
    sources: list[Path], folder: Path, file_format: str | None, options: ExtractOptions
) -> list[Path]:
    """The outputs of the inputs in the folder; BadParameter if names or options do not allow it."""
    suffix = file_format or DEFAULT_FORMAT
    check_folder(folder)
    check_format(suffix, options)
    check_names(sources)
    return [folder / f"{source.stem}.{suffix}" for source in sources]
