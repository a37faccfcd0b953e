"""What a run prints on standard error while it goes on: a progress bar, and single lines."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import typer
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

_MAX_NAME = 20  # characters


class _RateColumn(ProgressColumn):
    """Points per second."""

    def render(self, task: Task) -> Text:
        speed = task.finished_speed or task.speed
        return Text("" if speed is None else f"{speed:,.0f} points/s")


def print_line(text: str) -> None:
    """Print a line of a verbose run."""
    typer.echo(text, err=True)


@contextmanager
def blocks_with_progress(reader: WaveformReader, quiet: bool) -> Iterator[Iterator[WaveformBlock]]:
    """Yield the reader's blocks, with a progress bar if standard error is a terminal."""
    with progress_bar(Console(stderr=True), quiet) as progress:
        yield _followed(reader, progress)


def progress_bar(console: Console, quiet: bool) -> Progress:
    """A bar with points done, points per second and time left; fits 80 columns."""
    fixed = Column(no_wrap=True)  # only the bar itself shrinks
    return Progress(
        TextColumn("{task.description}"),
        BarColumn(),
        TaskProgressColumn(),
        TextColumn("{task.completed:,.0f} points"),
        _RateColumn(table_column=fixed),
        TimeRemainingColumn(table_column=fixed),
        console=console,
        disable=quiet or not console.is_terminal,
    )


def shortened(name: str) -> str:
    """Beginning and end of a long name, so that the numbers fit on the line."""
    half = _MAX_NAME // 2
    return name if len(name) <= _MAX_NAME else f"{name[: half - 1]}…{name[-half:]}"


def _followed(reader: WaveformReader, progress: Progress) -> Iterator[WaveformBlock]:
    task = progress.add_task(shortened(reader.path.name), total=reader.point_count)
    for block in reader.blocks():
        yield block
        progress.update(task, completed=reader.points_done)
    progress.update(task, completed=reader.points_done)
