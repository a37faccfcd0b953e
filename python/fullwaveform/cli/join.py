"""``fullwaveform join``: completes a planned run whose units are computed."""

from __future__ import annotations

from itertools import groupby
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.job_result import check_complete, check_not_empty, show_summary
from fullwaveform.cli.many_files import SkipBadFiles
from fullwaveform.cli.options import QuietOption
from fullwaveform.cli.outputs import OverwriteOption
from fullwaveform.cli.run import JobFolderArgument
from fullwaveform.cluster.checksums import verify
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.join import join_parts, manifest_with_outcomes, save_outcomes, tidy
from fullwaveform.cluster.manifest import Manifest
from fullwaveform.data.counting import counted
from fullwaveform.io.remote import is_remote, location

_MAX_LISTED = 100  # ranges of units in a message


def join(
    folder: JobFolderArgument,
    output: Annotated[
        Path | None,
        typer.Option(
            "-o",
            "--output",
            metavar="OUT",
            parser=location,
            help="Also write one file as extract does, in the format of the parts; for several "
            "inputs a folder",
        ),
    ] = None,
    overwrite: OverwriteOption = False,
    skip_bad_files: SkipBadFiles = False,
    allow_empty: Annotated[
        bool, typer.Option("--allow-empty", help="Accept a run that has found no echo")
    ] = False,
    verify_remote: Annotated[
        bool,
        typer.Option(
            "--verify-remote",
            help="Download parts at URLs and compare them with their checksums, as is done with "
            "those of this machine",
        ),
    ] = False,
    quiet: QuietOption = False,
) -> None:
    """Complete a planned run: check that all parts are complete, and sum up.

    Examples:

        fullwaveform join computed_job

        fullwaveform join computed_job -o joined.parquet --overwrite
    """
    with report_errors():
        job = JobFolder(folder)
        manifest = manifest_with_outcomes(job)
        unverified = verify(manifest.parts, job, download=verify_remote)
        check_complete(manifest, _how_to_retry(manifest, folder), skip_bad_files=skip_bad_files)
        save_outcomes(manifest, job)
        tidy(manifest, job)
        padded = 0
        if output is not None:
            padded = join_parts(manifest, job, output, overwrite=overwrite)
        if not allow_empty:
            check_not_empty(manifest)
        if not quiet:
            destination = folder if output is None else output
            notes = _not_verified(
                unverified, downloadable=is_remote(job.path) and not verify_remote
            )
            show_summary(manifest, destination, notes, padded)


def _not_verified(parts: int, *, downloadable: bool) -> list[str]:
    if parts == 0:
        return []
    how = "--verify-remote compares their checksums" if downloadable else "no checksums"
    return [f"{counted(parts, 'part')} checked by size only: {how}"]


def _how_to_retry(manifest: Manifest, folder: Path) -> str:
    """The call that computes the missing units."""
    numbers = [part.number for part in manifest.unfinished()]
    ranges = []
    for _, group in groupby(enumerate(numbers), lambda pair: pair[1] - pair[0]):
        run = [number for _, number in group]
        ranges.append(f"{run[0]}-{run[-1]}" if len(run) > 1 else str(run[0]))
    more = f" and {len(ranges) - _MAX_LISTED:,} more ranges" if len(ranges) > _MAX_LISTED else ""
    listed = ",".join(ranges[:_MAX_LISTED])
    return f"compute them with: fullwaveform run {folder} --units {listed}{more}"
