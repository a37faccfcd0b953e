"""Print how well the stated uncertainties of echoes describe their errors, by method and SNR.

For each value its pull, the root mean square of error over stated uncertainty, and the shares of
errors within one and 1.96 uncertainties: 68 % and 95 % where the uncertainty is right. Isolated
echoes of the method pages at random phases.
"""

from __future__ import annotations

import tempfile
from dataclasses import replace
from pathlib import Path

import numpy as np
from method_scenes import INTERVAL, PULSE_WIDTH, FloatArray, clean, recorded, scanner

import fullwaveform
from fullwaveform import Mode, Scanner

WAVEFORMS = 10_000
NOISE_RMS = 4.0  # counts
SNRS = (10, 30, 100, 300)
METHODS = (Mode.THREE_POINT, Mode.DECOMPOSITION, Mode.DECONVOLUTION, Mode.HYBRID)
_FWHM_PER_SIGMA = 2.3548200
_MIN_ECHOES = 1000  # of a row of the table


def main() -> None:
    """Print the table."""
    complete, offset = scanner()
    known = replace(complete, deconvolution_offset=offset)
    print("| method, SNR | position | coverage | amplitude | coverage | width | coverage |")
    print("|---|---:|---:|---:|---:|---:|---:|")
    with tempfile.TemporaryDirectory() as folder:
        for mode in METHODS:
            for snr in SNRS:
                cells = row(Path(folder), mode, snr, known)
                name = mode.name.lower().replace("_", "-")
                print(f"| {name}, {snr} | " + " | ".join(cells) + " |")


def row(folder: Path, mode: Mode, snr: int, known: Scanner) -> list[str]:
    """Pull and coverage of position, amplitude and width; en dashes where there are no echoes."""
    truth = 40.0 + np.random.default_rng(snr).uniform(-0.5, 0.5, (WAVEFORMS, 1))
    signal = clean(truth, np.full_like(truth, snr * NOISE_RMS))
    path = folder / "waveforms.npz"
    samples = recorded(signal, NOISE_RMS, seed=snr)
    np.savez(path, samples=samples, sampling_interval=INTERVAL)
    echoes = fullwaveform.extract(path, mode=mode, scanner=known, threshold=32).peaks
    _, first, count = np.unique(echoes["waveform_number"], return_index=True, return_counts=True)
    single = first[count == 1]
    if len(single) < _MIN_ECHOES:
        return ["–"] * 6
    waveform = echoes["waveform_number"][single]
    position = echoes["position"][single] - truth[waveform, 0]
    amplitude = echoes["amplitude"][single] - snr * NOISE_RMS
    width = echoes["fwhm_ns"][single] - _FWHM_PER_SIGMA * PULSE_WIDTH
    return [
        *shown(position, echoes["sigma_position_ns"][single]),
        *shown(amplitude, echoes["sigma_amplitude"][single]),
        *shown(width, echoes["sigma_width_ns"][single]),
    ]


def shown(error: FloatArray, sigma: FloatArray) -> list[str]:
    """The pull, and the shares within one and 1.96 standard deviations."""
    if np.isnan(sigma).any():
        return ["–", "–"]
    ratio = np.abs(error / sigma)
    pull = float(np.sqrt(np.mean(ratio**2)))
    return [f"{pull:.2f}", f"{np.mean(ratio < 1.0):.0%}, {np.mean(ratio < 1.96):.0%}"]


if __name__ == "__main__":
    main()
