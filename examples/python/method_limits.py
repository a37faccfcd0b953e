"""Measure the methods on waveforms with known echoes, for the tables of docs/methods.

python examples/python/method_limits.py

SNR is the height of an echo divided by the noise rms of 4 counts; the threshold of 28 counts is
four times the noise rms above the baseline. An echo is found if one is extracted within a sample.
"""

from __future__ import annotations

import time
from collections.abc import Callable, Iterable
from functools import cache

import numpy as np
import numpy.typing as npt
from method_scenes import PULSE_WIDTH, Echoes, FloatArray, clean, extracted, recorded, scanner

from fullwaveform import Driver, Mode
from fullwaveform.analysis.matching import match_echoes
from fullwaveform.core.constants import EchoType
from fullwaveform.core.driver import DRIVER_MODES
from fullwaveform.simulation import ScanSettings, SimulatedScan, simulate_scan

NOISE_RMS, LEVEL = 4.0, 28  # counts
WAVEFORMS = 1000
TOLERANCE = 1.0  # samples
SEPARATIONS = np.arange(2.0, 10.01, 0.25)  # samples


def lone(mode: Mode, amplitude: float) -> tuple[FloatArray, Echoes]:
    """True positions of waveforms with one echo, and what the method makes of them."""
    true = 30.0 + np.random.default_rng(4).uniform(-0.5, 0.5, WAVEFORMS)
    signal = clean(true[:, np.newaxis], np.full((WAVEFORMS, 1), amplitude))
    return true, extracted(mode, recorded(signal, NOISE_RMS, seed=5), LEVEL)


def found_share(mode: Mode, snr: float) -> float:
    """Share of lone echoes that are found."""
    true, echoes = lone(mode, snr * NOISE_RMS)
    near = np.abs(echoes.position - true[echoes.row]) <= TOLERANCE
    return len(np.unique(echoes.row[near])) / WAVEFORMS


def position_error(mode: Mode, snr: float) -> float:
    """Distance to the truth, in samples, that 90 % of the lone echoes found keep within."""
    true, echoes = lone(mode, snr * NOISE_RMS)
    off = np.abs(echoes.position - true[echoes.row])
    return float(np.percentile(off[off <= TOLERANCE], 90))


def split_share(mode: Mode, snr: float) -> float:
    """Share of waveforms with one echo in which the method finds several."""
    _, echoes = lone(mode, snr * NOISE_RMS)
    return float(np.mean(np.bincount(echoes.row, minlength=WAVEFORMS) > 1))


def height_and_width(mode: Mode, snr: float) -> tuple[float, float]:
    """Medians of lone echoes: amplitude less the true one in counts, width over the true one."""
    _, echoes = lone(mode, snr * NOISE_RMS)
    off = np.median(echoes.amplitude) - snr * NOISE_RMS
    return float(off), float(np.median(echoes.width) / PULSE_WIDTH)


def weakest(mode: Mode) -> float:
    """Smallest SNR from which on 90 % of lone echoes are found; NaN when that never happens."""
    return _smallest(range(4, 41), lambda snr: found_share(mode, snr))


def separation(mode: Mode, snr_first: float, snr_second: float) -> float:
    """Smallest distance in samples from which on 90 % of pairs give both echoes, no third."""
    return _smallest(SEPARATIONS, lambda gap: _both(mode, gap, snr_first, snr_second))


def merged(mode: Mode, gap: float) -> tuple[float, float]:
    """Echoes of pairs of SNR 200 that lie close: median number, share of waveforms without any."""
    _, samples = _pairs(gap, 200.0, 200.0)
    number = np.bincount(extracted(mode, samples, LEVEL).row, minlength=WAVEFORMS)
    return float(np.median(number)), float(np.mean(number == 0))


def saturated(mode: Mode) -> tuple[float, float]:
    """Echoes of twice the digitiser's limit: share with any, 90 % distance of the nearest."""
    true, echoes = lone(mode, 8000.0)
    if not len(echoes.row):
        return 0.0, float("nan")
    off = np.full(WAVEFORMS, np.inf)
    np.minimum.at(off, echoes.row, np.abs(echoes.position - true[echoes.row]))
    seen = np.isfinite(off)
    return float(np.mean(seen)), float(np.percentile(off[seen], 90))


@cache
def simulated() -> SimulatedScan:
    """The scan that `fullwaveform simulate` writes; its echoes are as wide as those here."""
    return simulate_scan(ScanSettings())


def of_a_scan(mode: Mode) -> tuple[int, int]:
    """True echoes of a simulated scan found within two samples, and echoes that are none."""
    scan = simulated()
    waveforms = scan.samples.reshape(-1, scan.samples.shape[2])
    shots, offset = np.repeat(np.arange(len(scan.samples)), 2), scanner()[1]
    driver = Driver(mode, scanner()[0], longest_waveform=waveforms.shape[1])
    flags = np.tile(np.array([1, 0], np.uint8), len(scan.samples))
    peaks = driver.apply(waveforms, shot_times=shots, channel_flags=flags, threshold=20).peaks
    position = peaks["idx"] - np.where(peaks["type"] == EchoType.RICHARDSON_LUCY, offset, 0.0)
    found, truth = shots[peaks["row"]], scan.truth
    matching = match_echoes(found, position, truth.shot, truth.position_samples, 2.0)
    return len(matching), int(np.sum(np.isfinite(position[matching.unmatched_found])))


def seconds(mode: Mode) -> float:
    """Processor time for waveforms with a pair each, making the driver included; best of five."""
    _, samples = _pairs(6.0, 50.0, 50.0)
    return min(_timed(lambda: extracted(mode, samples, LEVEL)) for _ in range(5))


def _pairs(
    gap: float, snr_first: float, snr_second: float
) -> tuple[FloatArray, npt.NDArray[np.uint16]]:
    first = 30.0 + np.random.default_rng(6).uniform(-0.5, 0.5, WAVEFORMS)
    true = np.stack([first, first + gap], axis=1)
    amplitudes = np.tile([snr_first * NOISE_RMS, snr_second * NOISE_RMS], (WAVEFORMS, 1))
    return true, recorded(clean(true, amplitudes), NOISE_RMS, seed=7)


def _both(mode: Mode, gap: float, snr_first: float, snr_second: float) -> float:
    true, samples = _pairs(gap, snr_first, snr_second)
    echoes = extracted(mode, samples, LEVEL)
    order = np.lexsort((echoes.position, echoes.row))
    row, position = echoes.row[order], echoes.position[order]
    two = np.flatnonzero(np.bincount(row, minlength=WAVEFORMS) == 2)
    first = np.searchsorted(row, two)
    seen = np.stack([position[first], position[first + 1]], axis=1)
    return float(np.sum(np.all(np.abs(seen - true[two]) <= TOLERANCE, axis=1)) / WAVEFORMS)


def _smallest(values: Iterable[float], share: Callable[[float], float]) -> float:
    """First of the ascending values from which on the share stays at 90 %."""
    good = float("nan")
    for value in reversed(list(values)):
        if share(value) < 0.9:
            break
        good = float(value)
    return good


def _timed(work: Callable[[], object]) -> float:
    start = time.process_time()
    work()
    return time.process_time() - start


def rows(mode: Mode) -> dict[str, str]:
    """The limits of a method, as its page states them."""
    off, width = height_and_width(mode, 50)
    share, far = saturated(mode)
    matched, extra = of_a_scan(mode)
    return {
        "weakest single echo found in 90 %, SNR": f"{weakest(mode):g}",
        **{
            f"position, 90 % within, SNR {snr}, samples": f"{position_error(mode, snr):.2f}"
            for snr in (20, 50, 200)
        },
        "amplitude error, SNR 50, counts": f"{round(off, 1) + 0.0:+.1f}",  # no negative zero
        "width / true width, SNR 50": f"{width:.2f}" if np.isfinite(width) else "–",
        "single echoes split in two or more, SNR 20": f"{split_share(mode, 20):.1%}",
        **{
            f"two echoes of SNR {snr}, smallest separation, samples": (
                f"{separation(mode, snr, snr):.2f}"
            )
            for snr in (20, 50, 200)
        },
        "SNR 200 before SNR 50, smallest separation, samples": f"{separation(mode, 200, 50):.2f}",
        "SNR 50 before SNR 200, smallest separation, samples": f"{separation(mode, 50, 200):.2f}",
        "two echoes of SNR 200, 3 samples apart, echoes found": f"{merged(mode, 3.0)[0]:g}",
        "two echoes of SNR 200, 3.25 samples apart, both missed in": f"{merged(mode, 3.25)[1]:.0%}",
        f"simulated scan, found of {len(simulated().truth):,} echoes": f"{matched:,}",
        "simulated scan, false positives": f"{extra:,}",
        "twice the digitiser's limit, echoes found in": f"{share:.0%}",
        "twice the digitiser's limit, 90 % within, samples": f"{far:.2f}" if share else "–",
    }


def main() -> None:
    """Print one table of all methods, and how long each takes in units of the first."""
    columns = [rows(mode) for mode in DRIVER_MODES]
    print("| | " + " | ".join(mode.name.lower().replace("_", "-") for mode in DRIVER_MODES) + " |")
    print("|---" + "|---:" * len(DRIVER_MODES) + "|")
    for name in columns[0]:
        print(f"| {name} | " + " | ".join(column[name] for column in columns) + " |")
    times = [seconds(mode) for mode in DRIVER_MODES]
    print(
        "| time relative to three-point | "
        + " | ".join(f"{t / times[0]:.0f}" for t in times)
        + " |"
    )


if __name__ == "__main__":
    main()
