"""Noise estimates of constructed waveforms, calculated without the library.

Writes `NoiseWaveforms.h`: random waveforms of several kinds with the noise estimate of each. The
arithmetic is plain double precision, rounded after every operation. Some waveforms are selected
because another evaluation order of the residual y - intercept - slope * x, or a fused multiply-add,
gives another estimate.

Run: python3 noise_waveforms.py
"""

import math
import random
from fractions import Fraction
from pathlib import Path

INDEFINITE = 0x80000000  # x86 conversion of a number that does not fit 32 bits


def residual(y: float, intercept: float, slope: float, x: float) -> float:
    return (y - intercept) - slope * x


def residual_from_line(y: float, intercept: float, slope: float, x: float) -> float:
    return y - (intercept + slope * x)


def residual_fused(y: float, intercept: float, slope: float, x: float) -> float:
    return float(Fraction(y - intercept) - Fraction(slope) * Fraction(x))


def spread_of(values: list[float], residual_form=residual) -> float:
    """Five times the spread about the least-squares line; nan for a single value."""
    k = float(len(values))
    sx = sy = sxx = sxy = 0.0
    for i, y in enumerate(values):
        x = float(i)
        sx += x
        sy += y
        sxx += x * x
        sxy += x * y
    denominator = k * sxx - sx * sx
    if denominator == 0.0:
        return math.nan
    slope = (k * sxy - sx * sy) / denominator
    intercept = (sy - slope * sx) / k
    residuals = [residual_form(y, intercept, slope, float(i)) for i, y in enumerate(values)]
    return (max([-10000.0, *residuals]) - min([10000.0, *residuals])) * 5.0


def noise_level(samples: list[int], residual_form=residual) -> int:
    """Unsigned 32-bit noise estimate of a waveform."""
    above = [float(s) for s in samples if s > 10]
    if len(above) < 2:
        return 180
    strongest = max(float(samples[0]), max(above))
    k = min(10, max(1, math.trunc(len(above) * 0.1)))
    flat = above[:k] if samples[-1] >= samples[0] else above[-k:]
    low = sorted(above)[math.floor(0.05 * len(above))]
    level = spread_of(flat, residual_form) + low
    if strongest > 1800:
        level *= 2.0
    if math.isnan(level) or not -(2**31) - 1 < level < 2**31:
        return INDEFINITE
    return math.trunc(level) % 2**32


def baseline_with(rng: random.Random, length: int, low: int, high: int) -> list[int]:
    return [rng.randint(low, high) for _ in range(length)]


def with_pulse(samples: list[int], centre: float, amplitude: float, width: float) -> list[int]:
    shape = (amplitude * math.exp(-0.5 * ((i - centre) / width) ** 2) for i in range(len(samples)))
    return [min(4095, round(s + p)) for s, p in zip(samples, shape, strict=True)]


def few_above_ten(rng: random.Random, above: int) -> list[int]:
    samples = baseline_with(rng, 24, 0, 10)
    for place in rng.sample(range(24), above):
        samples[place] = rng.randint(11, 400)
    return samples


def selected(rng: random.Random, other, count: int) -> list[list[int]]:
    """Waveforms whose estimate differs with the other form of the residual."""
    found: list[list[int]] = []
    while len(found) < count:
        samples = baseline_with(rng, rng.randint(40, 70), 11, 60)
        if noise_level(samples) != noise_level(samples, other):
            found.append(samples)
    return found


def waveforms() -> list[tuple[str, list[int]]]:
    rng = random.Random(20240611)
    made: list[tuple[str, list[int]]] = []

    def add(kind: str, samples: list[int]) -> None:
        made.append((kind, samples))

    for _ in range(5):
        add("baseline with noise", baseline_with(rng, rng.randint(25, 60), 12, 30))
    for _ in range(6):
        base = baseline_with(rng, rng.randint(40, 80), 150, 190)
        add(
            "one echo",
            with_pulse(base, rng.uniform(8, 30), rng.uniform(200, 1500), rng.uniform(1.2, 3)),
        )
    for _ in range(5):
        base = baseline_with(rng, 50, 100, 120)
        add("saturated", with_pulse(base, rng.uniform(10, 35), rng.uniform(3000, 9000), 2.5))
    for _ in range(5):
        length = rng.randint(30, 60)
        add("descending end", [max(0, 400 - 5 * i + rng.randint(-6, 6)) for i in range(length)])
    for _ in range(4):
        add("ascending", [20 + 3 * i + rng.randint(-4, 4) for i in range(rng.randint(30, 60))])
    for above in (0, 1, 2, 3, 10, 18, 19):
        add(f"{above} above ten", few_above_ten(rng, above))
    for above in (20, 21, 29, 30):
        add(f"{above} above ten", [*baseline_with(rng, above, 11, 250), rng.randint(0, 10), 10])
    add("hundreds above ten", baseline_with(rng, 130, 11, 99))
    level = baseline_with(rng, 30, 60, 80)
    add("maximum at the limit", [*level[:15], 1800, *level[15:]])
    add("maximum above the limit", [*level[:15], 1801, *level[15:]])
    add("first sample is the maximum", [2000, *level])
    add("last sample equals the first", [70, *level, 70])
    add("saturated with few above ten", [3, 4, 2500, 3000, 4, 3])
    add("level beyond 16 bits", [60000 * (i % 2) + 20 for i in range(40)])
    for samples in selected(rng, residual_from_line, 4):
        add("depends on the order of the residual", samples)
    for samples in selected(rng, residual_fused, 3):
        add("depends on fused multiply-add", samples)
    return made


def main() -> None:
    lines = [
        "#pragma once",
        "",
        "// Made by noise_waveforms.py; not edited by hand.",
        "",
        "#include <array>",
        "#include <cstdint>",
        "#include <span>",
        "",
        "namespace FullWaveform::Testing {",
        "",
        "struct NoiseWaveform {",
        "  char const* kind;",
        "  std::span<unsigned short const> samples;",
        "  std::uint32_t level;",
        "};",
        "",
    ]
    entries = []
    for number, (kind, samples) in enumerate(waveforms()):
        values = ", ".join(map(str, samples))
        lines.append(f"inline constexpr unsigned short noiseSamples{number}[] = {{{values}}};")
        entries.append(f'    {{"{kind}", noiseSamples{number}, {noise_level(samples)}U}},')
    lines += [
        "",
        f"inline constexpr std::array<NoiseWaveform, {len(entries)}> noiseWaveforms = {{{{",
    ]
    lines += [*entries, "}};", "", "}  // namespace FullWaveform::Testing", ""]
    Path(__file__).with_name("NoiseWaveforms.h").write_text("\n".join(lines))


if __name__ == "__main__":
    main()
