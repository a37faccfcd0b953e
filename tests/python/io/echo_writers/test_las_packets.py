"""Echoes in LAS files with their waveforms, read back by laspy and by our own reader."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import laspy
import numpy as np
import pytest

import fullwaveform
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.echo_writers.las_packets import LasPacketEchoWriter
from fullwaveform.io.las.reader import LasWaveformReader

from ...support.command_line import assert_error, assert_usage, names, run
from ...support.echo_tables import echo_table
from ...support.las_scenes import Point, Scene, data_folder
from ...support.pulsewaves_scenes import Descriptor, Pulse, Sampling
from ...support.pulsewaves_scenes import Scene as PulseScene
from ...support.row_scenes import as_container

ECHO = [2, 2, 2, 10, 60, 100, 60, 10, 2, 2]
STRONG = [2, 2, 2, 100, 600, 1000, 600, 100, 2, 2, 2, 2]


def las_scan(folder: Path) -> Path:
    """Three waveforms, two of them with an echo at sample 5, of two descriptors."""
    packets = [(1, ECHO), (2, STRONG), (1, [2] * 10)]
    points = [Point(number, 100.0 + number, location=5400.0) for number in range(3)]
    descriptors = [(1, 8, 10, 1000), (2, 16, 12, 500)]
    return Scene(descriptors, packets, points, gains={2: 0.25}).write(folder / "scan.las")


def container_scan(folder: Path) -> Path:
    return as_container(las_scan(folder), folder / "scan.h5")


def npz_scan(folder: Path) -> Path:
    """As the LAS file, with places."""
    samples = np.zeros((3, 12), np.uint16)
    samples[0, :10], samples[1], samples[2, :10] = ECHO, STRONG, 2
    np.savez(
        folder / "scan.npz",
        samples=samples,
        counts=np.array([10, 12, 10]),
        shot_times=np.array([100.0, 101.0, 102.0]),
        sampling_interval=np.array([1e-9, 5e-10, 1e-9]),
        anchor=np.full((3, 3), 10.0),
        location=np.full(3, 5400.0),
        direction=np.array([[0.0, 0.0, 0.00015]] * 3),
    )
    return folder / "scan.npz"


def extracted(source: Path, output: Path, *options: str) -> Path:
    call = ["extract", source, "-o", output, "--with-waveforms", "--threshold", "20", *options]
    result = run(*call, "-q")
    assert result.exit_code == 0, result.output
    return output


def packets_by_laspy(path: Path) -> list[list[int]]:
    """The samples of the packet of each point, by the fields and records as laspy reads them."""
    las, data = laspy.read(path), path.with_suffix(".wdp").read_bytes()
    kinds = {
        record.record_id - 99: record.parsed_record
        for record in las.header.vlrs
        if record.user_id == "LASF_Spec" and 100 <= record.record_id < 355
    }
    found = []
    for index, start, size in zip(
        las["wavepacket_index"], las["wavepacket_offset"], las["wavepacket_size"], strict=True
    ):
        kind = kinds[int(index)]
        sample = {8: "u1", 16: "<u2"}[kind.bits_per_sample]
        packet = np.frombuffer(data[int(start) : int(start) + int(size)], sample)
        assert len(packet) == kind.number_of_samples
        found.append(packet.tolist())
    return found


def blocks_of(path: Path) -> list[WaveformBlock]:
    with fullwaveform.open(path) as reader:
        return list(reader.blocks())


def samples_of(path: Path) -> list[list[int]]:
    """The samples of every waveform, without the padding."""
    return [
        row[:count].tolist()
        for block in blocks_of(path)
        for row, count in zip(block.samples, block.counts, strict=True)
    ]


@pytest.mark.parametrize("ending", ["las", "laz"])
@pytest.mark.parametrize("make", [las_scan, container_scan, npz_scan])
def test_packets_have_the_samples_of_the_input(
    tmp_path: Path, make: Callable[[Path], Path], ending: str
) -> None:
    echoes = extracted(make(tmp_path), tmp_path / f"echoes.{ending}")
    assert packets_by_laspy(echoes) == [ECHO, STRONG]
    assert samples_of(echoes) == [ECHO, STRONG]  # the waveform without an echo is not written
    (block,) = blocks_of(echoes)
    assert block.sampling_intervals.tolist() == [1e-9, 5e-10]


def test_packets_of_pulsewaves_segments(tmp_path: Path) -> None:
    sampling = Sampling(duration_bits=32, segment_bits=8, count_bits=8)
    pulses = [Pulse([[(0, ECHO), (100, [2] * 6), (300, [3, *ECHO])]], time=1_000_000)]
    source = PulseScene([Descriptor(1, [sampling])], pulses).write(tmp_path / "scan.pls")
    assert packets_by_laspy(extracted(source, tmp_path / "e.las")) == [ECHO, [3, *ECHO]]
    assert samples_of(tmp_path / "e.las") == [ECHO, [3, *ECHO]]


def test_gains_and_points_of_the_las_file(tmp_path: Path) -> None:
    echoes = extracted(las_scan(tmp_path), tmp_path / "echoes.las")
    las = laspy.read(echoes)
    assert (str(las.header.version), las.header.point_format.id) == ("1.3", 4)
    assert las.header.global_encoding.waveform_data_packets_external
    assert not las.header.global_encoding.waveform_data_packets_internal
    with LasWaveformReader(echoes) as reader:
        found = [(one.bits_per_sample, one.gain, one.offset) for one in reader.descriptors.values()]
    assert found == [(8, 0.5, -1.0), (16, 0.25, -1.0)]
    # Three symmetric samples around sample 5, at 1 ns and 0.5 ns.
    assert las["return_point_wave_location"] == pytest.approx([5000.0, 2500.0], abs=1e-3)
    np.testing.assert_allclose(las["x_t"], 0.0)
    np.testing.assert_allclose(las["z_t"], 0.00015)


def test_waveforms_lie_where_they_lay_in_the_input(tmp_path: Path) -> None:
    source = las_scan(tmp_path)
    (before,), (after,) = blocks_of(source), blocks_of(extracted(source, tmp_path / "e.las"))
    for block, rows in ((before, [0, 1]), (after, [0, 1])):
        place = block.geometry
        start = place.anchor + place.location[:, np.newaxis] * place.direction
        np.testing.assert_allclose(start[rows][:, 2], 30.0 + 5400.0 * 0.00015, atol=0.0006)


def test_echoes_of_the_echoes_are_the_same(tmp_path: Path) -> None:
    first = extracted(las_scan(tmp_path), tmp_path / "first.las")
    second = extracted(first, tmp_path / "second.las")
    one, other = laspy.read(first), laspy.read(second)
    np.testing.assert_array_equal(one["position"], other["position"])
    np.testing.assert_allclose(one.xyz, other.xyz, atol=0.0011)
    assert packets_by_laspy(first) == packets_by_laspy(second)


@pytest.mark.parametrize("block", ["1", "2", "100"])
def test_same_files_for_every_block_size(tmp_path: Path, block: str) -> None:
    source = las_scan(tmp_path)
    one = extracted(source, tmp_path / "one.las", "--workers", "1")
    other = extracted(source, tmp_path / "other.las", "--block", block, "--workers", "2")
    assert one.read_bytes() == other.read_bytes()
    assert one.with_suffix(".wdp").read_bytes() == other.with_suffix(".wdp").read_bytes()


def test_many_lengths_are_padded_and_counted(tmp_path: Path) -> None:
    # 200 lengths: 191 have a descriptor of their own, the longest nine share those of 256 samples.
    lengths = range(20, 220)
    samples = np.full((200, 220), 3, np.uint16)
    samples[:, 4:7] = [60, 100, 60]
    np.savez(
        tmp_path / "scan.npz",
        samples=samples,
        counts=np.array(lengths),
        sampling_interval=1e-9,
        anchor=np.zeros((200, 3)),
        location=np.zeros(200),
        direction=np.array([[0.0, 0.0, 0.00015]] * 200),
    )
    call = ["extract", tmp_path / "scan.npz", "-o", tmp_path / "e.las", "--with-waveforms"]
    result = run(*call, "--threshold", "20")
    assert result.exit_code == 0, result.output
    assert "9 waveforms padded with the last sample" in result.stdout
    found = packets_by_laspy(tmp_path / "e.las")
    assert [len(packet) for packet in found] == [*lengths[:191], *[256] * 9]
    assert found[199] == [*samples[199, :219].tolist(), *[3] * 37]


def test_too_many_kinds_of_waveforms_are_an_error(tmp_path: Path) -> None:
    intervals = 1e-9 + np.arange(300) * 1e-12
    samples = np.tile(np.array(ECHO, np.uint16), (300, 1))
    np.savez(
        tmp_path / "scan.npz",
        samples=samples,
        sampling_interval=intervals,
        anchor=np.zeros((300, 3)),
        location=np.zeros(300),
        direction=np.array([[0.0, 0.0, 0.00015]] * 300),
    )
    call = ["extract", tmp_path / "scan.npz", "-o", tmp_path / "e.las", "--with-waveforms", "-q"]
    assert_error(run(*call, "--threshold", "20"), "a LAS file describes at most 255 kinds")
    assert names(tmp_path) == ["scan.npz"]


def test_packets_never_replace_those_of_the_input(tmp_path: Path) -> None:
    source = las_scan(tmp_path)
    before = source.with_suffix(".wdp").read_bytes()
    call = ["extract", source, "-o", tmp_path / "scan.laz", "--with-waveforms", "--overwrite"]
    refused = run(*call)
    assert_usage(refused, f"output {tmp_path / 'scan.wdp'} belongs to the input file {source}")
    assert source.with_suffix(".wdp").read_bytes() == before
    assert names(tmp_path) == ["scan.las", "scan.wdp"]


def test_existing_packets_are_replaced_on_request_only(tmp_path: Path) -> None:
    source = las_scan(tmp_path)
    call = ["extract", source, "-o", tmp_path / "e.las", "--with-waveforms", "--threshold", "20"]
    (tmp_path / "e.wdp").write_bytes(b"packets of another file")
    assert_usage(run(*call, "--overwrite"), "is not the waveforms of a LAS file of echoes")
    (tmp_path / "e.wdp").unlink()
    assert run(*call).exit_code == 0
    assert_usage(run(*call), "already exists; use --overwrite")
    assert run(*call, "--overwrite").exit_code == 0


def test_tables_cannot_hold_waveforms(tmp_path: Path) -> None:
    call = ["extract", las_scan(tmp_path), "-o", tmp_path / "e.csv", "--with-waveforms"]
    assert_usage(run(*call), "cannot hold waveforms; write .las or .laz with --with-waveforms")


def test_failed_run_leaves_neither_file(tmp_path: Path) -> None:
    writer = LasPacketEchoWriter(tmp_path / "e.las", None)
    with pytest.raises(ValueError, match="give the block of the echoes"), writer:
        writer.write(echo_table([1]))
    assert list(tmp_path.iterdir()) == []


def test_file_without_echoes_is_valid(tmp_path: Path) -> None:
    with LasPacketEchoWriter(tmp_path / "e.las", None):
        pass
    assert len(laspy.read(tmp_path / "e.las")) == 0
    assert len((tmp_path / "e.wdp").read_bytes()) == 60


@pytest.mark.skipif(not data_folder().exists(), reason="no files of real scanners")
@pytest.mark.parametrize("name", ["las/topo_2ns.las", "pulsewaves/saturated_1ns.pls"])
def test_real_waveforms_are_read_back(tmp_path: Path, name: str) -> None:
    source = data_folder() / name
    echoes = extracted(source, tmp_path / "echoes.las")
    of_input = samples_of(source)
    las = laspy.read(echoes)
    expected = [of_input[int(number)] for number in las["waveform_number"]]
    assert packets_by_laspy(echoes) == expected
    assert len(samples_of(echoes)) == len(np.unique(las["waveform_number"]))
