"""List of the echoes of a waveform, next to its picture."""

from __future__ import annotations

import textwrap
from collections.abc import Sequence
from dataclasses import dataclass

from matplotlib.axes import Axes

from fullwaveform.analysis.waveform_views import MethodView, WaveformView
from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.plotting.style import GREY, INK, SMALL_TEXT_SIZE, TEXT_SIZE

#: Lines of text per inch of height.
LINES_PER_INCH = 22.0 / 3.6
_LINES_OF_TITLE = 1.5
_LINES_OF_HEADING, _LINES_OF_GAP = 1.15, 0.8
_LINES_PER_PART = _LINES_OF_HEADING + _LINES_OF_GAP
_NOTE_WIDTH = 36  # characters
_COLUMNS = (0.22, 0.50, 0.86)  # right ends of the columns of numbers, share of the width
_NANOSECONDS = 1e9


@dataclass(frozen=True, slots=True)
class _Listed:
    """A part of the list: a heading, rows of numbers, and a remark."""

    heading: str
    colour: str
    rows: list[tuple[str, ...]]
    note: str = ""


def list_echoes(axes: Axes, view: WaveformView, inches: float) -> None:
    """List the echoes of each method in its colour and the returns, as many as fit.

    `inches` is the approximate height of the axes.
    """
    lines = inches * LINES_PER_INCH
    axes.set_axis_off()
    axes.set_xlim(0.0, 1.0)
    axes.set_ylim(-lines, 0.0)
    y = 0.0
    for heading, right in zip(("sample", "counts", "width [ns]"), _COLUMNS, strict=True):
        axes.text(right, y, heading, ha="right", va="top", fontsize=SMALL_TEXT_SIZE, color=GREY)
    y -= _LINES_OF_TITLE
    step = view.interval * _NANOSECONDS
    parts = [_listed_method(method, step) for method in view.methods]
    if len(view.returns):
        rows: list[tuple[str, ...]] = [(f"{position:.2f}",) for position in view.returns]
        parts.append(_Listed(_counted("scanner", len(rows), "return"), INK, rows))
    for part, rows_shown in zip(parts, _lines_per_part(parts, lines), strict=True):
        y = _list_part(axes, part, y, rows_shown)


def _listed_method(method: MethodView, step: float) -> _Listed:
    rows: list[tuple[str, ...]] = [
        (f"{position:.2f}", f"{amplitude:.0f}", f"{width:.2f}" if width > 0 else "–")
        for position, amplitude, width in zip(
            method.positions, method.amplitudes, method.widths * step, strict=True
        )
    ]
    heading = _counted(method.name, len(rows), "echo", "es")
    return _Listed(heading, METHOD_COLOURS[method.mode], rows, method.note)


def _counted(name: str, count: int, noun: str, plural: str = "s") -> str:
    return f"{name}, {count or 'no'} {noun}{'' if count == 1 else plural}"


def _lines_per_part(parts: Sequence[_Listed], available: float) -> list[int]:
    """Lines for the rows of each part; what short parts do not need is shared by the others."""
    notes = sum(len(textwrap.wrap(part.note, _NOTE_WIDTH)) for part in parts)
    free = int(available - _LINES_OF_TITLE - _LINES_PER_PART * len(parts)) - notes
    lines = [0] * len(parts)
    by_need = sorted(range(len(parts)), key=lambda number: len(parts[number].rows))
    for given, number in enumerate(by_need):
        share = max(free // (len(parts) - given), 1)
        lines[number] = min(len(parts[number].rows), share)
        free -= lines[number]
    return lines


def _list_part(axes: Axes, part: _Listed, y: float, lines: int) -> float:
    """List the rows from height y downwards; return the height of the next line."""
    axes.text(0.0, y, part.heading, va="top", fontsize=TEXT_SIZE, color=part.colour, weight="bold")
    y -= _LINES_OF_HEADING
    shown = len(part.rows) if len(part.rows) <= lines else lines - 1
    for row in part.rows[:shown]:
        for text, right in zip(row, _COLUMNS, strict=False):
            axes.text(right, y, text, ha="right", va="top", fontsize=TEXT_SIZE, color=INK)
        y -= 1.0
    rest = [f"and {len(part.rows) - shown} more"] if len(part.rows) > shown else []
    rest += textwrap.wrap(part.note, _NOTE_WIDTH)
    for line in rest:
        axes.text(0.0, y, line, va="top", fontsize=SMALL_TEXT_SIZE, color=GREY)
        y -= 1.0
    return y - _LINES_OF_GAP
