"""Echoes that the scanner extracted on board."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform import Scanner
from fullwaveform.core.online import evaluate_online

SCANNER = Scanner.default(sampling_interval=1e-9)  # group velocity 299708256 m/s


def test_echoes_are_ordered_by_shot_and_travel_time() -> None:
    table = evaluate_online(
        SCANNER,
        shot_times=[2.0, 1.0, 2.0],
        ranges=[149.854128, 299.708256, 74.927064],
        amplitudes=[10.0, 20.0, 30.0],
        channel_flags=[0, 1, 1],
        reflectances=[-1.0, -2.0, -3.0],
    )
    assert table["shotTime"].tolist() == [1.0, 2.0, 2.0]
    # Two-way travel time: twice the range over the group velocity.
    np.testing.assert_allclose(table["time"], [2e-6, 0.5e-6, 1e-6], rtol=1e-12)
    assert table["amplitude"].tolist() == [20.0, 30.0, 10.0]
    assert table["reflectance"].tolist() == [-2.0, -3.0, -1.0]
    assert table["type"].tolist() == [6, 6, 6]
    # The flag of a shot is that of its nearest echo.
    assert table["isLowPower"].tolist() == [True, True, True]


def test_amplitudes_and_flags_are_optional() -> None:
    table = evaluate_online(SCANNER, [1.0], [10.0])
    assert np.isnan(table["amplitude"]).tolist() == [True]
    assert np.isnan(table["reflectance"]).tolist() == [True]
    assert table["isLowPower"].tolist() == [True]


def test_empty_arrays_give_an_empty_table() -> None:
    assert evaluate_online(SCANNER, np.zeros(0), np.zeros(0)).rows == 0


@pytest.mark.parametrize(
    ("arguments", "words"),
    [
        ({"ranges": [1.0]}, "ranges has 1 values; expected 2"),
        ({"shot_times": [1.0, np.nan]}, "shot_times: the time of waveform 1 is NaN"),
        ({"amplitudes": ["a", "b"]}, "amplitudes must be numbers"),
        ({"channel_flags": [0, 256]}, "channel_flags: 256 of waveform 1"),
    ],
)
def test_invalid_argument_is_named_in_the_error(arguments: dict[str, object], words: str) -> None:
    given = {"shot_times": [1.0, 2.0], "ranges": [1.0, 2.0]} | arguments
    with pytest.raises(ValueError, match=words):
        evaluate_online(SCANNER, **given)  # type: ignore[arg-type]
