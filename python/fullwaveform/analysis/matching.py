"""Match echoes with reference echoes: of another method, or true ones."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray


@dataclass(frozen=True, slots=True)
class Matching:
    """One-to-one pairs, ascending by found echo, and the unmatched echoes, ascending."""

    found_index: IntArray  # rows of the found echoes
    ref_index: IntArray  # rows of their partners, same length
    difference: FloatArray  # found minus reference position, in the unit of the positions
    unmatched_found: IntArray
    unmatched_ref: IntArray

    def __len__(self) -> int:
        return len(self.found_index)


@dataclass(frozen=True, slots=True)
class MatchStatistics:
    """Counts and differences of a matching; the differences are NaN without pairs."""

    matched: int
    unmatched_found: int
    unmatched_ref: int
    mean: float
    median: float
    rms: float
    absolute_percentiles: dict[float, float]  # percent -> that percentile of |difference|


def match_echoes(
    found_group: npt.ArrayLike,
    found_pos: npt.ArrayLike,
    ref_group: npt.ArrayLike,
    ref_pos: npt.ArrayLike,
    tolerance: float,
) -> Matching:
    """Pair each echo with at most one reference echo of its group, nearest pairs first.

    Groups (shot numbers, or exactly equal shot times) and positions are one-dimensional, and of
    equal length on each side. The positions of a pair differ by at most `tolerance`. Of two equally
    close pairs that share an echo, the one at smaller positions is chosen. Echoes with a position
    that is not finite, or a NaN group, are not matched.

    Raises ValueError if lengths differ, if the groups are integers on one side only, or if the
    tolerance is negative or NaN.
    """
    if not tolerance >= 0:
        raise ValueError(f"invalid tolerance {tolerance}; it must be 0 or more")
    found_key, found_at = _columns(found_group, found_pos, "found")
    ref_key, ref_at = _columns(ref_group, ref_pos, "reference")
    key = _joined_keys(found_key, ref_key)
    position = np.concatenate([found_at, ref_at])
    rows = _sorted_rows(key, position)
    found, ref = _pair_rows(rows, key, position, len(found_at), tolerance)
    order = np.argsort(found)
    found, ref = found[order], ref[order] - len(found_at)
    return Matching(
        found_index=found,
        ref_index=ref,
        difference=found_at[found] - ref_at[ref],
        unmatched_found=_others(found, len(found_at)),
        unmatched_ref=_others(ref, len(ref_at)),
    )


def summarise(
    matching: Matching, percentiles: tuple[float, ...] = (50.0, 90.0, 95.0, 99.0)
) -> MatchStatistics:
    """Counts, bias and spread of the differences of a matching."""
    difference = matching.difference
    if len(difference) == 0:
        nan = float("nan")
        mean = median = rms = nan
        absolute = dict.fromkeys(percentiles, nan)
    else:
        mean, median = float(np.mean(difference)), float(np.median(difference))
        rms = float(np.sqrt(np.mean(difference**2)))
        values = np.percentile(np.abs(difference), percentiles)
        absolute = dict(zip(percentiles, values.tolist(), strict=True))
    return MatchStatistics(
        matched=len(matching),
        unmatched_found=len(matching.unmatched_found),
        unmatched_ref=len(matching.unmatched_ref),
        mean=mean,
        median=median,
        rms=rms,
        absolute_percentiles=absolute,
    )


def _columns(
    group: npt.ArrayLike, position: npt.ArrayLike, side: str
) -> tuple[npt.NDArray[np.generic], FloatArray]:
    key, at = np.asarray(group), np.asarray(position, dtype=np.float64)
    if key.ndim != 1 or key.shape != at.shape:
        raise ValueError(
            f"groups {key.shape} and positions {at.shape} of the {side} echoes "
            "must be one-dimensional and of equal length"
        )
    return key, at


def _joined_keys(
    found: npt.NDArray[np.generic], ref: npt.NDArray[np.generic]
) -> npt.NDArray[np.generic]:
    """Groups of both sides in one type that represents them exactly."""
    sides = [side for side in (found, ref) if len(side)]
    if not sides:
        return found
    joined = np.concatenate(sides)
    whole = [side.dtype.kind in "iu" for side in sides]
    real = [side.dtype.kind in "iuf" for side in sides]
    # 64-bit integers lose digits as float64, which would join different shots.
    if not all(real) or any(whole) != all(whole) or (all(whole) and joined.dtype.kind == "f"):
        raise ValueError(f"groups of type {found.dtype} and {ref.dtype} cannot be compared exactly")
    return joined


def _sorted_rows(key: npt.NDArray[np.generic], position: FloatArray) -> IntArray:
    """Rows that can be matched, sorted by group and position."""
    known = ~np.isnan(key) if key.dtype.kind == "f" else np.ones(len(key), dtype=np.bool_)
    usable = np.flatnonzero(np.isfinite(position) & known)
    return np.asarray(usable[np.lexsort((position[usable], key[usable]))])


def _pair_rows(
    rows: IntArray,
    key: npt.NDArray[np.generic],
    position: FloatArray,
    found_count: int,
    tolerance: float,
) -> tuple[IntArray, IntArray]:
    """Rows of the found and of the reference echoes of all pairs.

    Each round takes the pairs that are nearest to each other on both sides among all remaining
    echoes, since no later pair can include them. The closest pair of a group is always one.
    """
    pairs = [np.empty((0, 2), dtype=np.int64)]
    while True:
        taken = _mutually_nearest(key[rows], position[rows], rows < found_count, tolerance)
        if len(taken) == 0:
            break
        pairs.append(np.sort(np.column_stack([rows[taken], rows[taken + 1]]), axis=1))
        rows = np.delete(rows, np.concatenate([taken, taken + 1]))
    found, reference = np.concatenate(pairs).T
    return found, reference


def _mutually_nearest(
    key: npt.NDArray[np.generic], position: FloatArray, is_found: BoolArray, tolerance: float
) -> IntArray:
    """Indices i for which entries i and i + 1 are each other's nearest of the other side.

    No entry is between such a pair. Of two equally close pairs the left one is chosen, hence
    "less than" on the left side only.
    """
    gap = np.diff(position)
    facing = (key[1:] == key[:-1]) & (is_found[1:] != is_found[:-1]) & (gap <= tolerance)
    to_left = _distance_to_other_side(key, position, is_found)
    to_right = _distance_to_other_side(key[::-1], position[::-1], is_found[::-1])[::-1]
    return np.flatnonzero(facing & (gap < to_left[:-1]) & (gap <= to_right[1:]))


def _distance_to_other_side(
    key: npt.NDArray[np.generic], position: FloatArray, is_found: BoolArray
) -> FloatArray:
    """Distance of each entry to the previous one of the other side; infinite without one."""
    index = np.arange(len(position))
    last_found = np.maximum.accumulate(np.where(is_found, index, -1))
    last_ref = np.maximum.accumulate(np.where(is_found, -1, index))
    other = np.where(is_found, last_ref, last_found)
    same = (other >= 0) & (key[other] == key)
    return np.where(same, np.abs(position - position[other]), np.inf)


def _others(rows: IntArray, count: int) -> IntArray:
    """The indices below `count` that are not in `rows`."""
    other: BoolArray = np.ones(count, dtype=np.bool_)
    other[rows] = False
    return np.flatnonzero(other)
