"""The digitiser's limit from constructed waveforms."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform.calibration.clipping import digitiser_limit, top_samples


def waveforms(*rows: list[int]) -> npt.NDArray[np.uint16]:
    return np.array(rows, np.uint16)


FLAT = [10, 90, 200, 200, 200, 60, 10]
PEAKED = [10, 90, 200, 200, 120, 60, 10]


@pytest.mark.parametrize(
    ("parts", "limit"),
    [
        ([waveforms(FLAT, FLAT)], 200),
        ([waveforms(FLAT), waveforms(FLAT)], 200),
        ([waveforms(FLAT, PEAKED)], None),
        # A larger sample shows that 200 is no limit.
        ([waveforms(FLAT, FLAT), waveforms([10, 90, 201, 90, 10, 10, 10])], None),
        # The full scale of eight bits; that of seven is below every digitiser's.
        ([waveforms([10, 255, 255, 255, 10])], 255),
        ([waveforms([10, 255, 10, 255, 255])], None),
        ([waveforms([10, 127, 127, 127, 10])], None),
        ([waveforms([10, 4095, 4095, 4095, 10])], 4095),
        ([waveforms([65535, 65535, 65535])], 65535),
        ([waveforms([7, 7])], None),
        ([], None),
    ],
)
def test_limit_is_the_largest_sample_if_waveforms_stay_at_it(
    parts: list[npt.NDArray[np.uint16]], limit: int | None
) -> None:
    assert digitiser_limit(top_samples(part) for part in parts) == limit
