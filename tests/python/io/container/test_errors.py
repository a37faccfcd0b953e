"""Invalid scan containers: errors that name the file, the value and the rule."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import h5py
import numpy as np
import pytest

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.container.reader import ScanContainerReader

from ...support.row_scenes import changed, new_attribute, new_dataset, without
from .test_container import DESCRIPTION, FIELDS, four


def message_of(path: Path) -> str:
    with pytest.raises(WaveformFileError) as caught, ScanContainerReader(path) as reader:
        list(reader.blocks())
        reader.scanner()
    assert str(path) in str(caught.value)
    return str(caught.value)


WAVEFORMS = f"{FIELDS}/Waveforms"
COUNTS = f"{FIELDS}/SampleCount"
TIMES = f"{FIELDS}/ShotTime"
INTERVALS = f"{FIELDS}/SampleInterval"


@pytest.mark.parametrize(
    ("change", "words"),
    [
        (new_attribute("/", "format", "echoes"), "attribute format is 'echoes'"),
        (new_attribute("/", "format", 3), "not a scan container"),
        (new_attribute("/", "format_version", 2), "format_version"),
        (new_attribute("/", "format_version", "1"), "format_version '1'"),
        (without(WAVEFORMS), f"missing dataset {WAVEFORMS}"),
        (without("waveforms"), f"missing dataset {WAVEFORMS}"),
        (without("space/anchor"), "missing dataset space/anchor"),
        (new_dataset(WAVEFORMS, np.zeros((4, 4))), "has type float64; must be uint16"),
        (new_dataset(WAVEFORMS, np.zeros(4, np.uint16)), "must have 2 dimensions"),
        (
            new_dataset(WAVEFORMS, np.zeros((4, 65536), np.uint16)),
            "65536 samples; at most",
        ),
        (new_dataset(TIMES, np.zeros(4, np.int64)), "ShotTime has type int64"),
        (new_dataset(TIMES, np.zeros(3)), r"has shape (3,); expected (4,)"),
        (new_dataset("space/direction", np.zeros((4, 2))), r"has shape (4, 2); expected (4, 3)"),
        (
            new_dataset(COUNTS, np.array([4, 4, 5, 4], np.uint16)),
            "count 5 of waveform 2 exceeds the row length 4",
        ),
        (
            new_dataset(INTERVALS, np.array([1, 1, 1, 0.0])),
            "interval 0.0 s of waveform 3",
        ),
        (
            new_dataset(INTERVALS, np.array([1, np.nan, 1, 1])),
            "interval nan s of",
        ),
        (new_dataset(TIMES, np.array([1.0, 2, 1, 3])), "shot at 1.0 s are not"),
        (new_dataset(TIMES, np.full(4, np.nan)), "no readable waveform (4 x GPS"),
        (
            new_dataset(COUNTS, np.zeros(4, np.uint16)),
            "(4 x waveform without sam",
        ),
        (new_attribute("las", "scales", [0.0, 1.0, 1.0]), "scales not 0"),
        (new_attribute("las", "scales", [1.0, 1.0]), "three numbers"),
        (new_attribute("las", "version", "9.9"), "unreadable group las"),
        (new_attribute("las", "point_format", 1), "invalid point_format 1 in group las"),
        (new_attribute("las", "guid", "x"), "unreadable group las"),
        (new_attribute("scanner", "Wavelength[nm]", "red"), "wrong type: Wavelength[nm]"),
        (new_attribute("scanner", "colour", 3.0), "unknown: colour"),
    ],
)
def test_invalid_containers_are_refused(
    tmp_path: Path, change: Callable[[h5py.File], object], words: str
) -> None:
    path = changed(four(tmp_path, Scanner.from_attributes(DESCRIPTION)), change)
    assert words in message_of(path)


def test_missing_attribute_of_the_las_group_is_refused(tmp_path: Path) -> None:
    def change(file: h5py.File) -> None:
        del file["las"].attrs["offsets"]

    assert "'offsets'" in message_of(changed(four(tmp_path), change))


def test_chunks_above_the_limit_are_refused(tmp_path: Path) -> None:
    def change(file: h5py.File) -> None:
        del file["space/gps_time"]
        file.create_dataset("space/gps_time", (4,), np.float64, chunks=(2**26,), maxshape=(None,))

    assert "chunk must not exceed 256 MiB" in message_of(changed(four(tmp_path), change))


def test_any_truncation_is_an_error(tmp_path: Path) -> None:
    path = four(tmp_path)
    content = path.read_bytes()
    for size in range(0, len(content), 97):
        path.write_bytes(content[:size])
        message_of(path)


def test_corrupt_samples_are_an_error(tmp_path: Path) -> None:
    path = four(tmp_path)
    with h5py.File(path) as file:
        chunk = file[WAVEFORMS].id.get_chunk_info(0)
    content = bytearray(path.read_bytes())
    content[chunk.byte_offset : chunk.byte_offset + chunk.size] = bytes(chunk.size)
    path.write_bytes(content)
    assert "unreadable rows 0 to 4 of a dataset" in message_of(path)


def test_missing_file_and_folder_are_errors(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError):
        ScanContainerReader(tmp_path / "none.h5")
    with pytest.raises(IsADirectoryError):
        ScanContainerReader(tmp_path)


def test_more_declared_waveforms_than_fit_are_refused(tmp_path: Path) -> None:
    def change(file: h5py.File) -> None:
        file[WAVEFORMS].resize(10**12, axis=0)

    assert "declares 1000000000000 waveforms" in message_of(changed(four(tmp_path), change))
