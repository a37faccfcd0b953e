"""Compare the echoes of two files of any format, in memory that does not grow with them."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass, field
from enum import Enum
from functools import cached_property
from pathlib import Path

import numpy as np

from fullwaveform.analysis.place_matching import match_by_place
from fullwaveform.analysis.record_files import Scratch, SortedRecords, ValueFile
from fullwaveform.analysis.shot_matching import (
    MatchedWindow,
    match_window,
    shared_shots,
    shot_windows,
)
from fullwaveform.data.arrays import AnyArray, FloatArray, RecordArray
from fullwaveform.data.echo_records import ECHO_RECORD, QUANTITIES, EchoFile
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.echo_readers.opening import open_echoes
from fullwaveform.io.unmatched_file import EXTRA, MISSED, UnmatchedWriter

#: Percent of the pairs for which the spread of a difference is given.
PERCENTILES = (50, 90, 95, 99)
_DRAWN = 1_000_000  # differences of a histogram, at most


class MatchedBy(Enum):
    """How echoes of two files were brought together."""

    NUMBER = "number"  # equal shot numbers and beams
    SHOT = "shot"  # exactly equal times
    TIME = "time"  # times within a tolerance
    PLACE = "place"  # place along and across the beam


@dataclass(frozen=True)
class CompareSettings:
    """What counts as a match."""

    tolerance: float = 1.0  # along the beam, coordinate unit of the files
    time_tolerance: float = 1e-6  # s
    across: float = 0.1  # across the beam, coordinate unit; for matching by place only


@dataclass(frozen=True)
class Spread:
    """Differences of a quantity over all pairs in which both echoes have it."""

    pairs: int
    median: float
    within: dict[int, float]  # percent -> distance from the median that they do not exceed


@dataclass
class Comparison:
    """Counts and differences; found minus reference."""

    found: EchoFile
    reference: EchoFile
    settings: CompareSettings
    matched_by: MatchedBy
    found_count: int = 0
    reference_count: int = 0
    matched: int = 0
    duplicates: int = 0  # left out because another channel of the shot has them, too
    found_shots: int | None = None  # None where shots cannot be distinguished
    reference_shots: int | None = None
    shared_shots: int | None = None
    without_flight: int = 0  # shared shots whose direction was not recorded
    distance: Spread = field(default_factory=lambda: Spread(0, np.nan, {}))
    quantities: dict[str, Spread] = field(default_factory=dict)
    drawn: FloatArray = field(default_factory=lambda: np.empty(0))  # differences of distance

    @property
    def missed(self) -> int:
        """Echoes of the reference without a partner."""
        return self.reference_count - self.matched

    @property
    def extra(self) -> int:
        """Found echoes without a partner."""
        return self.found_count - self.matched


def compare_echoes(
    reference: Path,
    found: Path,
    settings: CompareSettings | None = None,
    details: Path | None = None,
    *,
    overwrite: bool = False,
) -> Comparison:
    """Compare the echoes of a file with those of a reference.

    Of LAS files with waveforms the discrete returns are compared, else all echoes. Echoes are
    matched shot by shot: where both files number their shots, by number and beam; where they have
    exactly equal GPS times, by these; else by times within a tolerance; else, with none of these in
    common, by place along and across the beam. `details` is a ``.csv`` or ``.parquet`` file for the
    missed and extra echoes. Both files are copied to the system's folder for temporary files, in
    order of shot, time or place, while they are compared.

    Raises
    ------
    OSError
        A file cannot be read, or `details` or a temporary file not written.
    ValueError
        A file is not valid, or the files have neither a time nor a place in common.
    """
    settings = settings or CompareSettings()
    files = open_echoes(reference), open_echoes(found)
    with Scratch() as scratch:
        sides = [_Side(file, scratch) for file in files]
        result = Comparison(files[1], files[0], settings, _method(sides[0], sides[1], settings))
        writer = None
        if details is not None:
            writer = UnmatchedWriter(details)
            writer.overwrite = overwrite
            scratch.enter_context(writer)
        sums = _Sums(result, scratch, writer)
        for window in _windows(sides[0], sides[1], result):
            sums.add(window)
        _add_aside(sums, sides[0], sides[1], result.matched_by)
        sums.finish()
        if result.matched_by is MatchedBy.PLACE:
            result.reference_shots, result.found_shots = (side.shots() for side in sides)
            _check_any_matched(result)
    return result


def _add_aside(sums: _Sums, reference: _Side, found: _Side, matched_by: MatchedBy) -> None:
    """Count echoes that were not matched because they have no place, or no time."""
    none = np.empty(0, ECHO_RECORD)
    needs_time = matched_by in (MatchedBy.SHOT, MatchedBy.TIME)
    for records in (reference.unplaced, *([reference.untimed] if needs_time else [])):
        for part in records.ascending():
            sums.add_unmatched(part, none)
    for records in (found.unplaced, *([found.untimed] if needs_time else [])):
        for part in records.ascending():
            sums.add_unmatched(none, part)


def _check_any_matched(result: Comparison) -> None:
    if not result.matched and result.found_count:
        settings = result.settings
        raise WaveformFileError(
            f"{result.found.path} and {result.reference.path} have no echo in common: no GPS time "
            f"is equal within {settings.time_tolerance:g} s, and no places are within "
            f"{settings.tolerance:g} along and {settings.across:g} across the beam"
        )


class _Side:
    """The records of a file in order of time; those without time or place are kept aside."""

    def __init__(self, file: EchoFile, scratch: Scratch) -> None:
        self._scratch = scratch
        self.timed = self._sorted(lambda records: records["gps_time"])
        self.untimed = self._sorted(lambda records: records["row"])
        self.unplaced = self._sorted(lambda records: records["row"])
        self._first, self._last = np.inf, -np.inf  # times
        self.is_numbered = True
        for records in file.blocks():
            self.is_numbered &= bool(records["is_numbered"].all())
            has_place = np.isfinite(records["xyz"]).all(axis=1)
            has_time = np.isfinite(records["gps_time"])
            timed = records[has_place & has_time]
            self.timed.append(timed)
            self.untimed.append(records[has_place & ~has_time])
            self.unplaced.append(records[~has_place])
            self._first = min(self._first, timed["gps_time"].min(initial=np.inf))
            self._last = max(self._last, timed["gps_time"].max(initial=-np.inf))

    @property
    def has_shots(self) -> bool:
        """Whether the file has at least two different times."""
        return self._first < self._last

    def by_place(self) -> SortedRecords:
        """All records with a place, in ascending order of x."""
        return self._placed(lambda records: records["xyz"][:, 0])

    @cached_property
    def by_number(self) -> SortedRecords:
        """All records with a place, in ascending order of their shots."""
        return self._placed(lambda records: records["shot"])

    def _placed(self, key: Callable[[RecordArray], AnyArray]) -> SortedRecords:
        placed = self._sorted(key)
        for part in (self.timed, self.untimed):
            for records in part.ascending():
                placed.append(records)
        return placed

    def shots(self) -> int | None:
        """Number of different times; None where they do not distinguish shots."""
        if not self.has_shots:
            return None
        count, last = 0, -np.inf
        for records in self.timed.ascending():
            times = records["gps_time"]
            count += int(np.count_nonzero(np.diff(times, prepend=last)))
            last = times[-1]
        return count

    def _sorted(self, key: Callable[[RecordArray], AnyArray]) -> SortedRecords:
        return SortedRecords(self._scratch.file(), ECHO_RECORD, key)


def _method(reference: _Side, found: _Side, settings: CompareSettings) -> MatchedBy:
    """Equal times if most of the shots that agree within the tolerance agree exactly."""
    if reference.is_numbered and found.is_numbered:
        numbered = found.by_number.ascending(), reference.by_number.ascending()
        if any(len(shared_shots(*pair, None)) for pair in shot_windows(*numbered, None)):
            return MatchedBy.NUMBER
    if not (reference.has_shots or found.has_shots):
        return MatchedBy.PLACE
    equal = shared = 0
    for one, other in shot_windows(
        found.timed.ascending(), reference.timed.ascending(), settings.time_tolerance
    ):
        differences = shared_shots(one, other, settings.time_tolerance)
        equal += int(np.count_nonzero(differences == 0.0))
        shared += len(differences)
    if not shared:
        return MatchedBy.PLACE
    return MatchedBy.SHOT if 2 * equal >= shared else MatchedBy.TIME


def _windows(reference: _Side, found: _Side, result: Comparison) -> Iterator[MatchedWindow]:
    settings, matched_by = result.settings, result.matched_by
    if matched_by is MatchedBy.PLACE:
        yield from match_by_place(
            found.by_place().ascending(),
            reference.by_place().ascending(),
            settings.tolerance,
            settings.across,
        )
        return
    channels = result.found.has_returns, result.reference.has_returns
    sides = found.timed, reference.timed
    tolerance: float | None = 0.0
    if matched_by is MatchedBy.TIME:
        tolerance = settings.time_tolerance
    if matched_by is MatchedBy.NUMBER:
        sides, tolerance = (found.by_number, reference.by_number), None
    for one, other in shot_windows(sides[0].ascending(), sides[1].ascending(), tolerance):
        yield match_window(one, other, settings.tolerance, tolerance, duplicates=channels)


class _Sums:
    """Adds windows to a comparison; values that percentiles need are kept on disk."""

    def __init__(
        self, result: Comparison, scratch: Scratch, writer: UnmatchedWriter | None
    ) -> None:
        self._result, self._writer = result, writer
        self._distance = ValueFile(scratch.file())
        self._quantities = {name: ValueFile(scratch.file()) for name in QUANTITIES}

    def add(self, window: MatchedWindow) -> None:
        """Count a window, keep its differences and write its unmatched echoes."""
        result = self._result
        result.matched += len(window.difference)
        result.duplicates += window.duplicates
        result.without_flight += window.without_flight
        if result.matched_by is not MatchedBy.PLACE:
            counts = (result.found_shots, result.reference_shots, result.shared_shots)
            result.found_shots, result.reference_shots, result.shared_shots = (
                (before or 0) + more for before, more in zip(counts, window.shots, strict=True)
            )
        self._distance.append(window.difference)
        found, reference = (
            window.found[window.found_index],
            window.reference[window.reference_index],
        )
        for name, values in self._quantities.items():
            values.append(_difference(name, found[name], reference[name]))
        self.add_unmatched(
            np.delete(window.reference, window.reference_index),
            np.delete(window.found, window.found_index),
        )
        result.reference_count += len(window.reference_index)
        result.found_count += len(window.found_index)

    def add_unmatched(self, reference: RecordArray, found: RecordArray) -> None:
        """Count and write echoes without a partner."""
        self._result.reference_count += len(reference)
        self._result.found_count += len(found)
        if self._writer is not None:
            self._writer.write(reference, MISSED)
            self._writer.write(found, EXTRA)

    def finish(self) -> None:
        """Enter the spread of all differences, and those that a histogram shows."""
        self._result.distance = _spread(self._distance)
        self._result.drawn = self._distance.sample(_DRAWN)
        if len(self._quantities["amplitude"]):  # in one unit, which says more than their ratio
            del self._quantities["intensity"]
        self._result.quantities = {
            name: _spread(values) for name, values in self._quantities.items() if len(values)
        }


def _difference(name: str, found: FloatArray, reference: FloatArray) -> FloatArray:
    """Found minus reference; of intensities, whose units differ between files, the ratio."""
    if name != "intensity":
        return found - reference
    ratio: FloatArray = np.full(len(found), np.nan)
    np.divide(found, reference, out=ratio, where=reference > 0)
    return ratio


def _spread(values: ValueFile) -> Spread:
    median = values.percentile(50.0)
    within = {
        percent: values.percentile(percent, about=median) for percent in PERCENTILES if len(values)
    }
    return Spread(len(values), median, within)
