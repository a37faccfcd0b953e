"""Gaussian decompositions of constructed waveforms, computed without the library.

Writes `DecompositionRecords.h`: random waveforms with overlapping echoes and the Gaussians that the
two-loop decomposition finds in them. The steps are implemented independently in NumPy with the
minimiser of MINPACK (in SciPy) and the library's tolerances. Waveforms are omitted if their result
depends on the last bits of single precision, in which the library keeps its start values: a
relative change of the start by 1e-6 in either direction must not change the result.

Run: python3 decomposition_records.py    (needs NumPy and SciPy)
"""

import math
from dataclasses import dataclass, replace
from pathlib import Path

import numpy as np
from numpy.typing import NDArray
from scipy.optimize import leastsq

RECORDS = 40
SHIFT = 1e-6
STABLE = 1e-4  # samples and, relative, counts

HEAD = """#pragma once

// Made by decomposition_records.py; not edited by hand.

#include <array>
#include <cstddef>

namespace FullWaveform::Testing {

struct Gaussian {
  unsigned loop;  // from 1
  double amplitude;
  double position;
  double width;
};

/// The samples and the Gaussians of the records are concatenated in two tables.
struct DecompositionRecord {
  unsigned short noise;
  bool isLowPower;
  std::size_t samples;
  std::size_t gaussians;
};

"""
TAIL = "}  // namespace FullWaveform::Testing\n"


@dataclass(frozen=True)
class Gaussian:
    loop: int
    amplitude: float
    position: float
    width: float


@dataclass(frozen=True)
class Record:
    samples: NDArray[np.int64]
    noise: int
    is_low_power: bool


def random_record(rng: np.random.Generator) -> Record:
    count, noise = int(rng.integers(50, 90)), int(rng.integers(12, 60))
    x = np.arange(count)
    y = noise - 8 + rng.normal(0, rng.uniform(0.5, 3), count)
    centre = rng.uniform(10, count - 10)
    for _ in range(rng.integers(1, 6)):
        amplitude = math.exp(rng.uniform(math.log(60), math.log(2500)))
        position, width = centre + rng.normal(0, 15), rng.uniform(1.3, 3.5)
        y = y + amplitude * np.exp(-0.5 * ((x - position) / width) ** 2)
    samples = np.clip(np.round(y), 0, 4095).astype(np.int64)
    return Record(samples, noise, bool(rng.integers(0, 2)))


def segments(record: Record) -> dict[int, int]:
    """Stretches above the noise; the first and the last sample are never looked at."""
    found, start = {}, 1 if record.samples[0] > record.noise else None
    last = len(record.samples) - 2
    for i in range(1, last + 1):
        if record.samples[i] > record.noise and start is None:
            start = i - 1
        elif record.samples[i] < record.noise and start is not None:
            found[start], start = i, None
    if start is not None:
        found[start] = last
    return found


def rest_of(record: Record, known: list[Gaussian]) -> list[int]:
    """Whole counts that noise and known echoes leave of every sample, at least 1."""
    x = np.arange(len(record.samples))
    rest = record.samples - float(record.noise)
    for g in known:
        rest = rest - g.amplitude * np.exp(-0.5 * ((x - g.position) / g.width) ** 2)
    return [int(value) for value in np.maximum(rest, 1.0)]


def maxima(rest: list[int], first: int, last: int, noise: int) -> list[int]:
    def is_maximum(i: int) -> bool:
        rise, fall = rest[i] - rest[i - 1], rest[i] - rest[i + 1]
        return rest[i] > noise and rise > 0 and fall >= 0 and (rise >= 2 or fall >= 2)

    found = [i for i in range(first, last + 1) if is_maximum(i)]
    if not found:
        largest = max(range(first, last + 1), key=lambda i: rest[i])
        found = [largest] if rest[largest] > noise else []
    return found


def through_three(rest: list[int], k: int, loop: int, shift: float) -> Gaussian:
    """The Gaussian through a sample and its neighbours, by differences of the logarithms."""
    left, centre, right = (math.log(rest[k + d]) for d in (-1, 0, 1))
    curvature = left - 2 * centre + right
    offset = (left - right) / (2 * curvature)
    amplitude = math.exp(centre + (right - left) * offset / 4) * (1 + shift)
    return Gaussian(loop, amplitude, k + offset, math.sqrt(-1 / curvature))


def refined(record: Record, first: int, last: int, start: list[Gaussian]) -> list[Gaussian]:
    x = np.arange(first, last + 1, dtype=float)
    if not start or len(x) < 3 * len(start):
        return start
    signal = record.samples[first : last + 1] - float(record.noise)

    def residual(parameters: NDArray[np.float64]) -> NDArray[np.float64]:
        a, m, s = (parameters.reshape(-1, 3).T)[:, :, None]
        return (abs(a) * np.exp(-(((x - abs(m)) / s) ** 2) / 2)).sum(axis=0) - signal

    def derivatives(parameters: NDArray[np.float64]) -> NDArray[np.float64]:
        a, m, s = (parameters.reshape(-1, 3).T)[:, :, None]
        d = (x - abs(m)) / s
        shape = np.exp(-(d**2) / 2)
        by_position, by_width = abs(a) * shape * d / s, abs(a) * shape * d**2 / abs(s)
        return np.stack([shape, by_position, by_width], axis=1).reshape(-1, len(x))

    values = leastsq(
        residual,
        np.array([(g.amplitude, g.position, g.width) for g in start]).ravel(),
        Dfun=derivatives,
        col_deriv=True,
        full_output=True,
        ftol=1e-3,
        xtol=1e-3,
        gtol=0.0,
        maxfev=20,
        factor=100.0,
    )[0].reshape(-1, 3)
    return [
        replace(g, amplitude=float(np.float32(a)), position=float(m), width=float(s))
        for g, (a, m, s) in zip(start, values, strict=True)
    ]


def decomposition(record: Record, shift: float) -> list[Gaussian]:
    loops = 2 if record.is_low_power and max(record.samples[1:-1]) <= 1800 else 1
    result = []
    for first, last in segments(record).items():
        if last - first < 3:
            continue
        working: list[Gaussian] = []
        for loop in range(1, loops + 1):
            rest = rest_of(record, working)
            starts = maxima(rest, first, last, record.noise)
            if not starts:
                break
            working = working + [through_three(rest, k, loop, shift) for k in starts]
            working = refined(record, first, last, working)
            good = [
                g
                for g in working
                if first <= g.position <= last
                and record.noise <= g.amplitude <= 4096
                and 0 <= g.width <= 50
            ]
            if len(good) < len(working):
                working = refined(record, first, last, good)
                break
        result += working
    return result


def is_stable(record: Record, result: list[Gaussian]) -> bool:
    for other in (decomposition(record, shift) for shift in (-SHIFT, SHIFT)):
        if [g.loop for g in other] != [g.loop for g in result]:
            return False
        for g, h in zip(result, other, strict=True):
            if abs(g.position - h.position) > STABLE or abs(g.width - h.width) > STABLE:
                return False
            if abs(g.amplitude / h.amplitude - 1) > STABLE:
                return False
    return True


def table(kind: str, name: str, entries: list[str]) -> str:
    values = ",".join(entries)
    return f"inline constexpr auto {name} = std::to_array<{kind}>({{{values}}});\n\n"


def main() -> None:
    rng = np.random.default_rng(20)
    records: list[str] = []
    samples: list[str] = []
    gaussians: list[str] = []
    while len(records) < RECORDS:
        record = random_record(rng)
        try:
            result = decomposition(record, 0.0)
            stable = bool(result) and is_stable(record, result)
        except (ValueError, ZeroDivisionError):  # three samples without a maximum
            continue
        if stable:
            flag = "true" if record.is_low_power else "false"
            records.append(f"{{{record.noise}, {flag}, {len(record.samples)}, {len(result)}}}")
            samples += [str(s) for s in record.samples]
            gaussians += [
                f"{{{g.loop}U, {g.amplitude:.3f}, {g.position:.5f}, {g.width:.5f}}}" for g in result
            ]
    text = (
        HEAD
        + table("DecompositionRecord", "decompositionRecords", records)
        + table("unsigned short", "decompositionSamples", samples)
        + table("Gaussian", "decompositionGaussians", gaussians)
        + TAIL
    )
    Path(__file__).with_name("DecompositionRecords.h").write_text(text)


if __name__ == "__main__":
    main()
