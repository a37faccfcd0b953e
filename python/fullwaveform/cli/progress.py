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
from rich.table import Column
from rich.text import Text

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.base import WaveformReader

_LONGEST_NAME = 20  # characters


class _RateColumn(ProgressColumn):
    """Points per second."""

    def render(self, task: Task) -> Text:
        speed = task.finished_speed or task.speed
        return Text("" if speed is None else f"{speed:,.0f} points/s")


@contextmanager
def progress_of(reader: WaveformReader, quiet: bool) -> Iterator[Iterator[WaveformBlock]]:
    """Yield the reader's blocks; a bar with rate and time left follows them on a terminal."""
    with progress_bar(Console(stderr=True), quiet) as progress:
        yield _followed(reader, progress)


def progress_bar(console: Console, quiet: bool) -> Progress:
    """The bar, with points done, points per second and time left; for terminals from 80 columns."""
    whole = Column(no_wrap=True)  # the bar itself is what becomes shorter
    return Progress(
        TextColumn("{task.description}"),
        BarColumn(),
        TaskProgressColumn(),
        TextColumn("{task.completed:,.0f} points"),
        _RateColumn(table_column=whole),
        TimeRemainingColumn(table_column=whole),
        console=console,
        disable=quiet or not console.is_terminal,
    )


def shortened(name: str) -> str:
    """A name that leaves room for the numbers: its beginning and its end."""
    half = _LONGEST_NAME // 2
    return name if len(name) <= _LONGEST_NAME else f"{name[: half - 1]}…{name[-half:]}"


def _followed(reader: WaveformReader, progress: Progress) -> Iterator[WaveformBlock]:
    task = progress.add_task(shortened(reader.path.name), total=reader.point_count)
    for block in reader.blocks():
        yield block
        progress.update(task, completed=reader.points_done)
    progress.update(task, completed=reader.points_done)
