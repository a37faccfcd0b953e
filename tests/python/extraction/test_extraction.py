"""Constructed blocks: places in space, numbers of echoes, and what is counted as left out."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np
import pytest

from fullwaveform import Scanner
from fullwaveform.core.echo_table import FoundEchoes, echo_table
from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes, WaveformBlock
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.extraction.extractor import ExtractionSettings, ExtractionTally, Extractor
from fullwaveform.extraction.waveform_table import WaveformState

from ..support.sample_triples import TRIPLE_STD, Samples, triples

BACK_UP = (0.0, 0.0, 0.00015)  # m per ps: the light falls straight down


@dataclass
class Packet:
    """One waveform of a block to be."""

    samples: Samples
    shot: float = 1.0  # s
    interval: float = 1e-9  # s
    anchor: tuple[float, float, float] = (100.0, 200.0, 300.0)
    location: float = 0.0  # ps
    direction: tuple[float, float, float] = BACK_UP
    flag: int = 1


def block_of(packets: Sequence[Packet]) -> WaveformBlock:
    rows = len(packets)
    row = np.arange(rows)
    return WaveformBlock(
        samples=np.array([packet.samples for packet in packets]),
        counts=np.array([len(packet.samples) for packet in packets], np.uint16),
        shot_times=np.array([packet.shot for packet in packets]),
        sbl_times=np.zeros(rows),
        channel_flags=np.array([packet.flag for packet in packets], np.uint8),
        sampling_intervals=np.array([packet.interval for packet in packets]),
        geometry=PulseGeometry(
            anchor=np.array([packet.anchor for packet in packets]),
            location=np.array([packet.location for packet in packets]),
            direction=np.array([packet.direction for packet in packets]),
        ),
        attributes=ShotAttributes(
            gps_time=1000.0 + row,
            scan_angle=(0.5 * row).astype(np.float32),
            scan_direction_flag=(row % 2).astype(np.uint8),
            edge_of_flight_line=(row % 2).astype(np.uint8),
            user_data=(10 + row).astype(np.uint8),
            point_source_id=(400 + row).astype(np.uint16),
        ),
        waveform_numbers=70 + row,
    )


def extractor(threshold: int = 10) -> Extractor:
    return Extractor(ExtractionSettings(scanner=Scanner.default(), threshold=threshold))


def extracted(*packets: Packet) -> EchoTable:
    return extractor().extract(block_of(packets)).echoes


def found_at(block: WaveformBlock, rows: Sequence[int], positions: Sequence[float]) -> FoundEchoes:
    """Echoes at positions in samples of the rows, of which nothing else is known."""
    return FoundEchoes(
        rows=np.array(rows, np.int64),
        peaks={"idx": np.array(positions)},
        scale=np.ones(len(block), np.int64),
        phase=np.zeros(len(block)),
    )


def places_of(block: WaveformBlock, rows: Sequence[int], positions: Sequence[float]) -> FloatArray:
    """Coordinates of echoes, by shot and along the flight of light."""
    return echo_table(block, found_at(block, rows, positions), Scanner.default())[0].xyz


def test_sample_position_in_space() -> None:
    block = block_of(
        [
            Packet(triples({}), 1.0, 1e-9, (0.0, 0.0, 0.0), 0.0, (1.0, 0.0, 0.0)),
            Packet(triples({}), 2.0, 1e-9, (100.0, 200.0, 300.0), 30_000.0, (1e-4, -2e-4, 2e-4)),
        ]
    )
    placed = places_of(block, [1, 1, 1, 0], [10.0, 30.0, 40.0, 0.002])
    # 2 ps after the anchor; 20 ns before the anchor, at it, 10 ns after it
    expected = [[-2, 0, 0], [102, 196, 304], [100, 200, 300], [99, 202, 298]]
    np.testing.assert_allclose(placed, expected, rtol=0, atol=1e-9)


@pytest.mark.parametrize(
    ("rows", "message"),
    [([2], "row 2 is not one of the 2 waveforms"), ([0, -1], "row -1 is not one of the 2")],
)
def test_echo_of_another_block_is_an_error(rows: list[int], message: str) -> None:
    block = block_of([Packet(triples({}), shot=1.0), Packet(triples({}), shot=2.0)])
    with pytest.raises(ValueError, match=message):
        places_of(block, rows, [1.0] * len(rows))


def test_columns_of_different_lengths_are_an_error() -> None:
    block = block_of([Packet(triples({}), shot=1.0)])
    with pytest.raises(ValueError, match="idx has 2 values; expected 1"):
        places_of(block, [0], [1.0, 2.0])


def test_echo_columns_of_one_waveform() -> None:
    quiet = Packet(triples({}), shot=1.0)
    packet = Packet(triples({10: 80}), shot=2.0, interval=2e-9, location=5_000.0, flag=0)
    echoes = extracted(quiet, packet)
    assert len(echoes) == 1
    # 20 ns after the first sample, 15 ns after the anchor
    np.testing.assert_allclose(echoes.xyz, [[100.0, 200.0, 297.75]], rtol=0, atol=1e-6)
    np.testing.assert_allclose(echoes.sigma_ns, [2 * TRIPLE_STD], rtol=1e-6)
    np.testing.assert_allclose(echoes.amplitude, [80.0], rtol=1e-6)
    # 2 sqrt(2 ln 2) = 2.3548200
    np.testing.assert_allclose(echoes.fwhm_ns, [2.3548200 * 2 * TRIPLE_STD], rtol=1e-6)
    # 20 log10(80); the scanner has no known unit.
    np.testing.assert_allclose(echoes.amplitude_library_db, [38.0618], atol=1e-4)
    assert np.isnan(echoes.amplitude_db).tolist() == [True]
    np.testing.assert_allclose(echoes.time, [20e-9], rtol=1e-6)
    assert echoes.position.tolist() == [10.0]
    assert (echoes.echo_number.tolist(), echoes.echo_count.tolist()) == ([1], [1])
    assert (echoes.echo_type.tolist(), echoes.quality.tolist()) == ([2], [0])
    assert np.isnan(echoes.reflectance).tolist() == [True]
    assert echoes.waveform_number.tolist() == [71]
    assert echoes.channel_flag.tolist() == [0]
    # The time of the file, not the key of the shot.
    assert echoes.gps_time.tolist() == [1001.0]
    assert echoes.scan_angle.tolist() == [0.5]
    assert echoes.scan_direction_flag.tolist() == [1]
    assert echoes.edge_of_flight_line.tolist() == [1]
    assert echoes.user_data.tolist() == [11]
    assert echoes.point_source_id.tolist() == [401]


def test_waveforms_may_have_different_intervals() -> None:
    samples = triples({10: 80})
    echoes = extracted(
        Packet(samples, shot=1.0, interval=2e-9),
        Packet(samples, shot=2.0, interval=1e-9),
        Packet(samples, shot=3.0, interval=2e-9),
    )
    np.testing.assert_allclose(echoes.xyz[:, 2], [297.0, 298.5, 297.0], rtol=0, atol=1e-6)
    np.testing.assert_allclose(echoes.time, [20e-9, 10e-9, 20e-9], rtol=1e-6)
    assert echoes.waveform_number.tolist() == [70, 71, 72]


def test_echoes_of_a_shot_are_numbered_along_the_flight_of_light() -> None:
    """Two packets that begin at different ranges and are sampled differently."""
    echoes = extracted(
        Packet(triples({10: 80, 30: 90}), shot=5.0),  # heights 298.5 and 295.5
        Packet(triples({20: 70}), shot=4.0),  # another shot, earlier
        Packet(  # heights 295.8 and 291.0
            triples({4: 60, 20: 50}), shot=5.0, interval=2e-9, anchor=(100.0, 200.0, 297.0)
        ),
    )
    np.testing.assert_allclose(
        echoes.xyz[:, 2], [297.0, 298.5, 295.8, 295.5, 291.0], rtol=0, atol=1e-6
    )
    assert echoes.echo_number.tolist() == [1, 1, 2, 3, 4]
    assert echoes.echo_count.tolist() == [1, 4, 4, 4, 4]
    assert echoes.waveform_number.tolist() == [71, 70, 72, 70, 72]
    np.testing.assert_allclose(echoes.amplitude, [70, 80, 60, 90, 50], rtol=1e-5)


def test_echoes_are_numbered_along_a_slanting_pulse() -> None:
    """Anchors are different returns of one pulse, at different ranges."""
    slant = (-0.0001, 0.0, 0.0001)
    near = Packet(triples({10: 80}), anchor=(0.0, 0.0, 50.0), location=0.0, direction=slant)
    # 30 ns after the first sample of the near one, and 10 ns after its own first sample.
    far = Packet(triples({5: 60}), anchor=(3.0, 0.0, 47.0), location=10_000.0, direction=slant)
    for packets in ((near, far), (far, near)):
        echoes = extracted(*packets)
        np.testing.assert_allclose(echoes.xyz[:, 0], [1.0, 2.5], rtol=0, atol=1e-6)
        np.testing.assert_allclose(echoes.xyz[:, 2], [49.0, 47.5], rtol=0, atol=1e-6)
        assert echoes.echo_number.tolist() == [1, 2]


def test_echoes_without_direction_are_numbered_by_time() -> None:
    echoes = extracted(Packet(triples({30: 80, 10: 60, 20: 70}), direction=(0.0, 0.0, 0.0)))
    assert echoes.position.tolist() == [10.0, 20.0, 30.0]
    assert echoes.echo_number.tolist() == [1, 2, 3]


def hollow() -> Samples:
    """Falls from its first sample: its only echo is at a triple without a maximum.

    Logarithms of 200, 100, 90 bend upwards; the curve's lowest point is at 1.68 and passes every
    test of position and amplitude, its width is not a number.
    """
    samples = triples({})
    samples[:6] = 200, 100, 90, 80, 60, 5
    return samples


def test_echoes_that_are_not_finite_are_skipped_and_counted() -> None:
    made = extractor().extract(block_of([Packet(hollow(), shot=1.0), Packet(triples({10: 80}))]))
    echoes = made.echoes
    assert echoes.waveform_number.tolist() == [71]
    assert (echoes.echo_number.tolist(), echoes.echo_count.tolist()) == ([1], [1])
    tally = made.tally
    assert (tally.waveforms, tally.waveforms_with_echoes, tally.echoes) == (2, 1, 1)
    assert tally.echoes_left_out == 1
    assert tally.rejected == {"no echo with finite values": 1}


def test_every_waveform_is_counted_once() -> None:
    too_high = triples({})
    too_high[30] = 60_000  # an echo above 4096 counts, which none can be
    packets = [
        Packet(triples({10: 80, 30: 40}), shot=1.0),
        Packet(triples({}), shot=1.0),
        Packet(triples({10: 80, 30: 40}), shot=1.0),  # again
        Packet(triples({11: 60}), shot=1.0, flag=0),  # in the other channel, too
        Packet(too_high, shot=2.0),
        Packet(hollow(), shot=3.0),
        Packet(triples({15: 70}), shot=4.0, interval=2e-9),
    ]
    made = extractor().extract(block_of(packets))
    assert made.echoes.waveform_number.tolist() == [70, 70, 76]
    tally = made.tally
    assert tally.rejected == {
        "signal not above the threshold": 1,
        "duplicate of a waveform of the same shot": 1,
        "no plausible echo found": 1,
        "echoes merged into the other channel": 1,
        "no echo with finite values": 1,
    }
    assert tally.waveforms == tally.waveforms_with_echoes + tally.rejected.total() == 7
    assert tally.echoes == 3
    states = WaveformState
    assert made.waveforms.state.tolist() == [
        states.WITH_ECHOES,
        states.SIGNAL_TOO_LOW,
        states.DUPLICATE,
        states.MERGED_INTO_OTHER_CHANNEL,
        states.NO_ECHO,
        states.NOT_FINITE,
        states.WITH_ECHOES,
    ]
    assert made.waveforms.echo_count.tolist() == [2, 0, 0, 0, 0, 0, 1]
    total = ExtractionTally()
    total.add(tally)
    total.add(tally)
    assert (total.waveforms, total.echoes, total.rejected.total()) == (14, 6, 10)
    assert total.waveforms_with_echoes == 4
    assert total.rejected["no echo with finite values"] == 2


def test_suspicious_block_has_statistics() -> None:
    made = extractor()
    half = made.extract(block_of([Packet(triples({10: 80})), Packet(triples({}), shot=2.0)]))
    assert half.tally.suspicious_blocks == 1
    assert half.record.startswith("NumberOfWaves: 2Splitted FWFs: 0 count: 1\n")
    good = made.extract(block_of([Packet(triples({10: 80}))]))
    assert (good.tally.suspicious_blocks, good.record) == (0, "")


def test_block_without_echoes() -> None:
    echoes = extracted(Packet(triples({})), Packet(triples({}), interval=2e-9))
    assert len(echoes) == 0
    assert echoes.xyz.shape == (0, 3)
    assert echoes.scan_angle.shape == (0,)


@pytest.mark.parametrize("threshold", [10, 65, 100])
def test_threshold_of_the_settings_reaches_the_driver(threshold: int) -> None:
    made = extractor(threshold).extract(block_of([Packet(triples({10: 60, 20: 80, 30: 90}))]))
    assert made.tally.echoes == {10: 3, 65: 2, 100: 0}[threshold]
