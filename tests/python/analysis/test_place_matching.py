"""Echoes and returns without a common time are paired by place."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import pytest

from fullwaveform.analysis import place_matching
from fullwaveform.data.echo_records import unknown_records


def greedy_by_place(
    found: np.ndarray, reference: np.ndarray, along: float, across: float
) -> set[tuple[int, int]]:
    """Nearest pairs first, for vertical beams, one pair at a time."""
    offset = found[:, np.newaxis] - reference
    distance = np.hypot(offset[..., 2] / along, np.hypot(offset[..., 0], offset[..., 1]) / across)
    pairs = set()
    while distance.min() <= 1.0:
        row, partner = np.unravel_index(np.argmin(distance), distance.shape)
        pairs.add((int(row), int(partner)))
        distance[row], distance[:, partner] = np.inf, np.inf
    return pairs


def in_parts(records: np.ndarray, size: int) -> Iterator[np.ndarray]:
    return (records[first : first + size] for first in range(0, len(records), size))


@pytest.mark.parametrize("part", [1, 7, 400])
def test_places_are_matched_alike_in_parts_of_any_size(
    part: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(place_matching, "_MIN_WINDOW", part)
    random = np.random.default_rng(5)
    sides = []
    for count in (300, 400):
        records = unknown_records(count, 0)
        records["xyz"] = random.uniform(0.0, 1.0, (count, 3)) * (20.0, 2.0, 3.0)
        records = records[np.argsort(records["xyz"][:, 0])]
        records["row"] = np.arange(count)
        sides.append(records)
    pairs, seen = set(), [0, 0]
    streams = [in_parts(side, part) for side in sides]
    for window in place_matching.match_by_place(*streams, 0.8, 0.4):
        found, reference = window.found["row"], window.reference["row"]
        pairs |= set(
            zip(
                found[window.found_index].tolist(),
                reference[window.reference_index].tolist(),
                strict=True,
            )
        )
        seen = [seen[0] + len(found), seen[1] + len(reference)]
    assert pairs == greedy_by_place(sides[0]["xyz"], sides[1]["xyz"], 0.8, 0.4)
    assert len(pairs) > 100
    assert seen == [300, 400]
