"""Progress of a pass over a file, for people: nothing is drawn where no terminal is."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

from rich.console import Console
from rich.progress import (
    BarColumn,
    Progress,
    ProgressColumn,
    Task,
    TaskProgressColumn,
    TextColumn,
    TimeRemainingColumn,
)
from rich.text import Text

from fullwaveform.formats.blocks import WaveformBlock
from fullwaveform.formats.opening import WaveformReader


class _RateColumn(ProgressColumn):
    """Points per second."""

    def render(self, task: Task) -> Text:
        speed = task.finished_speed or task.speed
        return Text("" if speed is None else f"{speed:,.0f} points/s")


@contextmanager
def progress_of(reader: WaveformReader, quiet: bool) -> Iterator[Iterator[WaveformBlock]]:
    """Yield the reader's blocks; a bar with rate and time left follows them on a terminal."""
    console = Console(stderr=True)
    with Progress(
        TextColumn("{task.description}"),
        BarColumn(),
        TaskProgressColumn(),
        TextColumn("{task.completed:,.0f} points"),
        _RateColumn(),
        TimeRemainingColumn(),
        console=console,
        disable=quiet or not console.is_terminal,
    ) as progress:
        yield _followed(reader, progress)


def _followed(reader: WaveformReader, progress: Progress) -> Iterator[WaveformBlock]:
    task = progress.add_task(reader.path.name, total=reader.point_count)
    for block in reader.blocks():
        yield block
        progress.update(task, completed=reader.points_done)
    progress.update(task, completed=reader.points_done)
