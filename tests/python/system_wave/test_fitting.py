"""The window of the system wave and the exponentials in it."""

from __future__ import annotations

import numpy as np
import pytest
from scipy.integrate import trapezoid

from fullwaveform.system_wave import AveragePulse, fit_system_wave, pulse_of_curve

from .scenes import INTERVAL, shape


def pulse(stretch: float = 1.0, until: float = 40.0) -> AveragePulse:
    """The known pulse, `stretch` times as long, with its maximum 30 samples from the beginning."""
    time = np.arange(0.0, 30.0 + until, 0.1)
    return pulse_of_curve(time * INTERVAL, shape((time - 30.0) / stretch), INTERVAL, "a curve")


def test_window_begins_at_a_hundredth_of_the_maximum() -> None:
    wave = fit_system_wave(pulse())
    # (1 + x / 5)^6 exp(-6 x / 5) is 0.0078 at -4.0 and 0.0122 at -3.9
    assert wave.begin == pytest.approx(-4.0)
    assert wave.is_contained


def test_wave_follows_the_pulse_inside_the_window() -> None:
    wave = fit_system_wave(pulse())
    assert wave.fit.misfit.rms <= 1e-3
    inside = np.linspace(wave.begin, wave.begin + 11.0, 500)
    difference = np.abs(wave.at(inside) - shape(inside))
    assert difference.max() == pytest.approx(wave.fit.misfit.largest, rel=0.2)
    assert np.isnan(wave.at([wave.begin - 0.1, wave.begin + 11.1])).all()


def test_wave_in_seconds_begins_at_the_window() -> None:
    wave = fit_system_wave(pulse(), begin=-4.25)
    time = np.arange(56) * INTERVAL / 5
    np.testing.assert_allclose(
        wave.in_seconds()(time),
        shape(-4.25 + np.arange(56) / 5),
        atol=wave.fit.misfit.largest * 1.5,
    )


def test_requested_order_is_used() -> None:
    coarse, fine = (fit_system_wave(pulse(), order=order).fit for order in (3, 6))
    assert (coarse.sum.order, fine.sum.order) == (3, 6)
    assert coarse.misfit.rms > 10.0 * fine.misfit.rms


def test_window_of_a_long_pulse_has_the_most_energy() -> None:
    wave = fit_system_wave(pulse(stretch=3.0))
    assert not wave.is_contained
    first, last = wave.pulse.at([wave.begin, wave.begin + 11.0])
    # The window of most energy begins and ends at the same height.
    assert first == pytest.approx(last, abs=0.02)
    assert first > 0.3
    energy = trapezoid(shape(np.arange(-5, 25, 0.01)) ** 2)
    position = np.arange(wave.begin, wave.begin + 11.0, 0.03) / 3.0
    assert wave.contained == pytest.approx(trapezoid(shape(position) ** 2) / energy, abs=0.01)


def test_pulse_ending_inside_the_window_is_refused() -> None:
    with pytest.raises(
        ValueError, match=r"recorded from -30.0 to 4.[89] samples .* needs -3.0 to 8.0"
    ):
        fit_system_wave(pulse(until=5.0), begin=-3.0)
