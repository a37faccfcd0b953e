"""Writes the seeds of the fuzz targets: a few simulated waveforms in the layout of each target.

Usage: make_seeds.py FOLDER    (one folder per target in it; existing seeds are kept)

The layouts are those of tests/fuzz/*.cpp: numbers little-endian, a double after a tag byte.
"""

from __future__ import annotations

import struct
import sys
from collections.abc import Iterator, Sequence
from pathlib import Path

import numpy as np
import numpy.typing as npt

from fullwaveform.simulation import ScanSettings, SimulatedScan, simulate_scan

Samples = npt.NDArray[np.uint16]

SAMPLING_INTERVAL = 1e-9  # s
LIGHT_SPEED_IN_AIR = 299_708_256.0  # m/s


def number(value: float) -> bytes:
    """A double that is not a special value."""
    return b"\xff" + struct.pack("<d", value)


def byte(value: int) -> bytes:
    """One byte."""
    return struct.pack("<B", value)


def narrow(value: float) -> bytes:
    """A single-precision number."""
    return b"\x01" + struct.pack("<f", value)


def scanner(after_pulse_offset: int = 0, after_pulse_width: int = 2**31) -> bytes:
    """An ordinary scanner with the system wave of the tests."""
    values = [0.0, SAMPLING_INTERVAL, 0.0, LIGHT_SPEED_IN_AIR, 1000.0, 1.0]
    numbers = b"".join(number(value) for value in values)
    return byte(0) + struct.pack("<II", after_pulse_offset, after_pulse_width) + numbers


def waveform(samples: Samples, noise: int, channel: int) -> bytes:
    """Noise, channel flag and samples."""
    return struct.pack("<hB", noise, channel) + samples.astype("<u2").tobytes()


def block(rows: Samples, shot_times: Sequence[int], flags: Sequence[int], noise: int) -> bytes:
    """A block with one value per row in every array."""
    count, columns = rows.shape
    same_length = byte(2)  # as many values as rows
    return (
        struct.pack("<hBBB", noise, count, columns, 0)
        + (same_length + bytes([columns] * count))
        + (same_length + bytes(shot_times))
        + (same_length + bytes(shot_times))
        + (same_length + bytes(flags))
        + rows.astype("<u2").tobytes()
    )


def waveforms(scan: SimulatedScan) -> Iterator[tuple[Samples, int, int]]:
    """Some waveforms with their noise (-1: estimate) and channel flag."""
    for shot in range(0, len(scan.samples), 3):
        for channel in (0, 1):
            yield scan.samples[shot, channel], 20 if shot % 2 == 0 else -1, 1 - channel


def around_maximum(samples: Samples, length: int) -> Samples:
    """Samples around the maximum of a waveform."""
    first = int(np.clip(int(samples.argmax()) - length // 2, 0, len(samples) - length))
    return samples[first : first + length]


def wave_seeds(scan: SimulatedScan) -> Iterator[tuple[str, bytes]]:
    """For the targets that read one waveform."""
    for samples, noise, channel in waveforms(scan):
        yield "wave_points", scanner(60, 40) + byte(2) + waveform(samples, noise, channel)
        yield "three_point", scanner() + waveform(samples, noise, channel)
        short = waveform(around_maximum(samples, 40), noise, channel)
        yield "decomposition", scanner() + short
        gaussian = byte(1) + byte(19) + byte(0)  # a pulse of 1.7 samples, all other values ordinary
        yield (
            "pulse_fit",
            gaussian
            + byte(0)
            + byte(channel * 255)
            + around_maximum(samples, 80).astype("<u2").tobytes(),
        )
        yield "deconvolution", scanner() + byte(75) + byte(channel) + short


def block_seeds(scan: SimulatedScan) -> Iterator[tuple[str, bytes]]:
    """For the driver: two shots of two channels, in every mode."""
    shots = range(0, len(scan.samples) - 1, 4)
    for modus, first in ((modus, first) for modus in range(4) for first in shots):
        rows = np.stack(
            [around_maximum(row, 40) for row in scan.samples[first : first + 2].reshape(4, -1)]
        )
        values = block(rows, [0, 0, 1, 1], [1, 0, 1, 0], 20 if first % 8 == 0 else -1)
        yield "driver", byte(modus) + byte(75) + scanner() + values


def attribute(name: int, owner: int, values: Sequence[float] | str) -> bytes:
    """A scanner attribute: index of its name, owner (0: scanner, 1: waveforms, 2: SBL), values."""
    head = byte(name) + byte(owner)
    if isinstance(values, str):
        return head + byte(2) + byte(1) + byte(3) + byte(len(values)) + values.encode()
    return head + byte(0) + byte(len(values)) + b"".join(number(value) for value in values)


def scanner_seeds() -> Iterator[tuple[str, bytes]]:
    """Complete descriptions, and a truncated one."""
    texts = [attribute(1, 0, "S2227823"), attribute(2, 0, "B17"), attribute(3, 0, "VQ-840-GL")]
    single = [LIGHT_SPEED_IN_AIR, 1000.0, 0.25, 0.01]
    numbers = [
        attribute(name, 0, [value]) for name, value in zip((0, 5, 6, 8), single, strict=True)
    ]
    narrow_numbers = [
        byte(4) + byte(0) + byte(1) + byte(1) + struct.pack("<f", 532.0),
        byte(7) + byte(0) + byte(1) + byte(2) + struct.pack("<ff", 0.1, 0.2),
    ]
    sums = [[1.0, -0.5, -0.5], [0.0, 0.0, 0.0], [-2.5e8] * 3, [0.0, 5e8, -5e8]]
    fields = [
        attribute(9, 1, [SAMPLING_INTERVAL]),
        attribute(10, 2, [0.0]),
        *(attribute(11 + index, 1, values) for index, values in enumerate(sums)),
    ]
    complete = b"".join(texts + numbers + narrow_numbers + fields)
    for kind in range(4):
        yield "scanner", byte(50) + byte(kind) + complete
    yield "scanner", byte(50) + byte(3) + complete[: len(complete) // 2]


def number_seeds() -> Iterator[tuple[str, bytes]]:
    """For the targets that read numbers instead of waveforms."""
    terms = [(1.0, 0.0), (-0.5, 0.0), (-0.5, 0.0)]
    exponents = [(-2.5e8, 0.0), (-2.5e8, 5e8), (-2.5e8, -5e8)]
    tables = b"".join(
        byte(len(table)) + b"".join(number(part) for term in table for part in term)
        for table in (terms, exponents)
    )
    yield "system_wave", number(SAMPLING_INTERVAL / 5.0) + byte(60) + tables
    shots = [1.0, 1.0, 2.0]
    arrays = byte(3) + b"".join(map(number, shots))
    arrays += byte(3) + b"".join(map(number, [120.0, 100.0, 700.0]))
    arrays += 2 * (byte(3) + b"".join(map(narrow, [12.5, 20.0, 3.0])))
    yield "online", scanner() + arrays + byte(3) + bytes([0, 1, 1])
    echo = b"".join(map(number, [2000.0, 30.25, 1e-7, 1.6])) + byte(2) + byte(0) + byte(4)
    yield "reports", number(0.1) + struct.pack("<fII", 0.1, 7, 3) + echo + struct.pack("<f", 0.5)
    axis = number(259200.0) + number(259200.000001) + number(0.05) + byte(10)
    yield "plots", axis + byte(1)
    values = byte(20) + b"".join(number(float(value**2)) for value in range(20))
    yield "plots", axis + byte(0) + byte(1) + byte(0) + values


def pulsewaves_seeds() -> Iterator[tuple[str, bytes]]:
    """For the three decoders; in streams of zeros every symbol is the first one."""
    zeros = bytes(60)
    yield "pulsewaves", byte(0) + byte(1) + struct.pack("<H", 20) + zeros
    yield "pulsewaves", byte(1) + byte(3) + struct.pack("<H", 200) + bytes(57) + zeros
    samplings = byte(2) + bytes([0, 0, 1, 1, 80, 0]) + bytes([1, 3, 2, 0, 0, 1])
    spans = byte(2) + struct.pack("<hBB", 0, 1, 40) + struct.pack("<hBh", 10, 0, 500)
    yield "pulsewaves", byte(2) + samplings + spans + byte(0) + zeros
    # Nine pulses with 60 samples of 8 bits each, which are decoded at once, and bytes after them.
    fixed = byte(2) + bytes([1, 0, 0, 0, 1, 60, 0])
    spans = byte(9) + b"".join(struct.pack("<hBB", 20 * i, 1, 60) for i in range(9))
    yield "pulsewaves", fixed + spans + byte(0) + bytes(range(1, 251)) * 2


def las_seeds() -> Iterator[tuple[str, bytes]]:
    """Points of format 9 in two runs, without a packet and with packets of 10 and 20 bytes."""
    rules = struct.pack("<H", 400) + bytes([10, 10, 20, 20]) + bytes(10) + byte(0)
    places = [(0, 0, 0), (1, 60, 10), (1, 60, 10), (2, 70, 20), (1, 95, 10), (2, 390, 20)]
    points = [
        bytes(22) + struct.pack("<dBQIffff", 1.5, *place, 100.0, 0.0, 0.0, 1.0) + bytes(8)
        for place in places
    ]
    runs = [byte(len(run) - 1) + b"".join(run) for run in (points[:4], points[3:])]
    yield "las_points", byte(2) + byte(0) + rules + b"".join(runs)


def main() -> None:
    """Write every seed to the folder of its target."""
    folder = Path(sys.argv[1])
    scan = simulate_scan(ScanSettings(shots=12, samples=160, seed=7, saturated_fraction=0.2))
    seeds = [*wave_seeds(scan), *block_seeds(scan), *scanner_seeds(), *number_seeds()]
    seeds += [*pulsewaves_seeds(), *las_seeds()]
    for index, (target, content) in enumerate(seeds):
        target_folder = folder / target
        target_folder.mkdir(parents=True, exist_ok=True)
        (target_folder / f"seed_{index:03}").write_bytes(content)
    print(f"{len(seeds)} seeds in {folder}")


if __name__ == "__main__":
    main()
