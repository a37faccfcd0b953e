"""Index of a file of echoes: its points by place in levels of detail, and by their waveforms."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from tempfile import TemporaryFile
from typing import IO, Any

import numpy as np
import pyarrow as pa

from fullwaveform.data.arrays import AnyArray, BoolArray, FloatArray
from fullwaveform.data.echo_records import EchoFile
from fullwaveform.io.echo_readers.opening import open_echoes
from fullwaveform.view.cache import cached_name, cached_sections, identity
from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_values import ECHO_VALUES, described_values, have_places, value_rows
from fullwaveform.view.histograms import described_histogram, percentiles
from fullwaveform.view.noise import WaveformNoise
from fullwaveform.view.quadtree import Quadtree, Square, quadtree
from fullwaveform.view.sections import SectionFile, SectionWriter
from fullwaveform.view.shot_echoes import echoes_of_shots, occurrences

#: Number of a waveform that is not known.
UNKNOWN = 0xFFFFFFFF
#: Points of a response, and so on the screen, at most.
MAX_POINTS = 500_000
#: Column with the noise rms of the waveform of each echo, counts; NaN where it is unknown.
NOISE = "noise"
_PLACES = ("x", "y", "z")
_CHUNK = 1 << 18  # entries that a search reads at a time


@dataclass(frozen=True, slots=True)
class EchoPlace:
    """An echo of the index."""

    row: int  # number in its file
    waveform: int | None
    xyz: tuple[float, float, float]  # coordinate units


class EchoIndex:
    """The echoes of a file, open for reading; may be used by several threads at a time."""

    def __init__(self, path: Path, sections: SectionFile, identified: dict[str, Any]) -> None:
        self.path, self._sections = path, sections
        self.identity = identified  # of the file of echoes when the index was made
        self.noise: WaveformNoise | None = None  # of the waveforms, if that is known
        self._stops = np.cumsum(sections.read("node_count").astype(np.int64))

    @classmethod
    def of(cls, path: Path, waveforms: WaveformDirectory) -> EchoIndex:
        """The index of a file of echoes of the given waveforms; made once.

        Raises as `open_echoes`, and OSError if the cache folder cannot be written.
        """
        identified = identity(path, waveforms=waveforms.identity)
        name = cached_name("echoes", path, identified)

        def build(writer: SectionWriter) -> None:
            _Builder(open_echoes(path), waveforms, name.parent).write(writer)

        return cls(path, cached_sections(name, build), identified)

    def close(self) -> None:
        """Close the index."""
        self._sections.close()

    def __len__(self) -> int:
        """Number of echoes with a place."""
        return self._sections.count("row")

    @property
    def described(self) -> dict[str, Any]:
        """Origin, extent, values with their ranges and histograms, as JSON data."""
        return self._sections.described

    def nodes(self) -> dict[str, list[int]]:
        """Level, column, row and count of points of each node."""
        names = ("level", "column", "row", "count")
        return {name: self._sections.read(f"node_{name}").tolist() for name in names}

    def points(self, nodes: Sequence[int], *, with_noise: bool = False) -> bytes:
        """The points of the nodes: x, y, z, the values, row and waveform of all nodes each.

        `with_noise` appends `NOISE`.

        Raises ValueError for a number that is no node, and for more than `MAX_POINTS` points.
        """
        if any(not 0 <= node < len(self._stops) for node in nodes):
            raise ValueError(f"invalid node; nodes are numbered 0 to {len(self._stops) - 1}")
        stops = [int(self._stops[node]) for node in nodes]
        starts = [int(self._stops[node - 1]) if node else 0 for node in nodes]
        if (total := sum(stops) - sum(starts)) > MAX_POINTS:
            raise ValueError(f"{total} points exceed the limit of {MAX_POINTS}")
        ranges = list(zip(starts, stops, strict=True))
        names = (*self.columns, NOISE) if with_noise else self.columns
        return b"".join(
            self.read(name, start, stop).tobytes() for name in names for start, stop in ranges
        )

    @property
    def row_count(self) -> int:
        """Rows of the file up to the last echo with a place."""
        if len(self) == 0:
            return 0
        (last,) = self.read("index_of_position", len(self) - 1).tolist()
        return self.place(last).row + 1

    def read(self, name: str, first: int = 0, stop: int | None = None) -> AnyArray:
        """A part of a column of the echoes, or of the nodes or shots.

        `NOISE` raises as `WaveformNoise.values`.
        """
        if name == NOISE:
            return self._noise_of(self._sections.read("waveform", first, stop))
        return self._sections.read(name, first, stop)

    def _noise_of(self, waveforms: AnyArray) -> AnyArray:
        found = np.full(len(waveforms), np.nan, "<f4")
        if self.noise is not None:
            known = np.flatnonzero(waveforms != UNKNOWN)
            found[known] = self.noise.values()[waveforms[known]]
        return found

    @property
    def columns(self) -> tuple[str, ...]:
        """Names of the columns of `points`, in their order."""
        values = tuple(value["name"] for value in self.described["values"])
        return (*_PLACES, *values, "row", "waveform")

    def place(self, index: int) -> EchoPlace:
        """The echo with this number in the order of the index; ValueError if there is none."""
        self._check_number(index)
        row, waveform, *place = (
            self._sections.read(name, index, index + 1)[0] for name in ("row", "waveform", *_PLACES)
        )
        x, y, z = (
            float(value) + low for value, low in zip(place, self.described["origin"], strict=True)
        )
        return EchoPlace(int(row), None if waveform == UNKNOWN else int(waveform), (x, y, z))

    def _check_number(self, index: int) -> None:
        if not 0 <= index < len(self):
            raise ValueError(f"no echo {index}; the index has {len(self)}")

    def next_echo(self, index: int, step: int) -> int | None:
        """The echo (in the order of the index) after (`step` 1) or before (-1) one in the file.

        None at the end; ValueError if there is no echo `index`.
        """
        self._check_number(index)
        (position,) = self._sections.read("position_of_index", index, index + 1).tolist()
        position += step
        if not 0 <= position < len(self):
            return None
        return int(self._sections.read("index_of_position", position, position + 1)[0])

    def echo_of_waveform(self, waveform: int) -> int | None:
        """The first echo (in the order of the index) of a waveform; None without one."""
        found = self._sections.read("first_echo", waveform, waveform + 1)
        return None if len(found) == 0 or found[0] == UNKNOWN else int(found[0])

    def next_waveform(
        self, waveform: int, step: int, quantity: str, wanted: Callable[[AnyArray], BoolArray]
    ) -> int | None:
        """The next waveform whose "echoes" or "chi_square" is wanted; None at the end."""
        section, count = f"waveform_{quantity}", self._sections.count(f"waveform_{quantity}")
        at = waveform + step
        while 0 <= at < count:
            low = at if step > 0 else max(at - _CHUNK + 1, 0)
            high = min(at + _CHUNK, count) if step > 0 else at + 1
            found = np.flatnonzero(wanted(self._sections.read(section, low, high)))
            if len(found):
                return low + int(found[0 if step > 0 else -1])
            at = high if step > 0 else low - 1
        return None


class _Builder:
    """Reads a file once, column by column into temporary files, and writes them in tree order."""

    def __init__(self, file: EchoFile, waveforms: WaveformDirectory, folder: Path) -> None:
        self._file, self._waveforms, self._folder = file, waveforms, folder
        self._origin: FloatArray | None = None
        self._streams: dict[str, IO[bytes]] = {}
        self._without_place = 0
        self._shots: dict[str, Any] | None = None  # histogram of their echoes

    def write(self, writer: SectionWriter) -> None:
        with ExitStack() as opened:
            self._copy_columns(opened)
            self._count_echoes_of_shots(opened, writer)
            pa.default_memory_pool().release_unused()  # in which columns of tables were decoded
            tree = self._tree()
            for name in ("level", "column", "row", "count"):
                writer.add(f"node_{name}", getattr(tree, name))
            index = _inverse(tree.order)
            self._write_waveforms(writer, index)
            self._write_positions(writer, tree, index)
            del index
            described = self._write_columns(writer, tree)
        writer.finish(
            {
                "origin": [0.0] * 3 if self._origin is None else self._origin.tolist(),
                "low": tree.square.low,
                "size": tree.square.size,
                "without_place": self._without_place,
                "shots": self._shots,
                **described,
            }
        )

    def _copy_columns(self, opened: ExitStack) -> None:
        for first, chosen, columns in value_rows(self._file):
            rows = first + np.flatnonzero(chosen)
            xyz = np.column_stack([columns[name] for name in _PLACES]).astype(np.float64)
            known = have_places(*xyz.T)
            self._without_place += int(np.count_nonzero(~known))
            numbers = self._numbers(columns)
            if not known.all():
                self._append(opened, "waveform_without_place", numbers[~known])
                if "chi_square" in columns:
                    self._append(opened, "chi_without_place", columns["chi_square"][~known])
            if not known.any():
                continue
            if self._origin is None:
                self._origin = np.floor(xyz[known][0])
            relative = (xyz[known] - self._origin).astype("<f4")
            parts: dict[str, AnyArray] = {
                name: relative[:, axis] for axis, name in enumerate(_PLACES)
            }
            for value in ECHO_VALUES:
                if value.name in columns:
                    parts[value.name] = columns[value.name][known]
            parts["row"] = rows[known].astype("<u4")
            parts["waveform"] = numbers[known]
            for name, part in parts.items():
                self._append(opened, name, part)

    def _append(self, opened: ExitStack, name: str, part: AnyArray) -> None:
        if name not in self._streams:
            stream = TemporaryFile(dir=self._folder)  # noqa: SIM115
            self._streams[name] = opened.enter_context(stream)
        self._streams[name].write(np.ascontiguousarray(part).data)

    def _count_echoes_of_shots(self, opened: ExitStack, writer: SectionWriter) -> None:
        placed = self._column("waveform", "<u4")
        numbers = np.concatenate([placed, self._column("waveform_without_place", "<u4")])
        of_shots, of_echoes = echoes_of_shots(numbers, self._waveforms.shot_numbers())
        of_echoes = of_echoes[: len(placed)]
        if of_echoes.any():
            self._append(opened, "shot_echoes", of_echoes)
        self._shots = described_histogram(of_shots, is_category=True)
        writer.add("shot_counts", of_shots)

    def _numbers(self, columns: dict[str, AnyArray]) -> AnyArray:
        """Numbers of the waveforms of echoes, as stored or by the time of the shot."""
        count = len(self._waveforms)
        if "waveform_number" in columns:
            numbers = columns["waveform_number"].astype(np.int64)
        elif "gps_time" in columns:
            numbers = self._waveforms.numbers_at(columns["gps_time"].astype(np.float64))
        else:
            numbers = np.full(len(columns["x"]), -1)
        return np.where((numbers >= 0) & (numbers < count), numbers, UNKNOWN).astype("<u4")

    def _column(self, name: str, dtype: str) -> AnyArray:
        if name not in self._streams:
            return np.zeros(0, dtype)
        stream = self._streams[name]
        stream.seek(0)
        return np.fromfile(stream, dtype)

    def _tree(self) -> Quadtree:
        x, y = self._column("x", "<f4"), self._column("y", "<f4")
        square = Square.around(x, y)
        places = square.places(x, y)
        del x, y  # the places are as large
        return quadtree(square, places)

    def _write_columns(self, writer: SectionWriter, tree: Quadtree) -> dict[str, Any]:
        """Write the columns in the order of the tree; what is known of them."""
        present = {value.name: value for value in ECHO_VALUES if value.name in self._streams}
        described = described_values(present)
        ranges: dict[str, Any] = {}
        for name in _PLACES:
            column = self._column(name, "<f4")
            ranges[name] = _range_of(column)
            writer.add(name, column[tree.order])
        for entry in described:
            column = self._column(str(entry["name"]), str(entry["type"]))
            entry["range"] = _range_of(column)
            entry["histogram"] = described_histogram(column, is_category=bool(entry["category"]))
            writer.add(str(entry["name"]), column[tree.order])
        for name in ("row", "waveform"):
            writer.add(name, self._column(name, "<u4")[tree.order])
        return {"values": described, "ranges": ranges}

    def _write_positions(self, writer: SectionWriter, tree: Quadtree, index: AnyArray) -> None:
        """The order of the file in that of the tree, and the reverse."""
        writer.add("index_of_position", index)
        writer.add("position_of_index", tree.order.astype("<u4", copy=False))

    def _write_waveforms(self, writer: SectionWriter, index: AnyArray) -> None:
        """Echoes, largest chi square and first echo of each waveform."""
        total = len(self._waveforms)
        numbers = self._column("waveform", "<u4")
        without_place = self._column("waveform_without_place", "<u4")
        counts = occurrences(numbers, total) + occurrences(without_place, total)
        writer.add("waveform_echoes", np.minimum(counts, 65535).astype("<u2"))
        del counts
        chi_square = self._column("chi_square", "<f4")
        chi = np.full(total, np.nan, "<f4")
        first_echo = np.full(total, UNKNOWN, "<u4")
        # From the last echo to the first, so that the first one remains.
        for start in reversed(range(0, len(numbers), _CHUNK)):
            part = slice(start, start + _CHUNK)
            known = numbers[part] != UNKNOWN
            of_known = numbers[part][known]
            first_echo[of_known[::-1]] = index[part][known][::-1]
            if len(chi_square):
                np.fmax.at(chi, of_known, chi_square[part][known])
        if len(chi_without_place := self._column("chi_without_place", "<f4")):
            known = without_place != UNKNOWN
            np.fmax.at(chi, without_place[known], chi_without_place[known])
        writer.add("waveform_chi_square", chi)
        writer.add("first_echo", first_echo)


def _inverse(order: AnyArray) -> AnyArray:
    """Where each number is in the order."""
    index = np.empty(len(order), "<u4")
    for start in range(0, len(order), _CHUNK):
        part = order[start : start + _CHUNK]
        index[part] = np.arange(start, start + len(part), dtype="<u4")
    return index


def _range_of(column: AnyArray) -> list[float] | None:
    """The 1st and 99th percentile of a column; None if all values are unknown."""
    finite = column[np.isfinite(column)]
    if len(finite) == 0:
        return None
    return percentiles(finite, (1.0, 99.0))
