"""``fullwaveform run``: computes units of a planned run in this process."""

from __future__ import annotations

import os
import re
from collections.abc import Sequence
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.option_values import integer_from
from fullwaveform.cli.options import QuietOption
from fullwaveform.cluster.checksums import verify
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.join import collect
from fullwaveform.cluster.manifest import Part
from fullwaveform.cluster.run import run_part
from fullwaveform.data.counting import counted
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.remote import location

#: Where Slurm, AWS Batch and Kubernetes write the index of a task of an array.
INDEX_VARIABLES = (
    "SLURM_ARRAY_TASK_ID",
    "AWS_BATCH_JOB_ARRAY_INDEX",
    "JOB_COMPLETION_INDEX",
)

JobFolderArgument = Annotated[
    Path,
    typer.Argument(
        metavar="JOB",
        parser=location,
        help="Folder of a run, as written by fullwaveform plan",
    ),
]


def _numbers(text: str, count: int) -> list[int]:
    """The numbers of a list such as 0-4,7, of ranges that exceed `count` up to this number.

    BadParameter if it is none.
    """
    numbers: list[int] = []
    for word in text.split(","):
        found = re.fullmatch(r"([0-9]{1,9})(?:-([0-9]{1,9}))?", word.strip())
        first, last = (int(found[1]), int(found[2] or found[1])) if found else (1, 0)
        if first > last:
            raise typer.BadParameter(
                f"{text!r} must be numbers and ranges from small to large, as 0-4,7",
                param_hint="--units",
            )
        numbers += range(first, max(min(last, count), first) + 1)
    return list(dict.fromkeys(numbers))


def run(
    folder: JobFolderArgument,
    unit: Annotated[
        int | None, typer.Option(parser=integer_from(0), metavar="K", help="Number of the unit")
    ] = None,
    units: Annotated[
        str | None,
        typer.Option(metavar="LIST", help="Numbers of several units, as 0-4,7"),
    ] = None,
    units_per_task: Annotated[
        int,
        typer.Option(
            parser=integer_from(1),
            metavar="N",
            help="Units of each task of a job array: task I computes those from I * N on",
        ),
    ] = 1,
    again: Annotated[
        bool, typer.Option("--again", help="Recompute parts that are complete, too")
    ] = False,
    workers: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1),
            metavar="N",
            help="Number of threads. Default: all processors",
        ),
    ] = None,
    quiet: QuietOption = False,
) -> None:
    """Compute units of a planned run and write their parts.

    Without --unit and --units, the unit is the index of the task of a Slurm, AWS Batch or
    Kubernetes job array. Units may run in any order, at the same time, and more than once.

    Examples:

        fullwaveform run planned_job --unit 0

        fullwaveform run planned_job --units 0-1,2 --workers 1
    """
    with report_errors(lambda: "the parts of finished units are kept"):
        job = JobFolder(folder)
        manifest = job.read_manifest()
        count = len(manifest.parts)
        numbers = _chosen(unit, units, units_per_task, count)
        if beyond := [number for number in numbers if number >= count]:
            raise ValueError(
                f"unit {beyond[0]} is out of range; the run in {folder} has "
                f"{counted(count, 'unit')}, 0 to {count - 1}"
            )
        parts = [manifest.parts[number] for number in numbers]
        collect(parts, job)
        if not again:
            verify(parts, job)
        failures = []
        for part in parts:
            is_new = again or part.state in (Part.WAITING, Part.FAILED)
            if is_new:
                run_part(manifest, part, job, workers or available_workers())
            if part.state == Part.FAILED:
                failures.append(f"unit {part.number}: {part.error}")
            elif not quiet:
                typer.echo(_line(part, is_new))
        if failures:
            failed = f"{len(failures)} of {counted(len(parts), 'unit')} failed"
            raise ValueError(f"{'; '.join(failures)}; {failed}")


def _chosen(unit: int | None, units: str | None, units_per_task: int, count: int) -> Sequence[int]:
    """Numbers of the units that options or the environment choose, of a run of `count` units."""
    if unit is not None and units is not None:
        raise typer.BadParameter("cannot be combined with --units", param_hint="--unit")
    if unit is not None or units is not None:
        if units_per_task > 1:
            raise typer.BadParameter(
                "applies to the index of a job array, not to --unit and --units",
                param_hint="--units-per-task",
            )
        return _numbers(units, count) if units is not None else [unit or 0]
    first = _index_of_task() * units_per_task
    # The last task may have fewer units.
    return range(first, max(min(first + units_per_task, count), first + 1))


def _index_of_task() -> int:
    for name in INDEX_VARIABLES:
        if text := os.environ.get(name, ""):
            if not re.fullmatch("[0-9]{1,9}", text):
                raise typer.BadParameter(
                    f"{text!r} must be the index of a task, 0 or more", param_hint=name
                )
            return int(text)
    raise typer.BadParameter(
        "missing; give --unit K or --units LIST, or run in a job array, which sets "
        f"{', '.join(INDEX_VARIABLES[:-1])} or {INDEX_VARIABLES[-1]}",
        param_hint="--unit",
    )


def _line(part: Part, is_new: bool) -> str:
    if part.outcome is None:
        return f"unit {part.number}: skipped when the run was planned: {part.error}"
    outcome = part.outcome
    if not is_new:
        return f"unit {part.number}: {part.file} is there already"
    return (
        f"unit {part.number}: {counted(outcome.written, 'echo', 'echoes')} of "
        f"{counted(outcome.waveforms, 'waveform')} in {outcome.seconds:.1f} s: {part.file}"
    )
