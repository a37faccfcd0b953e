"""Matching of echoes, compared with hand-made pairs and a simple greedy search."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.analysis.matching import Matching, match_echoes, summarise


def pairs(matching: Matching) -> list[tuple[int, int]]:
    return list(zip(matching.found_index.tolist(), matching.ref_index.tolist(), strict=True))


def greedy(
    found: list[tuple[int, float]], ref: list[tuple[int, float]], tolerance: float
) -> set[tuple[int, int]]:
    """Repeatedly match the nearest remaining pair."""
    candidates = sorted(
        (abs(f[1] - r[1]), i, j)
        for i, f in enumerate(found)
        for j, r in enumerate(ref)
        if f[0] == r[0] and abs(f[1] - r[1]) <= tolerance
    )
    used_found: set[int] = set()
    used_ref: set[int] = set()
    chosen = set()
    for _, i, j in candidates:
        if i not in used_found and j not in used_ref:
            chosen.add((i, j))
            used_found.add(i)
            used_ref.add(j)
    return chosen


def test_echoes_match_only_within_their_shot() -> None:
    got = match_echoes([2, 1, 1], [10.0, 20.5, 30.0], [1, 1, 2, 3], [20.0, 31.0, 10.25, 10.0], 2.0)
    assert pairs(got) == [(0, 2), (1, 0), (2, 1)]
    assert got.difference.tolist() == [-0.25, 0.5, -1.0]
    assert got.unmatched_found.tolist() == []
    assert got.unmatched_ref.tolist() == [3]


def test_nearest_pair_is_matched_first() -> None:
    # 11 is matched with 10.6, which is nearer; only 8 remains within the tolerance of 10.
    got = match_echoes([1, 1], [10.0, 10.6], [1, 1], [11.0, 8.0], 2.0)
    assert pairs(got) == [(0, 1), (1, 0)]


def test_reference_matches_at_most_one_echo() -> None:
    got = match_echoes([5, 5, 5], [9.8, 10.1, 10.3], [5], [10.0], 1.0)
    assert pairs(got) == [(1, 0)]
    assert got.unmatched_found.tolist() == [0, 2]


def test_tie_is_resolved_by_the_smaller_position() -> None:
    assert pairs(match_echoes([1, 1], [11.0, 9.0], [1], [10.0], 2.0)) == [(1, 0)]
    assert pairs(match_echoes([1], [10.0], [1, 1], [11.0, 9.0], 2.0)) == [(0, 1)]


def test_equal_positions_are_matched_one_to_one() -> None:
    got = match_echoes([1, 1], [10.0, 10.0], [1, 1, 1], [10.0, 10.0, 10.0], 0.0)
    assert len(got) == 2
    assert len(set(got.ref_index.tolist())) == 2
    assert len(got.unmatched_ref) == 1


def test_tolerance_is_inclusive() -> None:
    assert len(match_echoes([1], [10.0], [1], [12.0], 2.0)) == 1
    assert len(match_echoes([1], [10.0], [1], [12.0], 1.999)) == 0


def test_nan_is_not_matched() -> None:
    nan, inf = float("nan"), float("inf")
    got = match_echoes([1.0, 1.0, nan, 2.0], [nan, 5.0, 7.0, inf],
                       [1.0, nan, 1.0, 2.0], [nan, 7.0, 5.5, inf], 10.0)  # fmt: skip
    assert pairs(got) == [(1, 2)]
    assert got.unmatched_found.tolist() == [0, 2, 3]
    assert got.unmatched_ref.tolist() == [0, 1, 3]


def test_shot_times_that_differ_in_the_last_digit_are_two_shots() -> None:
    time = 300_000_000.00001
    assert len(match_echoes([time], [1.0], [np.nextafter(time, 4e8)], [1.0], 5.0)) == 0
    assert len(match_echoes([time], [1.0], [time], [1.0], 5.0)) == 1


def test_large_integer_groups_are_distinguished() -> None:
    assert len(match_echoes([2**53], [1.0], [2**53 + 1], [1.0], 5.0)) == 0


@pytest.mark.parametrize(("found", "ref"), [([], [1.0]), ([1.0], []), ([], [])])
def test_empty_inputs_have_no_matches(found: list[float], ref: list[float]) -> None:
    got = match_echoes([1] * len(found), found, [1] * len(ref), ref, 1.0)
    assert len(got) == 0
    assert got.unmatched_found.tolist() == list(range(len(found)))
    assert got.unmatched_ref.tolist() == list(range(len(ref)))


@pytest.mark.parametrize("seed", range(20))
def test_agrees_with_a_plain_greedy_search(seed: int) -> None:
    rng = np.random.default_rng(seed)
    found_group, ref_group = rng.integers(0, 6, 60), rng.integers(0, 6, 50)
    found_pos, ref_pos = rng.uniform(0, 40, 60), rng.uniform(0, 40, 50)
    got = match_echoes(found_group, found_pos, ref_group, ref_pos, 3.0)
    expected = greedy(
        list(zip(found_group.tolist(), found_pos.tolist(), strict=True)),
        list(zip(ref_group.tolist(), ref_pos.tolist(), strict=True)),
        3.0,
    )
    assert set(pairs(got)) == expected
    assert sorted([*got.found_index, *got.unmatched_found]) == list(range(60))
    assert sorted([*got.ref_index, *got.unmatched_ref]) == list(range(50))


def test_distant_echo_is_matched_after_a_nearer_pair() -> None:
    # 1.1 is matched with 1.0; then 1.3 is the nearest to 0, across the matched pair.
    got = match_echoes([1, 1, 1], [-5.0, 1.1, 1.3], [1, 1], [0.0, 1.0], 10.0)
    assert pairs(got) == [(1, 1), (2, 0)]


def test_chain_of_decreasing_distances_is_matched_greedily() -> None:
    # Gaps 1.0, 0.9, 0.8, 0.7, 0.6: pairs are matched in reverse order.
    got = match_echoes([1, 1, 1], [0.0, 1.9, 3.4], [1, 1, 1], [1.0, 2.7, 4.0], 2.0)
    assert pairs(got) == [(0, 0), (1, 1), (2, 2)]


@pytest.mark.parametrize("tolerance", [-1.0, float("nan")])
def test_invalid_tolerance_is_refused(tolerance: float) -> None:
    with pytest.raises(ValueError, match="tolerance"):
        match_echoes([1], [1.0], [1], [1.0], tolerance)


def test_mismatched_shapes_and_types_are_refused() -> None:
    with pytest.raises(ValueError, match="found"):
        match_echoes([1, 2], [1.0], [1], [1.0], 1.0)
    with pytest.raises(ValueError, match="reference"):
        match_echoes([1], [1.0], [[1]], [[1.0]], 1.0)
    with pytest.raises(ValueError, match="exactly"):
        match_echoes([1], [1.0], [1.0], [1.0], 1.0)


def test_summary_of_known_differences() -> None:
    got = match_echoes([0, 1, 2, 3, 9], [1.0, 2.0, 3.0, 4.0, 0.0],
                       [0, 1, 2, 3, 7, 8], [0.0, 0.0, 3.0, 7.0, 0.0, 0.0], 5.0)  # fmt: skip
    numbers = summarise(got, percentiles=(0.0, 50.0, 100.0))
    # Differences 1, 2, 0, -3.
    assert (numbers.matched, numbers.unmatched_found, numbers.unmatched_ref) == (4, 1, 2)
    assert numbers.mean == 0.0
    assert numbers.median == 0.5
    assert numbers.rms == pytest.approx(3.5**0.5)
    assert numbers.absolute_percentiles == {0.0: 0.0, 50.0: 1.5, 100.0: 3.0}


def test_summary_without_pairs() -> None:
    numbers = summarise(match_echoes([1], [1.0], [2], [1.0], 5.0))
    assert (numbers.matched, numbers.unmatched_found, numbers.unmatched_ref) == (0, 1, 1)
    assert np.isnan([numbers.mean, numbers.median, numbers.rms]).all()
    assert list(numbers.absolute_percentiles) == [50.0, 90.0, 95.0, 99.0]
    assert np.isnan(list(numbers.absolute_percentiles.values())).all()
