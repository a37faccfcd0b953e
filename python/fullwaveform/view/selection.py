"""Echoes that a user selects on the page: a box of the map or side view, and bars of histograms."""

from __future__ import annotations

import math
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass, field

import numpy as np

from fullwaveform.data.arrays import AnyArray, BoolArray, IntArray
from fullwaveform.view.echo_index import NOISE, EchoIndex
from fullwaveform.view.histograms import class_numbers

_CHUNK = 1 << 18  # echoes that are examined at a time
_ROUNDING = 1e-5  # of the extent: places next to the edge of a node may belong to either side


#: West, south, east and north.
Box = tuple[float, float, float, float]


@dataclass(frozen=True, slots=True)
class Slab:
    """A box of a side view: what is near a line of the map, between two heights, edges included.

    start, end : (x, y) of the line, from the origin of the index in coordinate units
    half_width : to either side of the line
    low, high : from the origin of the index
    """

    start: tuple[float, float]
    end: tuple[float, float]
    half_width: float
    low: float
    high: float

    @classmethod
    def of_text(cls, text: str) -> Slab:
        """From both ends, half of the width, and two heights; ValueError for others."""
        numbers = _finite_numbers(text, 7)
        if numbers is not None:
            x1, y1, x2, y2, half_width, low, high = numbers
            if half_width >= 0.0 and low <= high:
                return cls((x1, y1), (x2, y2), half_width, low, high)
        raise ValueError(
            f"invalid box of a side view {text[:160]!r}; expected seven numbers: x and y of both "
            "ends of the line, half of its width, lowest and highest place"
        )

    @property
    def around(self) -> Box:
        """The box of the map around it."""
        (west, east), (south, north) = (
            sorted(ends) for ends in zip(self.start, self.end, strict=True)
        )
        reach = self.half_width
        return west - reach, south - reach, east + reach, north + reach

    def contains(self, x: AnyArray, y: AnyArray, z: AnyArray) -> BoolArray:
        """Which places (n,) are in it; none if the line has no length."""
        # Step by step as on the page, so that both select the same echoes.
        (x1, y1), (x2, y2) = self.start, self.end
        along, aside = x2 - x1, y2 - y1
        with np.errstate(over="ignore", invalid="ignore"):
            square = along * along + aside * aside
            reach = self.half_width * math.sqrt(square)
            dx, dy = x.astype(np.float64) - x1, y.astype(np.float64) - y1
            at = dx * along + dy * aside
            found: BoolArray = (at >= 0.0) & (at <= square) & (square > 0.0)
            found &= np.abs(dx * aside - dy * along) <= reach
        heights = z.astype(np.float64)
        return found & (heights >= self.low) & (heights <= self.high)


@dataclass(frozen=True, slots=True)
class Selection:
    """Which echoes are selected: those in the box that are in a chosen bar of each histogram.

    box : west, south, east and north, from the origin of the index in coordinate units, edges
        included; None: anywhere
    slab : box of a side view; None: anywhere
    bars : numbers of the chosen bars of the histograms, by the name of the value
    """

    box: Box | None = None
    bars: Mapping[str, frozenset[int]] = field(default_factory=dict)
    slab: Slab | None = None

    @classmethod
    def of_text(cls, box: str, bars: Sequence[str], slab: str = "") -> Selection:
        """From numbers with commas, and texts as "amplitude:0,1,2"; ValueError for others."""
        chosen = {}
        for text in bars:
            name, _, numbers = text.partition(":")
            chosen[name] = frozenset(_bar(number) for number in numbers.split(",") if number)
        return cls(_box(box) if box else None, chosen, Slab.of_text(slab) if slab else None)

    def runs(self, index: EchoIndex) -> Iterator[SelectedRun]:
        """The selected echoes, in the order of the index, with one run in memory at a time.

        Raises ValueError for bars of a value that the index does not have.
        """
        bars = [_ChosenBars.of(index, name, chosen) for name, chosen in self.bars.items()]
        for first, stop, is_inside in self._places(index):
            for at in range(first, stop, _CHUNK):
                run = SelectedRun(index, at, min(at + _CHUNK, stop))
                if not is_inside:
                    run.keep(self._contains(run))
                for chosen in bars:
                    run.keep(chosen.of_values(run.all_values(chosen.name)))
                if run.count:
                    yield run

    def _contains(self, run: SelectedRun) -> BoolArray:
        found: BoolArray = np.ones(run.length, np.bool_)
        x, y = run.all_values("x"), run.all_values("y")
        if self.box is not None:
            # Of the type of the places, as on the page.
            with np.errstate(over="ignore"):
                west, south, east, north = np.asarray(self.box, np.float32)
            found &= (x >= west) & (x <= east) & (y >= south) & (y <= north)
        if self.slab is not None:
            found &= self.slab.contains(x, y, run.all_values("z"))
        return found

    def _places(self, index: EchoIndex) -> Iterator[tuple[int, int, bool]]:
        """Runs of echoes of nodes that touch the region, and whether they are inside."""
        stops = np.cumsum(index.read("node_count").astype(np.int64))
        if len(stops) == 0:
            return
        if self.box is None and self.slab is None:
            yield 0, int(stops[-1]), True
            return
        touching, inside = self._nodes(index)
        kinds = np.where(inside, 2, touching.astype(np.int64))
        starts = np.concatenate([[0], stops[:-1]])
        changes = np.flatnonzero(np.diff(kinds)) + 1
        for nodes in np.split(np.arange(len(kinds)), changes):
            kind = kinds[nodes[0]]
            if kind:
                yield int(starts[nodes[0]]), int(stops[nodes[-1]]), bool(kind == 2)

    def _nodes(self, index: EchoIndex) -> tuple[BoolArray, BoolArray]:
        """Which nodes touch the region, and which are inside."""
        low, size = index.described["low"], index.described["size"]
        edge = size / 2.0 ** index.read("node_level")
        left = low[0] + index.read("node_column") * edge
        bottom = low[1] + index.read("node_row") * edge
        right, top, rounding = left + edge, bottom + edge, _ROUNDING * size
        touching: BoolArray = np.ones(len(left), np.bool_)
        for west, south, east, north in self._boxes():
            touching &= (left <= east + rounding) & (right >= west - rounding)
            touching &= (bottom <= north + rounding) & (top >= south - rounding)
        if self.box is None or self.slab is not None:
            return touching, np.zeros(len(left), np.bool_)
        west, south, east, north = self.box
        inside: BoolArray = (left >= west + rounding) & (right <= east - rounding)
        inside &= (bottom >= south + rounding) & (top <= north - rounding)
        return touching, inside

    def _boxes(self) -> list[Box]:
        boxes = [] if self.box is None else [self.box]
        return boxes if self.slab is None else [*boxes, self.slab.around]


class SelectedRun:
    """Consecutive echoes of an index, of which some are selected."""

    def __init__(self, index: EchoIndex, first: int, stop: int) -> None:
        self._index, self._first, self._stop = index, first, stop
        self._chosen: BoolArray | None = None  # None: all of them
        self._columns: dict[str, AnyArray] = {}

    @property
    def length(self) -> int:
        """All echoes."""
        return self._stop - self._first

    @property
    def count(self) -> int:
        """Selected echoes."""
        if self._chosen is None:
            return self.length
        return int(np.count_nonzero(self._chosen))

    def keep(self, chosen: BoolArray) -> None:
        """Select only those of the selected echoes that are chosen."""
        self._chosen = chosen if self._chosen is None else self._chosen & chosen

    def numbers(self) -> IntArray:
        """Numbers of the selected echoes in the order of the index."""
        if self._chosen is None:
            return np.arange(self._first, self._stop)
        return self._first + np.flatnonzero(self._chosen)

    def values(self, name: str) -> AnyArray:
        """A column of the selected echoes."""
        values = self.all_values(name)
        return values if self._chosen is None else values[self._chosen]

    def all_values(self, name: str) -> AnyArray:
        """A column of all echoes of the run."""
        if name not in self._columns:
            self._columns[name] = self._index.read(name, self._first, self._stop)
        return self._columns[name]


@dataclass(frozen=True, slots=True)
class _ChosenBars:
    """Chosen bars of the histogram of a value."""

    name: str
    edges: list[float]
    is_chosen: BoolArray  # by number of the class, the last one of unknown values

    @classmethod
    def of(cls, index: EchoIndex, name: str, chosen: frozenset[int]) -> _ChosenBars:
        edges = histogram_edges(index).get(name)
        if name == NOISE and index.noise is not None:
            edges = index.noise.edges or None
        if edges is None:
            raise ValueError(f"no histogram of {name[:40]!r} to select from")
        is_chosen = np.zeros(len(edges), np.bool_)
        is_chosen[[number for number in chosen if number < len(edges) - 1]] = True
        return cls(name, edges, is_chosen)

    def of_values(self, values: AnyArray) -> BoolArray:
        return self.is_chosen[class_numbers(values, self.edges)]


def histogram_edges(index: EchoIndex) -> dict[str, list[float]]:
    """Edges of the classes of each value that has a histogram, by its name."""
    return {
        value["name"]: value["histogram"]["edges"]
        for value in index.described["values"]
        if value["histogram"] is not None
    }


def _box(text: str) -> Box:
    numbers = _finite_numbers(text, 4)
    if numbers is not None:
        west, south, east, north = numbers
        if west <= east and south <= north:
            return west, south, east, north
    raise ValueError(f"invalid box {text[:80]!r}; expected four numbers: west, south, east, north")


def _finite_numbers(text: str, count: int) -> list[float] | None:
    """Numbers with commas between them; None if they are not so many, or not finite."""
    try:
        numbers = [float(number) for number in text.split(",")]
    except ValueError:
        return None
    return numbers if len(numbers) == count and np.isfinite(numbers).all() else None


def _bar(text: str) -> int:
    if not (text.isascii() and text.isdigit() and len(text) <= 4):
        raise ValueError(f"invalid bar {text[:20]!r}; expected an integer of at least 0")
    return int(text)


def selected_rows(index: EchoIndex, selection: Selection) -> BoolArray:
    """Which rows (n,) of the file are selected echoes, up to the last row with an echo."""
    rows: BoolArray = np.zeros(index.row_count, np.bool_)
    for run in selection.runs(index):
        rows[run.values("row")] = True
    return rows
