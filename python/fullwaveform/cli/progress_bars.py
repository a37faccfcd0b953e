"""Progress bars of files on a terminal."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterable
from typing import Any

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


class _RateColumn(ProgressColumn):
    """Points per second."""

    def render(self, task: Task) -> Text:
        speed = task.finished_speed or task.speed
        return Text("" if speed is None else f"{speed:,.0f} points/s")


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


def file_bars(console: Console) -> FollowingProgress:
    """Bars with points done, points per second and time left; they fit 80 columns."""
    fixed = Column(no_wrap=True)  # only the bar itself shrinks
    return FollowingProgress(
        TextColumn("{task.description}", markup=False),
        BarColumn(),
        TaskProgressColumn(),
        TextColumn("{task.completed:,.0f} points"),
        _RateColumn(table_column=fixed),
        TimeRemainingColumn(table_column=fixed),
        console=console,
        redirect_stdout=sys.stdout.isatty(),
    )
