"""The Cramer-Rao bound against closed forms."""

from __future__ import annotations

import math

import numpy as np
import pytest
from accuracy.bound import Bound, Priors, cramer_rao, location_information
from accuracy.pulses import Floats, Pulse, ringing_pulse

# Samples. Sums over samples equal integrals to 1e-15 for Gaussians that are this wide.
SIGMA = 3.0
FWHM = SIGMA * math.sqrt(8.0 * math.log(2.0))
WIDTH = 200
HEIGHT, NOISE = 40.0, 2.5  # counts
ROOT_PI = math.sqrt(math.pi)
KNOWN, UNKNOWN = 1e-6, 1e6


def bound(
    position: list[float], priors: Priors, height: float = HEIGHT, used: int = WIDTH
) -> Bound:
    echoes = len(position)
    samples = np.zeros((1, WIDTH))
    samples[:, :used] = 1.0
    return cramer_rao(
        Pulse.gaussian("", FWHM),
        np.array([position]),
        np.full((1, echoes), height),
        np.zeros((1, echoes)),
        noise_variance=NOISE**2,
        priors=priors,
        used=samples,
    )


def test_position_and_height_of_a_gaussian_of_known_width() -> None:
    # sum p'^2 = integral of (x / s^2)^2 exp(-x^2 / s^2) = sqrt(pi) / (2 s); sum p^2 = sqrt(pi) s.
    found = bound([100.3], Priors(KNOWN, KNOWN, KNOWN))
    expected = NOISE / HEIGHT * math.sqrt(2.0 * SIGMA / ROOT_PI)
    assert found.position[0, 0] == pytest.approx(expected, rel=1e-6)
    assert found.height[0, 0] == pytest.approx(NOISE / math.sqrt(ROOT_PI * SIGMA), rel=1e-6)


def test_unknown_width_leaves_the_position_and_widens_the_height() -> None:
    # With g = exp(-x^2 / 2 s^2): the derivative of the height-normalised pulse by s is x^2 g / s^3.
    # <g,g> = s r, <g, x^2 g> / s^3 = r / 2, <x^2 g, x^2 g> / s^6 = 3 r / (4 s), r = sqrt(pi):
    # var(h) = n^2 (3 r / 4 s) / (3 r^2 / 4 - r^2 / 4) = n^2 3 / (2 r s),
    # var(s) = n^2 / h^2 * s r / (r^2 / 2) = 2 s n^2 / (h^2 r).
    found = bound([99.8], Priors(KNOWN, UNKNOWN, UNKNOWN))
    assert found.position[0, 0] == pytest.approx(
        NOISE / HEIGHT * math.sqrt(2.0 * SIGMA / ROOT_PI), rel=1e-4
    )
    assert found.height[0, 0] == pytest.approx(NOISE * math.sqrt(1.5 / (ROOT_PI * SIGMA)), rel=1e-3)
    sigma_width = NOISE / HEIGHT * math.sqrt(2.0 * SIGMA / ROOT_PI)
    assert found.fwhm[0, 0] == pytest.approx(sigma_width * FWHM / SIGMA, rel=1e-2)


def test_prior_of_the_width_adds_its_information() -> None:
    # As above, with information about the width: 1 / spread^2 about v, and (2 s)^2 of it about s.
    spread = 0.5
    found = bound([100.0], Priors(KNOWN, spread, 1e-4 * spread))
    heights = SIGMA * ROOT_PI / NOISE**2
    mixed = 0.5 * HEIGHT * ROOT_PI / NOISE**2
    widths = 0.75 * HEIGHT**2 * ROOT_PI / SIGMA / NOISE**2 + (2.0 * SIGMA / spread) ** 2
    expected = math.sqrt(widths / (heights * widths - mixed**2))
    assert found.height[0, 0] == pytest.approx(expected, rel=1e-3)
    expected = math.sqrt(heights / (heights * widths - mixed**2)) * FWHM / SIGMA
    assert found.fwhm[0, 0] == pytest.approx(expected, rel=1e-2)


def test_slopes_of_a_ringing_pulse_are_those_of_its_values() -> None:
    # A skewed pulse distinguishes heights from factors of the widened pulse, unlike a Gaussian.
    pulse, priors = ringing_pulse(""), Priors(2.0, 0.2, 0.1)
    centre = np.array([0.0, 40.3, 55.0, 0.1])  # baseline, position, height, variance
    steps = np.array([1e-3, 1e-3, 1e-3, 2e-2])

    def light(b: float, t: float, h: float, v: float) -> Floats:
        at = np.array([v])
        shape = pulse.samples(np.array([t]), at, WIDTH)[0] / pulse.height_at(at)
        return np.asarray(b + h * shape)

    slopes = np.array(
        [
            (light(*(centre + change)) - light(*(centre - change))) / (2.0 * step)
            for change, step in zip(np.diag(steps), steps, strict=True)
        ]
    )
    information = slopes @ slopes.T / NOISE**2
    information[0, 0] += 1 / 2.0**2
    information[3, 3] += location_information(0.2, 0.1)
    expected = np.sqrt(np.diag(np.linalg.inv(information)))
    found = cramer_rao(
        pulse,
        *(np.full((1, 1), value) for value in centre[1:]),
        noise_variance=NOISE**2,
        priors=priors,
        used=np.ones((1, WIDTH)),
    )
    assert found.position[0, 0] == pytest.approx(expected[1], rel=1e-3)
    assert found.height[0, 0] == pytest.approx(expected[2], rel=1e-3)


def test_unknown_baseline_takes_the_mean_off_the_pulse() -> None:
    # With N samples and a free level: sum p^2 - (sum p)^2 / N = sqrt(pi) s - 2 pi s^2 / N.
    found = bound([100.0], Priors(UNKNOWN, KNOWN, KNOWN))
    left = ROOT_PI * SIGMA - 2.0 * math.pi * SIGMA**2 / WIDTH
    assert found.height[0, 0] == pytest.approx(NOISE / math.sqrt(left), rel=1e-6)


def test_distant_echoes_do_not_change_each_other() -> None:
    priors = Priors(KNOWN, 0.05, 0.05)
    one, two = bound([60.0], priors), bound([60.0, 140.0], priors)
    np.testing.assert_allclose(two.position[0], [one.position[0, 0]] * 2, rtol=1e-9)
    np.testing.assert_allclose(two.height[0], [one.height[0, 0]] * 2, rtol=1e-9)


def test_overlapping_echoes_of_known_heights_and_widths() -> None:
    # Correlation of the derivatives at distance d: <p', p'(d)> / <p', p'> =
    # (1 - d^2 / 2 s^2) exp(-d^2 / 4 s^2).
    distance = 1.5 * SIGMA
    u = distance / SIGMA
    shared = math.exp(-(u**2) / 4.0)
    auto = ROOT_PI * SIGMA
    # Order: position, height of the first; of the second. g' is odd: <g'(x), g(x - d)> = d / 2 s^2.
    h = HEIGHT
    slope = ROOT_PI / (2.0 * SIGMA)
    cross = auto * shared * distance / (2.0 * SIGMA**2)
    information = np.array(
        [
            [h * h * slope, 0.0, h * h * slope * (1 - u * u / 2) * shared, -h * cross],
            [0.0, auto, h * cross, auto * shared],
            [h * h * slope * (1 - u * u / 2) * shared, h * cross, h * h * slope, 0.0],
            [-h * cross, auto * shared, 0.0, auto],
        ]
    )
    expected = NOISE * np.sqrt(np.diag(np.linalg.inv(information)))
    found = bound([100.0, 100.0 + distance], Priors(KNOWN, KNOWN, KNOWN))
    np.testing.assert_allclose(found.position[0], expected[[0, 2]], rtol=1e-6)
    np.testing.assert_allclose(found.height[0], expected[[1, 3]], rtol=1e-6)


def test_half_of_the_samples_give_half_of_the_information() -> None:
    # A pulse centred between two samples, and only those on one side of it.
    priors = Priors(KNOWN, KNOWN, KNOWN)
    whole, half = bound([99.5], priors), bound([99.5], priors, used=100)
    # Position and height are correlated then: <g', g> over x < 0 is 1/2, and, for sums at the
    # middles of unit intervals, 1 / (24 s^2) more (Euler-Maclaurin).
    slope, square = ROOT_PI / (4.0 * SIGMA), ROOT_PI * SIGMA / 2.0
    mixed = 0.5 + 1.0 / (24.0 * SIGMA**2)
    expected = NOISE / HEIGHT / math.sqrt(slope - mixed**2 / square)
    assert half.position[0, 0] == pytest.approx(expected, rel=1e-3)
    assert half.position[0, 0] > whole.position[0, 0] * math.sqrt(2.0)


@pytest.mark.parametrize("spread", [0.05, 0.3])
def test_information_of_a_prior_without_widening_is_that_of_a_normal_distribution(
    spread: float,
) -> None:
    assert location_information(spread, 1e-4 * spread) == pytest.approx(1 / spread**2, rel=1e-3)


def test_information_of_a_widening_prior_lies_between_its_limits() -> None:
    # At least 1 / variance (a normal distribution has the smallest), at most that of the scatter.
    found = location_information(0.05, 0.08)
    assert 1 / (0.05**2 + 0.08**2) < found < 1 / 0.05**2


def test_widened_gaussian_is_a_gaussian() -> None:
    pulse = Pulse.gaussian("", FWHM)
    variance = np.array([-0.3, 0.0, 2.0])
    found = pulse.samples(np.full(3, 40.25), variance, 90)
    sigma = np.sqrt(SIGMA**2 + variance)[:, np.newaxis]
    x = np.arange(90) - 40.25
    expected = SIGMA / sigma * np.exp(-0.5 * (x / sigma) ** 2)
    np.testing.assert_allclose(found, expected, atol=1e-12)
    np.testing.assert_allclose(pulse.height_at(variance), (SIGMA / sigma)[:, 0], rtol=1e-4)
    np.testing.assert_allclose(pulse.fwhm_at(variance), (FWHM / SIGMA * sigma)[:, 0], rtol=1e-3)


def test_ringing_pulse_follows_its_formula() -> None:
    pulse = ringing_pulse("")
    delay = 4.0 * math.atan(2.0)
    found = pulse.samples(np.array([30.0]), np.zeros(1), 90)[0]
    t = np.arange(90) - 30.0 + delay
    expected = np.where(t > 0, np.exp(-t / 4) * (1 - np.cos(t / 2)), 0.0)
    top = math.exp(-delay / 4) * (1 - math.cos(delay / 2))
    np.testing.assert_allclose(found, expected / top, atol=2e-3)
    assert found[30] == pytest.approx(1.0, abs=1e-3)
