"""Names of receivers: in the terms of the format, with the channel where it differs."""

from __future__ import annotations

import pytest

from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.calibration.receiver_names import receiver_name


def levels(channel_flag: int, descriptor: int) -> ChannelLevels:
    return ChannelLevels(channel_flag, descriptor, 10, 3.0, 0.0, 1.0)


@pytest.mark.parametrize(
    ("receivers", "names", "expected"),
    [
        ([(0, 5)], {5: "BEAM0101"}, [""]),
        ([(0, 5), (0, 11)], {5: "BEAM0101", 11: "BEAM1011"}, ["BEAM0101", "BEAM1011"]),
        ([(1, 1), (1, 2)], {}, ["descriptor 1", "descriptor 2"]),
        ([(0, 2), (1, 1)], {}, ["high power, descriptor 2", "low power, descriptor 1"]),
        (
            [(1, 0), (7, 1)],
            {1: "channel 1"},
            ["low power, descriptor 0", "channel flag 7, channel 1"],
        ),
        ([(0, 0), (1, 0)], {}, ["high power", "low power"]),
        ([(0, 3), (1, 3)], {3: "channel 3"}, ["high power, channel 3", "low power, channel 3"]),
    ],
)
def test_name_distinguishes_the_receivers_of_a_file(
    receivers: list[tuple[int, int]], names: dict[int, str], expected: list[str]
) -> None:
    of_file = [levels(*receiver) for receiver in receivers]
    assert [receiver_name(one, of_file, names) for one in of_file] == expected
