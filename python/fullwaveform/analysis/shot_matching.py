"""Matching by shot: echoes of the same pulse are compared by their distance along it."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

from fullwaveform.analysis.matching import match_echoes
from fullwaveform.data.arrays import AnyArray, BoolArray, FloatArray, IntArray, RecordArray
from fullwaveform.data.echo_records import ECHO_RECORD

_MAX_WINDOW = 1 << 21  # records of a side; a window without a gap is cut at its largest one
_DOWN = np.array([0.0, 0.0, -1.0])


@dataclass(frozen=True)
class MatchedWindow:
    """A part of both files, none of whose echoes has a partner in another part."""

    found: RecordArray
    reference: RecordArray
    found_index: IntArray  # rows of `found` and of `reference` of the pairs
    reference_index: IntArray
    difference: FloatArray  # found minus reference along the flight of light, coordinate unit
    shots: tuple[int, int, int]  # of found, of the reference, shared
    duplicates: int = 0  # records left out because another channel of the shot has them, too
    without_flight: int = 0  # shared shots whose direction was not recorded


def shot_windows(
    found: Iterator[RecordArray], reference: Iterator[RecordArray], tolerance: float | None
) -> Iterator[tuple[RecordArray, RecordArray]]:
    """Cut two streams in order of time where no shot within `tolerance` (s) crosses the cut.

    With None the streams are in order of shot numbers, and cut between two of them.
    """
    key = "shot" if tolerance is None else "gps_time"
    streams = [found, reference]
    waiting = [next(stream, None) for stream in streams]
    sides = [np.empty(0, ECHO_RECORD) if one is None else one for one in waiting]
    ended = [one is None for one in waiting]
    while not all(ended):
        limit = min(side[key][-1] for side, end in zip(sides, ended, strict=True) if not end)
        cut = _cut([side[key] for side in sides], limit, tolerance or 0.0)
        if cut is not None:
            ends = [int(np.searchsorted(side[key], cut)) for side in sides]
            yield sides[0][: ends[0]], sides[1][: ends[1]]
            sides = [side[end:] for side, end in zip(sides, ends, strict=True)]
        for number in (0, 1):
            if not ended[number] and (not len(sides[number]) or sides[number][key][-1] <= limit):
                more = next(streams[number], None)
                ended[number] = more is None
                if more is not None:
                    sides[number] = np.concatenate([sides[number], more])
    if len(sides[0]) or len(sides[1]):
        yield sides[0], sides[1]


def _cut(keys: list[AnyArray], limit: float, tolerance: float) -> float | None:
    """The last key up to `limit` before which a gap is wider than `tolerance`."""
    times = np.unique(np.concatenate(keys))
    times = times[: int(np.searchsorted(times, limit, side="right"))]
    gaps = np.diff(times)
    if not len(gaps):
        return None
    wide = np.flatnonzero(gaps > tolerance)
    if len(wide):
        key: float = times.item(wide[-1] + 1)
        return key
    if max(map(len, keys)) > _MAX_WINDOW:
        largest: float = times.item(int(np.argmax(gaps)) + 1)
        return largest
    return None


def shared_shots(found: RecordArray, reference: RecordArray, tolerance: float | None) -> FloatArray:
    """Differences of the times of the shots that both windows have, s; by number 0."""
    return _paired_shots(found, reference, tolerance)[2]


def match_window(
    found: RecordArray,
    reference: RecordArray,
    tolerance: float,
    time_tolerance: float | None,
    *,
    duplicates: tuple[bool, bool],
) -> MatchedWindow:
    """Pair the echoes of one window shot by shot.

    Parameters
    ----------
    tolerance : largest difference along the flight of light, coordinate unit
    time_tolerance : largest difference of the times of a shot, s; None: equal shot numbers
    duplicates : whether `found` and `reference` may list an echo once per channel
    """
    found_shots, reference_shots, shared = _paired_shots(found, reference, time_tolerance)
    frames = _Frames.of(found, reference, found_shots.group, reference_shots.group)
    at_found = frames.along(found, found_shots.group)
    at_reference = frames.along(reference, reference_shots.group)
    keep_found = _kept(found, found_shots.group, at_found, tolerance, duplicates[0])
    keep = _kept(reference, reference_shots.group, at_reference, tolerance, duplicates[1])
    found, at_found, group = found[keep_found], at_found[keep_found], found_shots.group[keep_found]
    matching = match_echoes(
        group,
        at_found,
        reference_shots.group[keep],
        at_reference[keep],
        tolerance,
    )
    return MatchedWindow(
        found=found,
        reference=reference[keep],
        found_index=matching.found_index,
        reference_index=matching.ref_index,
        difference=matching.difference,
        shots=(found_shots.count, reference_shots.count, len(shared)),
        duplicates=int(np.count_nonzero(~keep)) + int(np.count_nonzero(~keep_found)),
        without_flight=frames.assumed,
    )


@dataclass(frozen=True)
class _Shots:
    group: IntArray  # (m,), number of the shot of each record, equal for both files
    count: int


def _paired_shots(
    found: RecordArray, reference: RecordArray, tolerance: float | None
) -> tuple[_Shots, _Shots, FloatArray]:
    """Shots of both files with common numbers, and the time differences of the shared ones.

    Shots of the reference are numbered from 0; shots that only `found` has follow.
    """
    if tolerance is None:
        return _numbered_shots(found, reference)
    found_time, found_shot = np.unique(found["gps_time"], return_inverse=True)
    time, shot = np.unique(reference["gps_time"], return_inverse=True)
    pairs = match_echoes(
        np.zeros(len(found_time), np.int64),
        found_time,
        np.zeros(len(time), np.int64),
        time,
        tolerance,
    )
    number = len(time) + np.arange(len(found_time))
    number[pairs.found_index] = pairs.ref_index
    return (
        _Shots(number[found_shot], len(found_time)),
        _Shots(shot.astype(np.int64), len(time)),
        pairs.difference,
    )


def _numbered_shots(
    found: RecordArray, reference: RecordArray
) -> tuple[_Shots, _Shots, FloatArray]:
    """The same by shot numbers and, where both files have them, beams."""
    beams = [side["beam"] for side in (reference, found)]
    if any((beam < 0).any() for beam in beams):
        beams = [np.zeros_like(beam) for beam in beams]
    numbers = [side["shot"] for side in (reference, found)]
    both = np.column_stack([np.concatenate(numbers), np.concatenate(beams)])
    distinct, which = np.unique(both, axis=0, return_inverse=True)
    of_reference, of_found = np.split(which.ravel(), [len(reference)])
    in_reference, in_found = (
        np.bincount(shots, minlength=len(distinct)) > 0 for shots in (of_reference, of_found)
    )
    # Those of the reference first.
    number = np.where(
        in_reference,
        np.cumsum(in_reference) - 1,
        np.count_nonzero(in_reference) + np.cumsum(~in_reference) - 1,
    )
    return (
        _Shots(number[of_found], int(np.count_nonzero(in_found))),
        _Shots(number[of_reference], int(np.count_nonzero(in_reference))),
        np.zeros(int(np.count_nonzero(in_reference & in_found))),
    )


@dataclass(frozen=True)
class _Frames:
    """Line of each shot of the reference: a point on it, and its direction along the flight."""

    origin: FloatArray  # (shots, 3)
    flight: FloatArray  # (shots, 3), unit vectors
    assumed: int  # shared shots whose direction follows from the places of their echoes

    @classmethod
    def of(
        cls,
        found: RecordArray,
        reference: RecordArray,
        found_shot: IntArray,
        shot: IntArray,
    ) -> _Frames:
        """Lines through the first echo of each shot; directions are those of the files.

        Where no file has one, the line runs through the farthest echo of the shot and downwards.
        """
        order = np.lexsort((reference["row"], shot))
        shots, first = np.unique(shot[order], return_index=True)
        origin = reference["xyz"][order[first]]
        flight = np.full((len(shots), 3), np.nan)
        shared = np.flatnonzero(found_shot < len(shots))
        for records, groups in (
            (reference[order], shot[order]),
            (found[shared], found_shot[shared]),
        ):
            known = np.flatnonzero(
                np.isfinite(records["flight"]).all(axis=1) & np.isnan(flight[groups, 0])
            )
            chosen, index = np.unique(groups[known], return_index=True)
            flight[chosen] = records["flight"][known[index]]
        assumed = np.isnan(flight[:, 0])
        places = np.concatenate([reference["xyz"], found["xyz"][shared]])
        groups = np.concatenate([shot, found_shot[shared]])
        flight[assumed] = _farthest(places, groups, origin)[assumed]
        is_shared = np.zeros(len(shots), np.bool_)
        is_shared[found_shot[shared]] = True
        return cls(origin, flight, int(np.count_nonzero(assumed & is_shared)))

    def along(self, records: RecordArray, shot: IntArray) -> FloatArray:
        """Distance of records along the line of their shot; NaN without one."""
        known = np.flatnonzero(shot < len(self.origin))
        distance = np.full(len(records), np.nan)
        distance[known] = np.einsum(
            "ij,ij->i",
            records["xyz"][known] - self.origin[shot[known]],
            self.flight[shot[known]],
        )
        return distance


def _farthest(places: FloatArray, shot: IntArray, origin: FloatArray) -> FloatArray:
    """Direction from the origin to the farthest place of each shot, downwards."""
    offset = places - origin[shot]
    length = np.linalg.norm(offset, axis=1)
    last = np.unique(shot[(order := np.lexsort((-length, shot)))], return_index=True)[1]
    offset, length = offset[order[last]], length[order[last], np.newaxis]
    direction = np.divide(offset, length, out=np.tile(_DOWN, (len(offset), 1)), where=length > 0)
    downward: FloatArray = np.where(direction[:, 2:] > 0, -direction, direction)
    return downward


def _kept(
    records: RecordArray, shot: IntArray, distance: FloatArray, tolerance: float, check: bool
) -> BoolArray:
    """Which records to keep, so that an echo listed in several channels counts once."""
    kept: BoolArray = np.ones(len(records), dtype=np.bool_)
    if not check:
        return kept
    for later in np.unique(records["channel"])[1:]:
        before = np.flatnonzero(kept & (records["channel"] < later))
        now = np.flatnonzero(records["channel"] == later)
        repeated = match_echoes(shot[now], distance[now], shot[before], distance[before], tolerance)
        kept[now[repeated.found_index]] = False
    return kept
