"""The decoders of compressed PulseWaves files, against an encoder written independently."""

from __future__ import annotations

import struct
from itertools import product

import numpy as np
import pytest

from fullwaveform.core.pulsewaves_decoding import (
    PulseState,
    decode_chunk_table,
    decode_pulse_chunk,
    decode_waveforms,
)
from fullwaveform.data.arrays import IntArray, UInt8Array

from ..support.compressed_scenes import EXTRA, PULSE_ITEM, SOURCE16, SOURCE32, chunk, samples_stream
from ..support.pulsewaves_scenes import Descriptor, Sampling
from ..support.range_encoder import Bit, Encoder, Number, chunk_table

PULSE = [(PULSE_ITEM, 48)]


def as_array(content: bytes) -> UInt8Array:
    return np.frombuffer(content, dtype=np.uint8)


def items(pairs: list[tuple[int, int]]) -> IntArray:
    return np.array(pairs, dtype=np.int64)


def record(time: int = 0, offset: int = 60, **fields: int) -> bytes:
    values = {"x": 0, "y": 0, "z": 0, "tx": 0, "ty": 0, "tz": 0, "first": 0, "last": 0}
    values |= {"descriptor": 1, "flags": 0, "intensity": 0, "kind": 0} | fields
    return struct.pack("<qq3i3ihhBBBB", time, offset, *values.values())


def of_times(*times: int) -> list[bytes]:
    return [record(time) for time in times]


def random_records(count: int, seed: int) -> list[bytes]:
    """Every field changes in some pulses and not in others; sometimes by a lot."""
    chance = np.random.default_rng(seed)
    state = {"x": 0, "y": 0, "z": 0, "tx": 0, "ty": 0, "tz": 0, "first": 5, "last": 85}
    state |= {"descriptor": 1, "flags": 0, "intensity": 9, "kind": 0}
    time, offset, records = 10**12, 60, []
    for _ in range(count):
        time += int(chance.choice([5, 5, 5, 10, 17, 700, -20, -3, 0, 10**6, 10**10]))
        offset += int(chance.choice([100, 100, 130, 2**33, -40]))
        for axis, name in product(("", "t"), "xyz"):
            state[axis + name] += int(chance.choice([1, 2, 3, 1000, -(10**5)]))
        shift = int(chance.choice([0, 0, 1, -300, 299]))
        state["first"] += shift
        state["last"] += shift + int(chance.choice([0, 0, 0, 9]))
        for name, values in (("descriptor", 200), ("flags", 3), ("intensity", 256), ("kind", 9)):
            if chance.random() < 0.2:
                state[name] = int(chance.integers(values))
        records.append(record(time, offset, **state))
    return records


@pytest.mark.parametrize(
    "records",
    [
        [record()],
        [record()] * 5000,
        of_times(0, 0, 0, 7, 14, 21, 21, 28),
        of_times(0, 2**40, 2**40 + 3, 2**40 + 6, -(2**62), -(2**62) + 3),
        of_times(*np.cumsum([10, 10, 11, 20, 95, 100, 500, 2420, 2429]).tolist()),
        of_times(*np.cumsum([10, 10, -10, -50, -90, -100, -500, 0, 3, 5000]).tolist()),
        # Four times in a row far from the usual difference, which is replaced then.
        of_times(*np.cumsum([10, 10, 9000, 9001, 9002, 9003, 9000, 9000, 9000]).tolist()),
        of_times(0, 2**31 - 1, 3 * (2**31 - 1), 3 * (2**31 - 1) + 5, 2**33),
        [record(offset=60 + i * 2**33) for i in range(5)],
        [record(x=x, tx=x // 2) for x in (0, 2**31 - 1, -(2**31), 5, -(2**30))],
        [record(first=first, last=last) for first, last in product((-5, 3, 32000), repeat=2)],
        [record(descriptor=i % 256) for i in range(600)],
        [record(flags=i % 7, kind=i % 3, intensity=i * 50 % 256) for i in range(600)],
        random_records(700, seed=1),
        random_records(700, seed=2),
    ],
    ids=lambda records: f"{len(records)} pulses",
)
def test_pulses_of_a_chunk_are_those_that_were_encoded(records: list[bytes]) -> None:
    content = chunk(records, PULSE)
    found = decode_pulse_chunk(as_array(content + b"next"), items(PULSE), len(records))
    assert found.records.tobytes() == b"".join(records)
    assert (found.consumed, found.truncated, found.damaged) == (len(content), False, False)


@pytest.mark.parametrize(("kind", "size"), [(SOURCE16, 2), (SOURCE32, 4)])
def test_source_numbers_follow_the_pulse(kind: int, size: int) -> None:
    numbers = [7, 7, 9, 300, 7, 9, 65535, 300, 9, *range(1000, 1060), 1050, 1010, 2**15, 0]
    pairs = [*PULSE, (kind, size)]
    records = [record(time=i) + n.to_bytes(size, "little") for i, n in enumerate(numbers)]
    content = chunk(records, pairs)
    found = decode_pulse_chunk(as_array(content), items(pairs), len(records))
    assert found.records.tobytes() == b"".join(records)
    assert found.consumed == len(content)


def test_extra_bytes_and_source_numbers_in_one_record() -> None:
    pairs = [*PULSE, (EXTRA, 3), (SOURCE16, 2), (EXTRA, 1)]
    tails = [bytes([i % 256, 255 - i % 256, 7, i % 5, 0, i * i % 256]) for i in range(400)]
    records = [one + tail for one, tail in zip(random_records(400, 3), tails, strict=True)]
    content = chunk(records, pairs)
    found = decode_pulse_chunk(as_array(content), items(pairs), 400)
    assert found.records.tobytes() == b"".join(records)


def test_truncated_chunk_gives_the_pulses_before_the_end() -> None:
    records = random_records(50, seed=4)
    content = chunk(records, PULSE)
    counts = []
    for size in range(len(content)):
        found = decode_pulse_chunk(as_array(content[:size]), items(PULSE), 50)
        assert found.truncated
        assert found.records.tobytes() == b"".join(records[: len(found.records)])
        counts.append(len(found.records))
    assert counts[47:49] == [0, 1]
    assert counts == sorted(counts)
    assert counts[-1] in (48, 49)


@pytest.mark.parametrize(
    "pairs",
    [
        [],
        [(EXTRA, 3)],
        [(PULSE_ITEM, 47)],
        [*PULSE, (SOURCE16, 4)],
        [*PULSE, (EXTRA, 0)],
        [*PULSE, (1004, 1)],
    ],
)
def test_unknown_items_are_refused(pairs: list[tuple[int, int]]) -> None:
    with pytest.raises(ValueError, match="item"):
        decode_pulse_chunk(as_array(bytes(100)), items(pairs or PULSE[:0]).reshape(-1, 2), 1)


@pytest.mark.parametrize("pulses", [None, [10, 20, 20, 5, 70000, 1]])
def test_chunk_table_has_the_entries_that_were_encoded(pulses: list[int] | None) -> None:
    sizes = [2500, 2501, 2480, 3_000_000_000, 0, 17]
    coded = chunk_table(sizes, pulses)
    found = decode_chunk_table(as_array(coded + b"more"), 6, with_pulses=pulses is not None)
    assert found.bytes.tolist() == sizes
    assert (found.pulses if pulses is None else found.pulses.tolist()) == pulses  # type: ignore[union-attr]
    assert (found.consumed, found.intact) == (len(coded), True)
    assert not decode_chunk_table(as_array(coded[:-1]), 6, with_pulses=pulses is not None).intact


def test_chunk_table_without_chunks_has_no_stream() -> None:
    found = decode_chunk_table(as_array(b""), 0, with_pulses=False)
    assert (found.bytes.tolist(), found.consumed, found.intact) == ([], 0, True)


def rows_of(samplings: list[Sampling]) -> IntArray:
    fields = ("segment_bits", "duration_bits", "count_bits", "segments", "samples", "bits")
    rows = [[getattr(one, name) for name in fields] for one in samplings]
    return np.array(rows, dtype=np.int64).reshape(-1, 6)


def test_samples_of_pulses_are_those_that_were_encoded() -> None:
    chance = np.random.default_rng(5)
    samplings = [
        Sampling(kind=1, count_bits=8),
        Sampling(duration_bits=32, segment_bits=8, count_bits=16),
        Sampling(duration_bits=16, segments=2, samples=40, bits=16),
    ]
    descriptor = Descriptor(1, samplings, extra=b"abc")
    noise = chance.integers(0, 256, 500).tolist()
    wide = np.clip(np.cumsum(chance.integers(-900, 900, 40)) + 30000, 0, 65535).tolist()
    pulses = [
        [
            [(0, noise[:80])],
            [(10**9, [3] * 400), (-5, noise[80:90])],
            [(-7, wide), (8, wide[::-1])],
        ],
        [[(0, [])], [], [(0, [0] * 40), (0, [65535, 0] * 20)]],
    ]
    streams = [descriptor.extra + samples_stream(descriptor, pulse) for pulse in pulses]
    ends = np.cumsum([len(stream) for stream in streams])
    found = decode_waveforms(
        as_array(b"".join(streams)), np.append(0, ends[:1]), ends, 3, rows_of(samplings)
    )
    assert found.states.tolist() == [PulseState.COMPLETE] * 2
    expected = [
        (pulse, sampling, duration, list(samples))
        for pulse, waves in enumerate(pulses)
        for sampling, segments in enumerate(waves)
        for duration, samples in segments
    ]
    decoded = [
        (int(pulse), int(sampling), int(duration), found.samples[start : start + count].tolist())
        for pulse, sampling, duration, start, count in zip(
            found.pulse, found.sampling, found.duration, found.start, found.count, strict=True
        )
    ]
    assert decoded == expected
    assert found.sample_starts.tolist() == [0, 570]


def test_states_of_samples_that_cannot_be_decoded() -> None:
    sampling = Sampling(count_bits=8)
    stream = samples_stream(Descriptor(1, [sampling]), [[(0, list(range(0, 200, 3)))]])
    out, numbers = Encoder(), Number(32)
    numbers.encode(out, 256, 0)  # does not fit in 8 bits
    damaged = out.stream()
    data = as_array(stream + damaged)
    cut, end = len(stream) - 1, len(data)
    found = decode_waveforms(
        data,
        np.array([0, 0, len(stream), -1, end, end + 1, 5]),
        np.array([len(stream), cut, end, end, end, end, 4]),
        0,
        rows_of([sampling]),
    )
    complete, truncated = PulseState.COMPLETE, PulseState.TRUNCATED
    assert found.states.tolist() == [complete, truncated, PulseState.DAMAGED, *[truncated] * 4]
    assert found.pulse.tolist() == [0]


@pytest.mark.parametrize(
    ("samplings", "state"),
    [
        ([Sampling(samples=65535)] * 64, PulseState.COMPLETE),
        ([Sampling(samples=65535)] * 65, PulseState.TOO_LONG),
        ([Sampling(samples=65536)], PulseState.TOO_LONG),
        ([Sampling(segments=65535, samples=65535)] * 2, PulseState.TOO_LONG),
        ([Sampling(segments=65535, samples=0)] * 4, PulseState.COMPLETE),
        ([Sampling(segments=65535, samples=0)] * 5, PulseState.TOO_LONG),
        ([Sampling(samples=2**32 - 1)], PulseState.TOO_LONG),
    ],
)
def test_samples_and_segments_of_a_pulse_are_limited(
    samplings: list[Sampling], state: PulseState
) -> None:
    """In a stream of zeros every symbol is the first one: a sample like the one before."""
    zeros = as_array(bytes(100_000))
    found = decode_waveforms(zeros, np.array([0]), np.array([len(zeros)]), 0, rows_of(samplings))
    assert found.states.tolist() == [state]
    assert len(found.samples) <= 1 << 22


def test_few_pulses_are_decoded_at_once_if_they_are_long() -> None:
    zeros, pulses = as_array(bytes(100_000)), 20
    rows = rows_of([Sampling(samples=65535)] * 64)
    ends = np.full(pulses, len(zeros))
    found = decode_waveforms(zeros, np.arange(pulses), ends, 0, rows)
    assert len(found.states) == 5
    assert (found.states == PulseState.COMPLETE).all()


def test_bit_model_of_the_encoder_starts_with_equal_probabilities() -> None:
    out = Encoder()
    Bit().encode(out, 1)
    # The upper half of the interval, in multiples of the length / 2^13.
    assert (out.base, out.length) == (4096 * (0xFFFFFFFF >> 13), 0xFFFFFFFF - 4096 * 524287)


def lidar_samples(count: int, chance: np.random.Generator) -> list[int]:
    """Echoes on slowly changing noise, so that small and large differences follow one another."""
    places, width = np.arange(count), chance.uniform(1, 9)
    echo = chance.integers(0, 400) * np.exp(-(((places - chance.uniform(0, 80)) / width) ** 2))
    return np.clip(echo + chance.integers(0, 4, count), 0, 255).astype(int).tolist()


VARIABLE = Sampling(segment_bits=8, count_bits=16, duration_bits=16)


@pytest.mark.parametrize(
    ("samplings", "lengths"),
    [
        ([Sampling(kind=1, count_bits=8), Sampling(duration_bits=32, count_bits=8)], [80]),
        ([Sampling(kind=1, count_bits=8), VARIABLE], [0, 1, 7, 8, 9, 60, 80, 200]),
        ([Sampling(count_bits=16, duration_bits=16)], [3000, 4096, 4097, 4500]),
        ([VARIABLE, Sampling(samples=40, bits=16)], [40]),
    ],
    ids=["equal lengths", "different lengths", "long segments", "16 bits"],
)
def test_samples_of_many_pulses_are_those_that_were_encoded(
    samplings: list[Sampling], lengths: list[int]
) -> None:
    chance = np.random.default_rng(6)
    descriptor = Descriptor(1, samplings, extra=b"e")

    def segments(sampling: Sampling) -> list[tuple[int, list[int]]]:
        count = int(chance.integers(5)) if sampling.segment_bits else 1
        sizes = chance.choice(lengths, count) if sampling.count_bits else [sampling.samples]
        durations = chance.integers(-300, 300, count) * (sampling.duration_bits > 0)
        return [
            (
                int(duration),
                lidar_samples(min(int(size), 255 if sampling.count_bits == 8 else 5000), chance),
            )
            for duration, size in zip(durations, sizes, strict=True)
        ]

    pulses = [[segments(one) for one in samplings] for _ in range(15 if max(lengths) > 999 else 60)]
    streams = [descriptor.extra + samples_stream(descriptor, pulse) for pulse in pulses]
    streams[20:21] = [streams[20][:-3]] if len(streams) > 20 else []  # truncated
    ends = np.cumsum([len(stream) for stream in streams])
    data = as_array(b"".join(streams) + bytes(20_000))
    found = decode_waveforms(data, np.append(0, ends[:-1]), ends, 1, rows_of(samplings))
    states = [PulseState.COMPLETE] * len(pulses)
    if len(pulses) > 20:
        states[20] = PulseState.TRUNCATED
        pulses[20] = []
    assert found.states.tolist() == states
    expected = [wave for pulse in pulses for waves in pulse for _, wave in waves]
    assert np.array_equal(found.samples, np.concatenate(expected))
    assert found.count.tolist() == [len(wave) for wave in expected]
    lengths_of_pulses = [sum(len(w) for waves in pulse for _, w in waves) for pulse in pulses]
    assert found.sample_starts.tolist() == [0, *np.cumsum(lengths_of_pulses)[:-1].tolist()]
