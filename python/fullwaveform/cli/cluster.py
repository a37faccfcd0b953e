"""``fullwaveform cluster``: echoes of many files, extracted by several processes or machines."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.job_planning import BlocksPerPart, check_new_folder, job_of, job_progress
from fullwaveform.cli.job_result import check_complete, check_not_empty, show_summary
from fullwaveform.cli.many_files import (
    DEFAULT_FORMAT,
    FormatOption,
    SkipBadFiles,
    check_folder,
    check_format,
    check_names,
)
from fullwaveform.cli.option_values import integer_from
from fullwaveform.cli.options import QuietOption, SourceFiles
from fullwaveform.cli.reader_options import with_options
from fullwaveform.cluster.connection import LOCAL, check_address, connected
from fullwaveform.cluster.executors import DaskWorkers
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.join import save_outcomes, tidy
from fullwaveform.cluster.plan import check_settings, earlier_job, plan_job, resume_job
from fullwaveform.cluster.run import run_parts
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.remote import location


@with_options
def cluster(
    sources: SourceFiles,
    folder: Annotated[
        Path,
        typer.Option(
            "-o",
            "--output",
            metavar="FOLDER",
            parser=location,
            help="New or empty folder for the parts",
        ),
    ],
    scheduler: Annotated[
        str,
        typer.Option(
            metavar="ADDRESS|local",
            help="Dask scheduler (tcp://HOST:PORT), or local: new processes on this machine",
        ),
    ],
    options: ExtractOptions,
    workers: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1),
            metavar="N",
            help="Processes of a local run. Default: all processors",
        ),
    ] = None,
    part_format: FormatOption = None,
    blocks_per_part: BlocksPerPart = None,
    resume: Annotated[bool, typer.Option("--resume", help="Continue the run in FOLDER")] = False,
    skip_bad_files: SkipBadFiles = False,
    as_one: Annotated[bool, typer.Option("--as-one", hidden=True)] = False,
    quiet: QuietOption = False,
) -> None:
    """Extract the echoes of files on several processors or machines.

    The output is a folder of part files and a manifest that lists them.

    Examples:

        fullwaveform cluster scan.las -o parts --scheduler local --workers 2

        fullwaveform cluster scan.las -o las_parts --scheduler local --format las
    """
    if as_one:
        raise typer.BadParameter(
            "not on a cluster, whose units of work are parts of one file; join the files with "
            "convert --as-one and extract the result, or use extract",
            param_hint="--as-one",
        )
    _check_scheduler(scheduler, workers)
    part_format = part_format or DEFAULT_FORMAT
    check_names(sources)
    check_format(part_format, options)
    if resume:
        check_folder(folder)
    else:
        check_new_folder(folder, "continue it with --resume")
    job = JobFolder(folder)

    def remaining_result() -> str:
        if not job.has_manifest:
            return "no result was written"
        return "finished parts are kept; continue with --resume"

    with report_errors(remaining_result):
        with job_progress(sources, quiet) as progress:
            # Errors in files and manifest are reported before workers are waited for, and missing
            # or changed files before any is opened.
            manifest = earlier_job(job, sources) if resume else None
            inputs, settings = job_of(sources, options, blocks_per_part, part_format, progress)
            if manifest is not None:
                check_settings(job, manifest, settings)
            with connected(scheduler, workers or available_workers()) as client:
                dask = DaskWorkers(client)
                if manifest is None:
                    manifest = plan_job(dask, inputs, settings, progress)
                else:
                    resume_job(dask, manifest, inputs, progress)
                job.write_manifest(manifest)
                try:
                    run_parts(dask, manifest, job, progress)
                finally:
                    save_outcomes(manifest, job)
        tidy(manifest, job)
        check_complete(manifest, "retry with --resume", skip_bad_files=skip_bad_files)
        save_outcomes(manifest, job)
        if not options.allow_empty:
            check_not_empty(manifest)
        if not quiet:
            show_summary(manifest, folder)


def _check_scheduler(scheduler: str, workers: int | None) -> None:
    try:
        check_address(scheduler)
    except ValueError as error:
        raise typer.BadParameter(str(error), param_hint="--scheduler") from error
    if workers is not None and scheduler != LOCAL:
        raise typer.BadParameter(
            f"applies only to --scheduler local; the scheduler at {scheduler} has its own workers",
            param_hint="--workers",
        )
