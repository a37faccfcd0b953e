"""Files of waveforms, opened by their content."""

from __future__ import annotations

from pathlib import Path

import pytest

from fullwaveform.errors import WaveformFileError
from fullwaveform.formats.las_reader import LasWaveformReader
from fullwaveform.formats.opening import WaveformReader, open_waveforms
from fullwaveform.formats.pulsewaves_reader import PulseWavesReader

from .las_scenes import four_shots, rows
from .pulsewaves_scenes import three_pulses


def test_las_under_any_name(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "scan.las").rename(tmp_path / "scan.pls")
    with open_waveforms(path, waveforms_per_block=3, channel_flags=0) as reader:
        assert isinstance(reader, LasWaveformReader)
        blocks = list(reader.blocks())
    assert [len(block) for block in blocks] == [3, 1]
    assert blocks[0].channel_flags.tolist() == [0, 0, 0]


def test_pulsewaves_under_any_name(tmp_path: Path) -> None:
    path = three_pulses().write(tmp_path / "scan.pls").rename(tmp_path / "scan.las")
    reader: WaveformReader
    with open_waveforms(path, waveforms_per_block=2, channel_flags={1: 4}) as reader:
        assert isinstance(reader, PulseWavesReader)
        blocks = list(reader.blocks())
    assert [len(block) for block in blocks] == [2, 1]
    assert rows(blocks)[0] == [1, 2, 3, 4]
    assert blocks[0].channel_flags.tolist() == [4, 4]


def test_file_of_samples(tmp_path: Path) -> None:
    path = three_pulses().write(tmp_path / "scan.pls").with_suffix(".wvs")
    with pytest.raises(WaveformFileError, match=r"scan\.wvs holds the samples.*scan\.pls"):
        open_waveforms(path)


@pytest.mark.parametrize("content", [b"", b"LAS", b"x,y,z\n1,2,3\n"])
def test_something_else(tmp_path: Path, content: bytes) -> None:
    path = tmp_path / "other.las"
    path.write_bytes(content)
    with pytest.raises(WaveformFileError, match=r"other\.las is neither a LAS file nor") as caught:
        open_waveforms(path)
    assert repr(content) in str(caught.value)


def test_missing_file(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError):
        open_waveforms(tmp_path / "none.las")
