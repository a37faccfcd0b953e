"""Invalid PulseWaves files: what is counted and what is an error."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.limits import OUTSIDE, too_long
from fullwaveform.io.pulsewaves.plain_waves import OVERLAPPING
from fullwaveform.io.pulsewaves.reader import PulseWavesReader
from fullwaveform.io.pulsewaves.selection import NO_DIRECTION

from ...support.las_scenes import patch, rows
from ...support.pulsewaves_scenes import (
    APPENDED,
    COMPRESSION,
    HEADER_END,
    HEADER_SIZE,
    MAJOR,
    OFFSETS,
    PULSE_COUNT,
    PULSE_FORMAT,
    PULSE_SIZE,
    PULSES_START,
    RECORDS,
    SCALES,
    TIME_SCALE,
    WAVES_COMPRESSION,
    Descriptor,
    Pulse,
    Sampling,
    Scene,
    read,
    three_pulses,
)

LENGTH_OF_FIRST_RECORD = HEADER_END + 24
FIRST_COMPOSITION = HEADER_END + 96
FIRST_SAMPLING = FIRST_COMPOSITION + 92
NAN, INFINITY = float("nan"), float("inf")


def message_of(path: Path) -> str:
    with pytest.raises(WaveformFileError) as caught:
        read(path)
    assert str(path.parent) in str(caught.value)
    return str(caught.value)


@pytest.mark.parametrize(
    ("position", "layout", "value", "words"),
    [
        (0, "<B", 0, "is not a PulseWaves pulse file; must start with PulseWavesPulse"),
        (MAJOR, "<B", 1, "version 1.3; must be 0.x"),
        (HEADER_SIZE, "<H", 351, "invalid header size 351 bytes; must be at least 352"),
        (COMPRESSION, "<I", 1, "unsupported compression type 1 of the pulses; must be 0"),
        (PULSE_FORMAT, "<I", 2, "pulse format 2; must be 0"),
        (PULSE_SIZE, "<I", 47, "invalid pulse size 47 bytes; must be at least 48"),
        (PULSES_START, "<q", 10**15, "start of the pulses at byte 1000000000000000; must be"),
        (PULSES_START, "<q", 351, "start of the pulses at byte 351; must be"),
        (PULSE_COUNT, "<q", -1, "invalid number of pulses -1; must not be negative"),
        (PULSE_COUNT, "<q", 4, "truncated: header declares 4 pulses, found 3"),
        (
            PULSE_COUNT,
            "<q",
            2**62,
            "truncated: header declares 4611686018427387904 pulses, found 3",
        ),
        (SCALES, "<d", 0.0, "scales must not be 0"),
        (SCALES, "<d", NAN, "scales must not be 0"),
        (OFFSETS, "<d", INFINITY, "scales must not be 0"),
        (TIME_SCALE, "<d", NAN, "of the times; must be finite"),
        (RECORDS, "<I", 1000, "1000 variable records do not fit between the header"),
        (RECORDS, "<I", 2, "variable record 2 of 2: truncated: starts at byte 644"),
        (LENGTH_OF_FIRST_RECORD, "<q", 197, "invalid length 197 bytes; must end before"),
        (LENGTH_OF_FIRST_RECORD, "<q", -1, "invalid length -1 bytes; must end before"),
        (APPENDED, "<i", 1, "appended record 1 from the end"),
        (LENGTH_OF_FIRST_RECORD, "<q", 91, "descriptor 1: truncated: 91 bytes left, 92"),
        (LENGTH_OF_FIRST_RECORD, "<q", 195, "sampling 1 of 1: truncated: 103 bytes left"),
        (FIRST_COMPOSITION, "<I", 91, "invalid size 91 bytes; must be 92 to 196"),
        (FIRST_COMPOSITION + 14, "<H", 2, "sampling 2 of 2: truncated: 0 bytes left"),
        (FIRST_SAMPLING, "<I", 105, "invalid size 105 bytes; must be 104 to 104"),
    ],
)
def test_invalid_header_and_records_are_refused(
    tmp_path: Path, position: int, layout: str, value: float, words: str
) -> None:
    path = three_pulses().write(tmp_path / "broken.pls")
    patch(path, position, layout, value)
    assert words in message_of(path)


@pytest.mark.parametrize(
    ("change", "words"),
    [
        ({"compression": 1}, "sampling 1 of pulse descriptor 1: unsupported compression type 1"),
        ({"bits": 12}, "unsupported bits per sample 12; must be 8, 16"),
        ({"duration_bits": 24}, "unsupported bits for the duration 24; must be 0, 8, 16, 32"),
        ({"segment_bits": 32}, "unsupported bits for the number of segments 32; must be 0, 8, 16"),
        ({"count_bits": 4}, "unsupported bits for the number of samples 4; must be 0, 8, 16, 32"),
        ({"samples": 0}, "invalid number of samples 0; must be 1 to 65535"),
        ({"samples": 65536}, "invalid number of samples 65536; must be 1 to 65535"),
        ({"unit": 0.0}, "invalid sampling unit 0.0 ns; must be positive"),
        ({"unit": NAN}, "invalid sampling unit nan ns; must be positive"),
        ({"unit": 2.0}, "sampling unit 2.0 ns differs from that of the pulses, 1.0 ns"),
        ({"scale": NAN}, "scale nan or offset 0.0 of the duration; must be finite"),
    ],
)
def test_unsupported_samplings_are_refused(
    tmp_path: Path, change: dict[str, float], words: str
) -> None:
    scene = three_pulses()
    path = scene.write(tmp_path / "a.pls")
    with_waves = path.with_suffix(".wvs").read_bytes()
    sampling = Sampling(**change)  # type: ignore[arg-type]
    record = Descriptor(1, [sampling]).record()
    content = bytearray(path.read_bytes())
    content[FIRST_COMPOSITION : FIRST_COMPOSITION + len(record)] = record
    path.write_bytes(content)
    assert path.with_suffix(".wvs").read_bytes() == with_waves
    assert words in message_of(path)


@pytest.mark.parametrize(
    ("change", "words"),
    [
        ({"compression": 3}, "pulse descriptor 1: unsupported compression type 3; must be 0"),
        ({"unit": -1.0}, "pulse descriptor 1: invalid sampling unit -1.0 ns"),
        ({"unit": INFINITY}, "pulse descriptor 1: invalid sampling unit inf ns"),
    ],
)
def test_unsupported_descriptors_are_refused(
    tmp_path: Path, change: dict[str, float], words: str
) -> None:
    scene = three_pulses()
    scene.descriptors = [Descriptor(1, [Sampling()], **change)]  # type: ignore[arg-type]
    assert words in message_of(scene.write(tmp_path / "a.pls"))


def test_unused_descriptors_are_not_checked(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.descriptors = [*scene.descriptors, Descriptor(2, [Sampling(bits=12)], compression=9)]
    with PulseWavesReader(scene.write(tmp_path / "a.pls")) as reader:
        assert sorted(reader.descriptors) == [1, 2]
        assert len(next(reader.blocks())) == 3


def test_missing_descriptor_is_refused(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.pulses[1].descriptor = 4
    words = "missing pulse descriptor 4; the file has 1"
    assert words in message_of(scene.write(tmp_path / "a.pls"))


def test_contradicting_records_are_refused(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.descriptors = [*scene.descriptors, Descriptor(1, [Sampling(samples=3)])]
    words = "two different records for pulse descriptor 1"
    assert words in message_of(scene.write(tmp_path / "a.pls"))


@pytest.mark.parametrize(
    ("change", "words"),
    [
        (lambda content: content[:30], "truncated: 30 bytes, the header has 60"),
        (lambda content: b"", "is not a PulseWaves sample file; must start with PulseWavesWaves"),
        (lambda content: b"X" + content[1:], "is not a PulseWaves sample file"),
        (
            lambda content: content[:WAVES_COMPRESSION] + b"\2" + content[WAVES_COMPRESSION + 1 :],
            "unsupported compression type 2 of the samples; must be 0",
        ),
    ],
)
def test_invalid_sample_file_is_refused(
    tmp_path: Path, change: Callable[[bytes], bytes], words: str
) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    waves = path.with_suffix(".wvs")
    waves.write_bytes(change(waves.read_bytes()))
    assert f"{waves}" in message_of(path)
    assert words in message_of(path)


def test_missing_files_are_errors(tmp_path: Path) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    path.with_suffix(".wvs").unlink()
    with pytest.raises(FileNotFoundError, match=r"a\.wvs does not exist; it must hold"):
        read(path)
    with pytest.raises(FileNotFoundError):
        read(tmp_path / "b.pls")


@pytest.mark.parametrize("size", [0, 14, 15, 351])
def test_truncated_header_is_refused(tmp_path: Path, size: int) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    path.write_bytes(path.read_bytes()[:size])
    words = "is not a PulseWaves pulse file" if size < 15 else f"truncated in the header: {size}"
    assert words in message_of(path)


@pytest.mark.parametrize("offset", [-(2**63), -1, 0, 59, 69, 73, 10**12, 2**63 - 1])
def test_samples_outside_the_file_are_counted(tmp_path: Path, offset: int) -> None:
    scene = three_pulses()
    scene.pulses[1].offset = offset
    (block,), tally = read(scene.write(tmp_path / "a.pls"))  # its samples are bytes 60 to 72
    assert rows([block]) == [[1, 2, 3, 4], [9, 10, 11, 12]]
    assert dict(tally.rejected) == {OUTSIDE: 1}
    assert (tally.points, tally.points_without_waveform) == (3, 0)


@pytest.mark.parametrize("missing", [1, 2, 5, 6, 7, 8, 9, 10])
def test_pulse_with_truncated_samples_has_no_waveform(tmp_path: Path, missing: int) -> None:
    sampling = Sampling(duration_bits=16, segment_bits=8, count_bits=8)
    pulses = [
        Pulse([[(1, [1, 2])]], time=1),
        # Two segments: 1 + (2 + 1 + 2) + (2 + 1 + 1) bytes.
        Pulse([[(1, [3, 4]), (9, [5])]], time=2),
    ]
    path = Scene([Descriptor(1, [sampling])], pulses).write(tmp_path / "a.pls")
    waves = path.with_suffix(".wvs")
    waves.write_bytes(waves.read_bytes()[:-missing])
    (block,), tally = read(path)
    assert rows([block]) == [[1, 2]]
    assert dict(tally.rejected) == {OUTSIDE: 1}


def test_file_without_readable_waveform_is_an_error(tmp_path: Path) -> None:
    scene = three_pulses()
    for pulse in scene.pulses:
        pulse.offset = 1000
    words = f"no readable waveform (3 x {OUTSIDE})"
    assert words in message_of(scene.write(tmp_path / "a.pls"))


def test_pulse_without_direction(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.pulses[2].anchor = scene.pulses[2].target
    (block,), tally = read(scene.write(tmp_path / "a.pls"))
    assert rows([block]) == [[1, 2, 3, 4], [5, 6, 7, 8]]
    assert dict(tally.rejected) == {NO_DIRECTION: 1}


def test_overlong_waveform_is_counted(tmp_path: Path) -> None:
    pulses = [Pulse([[(0, [7] * 8193)]], time=1), Pulse([[(0, [8] * 8192)]], time=2)]
    scene = Scene([Descriptor(1, [Sampling(count_bits=32)])], pulses)
    (block,), tally = read(scene.write(tmp_path / "a.pls"))
    assert rows([block]) == [[8] * 8192]
    assert dict(tally.rejected) == {too_long(8192): 1}


@pytest.mark.parametrize("waveforms_per_block", [1, 2, 100])
def test_pulse_that_runs_into_the_next_is_unreadable(
    tmp_path: Path, waveforms_per_block: int
) -> None:
    """One damaged byte of a count: the pulse's samples go on in those of the following pulses."""
    pulses = [Pulse([[(0, [number] * 4)]], time=number) for number in range(1, 8)]
    scene = Scene([Descriptor(1, [Sampling(count_bits=16)])], pulses)
    path = scene.write(tmp_path / "a.pls")
    waves = bytearray(path.with_suffix(".wvs").read_bytes())
    waves[waves.index(bytes([4, 0, 2, 2, 2, 2]))] = 12
    path.with_suffix(".wvs").write_bytes(bytes(waves))
    blocks, tally = read(path, waveforms_per_block=waveforms_per_block)
    assert rows(blocks) == [[number] * 4 for number in (1, 3, 4, 5, 6, 7)]
    assert dict(tally.rejected) == {OVERLAPPING: 1}


@pytest.mark.parametrize("waveforms_per_block", [0, -1])
def test_invalid_block_size_is_refused(tmp_path: Path, waveforms_per_block: int) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    with pytest.raises(ValueError, match="must be at least 1"):
        PulseWavesReader(path, waveforms_per_block=waveforms_per_block)


def test_overflowing_scales_are_refused(tmp_path: Path) -> None:
    scales = (1e300, 1e300, 1e308)
    assert "must be finite" in message_of(three_pulses(scales=scales).write(tmp_path / "a.pls"))
    (block,), _ = read(
        three_pulses(time_scale=1e305).write(tmp_path / "b.pls")
    )  # no warning either
    assert len(np.unique(block.shot_times)) == 3
