"""Times of the methods and of general tools on the same waveforms, as ratios.

Usage: side_by_side.py MEASURE_FITS  (the program fullwaveform_measure_fits of the bench build)
SciPy, lmfit and scikit-image are in the dependency group bench. Single fits are compared with the
same signal and start, and with the whole of Python `apply`, which finds its own start values.
"""

from __future__ import annotations

import subprocess
import sys
import tempfile
from collections.abc import Callable
from pathlib import Path

import numpy as np
import numpy.typing as npt
from lmfit import Model
from scenes import Samples, fastest, waveforms
from scipy.optimize import curve_fit, least_squares, leastsq
from scipy.signal import find_peaks
from skimage.restoration import richardson_lucy

from fullwaveform import Driver, Scanner

ROWS, SAMPLES, ECHOES = 400, 40, 2
THRESHOLD = 20
ITERATIONS = 20
TOLERANCE = 1e-3  # relative, of squares and parameters
ROUNDS = 3
Values = npt.NDArray[np.float64]
X = np.arange(SAMPLES, dtype=float)


def model(x: Values, *parameters: float) -> Values:
    """Sum of Gaussians: amplitude, position, standard deviation of each."""
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
    """Amplitudes and positions of the two largest maxima."""
    found = find_peaks(signal, height=20, distance=4)
    order = np.argsort(found[1]["peak_heights"])[-ECHOES:]
    return [
        value
        for peak in sorted(found[0][order])
        for value in (float(signal[peak]), float(peak), 2.4)
    ]


def parabolas(samples: Values) -> None:
    """Maxima and the Gaussian through three samples at each, per waveform."""
    for row in samples:
        peaks, _ = find_peaks(row, height=THRESHOLD)
        left, centre, right = (np.log(np.maximum(row[peaks + step], 1.0)) for step in (-1, 0, 1))
        curve = left - 2 * centre + right
        with np.errstate(all="ignore"):
            np.exp(centre - (left - right) ** 2 / (8 * curve))


def lmfit_model() -> Model:
    """The two-echo model with named parameters."""

    def two(x: Values, a1: float, m1: float, s1: float, a2: float, m2: float, s2: float) -> Values:
        return model(x, a1, m1, s1, a2, m2, s2)

    return Model(two)


def fits_in_cpp(program: Path, signals: Values, starts: Values) -> tuple[float, Values]:
    """Microseconds per fit, without any other step, and the fitted parameters."""
    with tempfile.NamedTemporaryFile() as file:
        signals.tofile(file)
        starts.tofile(file)
        file.flush()
        numbers = map(str, (*signals.shape, starts.shape[1] // 3, 50))
        done = subprocess.run(
            [program, file.name, *numbers], check=True, capture_output=True, text=True
        )
    first, *rows = done.stdout.splitlines()
    return float(first), np.array([row.split() for row in rows], dtype=float)


def fits(signals: Values, starts: Values) -> dict[str, Callable[[], list[Values]]]:
    """Per tool a function that fits all signals and returns the parameters."""
    pairs = list(zip(signals, starts, strict=True))
    named_model = lmfit_model()
    names = ("a1", "m1", "s1", "a2", "m2", "s2")

    def with_leastsq(signal: Values, start: Values) -> Values:
        return leastsq(
            lambda p: model(X, *p) - signal,
            start,
            Dfun=lambda p: jacobian(X, *p),
            maxfev=20,
            ftol=TOLERANCE,
            xtol=TOLERANCE,
            gtol=0.0,
        )[0]

    def with_least_squares(signal: Values, start: Values) -> Values:
        return least_squares(
            lambda p: model(X, *p) - signal,
            start,
            lambda p: jacobian(X, *p),
            method="lm",
            ftol=TOLERANCE,
            xtol=TOLERANCE,
        ).x

    def with_curve_fit(signal: Values, start: Values) -> Values:
        return curve_fit(model, X, signal, start, jac=jacobian, ftol=TOLERANCE, xtol=TOLERANCE)[0]

    def with_lmfit(signal: Values, start: Values) -> Values:
        found = named_model.fit(signal, x=X, **dict(zip(names, start, strict=True)))
        return np.array([found.best_values[name] for name in names])

    tools = {
        "SciPy leastsq": with_leastsq,
        "SciPy least_squares": with_least_squares,
        "SciPy curve_fit": with_curve_fit,
        "lmfit": with_lmfit,
    }
    return {
        name: lambda fit=fit: [fit(signal, start) for signal, start in pairs]
        for name, fit in tools.items()
    }


def compare_fits(program: Path, samples: Samples) -> None:
    """Compare single fits of the same signal and start, and the whole of `apply`."""
    signals = samples.astype(float) - THRESHOLD
    starts = np.array([start_of(signal) for signal in signals])
    driver = Driver(1, Scanner.default(1e-9))
    print(
        "tool                  one fit us  apply us  tool us  tool/fit  tool/apply  max difference"
    )
    for name, work in fits(signals, starts).items():
        fit = whole = theirs = float("inf")
        for _ in range(ROUNDS):
            taken, ours = fits_in_cpp(program, signals, starts)
            fit = min(fit, taken)
            whole = min(whole, microseconds(lambda: driver.apply(samples, threshold=THRESHOLD), 20))
            theirs = min(theirs, microseconds(work, 1))
        difference = np.max(np.abs(np.array(work()) - ours)[:, 1::3])
        print(
            f"{name:20}  {fit:10.2f}  {whole:8.2f}  {theirs:7.1f}  {theirs / fit:8.1f}"
            f"  {theirs / whole:10.1f}  {difference:14.1e}"
        )


def compare_methods(samples: Samples) -> None:
    """Compare modes 0 and 2 with similar methods."""
    pulse = np.exp(-0.5 * ((np.arange(12) - 4) / 1.8) ** 2)
    pulse /= pulse.sum()
    # Up-sampled as in the method.
    finer = np.repeat(np.maximum(samples.astype(float) - THRESHOLD, 0.01), 5, axis=1)
    tools: dict[str, tuple[Driver, Callable[[], object]]] = {
        "SciPy find_peaks + parabola": (
            Driver(0, Scanner.default(1e-9)),
            lambda: parabolas(samples.astype(float)),
        ),
        "scikit-image richardson_lucy": (
            Driver(2, scanner()),
            lambda: [richardson_lucy(row / 4096.0, pulse, num_iter=ITERATIONS) for row in finer],
        ),
    }
    print("tool                          apply us  tool us   ratio")
    for name, (driver, work) in tools.items():
        ours = theirs = float("inf")
        for _ in range(ROUNDS):
            ours = min(
                ours, microseconds(lambda d=driver: d.apply(samples, threshold=THRESHOLD), 20)
            )
            theirs = min(theirs, microseconds(work, 1))
        print(f"{name:28}  {ours:8.2f}  {theirs:7.1f}  {theirs / ours:6.1f}")


def microseconds(work: Callable[[], object], runs: int) -> float:
    """Minimum time per waveform."""
    with np.errstate(all="ignore"):
        return fastest(work, runs) / ROWS * 1e6


def main(program: Path) -> None:
    """Print the ratios."""
    samples = waveforms(ROWS, SAMPLES, ECHOES)
    compare_methods(samples)
    compare_fits(program, samples)


def scanner() -> Scanner:
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
    main(Path(sys.argv[1]))
