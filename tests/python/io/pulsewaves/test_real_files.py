"""PulseWaves files of real scanners, and the coordinates of constructed echoes."""

from __future__ import annotations

from pathlib import Path

import laspy
import numpy as np
import pytest

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import OutgoingPulses, WaveformBlock
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor
from fullwaveform.io.echo_writers.las import LasEchoWriter
from fullwaveform.io.pulsewaves.reader import PulseWavesReader

from ...support.las_scenes import data_folder
from ...support.pulsewaves_scenes import Descriptor, Pulse, Sampling, Scene

FOLDER = data_folder() / "pulsewaves"
SATURATED = 255  # largest count of 8 bits

needs_files = pytest.mark.skipif(
    not FOLDER.is_dir(), reason=f"no files of real scanners in {FOLDER}"
)


def only_block(name: str) -> tuple[WaveformBlock, PulseWavesReader]:
    with PulseWavesReader(FOLDER / name) as reader:
        (block,) = reader.blocks()
    return block, reader


def outgoing(name: str) -> OutgoingPulses:
    with PulseWavesReader(FOLDER / name) as reader:
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.outgoing is not None
    return block.outgoing


def echoes_of(reader: PulseWavesReader, threshold: int) -> EchoTable:
    extractor = Extractor(ExtractionSettings(scanner=Scanner.default(), threshold=threshold))
    (block,) = reader.blocks()
    return extractor.extract(block).echoes


@needs_files
def test_topographic_file_has_the_recorded_waveforms() -> None:
    block, reader = only_block("topo_1ns.pls")
    assert (reader.point_count, reader.tally.waveforms) == (16_486, 16_487)
    assert not reader.tally.rejected
    assert block.sampling_intervals.tolist() == [1e-9] * 16_487
    # Three shots were recorded for twice as long, one saturated shot on a second channel too.
    assert dict(zip(*np.unique(block.counts, return_counts=True), strict=True)) == {
        80: 16_484,
        160: 3,
    }
    shots, waveforms = np.unique(block.shot_times, return_counts=True)
    assert (len(shots), waveforms.max(), np.count_nonzero(waveforms == 2)) == (16_486, 2, 1)
    # Stored: 61758094094 us after 1e9 s of standard GPS time.
    assert block.attributes.gps_time[0] == pytest.approx(61_758.094094, rel=0.0, abs=1e-9)
    assert int(reader.header.global_encoding.gps_time_type) == 1
    (first, second) = np.flatnonzero(block.shot_times == shots[waveforms == 2])
    assert block.samples[first].max() == SATURATED > block.samples[second].max()
    assert block.samples[0, :16].tolist() == [3, 3, 2, 2, 2, 2, 3, 2, 2, 2, 4, 9, 21, 45, 74, 95]
    # Stored: 2015878 units of 0.00166825822 ns to the first sample, target - anchor = (-80.48,
    # -29.47, -122.93) m, the anchor at the offset of the file.
    assert block.sbl_times[0] == pytest.approx(3363.005e-9, abs=1e-12)
    way = 3.363005 * np.array([-80.48, -29.47, -122.93])
    origin = np.array([4125357.663382351, 1202171.4748225315, 4698819.797140812])
    assert block.geometry.anchor[0] == pytest.approx(origin + way, abs=1e-3)


@needs_files
@pytest.mark.parametrize("name", ["topo_1ns.pls", "saturated_1ns.pls"])
def test_segments_are_on_the_pulse_axis(name: str) -> None:
    """Pulses store the start and end of their returning samples in whole units."""
    block, reader = only_block(name)
    content = (FOLDER / name).read_bytes()
    start = int.from_bytes(content[176:184], "little")
    pulses = np.frombuffer(content, "V40,<i2,<i2,V4", count=reader.point_count, offset=start)
    first_row = np.unique(block.shot_times, return_index=True)[1]
    first_row.sort()  # of each pulse, in the order of the file
    begin = block.sbl_times / 1e-9
    end = begin + block.counts
    assert begin[first_row] == pytest.approx(pulses["f1"], abs=0.05)
    assert np.maximum.reduceat(end, first_row) == pytest.approx(pulses["f2"], abs=0.05)
    # Half the speed of light in m per ps, because light travels both ways.
    length = np.linalg.norm(block.geometry.direction, axis=1)
    assert length == pytest.approx(np.full(len(block), 0.00014985), rel=2e-3)


@needs_files
def test_file_of_saturated_waveforms_is_read() -> None:
    block, reader = only_block("saturated_1ns.pls")
    assert (len(block), reader.point_count) == (998, 998)
    assert (block.counts.min(), block.counts.max()) == (72, 128)
    flat = (block.samples == SATURATED).sum(axis=1) >= 3
    assert flat.mean() == pytest.approx(0.027, abs=0.0005)
    valid = np.arange(block.samples.shape[1]) < block.counts[:, np.newaxis]
    assert (block.samples[valid].min(), block.samples[valid].max()) == (7, SATURATED)
    # The file has no times: every pulse is a separate shot.
    assert len(np.unique(block.shot_times)) == 998
    assert len(np.unique(block.attributes.gps_time)) == 1


@needs_files
def test_outgoing_pulses() -> None:
    pulses = outgoing("topo_1ns.pls")
    assert pulses.samples.shape == (16_487, 80)  # one pulse has two waveforms
    assert (pulses.counts == 80).all()
    mean = pulses.samples.mean(axis=0)
    peak = int(mean.argmax())
    assert mean[peak] > 150
    # The receiver rings: a second maximum 10 or 11 ns after the pulse.
    assert 8 + int(mean[peak + 8 : peak + 16].argmax()) in (9, 10, 11, 12)
    assert outgoing("saturated_1ns.pls").samples.shape == (998, 40)


@needs_files
def test_echoes_of_the_topographic_waveform(tmp_path: Path) -> None:
    with PulseWavesReader(FOLDER / "topo_1ns.pls") as reader:
        echoes = echoes_of(reader, threshold=8)
        with LasEchoWriter(tmp_path / "echoes.las", reader.header) as writer:
            writer.write(echoes)
    # Coordinates are geocentric; up is away from the origin.
    up = echoes.xyz[0] / np.linalg.norm(echoes.xyz[0])
    height = echoes.xyz @ up
    assert np.ptp(height) < 15.0
    assert np.ptp(echoes.xyz, axis=0).max() < 100.0
    # The last echoes of consecutive shots are on the same ground.
    last = np.flatnonzero(echoes.echo_number == echoes.echo_count)
    near = np.diff(echoes.gps_time[last]) < 20e-6
    assert np.count_nonzero(near) > 1000
    assert np.median(np.abs(np.diff(height[last]))[near]) < 0.1
    written = laspy.read(tmp_path / "echoes.las")
    assert len(written) == len(echoes) > 16_487
    assert written.xyz == pytest.approx(echoes.xyz, abs=0.0051)
    assert [record.record_id for record in written.header.vlrs][:2] == [34735, 34737]


def test_constructed_echoes_have_the_expected_coordinates(tmp_path: Path) -> None:
    time = np.arange(60)

    def segment(duration: int, centre: float) -> tuple[int, list[int]]:
        shape = 10 + 200 * np.exp(-0.5 * ((time - centre) / 2.5) ** 2)
        return duration, np.rint(shape).astype(int).tolist()

    sampling = Sampling(segment_bits=8, count_bits=8, duration_bits=16)
    pulse = Pulse(
        [[segment(2000, 30.0), segment(2100, 20.0)]], anchor=(0, 0, 50000), target=(0, 0, 35000)
    )
    path = Scene([Descriptor(1, [sampling])], [pulse], scales=(0.01, 0.01, 0.01)).write(
        tmp_path / "two.pls"
    )
    with PulseWavesReader(path) as reader:
        echoes = echoes_of(reader, threshold=20)
    # 500 m up, 0.15 m per unit downwards: 2030 and 2120 units.
    assert echoes.xyz[:, 2] == pytest.approx([195.5, 182.0], abs=0.01)
    assert echoes.echo_number.tolist() == [1, 2]
    assert echoes.time[1] - echoes.time[0] == pytest.approx(90e-9, abs=1e-10)
