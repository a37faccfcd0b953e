"""``fullwaveform extract --cluster``: files in, a folder of parts and their manifest out."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import typer
from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeRemainingColumn

from fullwaveform.cli.extract_options import Wanted
from fullwaveform.cli.progress import shortened
from fullwaveform.cli.summary import RunSummary
from fullwaveform.cluster.connection import LOCAL, check_address, connected
from fullwaveform.cluster.inputs import states_of
from fullwaveform.cluster.job import (
    JobWatch,
    earlier_job,
    failures,
    plan_job,
    prepare_to_continue,
    run_job,
    statistics_path,
)
from fullwaveform.cluster.manifest import MANIFEST_NAME, Manifest
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.core.scanner import Scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.echo_writers.las import las_notes
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, check_takes_empty


@dataclass(frozen=True)
class ClusterCall:
    """What of a call is about the run on a cluster, not about the echoes."""

    sources: list[Path]
    folder: Path
    address: str
    resume: bool
    unit_blocks: int | None
    part_format: str
    workers: int | None
    keep_empty: bool
    verbose: bool
    quiet: bool

    def check(self) -> None:
        """Refuses what contradicts itself; a folder with files in it is not written to."""
        try:
            check_address(self.address)
        except ValueError as error:
            raise typer.BadParameter(str(error), param_hint="--cluster") from error
        if self.verbose:
            raise typer.BadParameter(
                "waveforms are not told one by one with --cluster", param_hint="--verbose"
            )
        if self.workers is not None and self.address != LOCAL:
            raise typer.BadParameter(
                f"the workers are those of the scheduler at {self.address}; a number of them is "
                "for --cluster local",
                param_hint="--workers",
            )
        self._check_sources()
        self._check_format()
        self._check_folder()

    def left(self) -> str:
        """What there is after a signal."""
        if not (self.folder / MANIFEST_NAME).exists():
            return "no result was written"
        return "the finished parts are kept, the same call with --resume continues"

    def run(self, wanted: Wanted) -> RunSummary:
        """Extracts the files."""
        return _run(self, wanted)

    def _check_sources(self) -> None:
        resolved = [source.resolve() for source in self.sources]
        for place, source in enumerate(resolved):
            if source in resolved[:place]:
                raise typer.BadParameter(f"{self.sources[place]} is named twice", param_hint="IN")

    def _check_format(self) -> None:
        names = [ending.lstrip(".") for ending in ECHO_ENDINGS]
        if self.part_format not in names:
            raise typer.BadParameter(
                f"{self.part_format!r} is none of {', '.join(names)}", param_hint="--part-format"
            )
        try:
            check_takes_empty(Path(f"part.{self.part_format}"), self.keep_empty)
        except ValueError as error:
            raise typer.BadParameter(str(error), param_hint="--part-format") from error

    def _check_folder(self) -> None:
        folder = self.folder
        is_folder = folder.is_dir()
        if not is_folder and (folder.exists() or folder.suffix.lower() in ECHO_ENDINGS):
            raise typer.BadParameter(
                f"{folder} is a single file; with --cluster name a folder for the parts, and their "
                "kind with --part-format",
                param_hint="-o",
            )
        if self.resume or not is_folder:
            return
        if (folder / MANIFEST_NAME).exists():
            raise typer.BadParameter(
                f"{folder} holds a run already: continue it with --resume, or name another folder",
                param_hint="-o",
            )
        if any(folder.iterdir()):
            raise typer.BadParameter(
                f"{folder} holds files already; name a new or an empty folder", param_hint="-o"
            )


def _run(call: ClusterCall, wanted: Wanted) -> RunSummary:
    """Runs a checked call to its end; ValueError, naming the files, if parts could not be made."""
    # What is wrong with files and manifest is said before workers are waited for, and that a file
    # is gone or has changed before it is opened.
    manifest = earlier_job(call.folder, call.sources) if call.resume else None
    states = [(source, states_of(source)) for source in call.sources]
    settings = wanted.settings(_carried(call.sources, wanted))
    plain = JobSettings.of(
        settings,
        wanted.channels,
        block=wanted.block,
        unit_blocks=call.unit_blocks,
        part_format=call.part_format,
        sampling_interval=wanted.interval,
        skip_unreadable=wanted.skip_unreadable,
    )
    if manifest is not None:
        prepare_to_continue(manifest, call.folder, plain)
    with (
        connected(call.address, call.workers or available_workers()) as client,
        _watched(call) as watch,
    ):
        manifest = manifest or plan_job(client, states, plain, watch)
        call.folder.mkdir(exist_ok=True)
        run_job(client, manifest, call.folder, watch)
    if found := failures(manifest):
        missing = len(manifest.unfinished())
        raise ValueError(
            f"{'; '.join(found)}; {missing} of {len(manifest.parts)} parts are missing, the others "
            "are kept: the same call with --resume tries again"
        )
    return _summary(manifest, settings, call)


def _carried(sources: list[Path], wanted: Wanted) -> list[Scanner | None]:
    """The scanners that the files carry, among which are the channels that are named."""
    scanners, numbers = [], {}
    for source in sources:
        with wanted.opened(source) as reader:
            scanners.append(reader.scanner())
            numbers[source] = reader.channel_numbers
    wanted.channels.check(numbers)
    return scanners


@contextmanager
def _watched(call: ClusterCall) -> Iterator[JobWatch]:
    """A bar of finished parts on a terminal, and a word when workers are missing."""
    console = Console(stderr=True)
    with Progress(
        TextColumn("{task.description}"),
        BarColumn(),
        MofNCompleteColumn(),
        TextColumn("parts"),
        TimeRemainingColumn(),
        console=console,
        disable=call.quiet or not console.is_terminal,
    ) as progress:
        task = progress.add_task(shortened(_name(call.sources)), total=None)

        def waiting() -> None:
            if not call.quiet:
                typer.echo("there are no workers; waiting for some to come", err=True)

        yield JobWatch(
            parts=lambda done, of: progress.update(task, completed=done, total=of),
            waiting=waiting,
        )


def _name(sources: list[Path]) -> str:
    return sources[0].name if len(sources) == 1 else f"{len(sources)} files"


def _summary(manifest: Manifest, settings: ExtractionSettings, call: ClusterCall) -> RunSummary:
    total = manifest.total()
    alone = len(call.sources) == 1
    if not alone:
        total.read.notes = _notes_by_file(manifest)
    notes = las_notes(total.written, total.not_representable, total.saturated_return_numbers)
    parts = f"{len(manifest.parts)} parts, which {MANIFEST_NAME} names in their order"
    statistics = statistics_path(call.folder, call.sources[0])
    return RunSummary(
        name=_name(call.sources),
        destination=call.folder,
        settings=settings,
        read=total.read,
        extracted=total.extracted,
        written=total.written,
        notes=(*notes, parts),
        messages=total.messages,
        statistics=statistics if alone else call.folder / "*_Warning.txt",
        seconds=manifest.seconds,
    )


def _notes_by_file(manifest: Manifest) -> list[str]:
    notes = [
        f"{Path(manifest.inputs[part.input].path).name}: {note}"
        for part in manifest.parts
        if part.outcome is not None
        for note in part.outcome.read.notes
    ]
    return list(dict.fromkeys(notes))
