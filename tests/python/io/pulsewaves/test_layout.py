"""Storage of PulseWaves samples: sizes of numbers, offsets, skipped data."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io.pulsewaves.reader import PulseWavesReader

from ...support.compressed_scenes import write_compressed
from ...support.las_scenes import rows
from ...support.pulsewaves_scenes import (
    ATTRIBUTES,
    TWO_CHANNELS,
    Descriptor,
    Pulse,
    Sampling,
    Scene,
    read,
    three_pulses,
)


@pytest.mark.parametrize(
    ("bits", "stored", "units"),
    [(8, -128, -57.0), (8, 127, 70.5), (16, -20000, -9993.0), (32, 2_000_000, 1_000_007.0)],
)
def test_duration_with_scale_and_offset(
    tmp_path: Path, bits: int, stored: int, units: float
) -> None:
    sampling = Sampling(duration_bits=bits, scale=0.5, offset=7.0)
    pulse = Pulse([[(stored, [1, 2, 3, 4])]], target=(0, 0, -15000))
    scene = Scene([Descriptor(1, [sampling])], [pulse])
    (block,), _ = read(scene.write(tmp_path / "duration.pls"))
    assert block.sbl_times[0] == pytest.approx(units * 1e-9, rel=1e-12)
    assert block.geometry.anchor[0, 2] == pytest.approx(units * -0.15, rel=1e-12)


def test_duration_without_bits_is_the_offset(tmp_path: Path) -> None:
    scene = three_pulses()
    scene.descriptors[0].samplings[0].offset = 40.0
    (block,), _ = read(scene.write(tmp_path / "fixed.pls"))
    assert block.sbl_times == pytest.approx([4e-8] * 3, rel=1e-12)


@pytest.mark.parametrize("count_bits", [8, 16, 32])
@pytest.mark.parametrize("segment_bits", [8, 16])
@pytest.mark.parametrize("duration_bits", [0, 8, 16, 32])
def test_numbers_of_every_size(
    tmp_path: Path, duration_bits: int, segment_bits: int, count_bits: int
) -> None:
    sampling = Sampling(
        duration_bits=duration_bits, segment_bits=segment_bits, count_bits=count_bits
    )
    pulses = [
        Pulse([[(1, [1, 2]), (2, [3])]], time=1),
        Pulse([[]], time=2),
        Pulse([[(3, []), (4, [4, 5, 6])]], time=3),  # one segment is empty
    ]
    path = Scene([Descriptor(1, [sampling])], pulses).write(tmp_path / "sizes.pls")
    (block,), tally = read(path)
    assert rows([block]) == [[1, 2], [3], [4, 5, 6]]
    durations = [1e-9, 2e-9, 4e-9] if duration_bits else [0, 0, 0]
    assert block.sbl_times == pytest.approx(durations, rel=1e-12)
    assert tally.points_without_waveform == 1


def test_fixed_number_of_segments(tmp_path: Path) -> None:
    sampling = Sampling(segments=3, samples=2, duration_bits=8)
    pulse = Pulse([[(1, [1, 2]), (5, [3, 4]), (9, [5, 6])]])
    (block,), _ = read(Scene([Descriptor(1, [sampling])], [pulse]).write(tmp_path / "a.pls"))
    assert rows([block]) == [[1, 2], [3, 4], [5, 6]]
    assert block.sbl_times == pytest.approx([1e-9, 5e-9, 9e-9], rel=1e-12)


@pytest.mark.parametrize("count_bits", [0, 8])
def test_two_segments_where_three_are_declared(tmp_path: Path, count_bits: int) -> None:
    """Some writers store two; the third would begin in the next pulse, or after the file."""
    three = Sampling(segments=3, samples=2, duration_bits=8, count_bits=count_bits)
    sent = Sampling(kind=1, samples=2)
    first, second = [(1, [1, 2]), (5, [3, 4]), (9, [5, 6])], [(2, [7, 8]), (6, [9, 10])]
    pulses = [
        Pulse([[(0, [50, 51])], segments], time=time)
        for time, segments in enumerate((first, second, first, second))
    ]
    path = Scene([Descriptor(1, [sent, three])], pulses).write(tmp_path / "two.pls")
    for limit in (20_000, 3):
        blocks, tally = read(path, waveforms_per_block=limit)
        found = [[1, 2], [3, 4], [5, 6], [7, 8], [9, 10]] * 2
        assert rows(blocks) == found
        assert (tally.points, tally.points_short, tally.rejected.total()) == (4, 2, 0)
    starts = np.concatenate([block.sbl_times for block in blocks])
    assert starts == pytest.approx(np.array([1, 5, 9, 2, 6] * 2) * 1e-9, rel=1e-12)
    with PulseWavesReader(path) as reader:
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.outgoing is not None
    assert (block.outgoing.samples == [50, 51]).all()


@pytest.mark.parametrize("compressed", [False, True])
def test_two_segments_of_pulses_that_are_stored_in_another_order(
    tmp_path: Path, compressed: bool
) -> None:
    """The next samples in the file decide, not those of the next pulse; the last are at its end."""
    three = Sampling(segments=3, samples=2)
    wide, narrow = [(0, [1, 2]), (0, [3, 4]), (0, [5, 6])], [(0, [7, 8]), (0, [9, 10])]
    stored = [
        Pulse([segments], time=9 - number)
        for number, segments in enumerate((narrow, wide, wide, narrow, narrow))
    ]
    scene = Scene([Descriptor(1, [three])], stored)
    write = write_compressed if compressed else Scene.write
    path = write(scene, tmp_path / ("a.plz" if compressed else "a.pls"))
    with PulseWavesReader(path) as reader:
        offsets = reader._pulses[0:5]["offset"].tolist()
    reverse = [replace(one, offset=place) for one, place in zip(stored, offsets, strict=True)]
    samples = path.with_suffix(".wvz" if compressed else ".wvs").read_bytes()
    write(replace(scene, pulses=reverse[::-1]), path)
    path.with_suffix(".wvz" if compressed else ".wvs").write_bytes(samples)
    blocks, tally = read(path, waveforms_per_block=3)
    assert rows(blocks) == [
        *([7, 8], [9, 10]),
        *([7, 8], [9, 10]),
        *([1, 2], [3, 4], [5, 6]),
        *([1, 2], [3, 4], [5, 6]),
        *([7, 8], [9, 10]),
    ]
    assert (tally.points_short, tally.rejected.total()) == (3, 0)


def test_a_pulse_with_too_few_bytes_for_two_segments_is_unreadable(tmp_path: Path) -> None:
    three = Sampling(segments=3, samples=2)
    pulses = [Pulse([[(0, [1, 2])]], time=1), Pulse([[(0, [3, 4]), (0, [5, 6])]], time=2)]
    blocks, tally = read(Scene([Descriptor(1, [three])], pulses).write(tmp_path / "one.pls"))
    assert rows(blocks) == [[3, 4], [5, 6]]
    assert (tally.points_short, tally.rejected.total()) == (1, 1)


def test_sixteen_and_eight_bits_at_odd_offsets(tmp_path: Path) -> None:
    descriptors = [
        Descriptor(1, [Sampling(bits=16, samples=3)], extra=b"\xff"),
        Descriptor(2, [Sampling(bits=8, samples=5)], extra=b"\xff\xfe"),
    ]
    pulses = [
        Pulse([[(0, [1, 65535, 258])]], time=1),
        Pulse([[(0, [1, 2, 3, 4, 255])]], time=2, descriptor=2),
        Pulse([[(0, [256, 512, 4095])]], time=3),
    ]
    (block,), _ = read(Scene(descriptors, pulses).write(tmp_path / "deep.pls"))
    assert rows([block]) == [[1, 65535, 258], [1, 2, 3, 4, 255], [256, 512, 4095]]


def test_additional_attributes_of_pulses(tmp_path: Path) -> None:
    scene = three_pulses(pulse_extra=b"\xff" * 5, patches={ATTRIBUTES: ("<I", 1)})
    (block,), tally = read(scene.write(tmp_path / "more.pls"))
    assert rows([block]) == [[1, 2, 3, 4], [5, 6, 7, 8], [9, 10, 11, 12]]
    assert block.shot_times.tolist() == [1.0, 2.0, 3.0]
    assert tally.notes == ["The pulses have additional attributes; they were ignored."]


def test_samplings_of_unknown_type_and_lookup_tables(tmp_path: Path) -> None:
    descriptor = Descriptor(1, [Sampling(kind=5, samples=3), Sampling(table=1)])
    scene = Scene([descriptor], [Pulse([[(0, [90, 91, 92])], [(0, [1, 2, 3, 4])]])])
    (block,), tally = read(scene.write(tmp_path / "odd.pls"))
    assert rows([block]) == [[1, 2, 3, 4]]
    assert tally.notes == [
        "Lookup tables of the samples were ignored; values are counts.",
        "Samplings of type 5, neither outgoing nor returning, were skipped.",
    ]


def test_random_scene(tmp_path: Path) -> None:
    random = np.random.default_rng(5)
    kinds = [TWO_CHANNELS, Descriptor(9, [Sampling(bits=16, count_bits=16, segment_bits=8)], b"x")]
    pulses, expected = [], []
    for number in range(400):
        descriptor = kinds[random.integers(2)]
        waves = []
        for sampling in descriptor.samplings:
            segments = random.integers(0, 5) if sampling.segment_bits else 1
            top = 2**sampling.bits
            waves.append(
                [
                    (int(random.integers(0, 99)), random.integers(0, top, size).tolist())
                    for size in random.integers(1, 90, segments)
                ]
            )
            if sampling.kind == 2:
                expected += [samples for _, samples in waves[-1]]
        pulses.append(Pulse(waves, time=number, descriptor=descriptor.index))
    path = Scene(kinds, pulses).write(tmp_path / "random.pls")
    for limit in (1, 7, 100, 20_000):
        blocks, tally = read(path, waveforms_per_block=limit)
        assert rows(blocks) == expected
        assert tally.waveforms == len(expected)
