"""``fullwaveform plan``: divides the work on many files into units for a job array."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.job_planning import BlocksPerPart, check_new_folder, job_of, job_progress
from fullwaveform.cli.many_files import (
    DEFAULT_FORMAT,
    FormatOption,
    check_format,
    check_names,
)
from fullwaveform.cli.option_values import integer_from
from fullwaveform.cli.options import QuietOption, SourceFiles
from fullwaveform.cli.progress import print_line
from fullwaveform.cli.reader_options import with_options
from fullwaveform.cluster.executors import ExecutorWorkers, local_executor
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.plan import plan_job
from fullwaveform.data.counting import counted
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.remote import location


@with_options
def plan(
    sources: SourceFiles,
    folder: Annotated[
        Path,
        typer.Option(
            "-o", "--output", metavar="JOB", parser=location, help="New or empty folder for the run"
        ),
    ],
    options: ExtractOptions,
    part_format: FormatOption = None,
    blocks_per_part: BlocksPerPart = None,
    workers: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1),
            metavar="N",
            help="Number of files that are measured at a time. Default: all processors",
        ),
    ] = None,
    skip_bad_files: Annotated[
        bool, typer.Option("--skip-bad-files", help="Plan the others if some cannot be read")
    ] = False,
    print_count: Annotated[
        bool, typer.Option("--print-count", help="Print only the number of units, for scripts")
    ] = False,
    quiet: QuietOption = False,
) -> None:
    """Divide the extraction of files into units of work for a job array.

    Measures the files once and writes the manifest into the folder; the command run computes the
    units, in any order and on any machines that share the folder, and join completes the result.

    Examples:

        fullwaveform plan scan.las -o job

        fullwaveform plan scan.las second.las -o las_job --format las
    """
    part_format = part_format or DEFAULT_FORMAT
    check_names(sources)
    check_format(part_format, options)
    check_new_folder(folder, "compute it with fullwaveform run,")
    with report_errors():
        with job_progress(sources, quiet or print_count) as progress:
            inputs, settings = job_of(sources, options, blocks_per_part, part_format, progress)
            _refuse_bad_files([file.error for file in inputs], skip_bad_files)
            with local_executor(workers or available_workers(), len(inputs)) as executor:
                manifest = plan_job(ExecutorWorkers(executor), inputs, settings, progress)
        errors = [file.error for file in manifest.inputs]
        _refuse_bad_files(errors, skip_bad_files)
        for text in filter(None, errors):
            print_line(f"skipped: {text}")
        manifest.skip_failed()
        JobFolder(folder).write_manifest(manifest)
    count = len(manifest.parts)
    if print_count:
        typer.echo(count)
    elif not quiet:
        planned = f"{counted(count, 'unit')} of {counted(len(sources), 'file')} in {folder}"
        typer.echo(
            f"planned {planned}; compute with: fullwaveform run {folder} --units 0-{count - 1}"
        )


def _refuse_bad_files(errors: list[str], skip_bad_files: bool) -> None:
    found = list(filter(None, errors))
    if found and (not skip_bad_files or len(found) == len(errors)):
        verb = "is" if len(found) == 1 else "are"
        raise ValueError(
            f"{'; '.join(found)}; {len(found)} of {counted(len(errors), 'file')} {verb} bad, "
            "nothing was planned; leave them out, or plan the others with --skip-bad-files"
        )
