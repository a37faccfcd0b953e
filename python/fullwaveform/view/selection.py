"""Echoes that a user selects on the page: a box of the map, and bars of histograms."""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass, field

import numpy as np

from fullwaveform.data.arrays import AnyArray, BoolArray, IntArray
from fullwaveform.view.echo_index import EchoIndex
from fullwaveform.view.histograms import class_numbers

_CHUNK = 1 << 18  # echoes that are examined at a time
_ROUNDING = 1e-5  # of the extent: places next to the edge of a node may belong to either side


@dataclass(frozen=True, slots=True)
class Selection:
    """Which echoes are selected: those in the box that are in a chosen bar of each histogram.

    box : west, south, east and north, from the origin of the index in coordinate units, edges
        included; None: anywhere
    bars : numbers of the chosen bars of the histograms, by the name of the value
    """

    box: tuple[float, float, float, float] | None = None
    bars: Mapping[str, frozenset[int]] = field(default_factory=dict)

    @classmethod
    def of_text(cls, box: str, bars: Sequence[str]) -> Selection:
        """From four numbers with commas, and texts as "amplitude:0,1,2"; ValueError for others."""
        chosen = {}
        for text in bars:
            name, _, numbers = text.partition(":")
            chosen[name] = frozenset(_bar(number) for number in numbers.split(",") if number)
        return cls(_box(box) if box else None, chosen)

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
        assert self.box is not None
        # Of the type of the places, as on the page.
        with np.errstate(over="ignore"):
            west, south, east, north = np.asarray(self.box, np.float32)
        x, y = run.all_values("x"), run.all_values("y")
        return (x >= west) & (x <= east) & (y >= south) & (y <= north)  # type: ignore[no-any-return]

    def _places(self, index: EchoIndex) -> Iterator[tuple[int, int, bool]]:
        """Runs of echoes of nodes that touch the box, and whether they are inside."""
        stops = np.cumsum(index.read("node_count").astype(np.int64))
        if len(stops) == 0:
            return
        if self.box is None:
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
        """Which nodes touch the box, and which are inside."""
        assert self.box is not None
        west, south, east, north = self.box
        low, size = index.described["low"], index.described["size"]
        edge = size / 2.0 ** index.read("node_level")
        left = low[0] + index.read("node_column") * edge
        bottom = low[1] + index.read("node_row") * edge
        right, top, rounding = left + edge, bottom + edge, _ROUNDING * size
        touching: BoolArray = (left <= east + rounding) & (right >= west - rounding)
        touching &= (bottom <= north + rounding) & (top >= south - rounding)
        inside: BoolArray = (left >= west + rounding) & (right <= east - rounding)
        inside &= (bottom >= south + rounding) & (top <= north - rounding)
        return touching, inside


class SelectedRun:
    """Consecutive echoes of an index, of which some are selected."""

    def __init__(self, index: EchoIndex, first: int, stop: int) -> None:
        self._index, self._first, self._stop = index, first, stop
        self._chosen: BoolArray | None = None  # None: all of them
        self._columns: dict[str, AnyArray] = {}

    @property
    def count(self) -> int:
        """Selected echoes."""
        if self._chosen is None:
            return self._stop - self._first
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


def _box(text: str) -> tuple[float, float, float, float]:
    try:
        west, south, east, north = (float(number) for number in text.split(","))
    except ValueError:
        west = np.nan
    else:
        if np.isfinite([west, south, east, north]).all() and west <= east and south <= north:
            return west, south, east, north
    raise ValueError(f"invalid box {text[:80]!r}; expected four numbers: west, south, east, north")


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
