"""The progress bar on a terminal."""

from __future__ import annotations

import io

from rich.console import Console

from fullwaveform.cli.progress import shortened
from fullwaveform.cli.progress_bars import file_bars

NAME = "flight_line_2026-11-21_north_strip_17.pls"


def last_line(total: float, done: float, seconds: float, name: str = NAME) -> str:
    """The bar of a file on 80 columns, `seconds` after the start."""
    console = Console(file=io.StringIO(), force_terminal=True, width=80, color_system=None)
    progress = file_bars(console)
    now = 0.0
    progress.get_time = lambda: now
    task = progress.add_task(shortened(name), total=total)
    for half in (1, 2):
        now = half * seconds / 2
        progress.update(task, completed=half * done / 2)
    with console.capture() as captured:
        console.print(progress.make_tasks_table(progress.tasks))
    (line,) = captured.get().splitlines()
    return line


def test_rate_and_remaining_time_fit_next_to_a_long_name() -> None:
    # A quarter in 20 s, so 500,000 points per second and three times as long to go.
    line = last_line(4e7, 1e7, 20.0)
    assert line.startswith("flight_li…rip_17.pls ")
    assert line.endswith(" 25% 10,000,000 points 500,000 points/s 0:01:00")
    assert len(line) <= 80


def test_name_in_brackets_is_shown_as_it_is() -> None:
    assert last_line(4.0, 1.0, 20.0, "[/b]scan.las").startswith("[/b]scan.las ")


def test_only_long_names_are_shortened() -> None:
    assert shortened("a" * 20) == "a" * 20
    assert shortened("b" + "a" * 20) == "b" + "a" * 8 + "…" + "a" * 10
    assert len(shortened(NAME)) == 20
