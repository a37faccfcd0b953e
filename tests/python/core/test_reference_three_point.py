"""Mode 0 compared with a plain reference, for random waveforms of many kinds."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt
import pytest

from fullwaveform import Driver, Scanner
from fullwaveform.core.driver import Threshold
from fullwaveform.core.scanner import AfterPulse

from ..support.reference_three_point import Waveform, three_point_echoes

WAVEFORMS = 3000  # of each kind
WIDTH = 90
# Another solver of the same single-precision system rounds the parabola of logarithms differently;
# near flat triples this moves the vertex by some 1e-4 samples.
POSITION = 1e-3  # samples
RELATIVE_AMPLITUDE = 1e-3  # 0.01 dB


def random_waveforms(kind: str, seed: int) -> tuple[npt.NDArray[np.uint16], npt.NDArray[np.uint16]]:
    """Random pulses over a baseline, cut to random lengths."""
    rng = np.random.default_rng(seed)
    baseline, noise, top, limit = {
        "weak": (2.0, 1.0, 60.0, 255),
        "eight bits": (14.0, 0.8, 300.0, 255),
        "strong": (40.0, 3.0, 3000.0, 4095),
        "decaying": (200.0, 2.0, 500.0, 4095),
    }[kind]
    x = np.arange(WIDTH)
    signal = np.full((WAVEFORMS, WIDTH), baseline)
    if kind == "decaying":
        signal = signal * np.exp(-x / rng.uniform(40, 400, (WAVEFORMS, 1)))
    for _ in range(4):
        centre = rng.uniform(-3, WIDTH + 3, (WAVEFORMS, 1))
        height = top * rng.uniform(0, 1, (WAVEFORMS, 1)) ** 3
        signal = signal + height * np.exp(
            -0.5 * ((x - centre) / rng.uniform(0.8, 4, (WAVEFORMS, 1))) ** 2
        )
    noisy = signal + rng.normal(0, noise, signal.shape)
    counts = rng.integers(3, WIDTH + 1, WAVEFORMS)
    counts[: WAVEFORMS // 2] = WIDTH
    return np.clip(np.rint(noisy), 0, limit).astype(np.uint16), counts.astype(np.uint16)


@pytest.mark.parametrize("kind", ["weak", "eight bits", "strong", "decaying"])
@pytest.mark.parametrize("threshold", ["estimate", 20])
def test_driver_agrees_with_the_reference_three_point(kind: str, threshold: Threshold) -> None:
    samples, counts = random_waveforms(kind, seed=7 if threshold == "estimate" else 8)
    scanner = Scanner.default(1e-9, after_pulse=AfterPulse(offset=5, width=2))
    result = Driver(0, scanner).apply(samples, counts, threshold=threshold)
    rows = {int(row): waveform for waveform, row in enumerate(result.waveforms["row"])}
    first_peak = np.concatenate(([0], np.cumsum(result.waveforms["peakCount"])))
    echoes = 0
    for row in range(WAVEFORMS):
        expected = three_point_echoes(
            samples[row, : counts[row]].tolist(), threshold, after_pulse=(5, 2)
        )
        assert (row in rows) == (expected.max_amplitude > expected.noise)
        if row in rows:
            waveform = rows[row]
            check_analysis(result.waveforms, waveform, expected)
            mine = slice(first_peak[waveform], first_peak[waveform + 1])
            check_echoes(result.peaks, mine, expected)
            echoes += len(expected.echoes)
    assert echoes > WAVEFORMS / 2  # enough echoes were compared


def check_analysis(waveforms: object, waveform: int, expected: Waveform) -> None:
    found = {
        name: int(waveforms[name][waveform])  # type: ignore[index]
        for name in ("noise", "maxAmplitude", "idxOfMaxAmplitude", "globalStart", "globalEnd")
    }
    assert found == {
        "noise": expected.noise,
        "maxAmplitude": expected.max_amplitude,
        "idxOfMaxAmplitude": expected.idx_of_max,
        "globalStart": expected.start,
        "globalEnd": expected.end,
    }


def check_echoes(peaks: object, mine: slice, expected: Waveform) -> None:
    idx, amplitude, width = (
        peaks[name][mine]  # type: ignore[index]
        for name in ("idx", "amplitudeCounts", "std")
    )
    assert len(idx) == len(expected.echoes)
    echoes = sorted(expected.echoes, key=lambda echo: echo.idx)
    np.testing.assert_allclose(idx, [echo.idx for echo in echoes], atol=POSITION, rtol=0)
    np.testing.assert_allclose(
        amplitude, [echo.amplitude for echo in echoes], rtol=RELATIVE_AMPLITUDE
    )
    np.testing.assert_allclose(width, [echo.std for echo in echoes], rtol=1e-3)
