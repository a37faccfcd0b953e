"""Print the accuracy of deconvolved positions, relative to the Cramer-Rao bound, by SNR.

python examples/python/position_accuracy.py [SCANNER.toml ...]

Echoes are shifted system waves, or with no description the Gaussians of the method pages, at random
phases, with white noise and rounded to counts.
"""

from __future__ import annotations

import sys
from collections.abc import Callable
from pathlib import Path

import numpy as np
from method_scenes import BASELINE, INTERVAL, PULSE_WIDTH, FloatArray, scanner

from fullwaveform import Driver, Mode, Scanner
from fullwaveform.core.driver import system_wave
from fullwaveform.extraction.refine import refined_peaks

Wave = Callable[[FloatArray], FloatArray]

SNRS = (20, 50, 100, 200, 500)
ECHOES = 2_000
LENGTH = 80  # samples
HEIGHT = 2_000.0  # counts; the digitiser's rounding adds little noise even at SNR 500


def main(descriptions: list[str]) -> None:
    """Print a table with two columns per scanner: positions of the library, and refined."""
    columns: dict[str, tuple[Scanner, Wave]] = {"Gaussian": (scanner()[0], gaussian)}
    for path in descriptions:
        described = Scanner.from_toml(Path(path))
        columns[Path(path).stem] = (described, wave_of(described))
    names = [f"{name}, {kind}" for name in columns for kind in ("library", "refined")]
    print("| SNR | " + " | ".join(names) + " |")
    print("|---:|" + "---:|" * len(names))
    for snr in SNRS:
        values = [value for column in columns.values() for value in ratios(snr, *column)]
        print(f"| {snr} | " + " | ".join(f"{value:.1f}" for value in values) + " |")


def gaussian(time: FloatArray) -> FloatArray:
    """The echo of the method pages, samples from its maximum."""
    return np.asarray(np.exp(-0.5 * (time / PULSE_WIDTH) ** 2))


def wave_of(described: Scanner) -> Wave:
    """The system wave of a scanner as a function of samples from its maximum."""
    seconds, values = system_wave(described, described.sampling_interval or INTERVAL)
    samples = seconds / (described.sampling_interval or INTERVAL)
    top = samples[np.argmax(values)]

    def wave(time: FloatArray) -> FloatArray:
        return np.interp(time + top, samples, values / values.max(), left=0.0, right=0.0)

    return wave


def ratios(snr: float, described: Scanner, wave: Wave) -> tuple[float, float]:
    """Standard deviation of the positions over the bound: of the library, and refined."""
    truth = 40.0 + np.random.default_rng(5).uniform(-0.5, 0.5, ECHOES)
    time = np.arange(LENGTH) - truth[:, np.newaxis]
    noise = HEIGHT / snr
    clean = BASELINE + 5.0 * noise + HEIGHT * wave(time)
    drawn = np.random.default_rng(6).normal(0.0, noise, clean.shape)
    samples = np.rint(clean + drawn).clip(0).astype(np.uint16)
    level = int(BASELINE + 10.0 * noise)
    driver = Driver(Mode.DECONVOLUTION, described, longest_waveform=LENGTH)
    peaks = dict(driver.apply(samples, threshold=level).peaks)
    rows = np.full(ECHOES, float(level))
    counts = np.full(ECHOES, LENGTH, np.uint16)
    baseline = np.full(ECHOES, BASELINE + 5.0 * noise)
    refined = refined_peaks(peaks, rows, samples, counts, baseline, described)
    order = np.lexsort((-refined["height"], refined["row"]))
    found, first = np.unique(refined["row"][order], return_index=True)
    strongest = order[first]
    slope = (wave(time + 0.01) - wave(time - 0.01)) / 0.02
    bound = np.sqrt(np.mean(noise**2 / (HEIGHT**2 * np.sum(slope**2, axis=1))))
    spread = [
        float(np.std(refined[name][strongest] - truth[found]) / bound)
        for name in ("library_idx", "idx")
    ]
    return spread[0], spread[1]


if __name__ == "__main__":
    main(sys.argv[1:])
