"""The deconvolved signal of one waveform, compared with the same iteration in NumPy."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform import Driver, Mode, Scanner, _core

from ..system_wave import richardson_lucy as reference
from .test_modes import BASELINE, INTERVAL, SYSTEM_WAVE, WIDTH, scanner, scene

THRESHOLD = BASELINE + 5  # counts


def kernel() -> reference.FloatArray:
    coefficients = np.array(SYSTEM_WAVE["a_real"]) + 1j * np.array(SYSTEM_WAVE["a_imag"])
    exponents = np.array(SYSTEM_WAVE["b_real"]) + 1j * np.array(SYSTEM_WAVE["b_imag"])
    return reference.system_wave(coefficients, exponents, INTERVAL)


@pytest.mark.parametrize("pulses", [[(30.0, 800.0)], [(20.3, 500.0), (23.4, 300.0), (60.0, 90.0)]])
def test_signal_agrees_with_the_numpy_iteration(pulses: list[tuple[float, float]]) -> None:
    begins, heights = np.array([[b for b, _ in pulses]]), np.array([[h for _, h in pulses]])
    (samples,) = scene(begins, heights)
    row = samples.astype(np.float64)
    signal_range = reference.signal_range(row, THRESHOLD)
    assert signal_range is not None
    values, first, step = _core.deconvolved_signal(samples, scanner().device(), THRESHOLD)
    assert step == 0.2
    assert first == signal_range[0] - 2.5  # half the up-sampling factor, in samples
    expected = reference.deconvolved(row, THRESHOLD, kernel(), *signal_range)
    np.testing.assert_allclose(values, expected, rtol=1e-9, atol=1e-6)


def test_echoes_are_at_the_maxima_of_the_signal() -> None:
    samples = scene(np.array([[20.3, 28.0]]), np.array([[500.0, 300.0]]))
    values, first, step = _core.deconvolved_signal(samples[0], scanner().device(), THRESHOLD)
    result = Driver(Mode.DECONVOLUTION, scanner(), longest_waveform=WIDTH).apply(
        samples, threshold=THRESHOLD
    )
    assert result.peaks.rows >= 2
    for position, amplitude in zip(
        result.peaks["idx"], result.peaks["amplitudeCounts"], strict=True
    ):
        index = round((position - first) / step)
        assert first + index * step == pytest.approx(position, abs=1e-9)
        assert np.trunc(values[index]) == pytest.approx(amplitude, abs=1.0)


def test_negative_threshold_is_estimated() -> None:
    (samples,) = scene(np.array([[30.0]]), np.array([[800.0]]))
    estimate = _core.estimate_noise(samples)
    expected = _core.deconvolved_signal(samples, scanner().device(), estimate)
    found = _core.deconvolved_signal(samples, scanner().device(), -1)
    assert len(found[0]) > 0
    np.testing.assert_array_equal(found[0], expected[0])


@pytest.mark.parametrize("samples", [[], [9], [9, 9, 9], [9] * 80, [200, 9]])
def test_waveform_without_signal_has_no_values(samples: list[int]) -> None:
    waveform = np.array(samples, np.uint16)
    assert len(_core.deconvolved_signal(waveform, scanner().device(), THRESHOLD)[0]) == 0


def test_scanner_without_system_wave_is_refused() -> None:
    (samples,) = scene(np.array([[30.0]]), np.array([[800.0]]))
    with pytest.raises(ValueError, match="no system wave"):
        _core.deconvolved_signal(samples, Scanner.default(INTERVAL).device(), THRESHOLD)
