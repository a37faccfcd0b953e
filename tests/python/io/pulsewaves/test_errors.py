"""PulseWaves files that do not hold what they promise: what is counted and what is refused."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.las.reader import OUTSIDE
from fullwaveform.io.pulsewaves.reader import PulseWavesReader
from fullwaveform.io.pulsewaves.selection import NO_DIRECTION, TOO_LONG

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
        (0, "<B", 0, "is not a file of pulses: it does not start with PulseWavesPulse"),
        (MAJOR, "<B", 1, "version 1.3; versions 0.x can be read"),
        (HEADER_SIZE, "<H", 351, "says it has 351 bytes; 352 are the least"),
        (COMPRESSION, "<I", 1, "the pulses are compressed, type 1; only type 0"),
        (PULSE_FORMAT, "<I", 2, "pulse format 2; format 0 can be read"),
        (PULSE_SIZE, "<I", 47, "a pulse has 47 bytes; 48 are the least"),
        (PULSES_START, "<q", 10**15, "should start at byte 1000000000000000; that is not between"),
        (PULSES_START, "<q", 351, "should start at byte 351; that is not between"),
        (PULSE_COUNT, "<q", -1, "announces -1 pulses; fewer than 0 cannot be"),
        (PULSE_COUNT, "<q", 4, "cut off: the header announces 4 pulses, 3 are there"),
        (PULSE_COUNT, "<q", 2**62, "cut off: the header announces 4611686018427387904 pulses, 3"),
        (SCALES, "<d", 0.0, "must be finite, scales not 0"),
        (SCALES, "<d", NAN, "must be finite, scales not 0"),
        (OFFSETS, "<d", INFINITY, "must be finite, scales not 0"),
        (TIME_SCALE, "<d", NAN, "of the times must be finite"),
        (RECORDS, "<I", 1000, "1000 variable records do not fit between the header"),
        (RECORDS, "<I", 2, "variable record 2 of 2 starts at byte 644 and is cut short"),
        (LENGTH_OF_FIRST_RECORD, "<q", 197, "has a length of 197 bytes; it must end before"),
        (LENGTH_OF_FIRST_RECORD, "<q", -1, "has a length of -1 bytes; it must end before"),
        (APPENDED, "<i", 1, "appended record 1 from the end"),
        (LENGTH_OF_FIRST_RECORD, "<q", 91, "descriptor 1 is cut short: 91 bytes are left, 92"),
        (LENGTH_OF_FIRST_RECORD, "<q", 195, "sampling 1 of 1 is cut short: 103 bytes are left"),
        (FIRST_COMPOSITION, "<I", 91, "says it has 91 bytes; 92 to 196 are possible"),
        (FIRST_COMPOSITION + 14, "<H", 2, "sampling 2 of 2 is cut short: 0 bytes are left"),
        (FIRST_SAMPLING, "<I", 105, "says it has 105 bytes; 104 to 104 are possible"),
    ],
)
def test_header_and_records(
    tmp_path: Path, position: int, layout: str, value: float, words: str
) -> None:
    path = three_pulses().write(tmp_path / "broken.pls")
    patch(path, position, layout, value)
    assert words in message_of(path)


@pytest.mark.parametrize(
    ("change", "words"),
    [
        ({"compression": 1}, "sampling 1 of pulse descriptor 1 has compression type 1"),
        ({"bits": 12}, "has bits per sample: 12; 8, 16 can be read"),
        ({"duration_bits": 24}, "has bits for the duration: 24; 0, 8, 16, 32 can be read"),
        ({"segment_bits": 32}, "has bits for the number of segments: 32; 0, 8, 16 can be read"),
        ({"count_bits": 4}, "has bits for the number of samples: 4; 0, 8, 16, 32 can be read"),
        ({"samples": 0}, "has 0 samples; 1 to 65535 can be read"),
        ({"samples": 65536}, "has 65536 samples; 1 to 65535 can be read"),
        ({"unit": 0.0}, "has a sampling unit of 0.0 ns; it must be positive"),
        ({"unit": NAN}, "has a sampling unit of nan ns; it must be positive"),
        ({"unit": 2.0}, "has a sampling unit of 2.0 ns, its pulses one of 1.0 ns"),
        ({"scale": NAN}, "scale nan and offset 0.0 of the duration; they must be finite"),
    ],
)
def test_samplings_that_cannot_be_read(
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
        ({"compression": 3}, "pulse descriptor 1 has compression type 3; only type 0"),
        ({"unit": -1.0}, "pulse descriptor 1 has a sampling unit of -1.0 ns"),
        ({"unit": INFINITY}, "pulse descriptor 1 has a sampling unit of inf ns"),
    ],
)
def test_descriptors_that_cannot_be_read(
    tmp_path: Path, change: dict[str, float], words: str
) -> None:
    scene = three_pulses()
    scene.descriptors = [Descriptor(1, [Sampling()], **change)]  # type: ignore[arg-type]
    assert words in message_of(scene.write(tmp_path / "a.pls"))


def test_unused_descriptors_may_be_anything(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.descriptors = [*scene.descriptors, Descriptor(2, [Sampling(bits=12)], compression=9)]
    with PulseWavesReader(scene.write(tmp_path / "a.pls")) as reader:
        assert sorted(reader.descriptors) == [1, 2]
        assert len(next(reader.blocks())) == 3


def test_missing_descriptor(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.pulses[1].descriptor = 4
    words = "pulses name pulse descriptor 4; the file has [1]"
    assert words in message_of(scene.write(tmp_path / "a.pls"))


def test_records_that_contradict_each_other(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.descriptors = [*scene.descriptors, Descriptor(1, [Sampling(samples=3)])]
    words = "two records contradict each other on pulse descriptor 1"
    assert words in message_of(scene.write(tmp_path / "a.pls"))


@pytest.mark.parametrize(
    ("change", "words"),
    [
        (lambda content: content[:30], "has 30 bytes; its header alone takes 60"),
        (lambda content: b"", "is not a file of samples: it does not start with PulseWavesWaves"),
        (lambda content: b"X" + content[1:], "is not a file of samples"),
        (
            lambda content: content[:WAVES_COMPRESSION] + b"\1" + content[WAVES_COMPRESSION + 1 :],
            "the samples are compressed, type 1; only type 0",
        ),
    ],
)
def test_file_of_samples(tmp_path: Path, change: Callable[[bytes], bytes], words: str) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    waves = path.with_suffix(".wvs")
    waves.write_bytes(change(waves.read_bytes()))
    assert f"{waves}" in message_of(path)
    assert words in message_of(path)


def test_missing_files(tmp_path: Path) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    path.with_suffix(".wvs").unlink()
    with pytest.raises(FileNotFoundError, match=r"a\.wvs does not exist; it should hold"):
        read(path)
    with pytest.raises(FileNotFoundError):
        read(tmp_path / "b.pls")


@pytest.mark.parametrize("size", [0, 14, 15, 351])
def test_file_cut_off_in_its_header(tmp_path: Path, size: int) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    path.write_bytes(path.read_bytes()[:size])
    words = "is not a file of pulses" if size < 15 else f"cut off in its header: it has {size}"
    assert words in message_of(path)


@pytest.mark.parametrize("offset", [-(2**63), -1, 0, 59, 69, 73, 10**12, 2**63 - 1])
def test_waves_outside_the_file(tmp_path: Path, offset: int) -> None:
    scene = three_pulses()
    scene.pulses[1].offset = offset
    (block,), tally = read(scene.write(tmp_path / "a.pls"))  # its samples are bytes 60 to 72
    assert rows([block]) == [[1, 2, 3, 4], [9, 10, 11, 12]]
    assert dict(tally.rejected) == {OUTSIDE: 1}
    assert (tally.points, tally.points_without_waveform) == (3, 0)


@pytest.mark.parametrize("missing", [1, 2, 5, 6, 7, 8, 9, 10])
def test_pulse_whose_waves_are_cut_short_brings_nothing(tmp_path: Path, missing: int) -> None:
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


def test_nothing_readable(tmp_path: Path) -> None:
    scene = three_pulses()
    for pulse in scene.pulses:
        pulse.offset = 1000
    words = f"no waveform is readable (3 times: {OUTSIDE})"
    assert words in message_of(scene.write(tmp_path / "a.pls"))


def test_pulse_without_direction(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.pulses[2].anchor = scene.pulses[2].target
    (block,), tally = read(scene.write(tmp_path / "a.pls"))
    assert rows([block]) == [[1, 2, 3, 4], [5, 6, 7, 8]]
    assert dict(tally.rejected) == {NO_DIRECTION: 1}


def test_waveform_that_is_too_long(tmp_path: Path) -> None:
    pulses = [Pulse([[(0, [7] * 65536)]], time=1), Pulse([[(0, [8] * 65535)]], time=2)]
    scene = Scene([Descriptor(1, [Sampling(count_bits=32)])], pulses)
    (block,), tally = read(scene.write(tmp_path / "a.pls"))
    assert rows([block]) == [[8] * 65535]
    assert dict(tally.rejected) == {TOO_LONG: 1}


@pytest.mark.parametrize("waveforms_per_block", [0, -1])
def test_senseless_block_size(tmp_path: Path, waveforms_per_block: int) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    with pytest.raises(ValueError, match="it must be at least 1"):
        PulseWavesReader(path, waveforms_per_block=waveforms_per_block)


def test_scales_beyond_all_numbers(tmp_path: Path) -> None:
    scales = (1e300, 1e300, 1e308)
    assert "must be finite" in message_of(three_pulses(scales=scales).write(tmp_path / "a.pls"))
    (block,), _ = read(
        three_pulses(time_scale=1e305).write(tmp_path / "b.pls")
    )  # no warning either
    assert len(np.unique(block.shot_times)) == 3
