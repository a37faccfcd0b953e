"""Matching by place: echoes of files whose times are not comparable, along and across the beam."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np
from scipy.spatial import cKDTree

from fullwaveform.analysis.shot_matching import MatchedWindow
from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray, RecordArray
from fullwaveform.data.echo_records import ECHO_RECORD

_DOWN = np.array([0.0, 0.0, -1.0])
_MIN_WINDOW = 1 << 15  # records that are added before the next pairs are looked for


@dataclass(frozen=True)
class _Pairs:
    """Pairs within reach, the nearest first."""

    found: IntArray  # rows
    reference: IntArray
    difference: FloatArray  # along the beam

    def where(self, chosen: BoolArray | IntArray) -> _Pairs:
        return _Pairs(self.found[chosen], self.reference[chosen], self.difference[chosen])


def match_by_place(
    found: Iterator[RecordArray], reference: Iterator[RecordArray], along: float, across: float
) -> Iterator[MatchedWindow]:
    """Pair echoes by their distance along and across the beam, nearest pairs first.

    Partners lie in an ellipsoid with half-axes `along` the beam and `across` it, in the unit of the
    coordinates; the beam is that of the reference, else of the found echo, else vertical. Both
    streams are in ascending order of x. Each pair is decided when everything within reach of both
    of its echoes has been read, so the result does not depend on the size of the parts.
    """
    reach = max(along, across)
    streams = [found, reference]
    sides = [np.empty(0, ECHO_RECORD), np.empty(0, ECHO_RECORD)]
    ended = [False, False]
    while not all(ended):
        limit = _load(streams, sides, ended)
        pairs = _pairs(sides[0], sides[1], along, across)
        complete = [side["xyz"][:, 0] + reach < limit for side in sides]
        taken, left = _decided(pairs, complete[0], complete[1])
        done = [mask.copy() for mask in complete]
        for mask, rows, open_rows in (
            (done[0], taken.found, left.found),
            (done[1], taken.reference, left.reference),
        ):
            mask[open_rows] = False
            mask[rows] = True
        yield MatchedWindow(
            found=sides[0][done[0]],
            reference=sides[1][done[1]],
            found_index=np.cumsum(done[0])[taken.found] - 1,
            reference_index=np.cumsum(done[1])[taken.reference] - 1,
            difference=taken.difference,
            shots=(0, 0, 0),
        )
        sides = [side[~mask] for side, mask in zip(sides, done, strict=True)]


def _load(
    streams: list[Iterator[RecordArray]], sides: list[RecordArray], ended: list[bool]
) -> float:
    """Add parts of the streams to the sides; return the x up to which both are complete."""
    wanted = max(_MIN_WINDOW, sum(map(len, sides)))
    last = [side["xyz"][-1, 0] if len(side) else -np.inf for side in sides]
    added = 0
    parts: list[list[RecordArray]] = [[sides[0]], [sides[1]]]
    while added < wanted and not all(ended):
        behind = min((one for one in (0, 1) if not ended[one]), key=lambda one: last[one])
        more = next(streams[behind], None)
        ended[behind] = more is None
        if more is not None:
            parts[behind].append(more)
            last[behind] = more["xyz"][-1, 0]
            added += len(more)
    for one in (0, 1):
        sides[one] = np.concatenate(parts[one])
    return float(min((last[one] for one in (0, 1) if not ended[one]), default=np.inf))


def _pairs(found: RecordArray, reference: RecordArray, along: float, across: float) -> _Pairs:
    if not len(found) or not len(reference):
        none = np.empty(0, np.int64)
        return _Pairs(none, none, np.empty(0))
    near = cKDTree(found["xyz"]).sparse_distance_matrix(
        cKDTree(reference["xyz"]), max(along, across), output_type="coo_matrix"
    )
    rows, partners = near.row.astype(np.int64), near.col.astype(np.int64)
    flight = reference["flight"][partners]
    flight = np.where(np.isnan(flight), found["flight"][rows], flight)
    flight = np.where(np.isnan(flight), _DOWN, flight)
    offset = found["xyz"][rows] - reference["xyz"][partners]
    difference = np.einsum("ij,ij->i", offset, flight)
    sideways = np.linalg.norm(offset - difference[:, np.newaxis] * flight, axis=1)
    distance = np.hypot(difference / along, sideways / across)
    order = np.lexsort((reference["row"][partners], found["row"][rows], distance))
    return _Pairs(rows, partners, difference).where(order[distance[order] <= 1.0])


def _decided(
    pairs: _Pairs, found_complete: BoolArray, reference_complete: BoolArray
) -> tuple[_Pairs, _Pairs]:
    """Pairs that are each other's nearest and complete, round by round, and the pairs left."""
    taken = [pairs.where(np.empty(0, np.int64))]
    while len(pairs.found):
        nearest = np.zeros(len(pairs.found), np.bool_)
        nearest[np.unique(pairs.found, return_index=True)[1]] = True
        nearest_reference = np.zeros(len(pairs.found), np.bool_)
        nearest_reference[np.unique(pairs.reference, return_index=True)[1]] = True
        mutual = nearest & nearest_reference
        mutual &= found_complete[pairs.found] & reference_complete[pairs.reference]
        if not mutual.any():
            break
        chosen = pairs.where(mutual)
        taken.append(chosen)
        used, used_reference = np.zeros_like(found_complete), np.zeros_like(reference_complete)
        used[chosen.found] = True
        used_reference[chosen.reference] = True
        pairs = pairs.where(~used[pairs.found] & ~used_reference[pairs.reference])
    joined = _Pairs(
        *(
            np.concatenate([getattr(part, name) for part in taken])
            for name in ("found", "reference", "difference")
        )
    )
    return joined, pairs
