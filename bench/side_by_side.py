"""The methods beside general tools on the same waveforms, in one run, as ratios of time.

Usage: side_by_side.py
Modes 0, 1 and 2 through Python `apply` against SciPy, lmfit and scikit-image, which are in the
dependency group bench.
"""

from __future__ import annotations

import numpy as np
import numpy.typing as npt
from lmfit import Model
from scenes import fastest, waveforms
from scipy.optimize import curve_fit, least_squares, leastsq
from scipy.signal import find_peaks
from skimage.restoration import richardson_lucy

from fullwaveform import Driver, Scanner

ROWS, SAMPLES, ECHOES = 400, 40, 2
NOISE = 20
ITERATIONS = 20
Values = npt.NDArray[np.float64]
X = np.arange(SAMPLES, dtype=float)


def model(x: Values, *parameters: float) -> Values:
    """Sum of Gaussians: height, position, standard deviation of each."""
    a, m, s = np.reshape(parameters, (-1, 3, 1)).transpose(1, 0, 2)
    return (a * np.exp(-0.5 * ((x - m) / s) ** 2)).sum(0)


def jacobian(x: Values, *parameters: float) -> Values:
    """Derivatives of the model: (samples, parameters)."""
    a, m, s = np.reshape(parameters, (-1, 3, 1)).transpose(1, 0, 2)
    distance = x - m
    shape = np.exp(-0.5 * (distance / s) ** 2)
    columns = (shape, a * shape * distance / s**2, a * shape * distance**2 / s**3)
    return np.stack(columns, axis=1).reshape(-1, x.size).T


def start_of(signal: Values) -> list[float]:
    """Heights and positions of the two largest maxima."""
    found = find_peaks(signal, height=20, distance=4)
    order = np.argsort(found[1]["peak_heights"])[-ECHOES:]
    return [
        value
        for peak in sorted(found[0][order])
        for value in (float(signal[peak]), float(peak), 2.4)
    ]


def parabolas(samples: Values) -> None:
    """Maxima and the Gauss curve through three samples at each, waveform by waveform."""
    for row in samples:
        peaks, _ = find_peaks(row, height=NOISE)
        left, centre, right = (np.log(np.maximum(row[peaks + step], 1.0)) for step in (-1, 0, 1))
        curve = left - 2 * centre + right
        with np.errstate(all="ignore"):
            np.exp(centre - (left - right) ** 2 / (8 * curve))


def lmfit_model() -> Model:
    """The two-echo model with names."""

    def two(x: Values, a1: float, m1: float, s1: float, a2: float, m2: float, s2: float) -> Values:
        return model(x, a1, m1, s1, a2, m2, s2)

    return Model(two)


def main() -> None:
    """Prints the ratios."""
    samples = waveforms(ROWS, SAMPLES, ECHOES)
    signals = samples.astype(float) - NOISE
    starts = [start_of(signal) for signal in signals]
    tolerances = {"ftol": 1e-3, "xtol": 1e-3, "gtol": 0.0}
    pairs = list(zip(signals, starts, strict=True))
    named = lmfit_model()
    names = ("a1", "m1", "s1", "a2", "m2", "s2")
    pulse = np.exp(-0.5 * ((np.arange(12) - 4) / 1.8) ** 2)
    pulse /= pulse.sum()
    finer = np.repeat(
        np.maximum(signals, 0.01), 5, axis=1
    )  # as many samples as the method works on

    tools = {
        0: {"SciPy find_peaks + parabola": lambda: parabolas(samples.astype(float))},
        1: {
            "SciPy leastsq": lambda: [
                leastsq(
                    lambda p, y=y: model(X, *p) - y,
                    start,
                    Dfun=lambda p, y=y: jacobian(X, *p),
                    maxfev=20,
                    **tolerances,
                )
                for y, start in pairs
            ],
            "SciPy least_squares": lambda: [
                least_squares(
                    lambda p, y=y: model(X, *p) - y,
                    start,
                    lambda p: jacobian(X, *p),
                    method="lm",
                    ftol=1e-3,
                    xtol=1e-3,
                )
                for y, start in pairs
            ],
            "SciPy curve_fit": lambda: [
                curve_fit(model, X, y, start, jac=jacobian, ftol=1e-3, xtol=1e-3)
                for y, start in pairs
            ],
            "lmfit": lambda: [
                named.fit(y, x=X, **dict(zip(names, start, strict=True))) for y, start in pairs
            ],
        },
        2: {
            "scikit-image richardson_lucy": lambda: [
                richardson_lucy(row / 4096.0, pulse, num_iter=ITERATIONS) for row in finer
            ]
        },
    }
    print("mode  tool                          ours us  tool us   ratio")
    for mode, alternatives in tools.items():
        scanner = scanner_of() if mode == 2 else Scanner.default(1e-9)
        driver = Driver(mode, scanner)
        for name, work in alternatives.items():
            ours = theirs = float("inf")
            for _ in range(3):
                ours = min(
                    ours, fastest(lambda d=driver: d.apply(samples, noise=NOISE), 20) / ROWS * 1e6
                )
                with np.errstate(all="ignore"):
                    theirs = min(theirs, fastest(work, 1) / ROWS * 1e6)
            print(f"{mode:4}  {name:28}  {ours:7.2f}  {theirs:7.1f}  {theirs / ours:6.1f}")


def scanner_of() -> Scanner:
    """A scanner whose pulse is 1.9 exp(-t/4) (1 - cos(t/2)), t in ns."""
    attributes = {
        **Scanner.default(1e-9).attributes,
        "a_real": [1.9, -0.95, -0.95],
        "a_imag": [0.0, 0.0, 0.0],
        "b_real": [-0.25e9] * 3,
        "b_imag": [0.0, 0.5e9, -0.5e9],
    }
    return Scanner(attributes)


if __name__ == "__main__":
    main()
