"""What a run prints on standard error while it goes on: a progress bar, and single lines."""

from __future__ import annotations

import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from functools import partial
from typing import TYPE_CHECKING, Any, Self, TypeAlias

import typer

from fullwaveform.core.driver import RunMonitor
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.base import WaveformReader

if TYPE_CHECKING:
    from rich.progress import Progress

    from fullwaveform.cli.progress_bars import FollowingProgress

    RunProgress: TypeAlias = "FollowingProgress | NoProgress"

_MAX_NAME = 20  # characters
_LINE_PAUSE_S = 30.0


def print_line(text: str) -> None:
    """Print a line of a verbose run."""
    typer.echo(text, err=True)


class NoProgress:
    """In place of progress bars where none are shown."""

    disable = True

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *error: object) -> None:
        pass

    def add_task(self, name: str, total: float) -> int:
        """A number that identifies nothing."""
        return 0

    def follow(self, task: int, points_done: Callable[[], float]) -> None:
        """Asks nothing."""

    def stop_task(self, task: int) -> None:
        """Has no clock to stop."""


@contextmanager
def blocks_with_progress(reader: WaveformReader, quiet: bool) -> Iterator[Iterator[WaveformBlock]]:
    """Yield the reader's blocks, with a progress bar if standard error is a terminal."""
    with (
        progress_bar(quiet) as progress,
        followed_blocks(reader, progress, quiet) as blocks,
    ):
        yield blocks


@contextmanager
def followed_blocks(
    reader: WaveformReader,
    progress: RunProgress,
    quiet: bool,
    monitor: RunMonitor | None = None,
) -> Iterator[Iterator[WaveformBlock]]:
    """Yield the reader's blocks, with a line of the bar while they are read.

    `monitor` counts the waveforms that are extracted from them; without it, points are done when
    they are read.
    """
    task: Any = progress.add_task(shortened(reader.path.name), total=reader.point_count)
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

    def __init__(self, progress: Progress | NoProgress, quiet: bool) -> None:
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


def progress_bar(quiet: bool) -> RunProgress:
    """A bar for each file if standard error is a terminal; its library is loaded only then."""
    if quiet:
        return NoProgress()
    from rich.console import Console

    console = Console(stderr=True)
    if not console.is_terminal:
        return NoProgress()
    from fullwaveform.cli.progress_bars import file_bars

    return file_bars(console)


def shortened(name: str) -> str:
    """Beginning and end of a long name, so that the numbers fit on the line."""
    half = _MAX_NAME // 2
    return name if len(name) <= _MAX_NAME else f"{name[: half - 1]}…{name[-half:]}"
