"""``fullwaveform cluster``: echoes of many files, extracted by several processes or machines."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeRemainingColumn

from fullwaveform.cli.errors import describe_error, report_errors
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.many_files import (
    DEFAULT_FORMAT,
    FormatOption,
    SkipBadFiles,
    SourceFiles,
    check_folder,
    check_format,
    check_names,
)
from fullwaveform.cli.options import (
    ChannelNumbers,
    QuietOption,
    integer_from,
)
from fullwaveform.cli.progress import ProgressLines, print_line, shortened
from fullwaveform.cli.reader_options import with_options
from fullwaveform.cli.summary import RunSummary
from fullwaveform.cluster.connection import LOCAL, check_address, connected
from fullwaveform.cluster.inputs import InputFile, states_of
from fullwaveform.cluster.job import (
    JobProgress,
    earlier_job,
    failures,
    plan_job,
    prepare_resume,
    retry_inputs,
    run_job,
    skip_failed,
)
from fullwaveform.cluster.manifest import MANIFEST_NAME, Manifest
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.counting import counted
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.extraction.warning_file import warning_path
from fullwaveform.io.echo_writers.las import las_notes
from fullwaveform.io.opening import open_waveforms


@with_options
def cluster(
    sources: SourceFiles,
    folder: Annotated[
        Path,
        typer.Option("-o", "--output", metavar="FOLDER", help="New or empty folder for the parts"),
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
    blocks_per_part: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1),
            metavar="N",
            help="Blocks per part. Default: a few minutes of work",
        ),
    ] = None,
    resume: Annotated[bool, typer.Option("--resume", help="Continue the run in FOLDER")] = False,
    skip_bad_files: SkipBadFiles = False,
    quiet: QuietOption = False,
) -> None:
    """Extract the echoes of files on several processors or machines.

    The output is a folder of part files and a manifest that lists them.

    Examples:

        fullwaveform cluster scan.las -o parts --scheduler local --workers 2

        fullwaveform cluster scan.las -o las_parts --scheduler local --format las
    """
    _check_scheduler(scheduler, workers)
    part_format = part_format or DEFAULT_FORMAT
    check_names(sources)
    check_format(part_format, options)
    _check_folder(folder, resume)

    def remaining_result() -> str:
        if not (folder / MANIFEST_NAME).exists():
            return "no result was written"
        return "finished parts are kept; continue with --resume"

    with report_errors(remaining_result):
        # Errors in files and manifest are reported before workers are waited for, and missing or
        # changed files before any is opened.
        manifest = earlier_job(folder, sources) if resume else None
        opened = _open_inputs(sources, options, quiet)
        settings = options.settings([file.scanner for file in opened if not file.input.error])
        job_settings = JobSettings.of(
            settings,
            options.channels,
            block=options.block,
            blocks_per_part=blocks_per_part,
            part_format=part_format,
            sampling_interval=options.interval,
            skip_unreadable=options.skip_unreadable,
            max_samples=options.max_samples,
            outgoing_phase=options.outgoing_phase,
            keep_degraded=options.keep_degraded,
            crs=options.crs,
        )
        if manifest is not None:
            prepare_resume(manifest, folder, job_settings)
        with (
            connected(scheduler, workers or available_workers()) as client,
            _progress(_name(sources), quiet) as progress,
        ):
            inputs = [file.input for file in opened]
            if manifest is None:
                manifest = plan_job(client, inputs, job_settings, progress)
            else:
                retry_inputs(client, manifest, inputs, progress)
            folder.mkdir(exist_ok=True)
            run_job(client, manifest, folder, progress)
        _check_complete(manifest, folder, skip_bad_files=skip_bad_files)
        if not options.allow_empty:
            _check_not_empty(manifest, options)
        if not quiet:
            _summary(manifest, settings, sources, folder).show(Console())


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


def _check_folder(folder: Path, resume: bool) -> None:
    check_folder(folder)
    if resume or not folder.is_dir():
        return
    if (folder / MANIFEST_NAME).exists():
        raise typer.BadParameter(
            f"{folder} already contains a run; continue it with --resume or choose another folder",
            param_hint="-o",
        )
    if any(folder.iterdir()):
        raise typer.BadParameter(
            f"{folder} is not empty; choose a new or empty folder", param_hint="-o"
        )


@dataclass(frozen=True)
class _OpenedInput:
    """What the start of a run needs to know of a file; only the input if it cannot be read."""

    input: InputFile
    scanner: Scanner | None = None
    numbers: ChannelNumbers | None = None


def _open_inputs(sources: list[Path], options: ExtractOptions, quiet: bool) -> list[_OpenedInput]:
    """Open all files; those that cannot be read have an error.

    Raises ValueError if that is all of them, BadParameter for a channel that none of them has.
    """
    opened: list[_OpenedInput] = []
    with _bar("files", quiet) as bar:
        lines, task = ProgressLines(bar, quiet), bar.add_task("opening", total=len(sources))
        for source in sources:
            opened.append(_open_input(source, options))
            bar.update(task, completed=len(opened))
            lines.print_if_due(f"{len(opened):,} of {counted(len(sources), 'file')} opened")
    if all(file.input.error for file in opened):
        raise ValueError("; ".join(file.input.error for file in opened))
    options.channels.check([file.numbers for file in opened if file.numbers is not None])
    return opened


def _open_input(source: Path, options: ExtractOptions) -> _OpenedInput:
    try:
        file = InputFile(str(source), states_of(source), 0)
        with open_waveforms(
            source, channel_flags=options.channels, sampling_interval=options.interval
        ) as reader:
            numbers = ChannelNumbers.of(reader, options.channels)
            return _OpenedInput(file, reader.scanner(), numbers)
    except (OSError, ValueError) as error:
        text = describe_error(error)
        named = text if str(source) in text else f"{source}: {text}"
        return _OpenedInput(InputFile(str(source), [], 0, error=named))


@contextmanager
def _progress(name: str, quiet: bool) -> Iterator[JobProgress]:
    """A bar of finished parts on a terminal, else lines, and a line when there are no workers."""
    with _bar("parts", quiet) as bar:
        task, lines = bar.add_task(shortened(name), total=None), ProgressLines(bar, quiet)

        def files(done: int, total: int) -> None:
            lines.print_if_due(f"{done:,} of {counted(total, 'file')} measured")

        def parts(done: int, total: int) -> None:
            bar.update(task, completed=done, total=total)
            lines.print_if_due(f"{done:,} of {counted(total, 'part')} done")

        def waiting() -> None:
            if not quiet:
                print_line("waiting for workers")

        yield JobProgress(files=files, parts=parts, waiting=waiting)


def _bar(unit: str, quiet: bool) -> Progress:
    console = Console(stderr=True)
    return Progress(
        TextColumn("{task.description}"),
        BarColumn(),
        MofNCompleteColumn(),
        TextColumn(unit),
        TimeRemainingColumn(),
        console=console,
        disable=quiet or not console.is_terminal,
        redirect_stdout=sys.stdout.isatty(),
    )


def _check_complete(manifest: Manifest, folder: Path, *, skip_bad_files: bool) -> None:
    """ValueError for failed parts, unless they are to be skipped and others are not."""
    found = failures(manifest)
    missing, total = len(manifest.unfinished()), len(manifest.parts)
    if found and skip_bad_files and missing < total:
        for text in found:
            print_line(f"skipped: {text}")
        skip_failed(manifest, folder)
    elif found:
        verb = "is" if missing == 1 else "are"
        raise ValueError(
            f"{'; '.join(found)}; {missing} of {counted(total, 'part')} {verb} missing, the others "
            "are kept; retry with --resume"
        )


def _check_not_empty(manifest: Manifest, options: ExtractOptions) -> None:
    total = manifest.total()
    if total.written == 0 and not (options.keep_empty and total.rows):
        raise ValueError(
            f"no echoes in {counted(total.waveforms, 'waveform')}; {options.more_echoes}, or "
            "--allow-empty"
        )


def _name(sources: list[Path]) -> str:
    return sources[0].name if len(sources) == 1 else f"{len(sources)} files"


def _summary(
    manifest: Manifest, settings: ExtractionSettings, sources: list[Path], folder: Path
) -> RunSummary:
    total = manifest.total()
    if len(sources) > 1:
        total.read.notes = _notes_by_file(manifest)
    notes = las_notes(total.written, total.not_representable, total.saturated_return_numbers)
    notes = (*notes, *_phase_notes(manifest))
    parts = f"{counted(len(manifest.parts), 'part')}, listed in {MANIFEST_NAME}"
    statistics = warning_path(folder, sources[0] if len(sources) == 1 else Path("*"))
    return RunSummary(
        name=_name(sources),
        destination=folder,
        settings=settings,
        read=total.read,
        extracted=total.extracted,
        calibrations={Path(entry.path).name: entry.calibration for entry in manifest.inputs},
        written=total.written,
        notes=(*notes, parts),
        messages=total.messages,
        statistics=statistics,
        seconds=manifest.seconds,
    )


def _phase_notes(manifest: Manifest) -> list[str]:
    """The decision on the outgoing pulses of each file that has them."""
    phases = [(Path(file.path).name, file.calibration.outgoing_phase) for file in manifest.inputs]
    return [
        f"{name}: outgoing phase {phase.result()}: {phase.reason()}"
        for name, phase in phases
        if phase is not None
    ]


def _notes_by_file(manifest: Manifest) -> list[str]:
    notes = [
        f"{Path(manifest.inputs[part.input].path).name}: {note}"
        for part in manifest.parts
        if part.outcome is not None
        for note in part.outcome.read.notes
    ]
    return list(dict.fromkeys(notes))
