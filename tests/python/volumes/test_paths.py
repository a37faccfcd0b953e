"""The voxels that lines cross, by hand and by the middles between sorted crossings."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform.volumes.paths import crossed_voxels

Place = tuple[float, float, float]


def crossed(begin: Place, end: Place) -> list[tuple[int, ...]]:
    line, voxels = crossed_voxels(np.array([begin]), np.array([end]))
    assert not line.any()
    return [tuple(voxel) for voxel in voxels.tolist()]


@pytest.mark.parametrize(
    ("begin", "end", "expected"),
    [
        ((0.5, 0.5, 0.5), (0.5, 0.5, 0.5), [(0, 0, 0)]),
        ((0.5, 0.5, 2.5), (0.5, 0.5, 0.5), [(0, 0, 2), (0, 0, 1), (0, 0, 0)]),
        # y reaches 1 at x = 1.25, x reaches 1 before and 2 after it.
        ((0.5, 0.5, 0.5), (2.0, 1.5, 0.5), [(0, 0, 0), (1, 0, 0), (1, 1, 0), (2, 1, 0)]),
        # Through edges and corners: not through the voxels that are only touched there.
        ((0.5, 0.5, 0.5), (1.5, 1.5, 0.5), [(0, 0, 0), (1, 1, 0)]),
        ((0.5, 1.5, 0.5), (1.5, 0.5, 0.5), [(0, 1, 0), (1, 0, 0)]),
        ((0.5, 0.5, 0.5), (-0.5, -0.5, -0.5), [(0, 0, 0), (-1, -1, -1)]),
        # The end on a face is in the voxel above it.
        ((0.5, 0.5, 2.5), (0.5, 0.5, 1.0), [(0, 0, 2), (0, 0, 1)]),
        ((0.5, 0.5, 0.5), (0.5, 0.5, 2.0), [(0, 0, 0), (0, 0, 1), (0, 0, 2)]),
        # Along a face.
        ((1.0, 0.5, 1.5), (1.0, 0.5, 0.5), [(1, 0, 1), (1, 0, 0)]),
    ],
)
def test_line(begin: Place, end: Place, expected: list[tuple[int, ...]]) -> None:
    assert crossed(begin, end) == expected


def test_random_lines_cross_the_voxels_between_their_sorted_crossings() -> None:
    random = np.random.default_rng(5)
    begins = random.uniform(-9.0, 9.0, (300, 3))
    ends = begins + random.uniform(-1.0, 1.0, (300, 3)) * random.choice([0.5, 5.0, 40.0], (300, 1))
    lines, voxels = crossed_voxels(begins, ends)
    for number, (begin, end) in enumerate(zip(begins, ends, strict=True)):
        faces = [
            np.arange(np.ceil(min(a, b)), np.ceil(max(a, b)))
            for a, b in zip(begin, end, strict=True)
        ]
        shares = np.concatenate(
            [(f - a) / (b - a) for f, a, b in zip(faces, begin, end, strict=True)]
        )
        shares = np.concatenate([[0.0], np.sort(shares), [1.0]])
        middles = (shares[1:] + shares[:-1]) / 2.0
        expected = np.floor(begin + middles[:, np.newaxis] * (end - begin)).astype(int)
        assert voxels[lines == number].tolist() == expected.tolist()


def test_no_lines() -> None:
    lines, voxels = crossed_voxels(np.empty((0, 3)), np.empty((0, 3)))
    assert (len(lines), voxels.shape) == (0, (0, 3))
