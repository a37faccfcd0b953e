"""What a run prints on standard error while it goes on: a progress bar, and single lines."""

from __future__ import annotations

import sys
import time
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from functools import partial
from typing import Any

import typer
from rich.console import Console, RenderableType
from rich.progress import (
    BarColumn,
    Progress,
    ProgressColumn,
    Task,
    TaskID,
    TaskProgressColumn,
    TextColumn,
    TimeRemainingColumn,
)
from rich.table import Column
from rich.text import Text

from fullwaveform.core.driver import RunMonitor
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


class FollowingProgress(Progress):
    """Progress bars that ask for the points done whenever they are drawn."""

    def __init__(self, *columns: ProgressColumn, **options: Any) -> None:
        self._points_done: dict[TaskID, Callable[[], float]] = {}
        super().__init__(*columns, **options)

    def follow(self, task: TaskID, points_done: Callable[[], float]) -> None:
        """Ask this from now on; a last time when it is replaced."""
        self._points_done[task] = points_done

    def get_renderables(self) -> Iterable[RenderableType]:
        """What is drawn, several times per second."""
        for task, points_done in list(self._points_done.items()):
            self.update(task, completed=points_done())
        return super().get_renderables()

    def stop_task(self, task_id: TaskID) -> None:
        """Stop the clock of a task at the points done."""
        if (points_done := self._points_done.pop(task_id, None)) is not None:
            self.update(task_id, completed=points_done())
        super().stop_task(task_id)


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
    reader: WaveformReader,
    progress: FollowingProgress,
    quiet: bool,
    monitor: RunMonitor | None = None,
) -> Iterator[Iterator[WaveformBlock]]:
    """Yield the reader's blocks, with a line of the bar while they are read.

    `monitor` counts the waveforms that are extracted from them; without it, points are done when
    they are read.
    """
    task = progress.add_task(shortened(reader.path.name), total=reader.point_count)
    lines = ProgressLines(progress, quiet)
    points_done = partial(extracted_points, reader, monitor) if monitor else partial(_read, reader)
    progress.follow(task, points_done)

    def blocks() -> Iterator[WaveformBlock]:
        for block in reader.blocks():
            yield block
            done, total = reader.points_done, reader.point_count
            lines.print_if_due(f"{reader.path.name}: {done:,} of {total:,} points")

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


def _read(reader: WaveformReader) -> float:
    return reader.points_done


def extracted_points(reader: WaveformReader, monitor: RunMonitor) -> float:
    """Points whose waveforms are extracted: the share of those that were read."""
    extracted, read = monitor.waveforms_done, reader.waveforms_done
    return reader.points_done * min(extracted / read, 1.0) if read else 0.0


def progress_bar(console: Console, quiet: bool) -> FollowingProgress:
    """A bar with points done, points per second and time left; fits 80 columns."""
    fixed = Column(no_wrap=True)  # only the bar itself shrinks
    return FollowingProgress(
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
