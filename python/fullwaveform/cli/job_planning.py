"""What the commands share that plan a run over many files."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeRemainingColumn

from fullwaveform.cli.channel_flags import ChannelNumbers
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.many_files import check_folder
from fullwaveform.cli.option_values import integer_from
from fullwaveform.cli.progress import ProgressLines, print_line, shortened
from fullwaveform.cluster.inputs import InputFile
from fullwaveform.cluster.manifest import MANIFEST_NAME
from fullwaveform.cluster.plan import open_inputs
from fullwaveform.cluster.progress import JobProgress, Stage
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.counting import counted
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import is_remote

BlocksPerPart = Annotated[
    int | None,
    typer.Option(
        parser=integer_from(1), metavar="N", help="Blocks per part. Default: a few minutes of work"
    ),
]


def check_new_folder(folder: Path, how_to_continue: str) -> None:
    """BadParameter unless the folder is empty, or new and may be one."""
    check_folder(folder)
    if not is_remote(folder) and not folder.absolute().parent.is_dir():
        raise typer.BadParameter(
            f"cannot write {folder}: the folder {folder.absolute().parent} does not exist",
            param_hint="-o",
        )
    if not folder.is_dir():
        return
    if (folder / MANIFEST_NAME).exists():
        raise typer.BadParameter(
            f"{folder} already contains a run; {how_to_continue} or choose another folder",
            param_hint="-o",
        )
    if any(folder.iterdir()):
        raise typer.BadParameter(
            f"{folder} is not empty; choose a new or empty folder", param_hint="-o"
        )


def job_of(
    sources: list[Path],
    options: ExtractOptions,
    blocks_per_part: int | None,
    part_format: str,
    progress: JobProgress,
) -> tuple[list[InputFile], JobSettings]:
    """The opened inputs, of which some may be bad, and the settings of the run.

    Raises ValueError if all are bad or the settings are invalid, BadParameter for a channel that
    none of them has.
    """

    def opened(path: Path) -> WaveformReader:
        return open_waveforms(
            path, channel_flags=options.channels, sampling_interval=options.interval
        )

    def look(reader: WaveformReader) -> tuple[Scanner | None, ChannelNumbers]:
        return reader.scanner(), ChannelNumbers.of(reader, options.channels)

    found = open_inputs(sources, opened, look, progress)
    seen = [each for _, each in found if each is not None]
    options.channels.check([numbers for _, numbers in seen])
    settings = JobSettings.of(
        options.settings([scanner for scanner, _ in seen]),
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
    return [file for file, _ in found], settings


@contextmanager
def job_progress(sources: list[Path], quiet: bool) -> Iterator[JobProgress]:
    """A bar for each stage on a terminal, else lines, and a line when there are no workers."""
    console = Console(stderr=True)
    bar = Progress(
        TextColumn("{task.description}"),
        BarColumn(),
        MofNCompleteColumn(),
        TextColumn("{task.fields[unit]}"),
        TimeRemainingColumn(),
        console=console,
        disable=quiet or not console.is_terminal,
        redirect_stdout=sys.stdout.isatty(),
    )
    with bar:
        lines = ProgressLines(bar, quiet)
        task = bar.add_task(shortened(name_of(sources)), total=None, unit="files")

        def count(stage: Stage, done: int, total: int) -> None:
            noun, verb = stage.value
            bar.update(task, completed=done, total=total, unit=f"{noun}s {verb}")
            lines.print_if_due(f"{done:,} of {counted(total, noun)} {verb}")

        def waiting() -> None:
            if not quiet:
                print_line("waiting for workers")

        yield JobProgress(count, waiting)


def name_of(sources: list[Path]) -> str:
    """The name of the only input, or how many there are."""
    return sources[0].name if len(sources) == 1 else f"{len(sources)} files"
