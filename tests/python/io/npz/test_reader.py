"""NumPy archives of waveforms: documented keys, alternative keys, and invalid archives."""

from __future__ import annotations

import io
import struct
import zipfile
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.npz.reader import NpzReader
from fullwaveform.io.opening import open_waveforms

from ...support.las_scenes import data_folder, rows

SAMPLES = np.array([[1, 2, 3], [4, 5, 6], [7, 8, 9]], dtype=np.uint16)


def archive(folder: Path, **arrays: Any) -> Path:
    np.savez(folder / "a.npz", **arrays)
    return folder / "a.npz"


def message_of(path: Path, **options: Any) -> str:
    with pytest.raises(WaveformFileError) as caught, NpzReader(path, **options) as reader:
        list(reader.blocks())
    assert str(path) in str(caught.value)
    return str(caught.value)


def test_samples_and_interval_are_sufficient(tmp_path: Path) -> None:
    path = archive(tmp_path, samples=SAMPLES)
    with NpzReader(path, sampling_interval=2e-9, channel_flags={0: 5}) as reader:
        (block,) = reader.blocks()
        assert reader.header is None
        assert (reader.point_count, reader.points_done) == (3, 3)
        (note,) = reader.tally.notes
    assert "each waveform is treated as a separate shot" in note
    assert block.samples.tolist() == SAMPLES.tolist()
    assert block.counts.tolist() == [3, 3, 3]
    assert (block.samples.dtype, block.counts.dtype) == (np.uint16, np.uint16)
    assert len(set(block.shot_times.tolist())) == 3
    assert block.sbl_times.tolist() == [0, 0, 0]
    assert block.channel_flags.tolist() == [5, 5, 5]
    assert block.sampling_intervals.tolist() == [2e-9] * 3
    assert np.isnan(block.geometry.anchor).all()
    assert block.geometry.anchor.shape == block.geometry.direction.shape == (3, 3)
    assert np.isnan(block.geometry.location).all()
    assert np.isnan(block.attributes.gps_time).all()
    assert block.attributes.scan_angle.tolist() == [0, 0, 0]


def test_all_keys_are_read(tmp_path: Path) -> None:
    path = archive(
        tmp_path,
        samples=SAMPLES.astype(np.int64),
        counts=[3, 2, 1],
        shot_times=[5.0, 5.0, 6.0],
        sbl_times=[0.0, 1e-7, 0.0],
        channel_flags=[0, 1, 0],
        sampling_interval=[1e-9, 2e-9, 1e-9],
        anchor=[[1, 2, 3], [4, 5, 6], [7, 8, 9]],
        location=[10.0, 20.0, 30.0],
        direction=[[0, 0, 1e-4]] * 3,
        gps_time=[100.0, 100.0, 101.0],
        user_data=[1, 2, 3],
        scan_angle=[-1.5, 0, 2],
        unknown=["of", "no", "interest"],
    )
    with NpzReader(path, channel_flags=7) as reader:
        (block,) = reader.blocks()
        assert reader.channel_numbers is None
        (note,) = reader.tally.notes
    assert note == "The file stores the channel of each waveform; the given channels were ignored."
    assert rows([block]) == [[1, 2, 3], [4, 5], [7]]
    assert block.samples.tolist() == [[1, 2, 3], [4, 5, 0], [7, 0, 0]]
    assert block.shot_times.tolist() == [5.0, 5.0, 6.0]
    assert block.sbl_times.tolist() == [0.0, 1e-7, 0.0]
    assert block.channel_flags.tolist() == [0, 1, 0]
    assert block.sampling_intervals.tolist() == [1e-9, 2e-9, 1e-9]
    assert block.geometry.anchor.tolist() == [[1, 2, 3], [4, 5, 6], [7, 8, 9]]
    assert block.geometry.location.tolist() == [10.0, 20.0, 30.0]
    assert block.geometry.direction.tolist() == [[0, 0, 1e-4]] * 3
    assert block.attributes.gps_time.tolist() == [100.0, 100.0, 101.0]
    assert block.attributes.user_data.tolist() == [1, 2, 3]
    assert block.attributes.scan_angle.tolist() == [-1.5, 0, 2]


def test_alternative_keys_are_read(tmp_path: Path) -> None:
    path = archive(
        tmp_path,
        samples=SAMPLES,
        count=[3, 2, 1],
        shot_time=[np.nan] * 3,
        shot_id=[4, 4, 9],
        channel=[0, 1, 0],
        t0_s=[0.0, 1e-8, np.nan],
        sampling_interval_s=1e-9,
    )
    with NpzReader(path, waveforms_per_block=1, channel_flags={1: 0}) as reader:
        blocks = list(reader.blocks())
        assert reader.tally.notes == [
            "Not all waveforms have a shot time; shots are identified by shot_id."
        ]
    assert [rows([block]) for block in blocks] == [[[1, 2, 3], [4, 5]], [[7]]]
    assert blocks[0].channel_flags.tolist() == [1, 0]
    assert blocks[0].sbl_times.tolist() == [0.0, 1e-8]
    assert blocks[1].sbl_times.tolist() == [0.0]


def test_given_interval_overrides_that_of_the_file(tmp_path: Path) -> None:
    path = archive(tmp_path, samples=SAMPLES, sampling_interval=1e-9)
    with open_waveforms(path, sampling_interval=3e-9) as reader:
        (block,) = reader.blocks()
        notes = reader.tally.notes
    assert block.sampling_intervals.tolist() == [3e-9] * 3
    assert "The given interval, 3 ns, replaces that of the file." in notes
    with open_waveforms(path) as reader:
        list(reader.blocks())
        assert not any("interval" in note for note in reader.tally.notes)


def test_waveforms_without_time_are_counted(tmp_path: Path) -> None:
    path = archive(tmp_path, samples=SAMPLES, shot_times=[1.0, np.nan, 2.0], sampling_interval=1e-9)
    with NpzReader(path) as reader:
        assert rows(list(reader.blocks())) == [[1, 2, 3], [7, 8, 9]]
        assert dict(reader.tally.rejected) == {"GPS time not finite": 1}


@pytest.mark.parametrize(
    ("arrays", "words"),
    [
        ({"samples": None}, "has no array samples"),
        ({"samples": SAMPLES + 0.5}, "samples: value 1.5 at (0, 0) is not a whole number"),
        ({"samples": SAMPLES[0]}, "samples of type uint16 and shape (3,)"),
        (
            {"samples": SAMPLES.astype(np.int32) - 2},
            "samples: value -1 at (0, 0) is not a whole number from 0 to 65535",
        ),
        (
            {"samples": SAMPLES.astype(np.int32) << 14},
            "samples: value 65536 at (1, 0) is not a whole number",
        ),
        ({"samples": np.zeros((1, 65536), np.uint8)}, "width of at most 65535"),
        ({"counts": [3, 3]}, "counts has shape (2,); expected (3,)"),
        ({"counts": [3, 4, 3]}, "count 4 of waveform 1 exceeds the row length 3"),
        ({"counts": [3, -1, 3]}, "counts has values from -1 to 3"),
        ({"counts": [3.0, 3.0, 3.0]}, "counts has type float64; must be integers"),
        ({"count": [[3, 3, 3]]}, "count has shape (1, 3)"),
        ({"shot_times": [1.0, 2.0, 1.0]}, "shot at 1.0 s are not consecutive"),
        ({"channel_flags": [0, 1, 256]}, "channel_flags has values from 0 to 256"),
        ({"channel": [0, 1, 256]}, "channel has values from 0 to 256"),
        ({"anchor": np.zeros((3, 2))}, "anchor has shape (3, 2); expected (3, 3)"),
        ({"location": ["a", "b", "c"]}, "array location has type <U1; must be numbers"),
        ({"gps_time": np.array([{}, 1, 2])}, "array gps_time has Python objects"),
        ({"user_data": [1, 2, 300]}, "user_data has values from 1 to 300; must be 0 to 255"),
        ({"sampling_interval": None}, "has no array sampling_interval"),
        ({"sampling_interval": 0.0}, "sampling interval 0.0 s of waveform 0"),
        ({"sampling_interval": [1e-9, np.nan, 1e-9]}, "sampling interval nan s of waveform 1"),
        ({"sampling_interval": [1e-9, 1e-9]}, "sampling_interval has shape (2,)"),
        ({"shot_times": [1.0, 2.0, 3.0], "counts": [0, 0, 0]}, "no readable waveform (3 x"),
    ],
)
def test_invalid_archives_are_refused(tmp_path: Path, arrays: dict[str, Any], words: str) -> None:
    given = {"samples": SAMPLES, "sampling_interval": 1e-9} | arrays
    path = archive(tmp_path, **{key: value for key, value in given.items() if value is not None})
    assert words in message_of(path)


def test_arrays_above_the_memory_limit_are_refused(tmp_path: Path) -> None:
    np.savez_compressed(
        tmp_path / "a.npz", samples=np.zeros((1000, 1000), np.uint16), sampling_interval=1e-9
    )
    path = tmp_path / "a.npz"
    assert path.stat().st_size < 10_000  # 2 MB of zeros
    assert "of 0.002 GB exceed the limit of 1e-05 GB" in message_of(path, memory_limit=10_000)
    with NpzReader(path, memory_limit=2_000_008) as reader:
        assert reader.point_count == 1000


def member(folder: Path, content: bytes) -> Path:
    with zipfile.ZipFile(folder / "a.npz", "w") as made:
        made.writestr("samples.npy", content)
    return folder / "a.npz"


def test_oversized_array_headers_are_refused(tmp_path: Path) -> None:
    for shape in ("(1000000000, 65535)", "(4294967296, 4294967296)", "(3, 4)"):
        text = f"{{'descr': '<u2', 'fortran_order': False, 'shape': {shape}, }}\n".encode()
        head = b"\x93NUMPY\x01\x00" + struct.pack("<H", len(text)) + text
        path = member(tmp_path, head + SAMPLES.tobytes())
        assert "found 18" in message_of(path)


@pytest.mark.parametrize("content", [b"", b"\x93NUM", b"no array at all", b"\x93NUMPY\x01\x00\xff"])
def test_members_that_are_not_arrays_are_refused(tmp_path: Path, content: bytes) -> None:
    assert "corrupt .npz or unsupported array type" in message_of(member(tmp_path, content))


def test_any_truncation_is_an_error(tmp_path: Path) -> None:
    content = archive(tmp_path, samples=SAMPLES, sampling_interval=1e-9).read_bytes()
    path = tmp_path / "cut.npz"
    for size in range(len(content)):
        path.write_bytes(content[:size])
        message_of(path)


def test_corrupt_content_is_an_error(tmp_path: Path) -> None:
    stream = io.BytesIO()
    np.savez_compressed(stream, samples=np.arange(600, dtype=np.uint16).reshape(20, 30))
    content = bytearray(stream.getvalue())
    content[len(content) // 2] ^= 0xFF
    path = tmp_path / "a.npz"
    path.write_bytes(content)
    assert "corrupt .npz" in message_of(path)


def test_missing_file_and_folder_are_errors(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError):
        NpzReader(tmp_path / "none.npz")
    with pytest.raises(IsADirectoryError):
        NpzReader(tmp_path)


@pytest.mark.parametrize(
    ("name", "waveforms", "shots", "interval"),
    [("forest_12bit.npz", 508, 500, 1e-9), ("topo_2ns.npz", 1778, 1778, 2e-9)],
)
def test_arrays_of_real_scanners_are_read(
    name: str, waveforms: int, shots: int, interval: float
) -> None:
    path = data_folder() / "arrays" / name
    if not path.exists():
        pytest.skip(f"no {name} in the folder of real waveforms")
    with np.load(path) as arrays:
        samples, counts = arrays["samples"], arrays["count"]
    with open_waveforms(path, waveforms_per_block=100) as reader:
        blocks = list(reader.blocks())
    assert sum(map(len, blocks)) == waveforms
    assert len({time for block in blocks for time in block.shot_times.tolist()}) == shots
    assert {value for block in blocks for value in block.sampling_intervals.tolist()} == {interval}
    found = rows(blocks)
    expected = [row[:count].tolist() for row, count in zip(samples, counts, strict=True)]
    assert found == expected


def test_rejected_rows_between_readable_rows_are_skipped(tmp_path: Path) -> None:
    times = np.full(60, np.nan)
    times[[0, 5, 6, 40, 59]] = [1.0, 2.0, 2.0, 3.0, 4.0]
    samples = np.arange(120, dtype=np.uint16).reshape(60, 2)
    path = archive(tmp_path, samples=samples, shot_times=times, sampling_interval=1e-9)
    for size in (1, 2, 3, 100):
        with NpzReader(path, waveforms_per_block=size) as reader:
            blocks = list(reader.blocks())
            assert rows(blocks) == [[0, 1], [10, 11], [12, 13], [80, 81], [118, 119]]
            assert reader.tally.rejected.total() == 55
