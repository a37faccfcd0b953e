"""Scan containers: layout as read with h5py, round trips, and invalid blocks."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path
from typing import Any

import h5py
import laspy
import numpy as np
import pytest

from fullwaveform.core.scanner import DEFAULT_ATTRIBUTES, AfterPulse, Scanner
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.container.reader import ScanContainerReader
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.echo_writers.las_header import echo_header
from fullwaveform.io.las.reader import LasWaveformReader
from fullwaveform.io.pulsewaves.reader import PulseWavesReader
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ...support.las_scenes import FOUR, Point, Scene, four_shots, rows
from ...support.pulsewaves_scenes import two_channels
from ...support.row_scenes import as_container, changed, new_attribute, new_dataset, same, without

FIELDS = "waveforms/StandardCartesianChart3D"
DESCRIPTION = {
    **DEFAULT_ATTRIBUTES,
    "Scanner Serial Number": "S 17",
    "Scanner Type": "VQ-840-GL",
    "Wavelength[nm]": 532.0,
    "reflectance_calculation_table": [0.25, -1.5],
    "WaveformSampleInterval": 7.0,
    "a_real": [1.0, 2.0],
    "a_imag": [0.0, -1.0],
    "b_real": [-3e8, -4e8],
    "b_imag": [0.0, 5e8],
    "t_ref": 2.5e-9,
}


def four(folder: Path, scanner: Scanner | None = None) -> Path:
    """A container of four waveforms of four samples, a shot each."""
    return as_container(four_shots().write(folder / "a.las"), folder / "a.h5", scanner)


def test_descriptors_may_be_missing(tmp_path: Path) -> None:
    path = changed(four(tmp_path), without(f"{FIELDS}/Descriptor"))
    with ScanContainerReader(path) as reader:
        (block,) = reader.blocks()
    assert block.descriptors.tolist() == [0, 0, 0, 0]


def test_layout_seen_by_h5py(tmp_path: Path) -> None:
    point = Point(0, 12.5, (1.5, -2.25, 300.125), 1500.0, (0.25, -0.5, 0.125), {"user_data": 9})
    scene = Scene([(1, 8, 4, 2000)], FOUR[:2], [point, Point(1, 13.5)])
    scanner = Scanner.from_attributes(DESCRIPTION)
    las = scene.write(tmp_path / "a.las")
    with h5py.File(as_container(las, tmp_path / "a.h5", scanner, channel_flags=3)) as file:
        assert (file.attrs["format"], file.attrs["format_version"]) == (b"fullwaveform scan", 1)
        waveforms = file[f"{FIELDS}/Waveforms"]
        assert (waveforms.dtype, waveforms.shape) == (np.uint16, (2, 4))
        assert (waveforms.compression, waveforms.shuffle) == ("gzip", True)
        assert waveforms[:].tolist() == [[1, 2, 3, 4], [5, 6, 7, 8]]
        # The interval of the waveforms, not of the description.
        assert waveforms.attrs["WaveformSampleInterval"] == 2e-9
        assert waveforms.attrs["a_imag"].tolist() == [0.0, -1.0]
        assert waveforms.attrs["b_real"].tolist() == [-3e8, -4e8]
        assert file[f"{FIELDS}/SBL_Time"][:].tolist() == [0.0, 0.0]
        assert file[f"{FIELDS}/SBL_Time"].attrs["t_ref"] == 2.5e-9
        assert file[f"{FIELDS}/SampleCount"][:].tolist() == [4, 4]
        assert file[f"{FIELDS}/ShotTime"][:].tolist() == [12.5, 13.5]
        assert file[f"{FIELDS}/ChannelFlag"][:].tolist() == [3, 3]
        assert file[f"{FIELDS}/Descriptor"][:].tolist() == [1, 1]
        assert file[f"{FIELDS}/SampleInterval"][:].tolist() == [2e-9, 2e-9]
        assert file["space/location"][:].tolist() == [1500.0, 0.0]
        assert file["space/direction"][0].tolist() == [0.25, -0.5, 0.125]
        assert file["space/anchor"][0] == pytest.approx([1.5, -2.25, 300.125], abs=1e-9)
        assert file["space/user_data"][:].tolist() == [9, 0]
        assert file["scanner"].attrs["Scanner Serial Number"] == b"S 17"
        assert file["scanner"].attrs["Wavelength[nm]"].dtype == np.float32
        assert file["scanner"].attrs["reflectance_calculation_table"].tolist() == [0.25, -1.5]
        assert file["scanner"].attrs["reflectance_calculation_table"].dtype == np.float32
        assert file["las"].attrs["point_format"] == 4
        assert file["las"].attrs["scales"].tolist() == [0.001, 0.001, 0.001]


def test_scanner_round_trip(tmp_path: Path) -> None:
    scanner = replace(
        Scanner.from_attributes(DESCRIPTION),
        after_pulse=AfterPulse(3, 4),
        deconvolution_offset=0.25,
        deconvolution_offset_hybrid=-0.125,
    )
    with ScanContainerReader(four(tmp_path, scanner)) as reader:
        attributes = reader.scanner_attributes()
        found = reader.scanner()
    assert attributes == {**DESCRIPTION, "WaveformSampleInterval": 1e-9}
    assert found == replace(scanner, attributes=attributes)
    with ScanContainerReader(four(tmp_path, Scanner.from_attributes(DESCRIPTION))) as reader:
        found = reader.scanner()
    assert found is not None
    assert (found.after_pulse, found.deconvolution_offset) == (None, 0.0)
    with ScanContainerReader(four(tmp_path)) as reader:
        assert reader.scanner_attributes() is None
        assert reader.scanner() is None


def test_waveforms_of_several_lengths_and_segments_round_trip(tmp_path: Path) -> None:
    scene = two_channels()
    path = as_container(scene.write(tmp_path / "a.pls"), tmp_path / "a.h5", waveforms_per_block=1)
    with h5py.File(path) as file:
        assert file[f"{FIELDS}/SampleCount"][:].tolist() == [3, 1, 2, 2, 4]
        assert file[f"{FIELDS}/Waveforms"].shape == (5, 4)
    with ScanContainerReader(path) as reader:
        (block,) = reader.blocks()
        assert reader.point_count == reader.points_done == 5
    assert rows([block]) == [[1, 2, 3], [4], [5, 6], [7, 8], [9, 10, 11, 12]]
    assert block.samples[1].tolist() == [4, 0, 0, 0]


def test_echo_files_have_the_same_header(tmp_path: Path) -> None:
    scan = write_scan(simulate_scan(ScanSettings(shots=3, seed=1)), tmp_path / "a.las")
    with LasWaveformReader(scan.las) as las:
        path = as_container(scan.las, tmp_path / "a.h5")
        with ScanContainerReader(path) as reader:
            assert reader.header is not None
            one, other = echo_header(las.header), echo_header(reader.header)
    assert str(one.version) == str(other.version)
    assert one.point_format == other.point_format
    assert (one.uuid, one.file_source_id) == (other.uuid, other.file_source_id)
    assert one.global_encoding.value == other.global_encoding.value
    assert np.array_equal(one.scales, other.scales)
    assert np.array_equal(one.offsets, other.offsets)
    assert len(one.vlrs) == len(other.vlrs) > 0
    for mine, theirs in zip(one.vlrs, other.vlrs, strict=True):
        assert (mine.user_id, mine.record_id) == (theirs.user_id, theirs.record_id)
        assert mine.record_data_bytes() == theirs.record_data_bytes()


def test_reference_system_in_an_extended_record(tmp_path: Path) -> None:
    header = laspy.LasHeader(version="1.4", point_format=9)
    header.evlrs = laspy.vlrs.vlrlist.VLRList([laspy.VLR("LASF_Projection", 2112, "wkt", b"PROJ")])
    header.vlrs.append(laspy.VLR("someone", 7, "else", b"x"))
    with ScanContainerWriter(tmp_path / "a.h5", header):
        pass
    with ScanContainerReader(tmp_path / "a.h5") as reader:
        assert list(reader.blocks()) == []
        assert reader.header is not None
        assert len(reader.header.vlrs) == 0
        (record,) = reader.header.evlrs
    assert (record.record_id, record.record_data_bytes()[:4]) == (2112, b"PROJ")


def test_flags_are_read_from_the_file(tmp_path: Path) -> None:
    path = four(tmp_path)
    with ScanContainerReader(path, channel_flags={2: 0}) as reader:
        (block,) = reader.blocks()
        assert block.channel_flags.tolist() == [1, 1, 1, 1]
        assert reader.tally.notes == [
            "The file stores the channel of each waveform; the given channels were ignored."
        ]
    with ScanContainerReader(path, channel_flags=dict.fromkeys(range(256), 1)) as reader:
        assert reader.tally.notes == []


def test_shot_in_two_blocks_is_refused(tmp_path: Path) -> None:
    with LasWaveformReader(four_shots().write(tmp_path / "a.las")) as reader:
        (block,) = reader.blocks()
    writer = ScanContainerWriter(tmp_path / "b.h5", None)
    with pytest.raises(ValueError, match="not open for writing"):
        writer.write(block)
    with pytest.raises(ValueError, match=r"shot at 103\.0 s is in two blocks"), writer:
        writer.write(block)
        writer.write(replace(block, shot_times=block.shot_times + 3))
    assert not (tmp_path / "b.h5").exists()
    assert len(list(tmp_path.iterdir())) == 2


def test_waveforms_without_time_or_samples_are_counted(tmp_path: Path) -> None:
    path = four(tmp_path)
    changed(path, new_dataset(f"{FIELDS}/ShotTime", np.array([1.0, np.nan, np.inf, 2.0])))
    changed(path, new_dataset(f"{FIELDS}/SampleCount", np.array([3, 4, 4, 0], np.uint16)))
    with ScanContainerReader(path) as reader:
        blocks = list(reader.blocks())
        assert rows(blocks) == [[1, 2, 3]]
        assert blocks[0].samples.shape == (1, 3)
        assert dict(reader.tally.rejected) == {
            "GPS time not finite": 2,
            "waveform without samples": 1,
        }


def test_padding_reads_as_zero(tmp_path: Path) -> None:
    path = changed(
        four(tmp_path), new_dataset(f"{FIELDS}/SampleCount", np.array([4, 2, 1, 3], np.uint16))
    )
    with ScanContainerReader(path) as reader:
        (block,) = reader.blocks()
    assert block.samples.tolist() == [[1, 2, 3, 4], [5, 6, 0, 0], [9, 0, 0, 0], [13, 14, 15, 0]]


def test_big_endian_and_unchunked_datasets_are_read(tmp_path: Path) -> None:
    path = four(tmp_path)
    with ScanContainerReader(path) as reader:
        (before,) = reader.blocks()
    with h5py.File(path) as file:
        samples, times = file[f"{FIELDS}/Waveforms"][:], file[f"{FIELDS}/ShotTime"][:]
    changed(path, new_dataset(f"{FIELDS}/Waveforms", samples.astype(">u2")))
    changed(path, new_dataset(f"{FIELDS}/ShotTime", times.astype(">f8")))
    with ScanContainerReader(path) as reader:
        (after,) = reader.blocks()
    assert same(before, after)


def test_texts_of_variable_length_are_read(tmp_path: Path) -> None:
    path = four(tmp_path, Scanner.from_attributes(DESCRIPTION))
    changed(path, new_attribute("/", "format", "fullwaveform scan"))
    changed(path, new_attribute("scanner", "Scanner Serial Number", "Nº 5"))
    with ScanContainerReader(path) as reader:
        assert len(list(reader.blocks())) == 1
        attributes = reader.scanner_attributes()
    assert attributes is not None
    assert attributes["Scanner Serial Number"] == "Nº 5"
    assert attributes["Scanner Build Number"] == ""


def test_outgoing_pulses_round_trip(tmp_path: Path) -> None:
    path = as_container(
        two_channels().write(tmp_path / "a.pls"), tmp_path / "a.h5", waveforms_per_block=1
    )
    with ScanContainerReader(path) as reader:
        assert reader.has_outgoing
        (block,) = reader.blocks()
        assert block.outgoing is None
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.outgoing is not None
    assert block.outgoing.samples.tolist() == [[50, 51]] * 3 + [[55, 0]] * 2
    assert block.outgoing.counts.tolist() == [2, 2, 2, 1, 1]
    assert block.outgoing.sampling_intervals.tolist() == [1e-9] * 5
    assert block.outgoing.durations.tolist() == [0.0] * 5


def test_a_container_without_outgoing_pulses(tmp_path: Path) -> None:
    with ScanContainerReader(four(tmp_path)) as reader:
        assert not reader.has_outgoing
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.outgoing is None


@pytest.mark.parametrize(
    ("change", "message"),
    [
        (without("outgoing/duration"), "missing dataset outgoing/duration"),
        (new_dataset("outgoing/duration", np.zeros(3)), r"has shape \(3,\); expected \(5,\)"),
        (new_dataset("outgoing/sample_count", np.full(5, 3, np.uint16)), "count 3 of the outgoing"),
        (new_dataset("outgoing/sampling_interval", np.zeros(5)), "invalid sampling interval 0.0 s"),
    ],
)
def test_damaged_outgoing_pulses(tmp_path: Path, change: Any, message: str) -> None:
    path = as_container(two_channels().write(tmp_path / "a.pls"), tmp_path / "a.h5")
    with (
        pytest.raises(WaveformFileError, match=message),
        ScanContainerReader(changed(path, change)) as reader,
    ):
        reader.with_outgoing = True
        list(reader.blocks())


def test_outgoing_pulses_in_some_blocks_only_are_refused(tmp_path: Path) -> None:
    with PulseWavesReader(
        two_channels().write(tmp_path / "a.pls"), waveforms_per_block=2
    ) as reader:
        reader.with_outgoing = True
        first, second = reader.blocks()
    with (
        pytest.raises(ValueError, match="either all blocks or none must have outgoing pulses"),
        ScanContainerWriter(tmp_path / "a.h5", None) as writer,
    ):
        writer.write(first)
        writer.write(replace(second, outgoing=None))
