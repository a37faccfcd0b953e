"""Waveform files are recognised by their content."""

from __future__ import annotations

import zipfile
from pathlib import Path

import h5py
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.container.reader import ScanContainerReader
from fullwaveform.io.las.reader import LasWaveformReader
from fullwaveform.io.npz.reader import NpzReader
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.pulsewaves.reader import PulseWavesReader

from ..support.las_scenes import FOUR, compressed, four_shots, rows
from ..support.pulsewaves_scenes import three_pulses
from ..support.row_scenes import as_container, as_npz


def test_las_is_recognised_under_any_name(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "scan.las").rename(tmp_path / "scan.pls")
    with open_waveforms(path, waveforms_per_block=3, channel_flags=0) as reader:
        assert isinstance(reader, LasWaveformReader)
        blocks = list(reader.blocks())
    assert [len(block) for block in blocks] == [3, 1]
    assert blocks[0].channel_flags.tolist() == [0, 0, 0]


def test_pulsewaves_is_recognised_under_any_name(tmp_path: Path) -> None:
    path = three_pulses().write(tmp_path / "scan.pls").rename(tmp_path / "scan.las")
    reader: WaveformReader
    with open_waveforms(path, waveforms_per_block=2, channel_flags={1: 4}) as reader:
        assert isinstance(reader, PulseWavesReader)
        blocks = list(reader.blocks())
    assert [len(block) for block in blocks] == [2, 1]
    assert rows(blocks)[0] == [1, 2, 3, 4]
    assert blocks[0].channel_flags.tolist() == [4, 4]


def test_sample_file_refers_to_its_pulse_file(tmp_path: Path) -> None:
    path = three_pulses().write(tmp_path / "scan.pls").with_suffix(".wvs")
    with pytest.raises(WaveformFileError, match=r"scan\.wvs holds the samples.*scan\.pls"):
        open_waveforms(path)


def test_container_and_archive_are_recognised_under_any_name(tmp_path: Path) -> None:
    las = four_shots().write(tmp_path / "scan.las")
    container = as_container(las, tmp_path / "a.npz")
    archive = as_npz(las, tmp_path / "b.npz").rename(tmp_path / "b.h5")
    packed = compressed(las, tmp_path / "c.laz").rename(tmp_path / "scan.txt")
    kinds = {container: ScanContainerReader, archive: NpzReader, packed: LasWaveformReader}
    for path, kind in kinds.items():
        with open_waveforms(path) as reader:
            assert isinstance(reader, kind)
            assert rows(list(reader.blocks())) == [list(samples) for _, samples in FOUR]


@pytest.mark.parametrize(
    ("content", "found"),
    [
        (b"", "empty"),
        (b"LAS", "starts with b'LAS'"),
        (b"x,y,z\n1,2,3\n", r"starts with b'x,y,z\n1,2,3\n'"),
    ],
)
def test_other_files_are_refused(tmp_path: Path, content: bytes, found: str) -> None:
    path = tmp_path / "other.las"
    path.write_bytes(content)
    with pytest.raises(WaveformFileError) as caught:
        open_waveforms(path)
    assert f"other.las is not a waveform file ({found});" in str(caught.value)
    for known in ("LAS and LAZ", "PulseWaves", "HDF5", ".npz"):
        assert known in str(caught.value)


def test_other_hdf5_and_zip_files_are_refused(tmp_path: Path) -> None:
    with h5py.File(tmp_path / "a.h5", "w") as file:
        file["amplitude"] = [1.0]
    with pytest.raises(WaveformFileError, match=r"a\.h5 is an HDF5 file but not a scan container"):
        open_waveforms(tmp_path / "a.h5")
    with zipfile.ZipFile(tmp_path / "a.zip", "w") as made:
        made.writestr("letter.txt", "Dear")
    with pytest.raises(WaveformFileError, match=r"a\.zip has no array samples"):
        open_waveforms(tmp_path / "a.zip")


def test_interval_is_rejected_for_files_that_store_it(tmp_path: Path) -> None:
    las = four_shots().write(tmp_path / "scan.las")
    for path in (las, as_container(las, tmp_path / "a.h5")):
        with pytest.raises(ValueError, match="stores its sampling interval"):
            open_waveforms(path, sampling_interval=1e-9)


def test_folder_is_refused(tmp_path: Path) -> None:
    with pytest.raises(IsADirectoryError):
        open_waveforms(tmp_path)


def test_missing_file_is_an_error(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError):
        open_waveforms(tmp_path / "none.las")
