"""Draw the pictures of docs/methods: what every method makes of waveforms with known echoes.

python examples/python/draw_method_pictures.py DIRECTORY
"""

from __future__ import annotations

import sys
from pathlib import Path

import numpy as np
import numpy.typing as npt
from matplotlib.axes import Axes
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.figure import Figure
from method_scenes import INTERVAL, Echoes, FloatArray, clean, of_library, recorded, scanner

from fullwaveform import Driver, Mode
from fullwaveform.core.online import evaluate_online
from fullwaveform.core.pulse_fit import PulseFit, PulseModel

INK, GREY, SIGNAL, ECHO, OTHER = "#1f2a36", "#7b8794", "#2f6690", "#c8501e", "#5b9279"
STEPS, WINDOW = 5, 12  # of the deconvolution: steps per sample, samples of its system wave


def main(directory: Path) -> None:
    """Write a PNG per method."""
    directory.mkdir(parents=True, exist_ok=True)
    for name, draw in PICTURES.items():
        figure = Figure(figsize=(9.0, 3.5), dpi=130, layout="constrained")
        FigureCanvasAgg(figure)
        draw(figure)
        figure.savefig(directory / f"{name}.png")


def three_point(figure: Figure) -> None:
    """The Gaussian through three samples, and the parabola through their logarithms."""
    samples = recorded(clean([[20.35]], [[220.0]], 42), 1.5)
    echoes = of_library(Mode.THREE_POINT, samples, 20)
    centre, top, width = echoes.position[0], echoes.amplitude[0], echoes.width[0]
    x = np.arange(12.0, 29.01, 0.05)
    gauss = top * np.exp(-0.5 * ((x - centre) / width) ** 2)
    three = np.argmax(samples[0]) + np.array([-1, 0, 1])
    left, right = figure.subplots(1, 2)
    steps(left, samples[0], 20)
    left.plot(x, gauss, color=ECHO, linewidth=1.4)
    left.plot(three, samples[0, three], "o", color=INK, markersize=5)
    left.vlines(centre, 0, top, color=ECHO, linewidth=0.9)
    left.hlines(top * np.exp(-0.5), centre, centre + width, color=ECHO, linewidth=2)
    label(left, (centre + width + 0.4, top * np.exp(-0.5)), f"σ = {width:.2f} samples", ECHO)
    label(left, (centre + 0.9, 1.05 * top), f"μ = {centre:.2f}, A = {top:.0f} counts", ECHO)
    label(left, (12.2, 27), "threshold", INK)
    finish(left, "the Gaussian through the maximum and its neighbours", (12, 29), (0, 1.2 * top))
    shown = np.abs(x - centre) < 3.2
    right.plot(x[shown], np.log(gauss[shown]), color=ECHO, linewidth=1.4)
    around = np.arange(three[0] - 2, three[2] + 3)
    right.plot(around, np.log(samples[0, around]), "o", color=SIGNAL, markersize=4, alpha=0.5)
    right.plot(three, np.log(samples[0, three]), "o", color=INK, markersize=5)
    right.axvline(centre, color=ECHO, linewidth=0.9)
    for k, name in zip(three, ("k − 1", "k", "k + 1"), strict=True):
        label(right, (k, np.log(samples[0, k]) - 0.22), name, INK, "center")
    label(right, (centre + 0.15, 3.55), "vertex μ", ECHO)
    finish(right, "is a parabola through their logarithms", (16.5, 24), (3.4, 5.7), "ln counts")


def decomposition(figure: Figure) -> None:
    """A sum of Gaussians, its parts, and what it leaves."""
    signal = clean([[20.3, 26.2, 33.5]], [[180.0, 110.0, 140.0]], 60)
    samples, level = recorded(signal, 1.5), 20
    echoes = of_library(Mode.DECOMPOSITION, samples, level)
    x = np.arange(13.0, 41.01, 0.05)
    parts = gaussians(echoes, x)
    upper, lower = figure.subplots(2, 1, sharex=True, height_ratios=(3.2, 1.0))
    steps(upper, samples[0], level)
    for part, centre, top in zip(parts, echoes.position, echoes.amplitude, strict=True):
        upper.plot(x, level + part, color=ECHO, linewidth=0.9, linestyle=(0, (3, 2)))
        label(upper, (centre, level + top + 12), f"μ = {centre:.2f}", ECHO, "center")
    upper.plot(x, level + parts.sum(axis=0), color=INK, linewidth=1.2)
    label(upper, (8.3, level + 6), "threshold", INK)
    label(upper, (36.2, 108), "sum, fitted to the segment as a whole", INK)
    label(upper, (36.2, 82), "its Gaussians, each above the threshold", ECHO)
    finish(upper, "decomposition of a segment above the threshold", (8, 47), (0, 235))
    upper.set_xlabel("")
    index = np.arange(60)
    inside = samples[0] > level
    rest = samples[0] - level - gaussians(echoes, index.astype(np.float64)).sum(axis=0)
    lower.vlines(index[inside], 0, rest[inside], color=SIGNAL, linewidth=2)
    lower.axhline(0.0, color=GREY, linewidth=0.7)
    finish(lower, "what the sum leaves", (8, 47), (-14, 14))


def deconvolution(figure: Figure) -> None:
    """The system wave, the estimate after some corrections, and the echoes found."""
    samples, level = recorded(clean([[22.0, 27.4]], [[150.0, 400.0]], 50), 1.5), 20
    echoes = of_library(Mode.DECONVOLUTION, samples, level)
    left, right = figure.subplots(1, 2, width_ratios=(1.0, 2.4))
    wave = system_wave()
    time = np.arange(len(wave)) / STEPS
    left.fill_between(time, wave, color=SIGNAL, alpha=0.16, linewidth=0)
    left.plot(time, wave, color=SIGNAL, linewidth=1.2)
    finish(left, "system wave", (0, WINDOW - 1), (0.0, 1.15), "share of its maximum")
    steps(right, samples[0], level)
    grid, estimates = sharpened(samples[0], level, wave)
    shown = zip((1, 3, len(estimates)), (GREY, OTHER, ECHO), (380, 335, 290), strict=True)
    for count, colour, height in shown:
        right.plot(grid, estimates[count - 1], color=colour, linewidth=1.2)
        words = "1 correction" if count == 1 else f"{count} corrections"
        label(right, (32.5, height), words + (", the last" if colour == ECHO else ""), colour)
    right.plot(echoes.position, echoes.amplitude, "o", color=INK, markersize=5)
    for centre, top in zip(echoes.position, echoes.amplitude, strict=True):
        label(right, (centre - 0.4, top + 16), f"{centre:.2f}", INK, "right")
    right.plot(32.0, 251, "o", color=INK, markersize=5)
    label(right, (32.5, 245), "echoes found", INK)
    label(right, (32.5, 200), "samples", SIGNAL)
    finish(right, "the estimate gets sharper with every correction", (14, 40), (0, 490))


def hybrid(figure: Figure) -> None:
    """A weak and a strong waveform of the low-power channel on either side of the bound."""
    axes = figure.subplots(1, 2, sharey=True)
    for at, amplitudes in zip(axes, ([[800.0, 1500.0]], [[1400.0, 2900.0]]), strict=True):
        samples = recorded(clean([[20.3, 26.0]], amplitudes, 50), 1.5)
        echoes = of_library(Mode.HYBRID, samples, 20)
        steps(at, samples[0], None)
        at.axhline(1800, color=INK, linewidth=0.9, linestyle=(0, (4, 2)))
        if samples.max() <= 1800:
            at.vlines(echoes.position, 0, echoes.amplitude, color=ECHO, linewidth=0.9)
            at.plot(echoes.position, echoes.amplitude, "o", color=ECHO, markersize=4.5)
            title = "at most 1800: deconvolution, positions without widths"
        else:
            x = np.arange(12.0, 36.0, 0.05)
            for part in gaussians(echoes, x):
                at.plot(x, 20 + part, color=ECHO, linewidth=1.4)
            title = "above 1800: decomposition, Gaussians"
        label(at, (34.7, 1840), "1800 counts", INK, "right")
        label(at, (25.2, samples.max() - 60), f"largest sample {samples.max():,}", SIGNAL, "right")
        finish(at, title, (12, 35), (0, 3300))
    axes[1].set_ylabel("")


def pulse_fit(figure: Figure) -> None:
    """The measured pulse with its ringing, and two echoes closer than its width."""
    lags = np.arange(-10.0, 24.01, 1.0 / 16.0)
    model = PulseModel(
        pulse=tuple(ringing_pulse(lags)),
        first_lag=float(lags[0]),
        lag_step=1.0 / 16.0,
        baseline=12.0,
        baseline_spread=0.3,
        noise_rms=1.5,
        noise_correlation=1.0,
        scatter=0.0005,
        variance_spread=0.05,
        widening=0.2,
        sampling_interval=INTERVAL,
    )
    index = np.arange(60.0)
    light = 220.0 * ringing_pulse(index - 20.3) + 130.0 * ringing_pulse(index - 22.9)
    noise = np.random.default_rng(4).normal(0.0, 1.5, 60)
    samples = np.rint(12.0 + light + noise).astype(np.uint16)
    fit = PulseFit(model)
    found = fit.apply(samples[np.newaxis])
    echoes, base = found.echoes, float(found.waveforms["baseline"][0])
    x = np.arange(8.0, 47.0, 0.05)
    columns = np.column_stack([echoes[name] for name in ("position", "amplitude", "fwhm")])
    parts = [fit.pulses(*row[:, np.newaxis], x) for row in columns]
    grid = figure.add_gridspec(2, 2, width_ratios=(1.0, 2.0), height_ratios=(3.2, 1.0))
    left, upper, lower = (figure.add_subplot(at) for at in (grid[:, 0], grid[0, 1], grid[1, 1]))
    left.plot(lags, ringing_pulse(lags), color=SIGNAL, linewidth=1.3)
    for fwhm in (6.0, 8.0):
        one = np.array([0.0]), np.array([1.0]), np.array([fwhm])
        left.plot(lags, fit.pulses(*one, lags), color=OTHER, linewidth=1.0)
    label(left, (4.6, 0.9), "measured pulse", SIGNAL)
    label(left, (5.4, 0.55), "widened by surfaces", OTHER)
    label(left, (9.5, 0.14), "ringing", SIGNAL)
    finish(left, "the pulse of the model", (-9, 22), (-0.06, 1.12), "share of the maximum")
    left.set_xlabel("lag [samples]", fontsize=8, color=INK)
    steps(upper, samples, None)
    heights = ((255.0, "right", -1.2), (190.0, "left", 1.4))
    for part, row, sigma, (top, side, aside) in zip(
        parts, columns, echoes["sigma_position"], heights, strict=True
    ):
        upper.plot(x, base + part, color=ECHO, linewidth=0.9, linestyle=(0, (3, 2)))
        label(upper, (row[0] + aside, top), f"{row[0]:.2f} ± {sigma:.2f}", ECHO, side)
    upper.plot(x, base + np.sum(parts, axis=0), color=INK, linewidth=1.2)
    label(upper, (29.0, 120), "the sum, fitted to all samples", INK)
    label(upper, (29.0, 90), "its two echoes, 0.65 widths apart", ECHO)
    finish(upper, "two echoes, and what rings behind them", (8, 47), (0, 320))
    upper.set_xlabel("")
    rest = samples - base - fit.pulses(*columns.T, index)
    lower.vlines(index, 0, rest, color=SIGNAL, linewidth=2)
    lower.axhline(0.0, color=GREY, linewidth=0.7)
    finish(lower, "what the sum leaves", (8, 47), (-8, 8))


def ringing_pulse(lag: FloatArray) -> FloatArray:
    """A pulse 4 samples wide, with a slow fall and 6 % of ringing."""
    core = np.exp(-0.5 * (lag / np.where(lag < 0.0, 1.5, 1.9)) ** 2)
    ringing = 0.06 * np.exp(-0.5 * ((lag - 10.5) / 1.6) ** 2)
    return np.asarray(core + ringing - 0.02 * np.exp(-0.5 * ((lag - 15.0) / 2.0) ** 2))


def on_board(figure: Figure) -> None:
    """Echoes in their order of arrival, and their shots."""
    shot = np.array([2, 1, 2, 3, 1, 2, 3, 4]) * 10e-6  # s
    ranges = np.array([612.4, 618.9, 604.0, 606.2, 611.0, 619.5, 619.8, 619.1])  # m
    amplitudes = np.array([14.0, 22.0, 9.0, 11.0, 7.0, 19.0, 21.0, 24.0])  # dB
    found = evaluate_online(scanner()[0], shot, ranges, amplitudes)
    left, right = figure.subplots(1, 2)
    left.plot(np.arange(1, 9), ranges, "o", color=SIGNAL, markersize=6)
    for number, (at, metres) in enumerate(zip(shot, ranges, strict=True), start=1):
        label(left, (number + 0.18, metres + 0.5), f"shot {at * 1e5:.0f}", SIGNAL)
    finish(left, "records as they arrive", (0.5, 9.4), (602, 622), "range [m]")
    left.set_xlabel("record", fontsize=8, color=INK)
    travel = found["time"] * 1e9
    right.hlines(found["shotTime"] * 1e5, travel.min() - 8, travel, color=GREY, linewidth=0.7)
    right.scatter(travel, found["shotTime"] * 1e5, s=6 + 5 * found["amplitude"], color=ECHO)
    order = np.arange(len(travel)) - np.searchsorted(found["shotTime"], found["shotTime"]) + 1
    for number, when, at in zip(order, travel, found["shotTime"] * 1e5, strict=True):
        label(right, (when, at - 0.3), f"echo {number}", ECHO, "center")
    finish(
        right, "shot by shot, nearest first; size is amplitude", (4020, 4150), (4.6, 0.4), "shot"
    )
    right.set_yticks([1, 2, 3, 4])
    right.set_xlabel("two-way travel time [ns]", fontsize=8, color=INK)


def gaussians(echoes: Echoes, x: FloatArray) -> FloatArray:
    """A row of values per echo."""
    off = (x - echoes.position[:, np.newaxis]) / echoes.width[:, np.newaxis]
    return np.asarray(echoes.amplitude[:, np.newaxis] * np.exp(-0.5 * off**2))


def system_wave() -> FloatArray:
    """The exponential sum of the scanner at the steps of the deconvolution, maximum 1."""
    values = scanner()[0].attributes
    a, b = (np.array(values[f"{t}_real"]) + 1j * np.array(values[f"{t}_imag"]) for t in "ab")
    time = np.arange((WINDOW - 1) * STEPS + 1) * (INTERVAL / STEPS)
    wave = (np.exp(np.outer(time, b)) @ a).real
    return np.asarray(wave / wave.max())


def sharpened(
    samples: npt.NDArray[np.uint16], level: int, wave: FloatArray
) -> tuple[FloatArray, list[FloatArray]]:
    """Sample positions, and the estimate after every correction until the sum converges."""
    description, offset = scanner()
    found = (
        Driver(Mode.THREE_POINT, description).apply(samples[np.newaxis], threshold=level).waveforms
    )
    first, last = int(found["globalStart"][0]), int(found["globalEnd"][0])
    grid = first + np.arange((last - first) * STEPS) / STEPS
    observed = np.maximum(np.interp(grid, np.arange(len(samples)), samples) - level, 0.0)
    highest = observed.max()
    observed /= highest
    estimate, centre, size = observed.copy(), len(wave) // 2 - 1, len(observed)
    previous, estimates = 0.0, []
    for number in range(40):
        blurred = np.convolve(estimate, wave)[centre : centre + size]
        ratio = np.divide(observed, blurred, out=np.zeros(size), where=blurred != 0.0)
        factors = np.convolve(ratio, wave[::-1])[centre : centre + size]
        estimate = estimate * factors
        estimates.append(level + estimate * (highest / estimate[:-1].max()))
        if (factors.sum() > previous and number >= 6) or abs(factors.sum() - previous) < 0.02:
            break
        previous = factors.sum()
    return grid - 0.5 * STEPS - offset, estimates


def steps(axes: Axes, samples: npt.NDArray[np.uint16], level: int | None) -> None:
    """Samples as steps, and the threshold where there is one."""
    index = np.arange(len(samples))
    axes.fill_between(index, samples, step="mid", color=SIGNAL, alpha=0.16, linewidth=0)
    axes.step(index, samples, where="mid", color=SIGNAL, linewidth=0.9)
    if level is not None:
        axes.axhline(level, color=INK, linewidth=0.8, linestyle=(0, (4, 2)))


def label(axes: Axes, at: tuple[float, float], words: str, colour: str, side: str = "left") -> None:
    """Text next to what it names, in its colour."""
    axes.text(*at, words, color=colour, fontsize=8, ha=side)


def finish(
    axes: Axes,
    title: str,
    x: tuple[float, float],
    y: tuple[float, float],
    unit: str = "counts",
) -> None:
    """Title, range and quiet axes."""
    axes.set_title(title, loc="left", fontsize=9, color=INK)
    axes.set(xlim=x, ylim=y)
    axes.set_xlabel("sample", fontsize=8, color=INK)
    axes.set_ylabel(unit, fontsize=8, color=INK)
    axes.spines[["top", "right"]].set_visible(False)
    axes.spines[["left", "bottom"]].set_color(GREY)
    axes.tick_params(labelsize=7, colors=INK, color=GREY, length=2.5)


PICTURES = {
    "three-point": three_point,
    "decomposition": decomposition,
    "deconvolution": deconvolution,
    "hybrid": hybrid,
    "pulse-fit": pulse_fit,
    "on-board": on_board,
}

if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(Path(sys.argv[1]))
