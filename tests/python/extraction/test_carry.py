"""Echoes and the discrete returns to which they correspond."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import laspy
import numpy as np
import pytest

import fullwaveform
from fullwaveform.core.echo_table import FoundEchoes, echo_table
from fullwaveform.core.scanner import DEFAULT_ATTRIBUTES, Scanner
from fullwaveform.data.blocks import PulseGeometry, WaveformBlock
from fullwaveform.data.returns import DiscreteReturns
from fullwaveform.extraction.carry import half_width_of_system_wave

from ..support.las_scenes import Point, Scene
from .test_extraction import Packet, block_of, triples


def returns_at(*places: tuple[int, float]) -> DiscreteReturns:
    """Returns at (row, ps), with the classes 10, 11 and so on."""
    count = len(places)
    return DiscreteReturns(
        rows=np.array([row for row, _ in places], np.int64),
        times=np.array([time for _, time in places], np.float64),
        return_number=np.arange(1, count + 1, dtype=np.uint8),
        return_count=np.full(count, count, np.uint8),
        intensity=np.zeros(count, np.uint16),
        classification=np.arange(10, 10 + count, dtype=np.uint8),
        extra=None,
    )


def shots(*times: float, interval: float = 1e-12) -> WaveformBlock:
    """A flat waveform per shot time, all along the same vertical pulse, one sample per ps."""
    return block_of([Packet(triples({}), shot=time, interval=interval) for time in times])


def nearest(
    block: WaveformBlock,
    returns: DiscreteReturns,
    row: int,
    time: float,
    reach: float,
    width: float = np.nan,
) -> int:
    """Index of the return of an echo at a time in ps, with a standard deviation in samples."""
    samples = time * 1e-12 / block.sampling_intervals[row]
    found = FoundEchoes(
        rows=np.array([row]),
        peaks={"idx": np.array([samples]), "std": np.array([width])},
        scale=np.ones(len(block), np.int64),
        phase=np.zeros(len(block)),
        half_width=np.full(len(block), reach * 1e-12),
    )
    table, _ = echo_table(replace(block, returns=returns), found, Scanner.default())
    (number,) = table.original_return_number.tolist()
    assert table.classification.tolist() == [number + 9 if number else 0]
    return int(number) - 1


def test_nearest_return_in_reach_is_chosen() -> None:
    block, returns = shots(1.0, 2.0), returns_at((0, 1000.0), (0, 5000.0), (1, 3000.0))
    assert nearest(block, returns, 0, 2900.0, 2000.0) == 0
    assert nearest(block, returns, 0, 3100.0, 2000.0) == 1
    assert nearest(block, returns, 0, 3000.0, 2000.0) == 0  # the earlier of two equally near
    assert nearest(block, returns, 1, 1000.0, 2000.0) == 2


def test_reach_is_inclusive_and_returns_of_other_shots_do_not_count() -> None:
    block, returns = shots(1.0, 2.0), returns_at((1, 3000.0))
    assert nearest(block, returns, 1, 1000.0, 2000.0) == 0
    assert nearest(block, returns, 1, 999.0, 2000.0) == -1
    assert nearest(block, returns, 0, 3000.0, 2000.0) == -1


def test_without_returns_there_is_none() -> None:
    assert nearest(shots(1.0), returns_at(), 0, 0.0, 1e9) == -1


def test_return_of_another_waveform_of_the_shot_is_found_by_its_place() -> None:
    # The second waveform begins 0.6 m further down, 4000 ps later at 0.00015 m/ps.
    block = shots(1.0, 1.0)
    geometry = PulseGeometry(
        anchor=np.array([[0.0, 0.0, 30.0], [0.0, 0.0, 29.4]]),
        location=np.zeros(2),
        direction=np.array([[0.0, 0.0, 0.00015]] * 2),
    )
    block = replace(block, geometry=geometry)
    returns = returns_at((0, 5000.0))
    assert nearest(block, returns, 1, 1000.0, 1.0) == 0
    assert nearest(block, returns, 1, 5000.0, 3999.0) == -1


@pytest.mark.parametrize(
    ("width", "pulse", "reach"),
    [
        # The full width at half maximum of a Gaussian is 2.3548 standard deviations.
        (2.0, 0.0, 2354.82),
        (0.1, 0.0, 1000.0),  # one sample
        (np.nan, 3000.0, 3000.0),
        (0.0, 3000.0, 3000.0),
        (np.nan, 0.0, 1000.0),
    ],
)
def test_reach_is_half_the_width_of_the_echo(width: float, pulse: float, reach: float) -> None:
    block = shots(1.0, interval=1e-9)
    for distance, expected in ((reach - 0.01, 0), (reach + 0.01, -1)):
        returns = returns_at((0, 5000.0 + distance))
        assert nearest(block, returns, 0, 5000.0, pulse, width) == expected


def test_half_width_of_an_exponential_system_wave() -> None:
    # exp(-t / 4 ns) from its maximum at 0 falls to a half after 4 ns x ln 2 = 2.77 ns.
    wave = {"a_real": [1.0], "a_imag": [0.0], "b_real": [-0.25e9], "b_imag": [0.0]}
    scanner = Scanner.from_attributes({**DEFAULT_ATTRIBUTES, **wave})
    # Evaluated in steps of a fifth of a nanosecond.
    assert half_width_of_system_wave(scanner, 1e-9) == pytest.approx(2.77e-9 / 2, abs=0.2e-9)
    assert half_width_of_system_wave(Scanner.default(), 1e-9) == 0.0


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Two shots with an echo at sample 5, one return 20 samples away; an empty shot."""
    samples = [2, 2, 2, 10, 60, 100, 60, 10, *[2] * 32]
    points = [
        Point(0, 100.0, location=5400.0, fields={"return_number": 3, "classification": 6}),
        Point(1, 101.0, location=25000.0, fields={"return_number": 1, "classification": 6}),
        Point(2, 102.0, location=25000.0, fields={"return_number": 1, "classification": 6}),
    ]
    scene = Scene([(1, 8, 40, 1000)], [(1, samples), (1, samples), (1, [2] * 40)], points)
    plain = scene.write(tmp_path / "plain.las")
    las = laspy.read(plain)
    las.add_extra_dims(
        [
            laspy.ExtraBytesParams("Deviation", np.uint16, "of the pulse", [0.0], [0.5]),
            laspy.ExtraBytesParams("quality", np.float32),
        ]
    )
    las.points.array["Deviation"] = [7, 9, 11]
    las["quality"] = [0.25, 0.75, 1.25]
    las.write(tmp_path / "scan.las")
    (tmp_path / "scan.wdp").write_bytes((tmp_path / "plain.wdp").read_bytes())
    return tmp_path / "scan.las"


def test_echoes_have_class_and_number_of_their_return(scan: Path) -> None:
    peaks = fullwaveform.extract(scan, threshold=20).peaks
    assert peaks["classification"].tolist() == [6, 0]
    assert peaks["original_return_number"].tolist() == [3, 0]
    peaks = fullwaveform.extract(scan, threshold=20, carry=False).peaks
    assert peaks["classification"].tolist() == [0, 0]


def test_points_have_the_extra_bytes_of_their_return(scan: Path, tmp_path: Path) -> None:
    fullwaveform.extract(scan, threshold=20).write(tmp_path / "echoes.las")
    las = laspy.read(tmp_path / "echoes.las")
    assert np.array(las.classification).tolist() == [6, 0]
    dimension = las.point_format.dimension_by_name("Deviation")
    assert (dimension.dtype, dimension.description) == (np.uint16, "of the pulse")
    assert np.array(las["Deviation"]).tolist() == [3.5, 0.0]
    assert las["quality"].dtype == np.uint8  # that of the echo
    assert las["original_quality"].tolist() == [0.25, 0.0]


def test_points_without_carry_have_no_extra_bytes_of_the_input(scan: Path, tmp_path: Path) -> None:
    fullwaveform.extract(scan, threshold=20, carry=False).write(tmp_path / "echoes.las")
    las = laspy.read(tmp_path / "echoes.las")
    assert np.array(las.classification).tolist() == [0, 0]
    assert "Deviation" not in las.point_format.dimension_names


def test_empty_waveforms_have_zero_extra_bytes(scan: Path, tmp_path: Path) -> None:
    extraction = fullwaveform.extract(scan, threshold=20, keep_empty=True)
    assert extraction.peaks["echo_number"].tolist() == [1, 1, 0]
    assert extraction.peaks["classification"].tolist() == [6, 0, 0]
    assert extraction.write(tmp_path / "echoes.las") == 2
