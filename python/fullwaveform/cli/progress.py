"""What a run prints on standard error while it goes on: a progress bar, and single lines."""

from __future__ import annotations

import sys
import time
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
_LINE_PAUSE_S = 30.0


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
    with (
        progress_bar(Console(stderr=True), quiet) as progress,
        followed_blocks(reader, progress, quiet) as blocks,
    ):
        yield blocks


@contextmanager
def followed_blocks(
    reader: WaveformReader, progress: Progress, quiet: bool
) -> Iterator[Iterator[WaveformBlock]]:
    """Yield the reader's blocks, with a line of the bar while they are read."""
    task = progress.add_task(shortened(reader.path.name), total=reader.point_count)
    lines = ProgressLines(progress, quiet)

    def blocks() -> Iterator[WaveformBlock]:
        for block in reader.blocks():
            yield block
            progress.update(task, completed=reader.points_done)
            done, total = reader.points_done, reader.point_count
            lines.print_if_due(f"{reader.path.name}: {done:,} of {total:,} points")
        progress.update(task, completed=reader.points_done)

    try:
        yield blocks()
    finally:
        progress.stop_task(task)


class ProgressLines:
    """Prints progress every half minute where the bar is not shown: without a terminal."""

    def __init__(self, progress: Progress, quiet: bool) -> None:
        self._is_silent = quiet or not progress.disable
        self._next = time.monotonic() + _LINE_PAUSE_S

    def print_if_due(self, text: str) -> None:
        """Print the text if the pause since the last line is over."""
        if not self._is_silent and time.monotonic() >= self._next:
            print_line(text)
            self._next = time.monotonic() + _LINE_PAUSE_S


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
        redirect_stdout=sys.stdout.isatty(),
    )


def shortened(name: str) -> str:
    """Beginning and end of a long name, so that the numbers fit on the line."""
    half = _MAX_NAME // 2
    return name if len(name) <= _MAX_NAME else f"{name[: half - 1]}…{name[-half:]}"
