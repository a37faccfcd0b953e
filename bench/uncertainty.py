"""Share of an extraction that the uncertainties of its echoes take, by mode and number of echoes.

Extractions of the same block with and without them, in turn; medians of processor times.
"""

from __future__ import annotations

import time
from dataclasses import replace

import numpy as np
from scenes import scanner, waveforms

from fullwaveform import Mode
from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import measure_levels
from fullwaveform.data.blocks import PulseGeometry, ShotAttributes, WaveformBlock
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor

WAVEFORMS, RUNS = 4_000, 15
SCENES = ((80, 1), (80, 2), (80, 3), (400, 6))  # samples, echoes


def block_of(samples: int, echoes: int) -> WaveformBlock:
    """Waveforms of a shot each, 1 ns per sample, without places in space."""
    nothing, byte = np.zeros(WAVEFORMS), np.zeros(WAVEFORMS, np.uint8)
    angle, source = nothing.astype(np.float32), byte.astype(np.uint16)
    return WaveformBlock(
        samples=waveforms(WAVEFORMS, samples, echoes),
        counts=np.full(WAVEFORMS, samples, np.uint16),
        shot_times=np.arange(WAVEFORMS, dtype=np.float64),
        sbl_times=nothing,
        channel_flags=np.ones(WAVEFORMS, np.uint8),
        sampling_intervals=np.full(WAVEFORMS, 1e-9),
        geometry=PulseGeometry(np.zeros((WAVEFORMS, 3)), nothing, np.zeros((WAVEFORMS, 3))),
        attributes=ShotAttributes(nothing, angle, byte, byte, byte, source),
        waveform_numbers=np.arange(WAVEFORMS),
    )


def seconds(extractor: Extractor, block: WaveformBlock) -> float:
    """Processor time of one extraction."""
    start = time.process_time()
    extractor.extract(block)
    return time.process_time() - start


def main() -> None:
    """Print the table."""
    print("| mode | samples | echoes | without, µs per waveform | with, µs | more |")
    print("|---:|---:|---:|---:|---:|---:|")
    for mode in (Mode.THREE_POINT, Mode.DECOMPOSITION, Mode.DECONVOLUTION, Mode.HYBRID):
        for samples, echoes in SCENES:
            block = block_of(samples, echoes)
            calibration = Calibration(measure_levels([block]))
            settings = ExtractionSettings(scanner(), mode, calibration=calibration)
            both = [Extractor(replace(settings, uncertainty=choice)) for choice in (False, True)]
            times = [[seconds(each, block) for each in both] for _ in range(RUNS)]
            without, with_them = np.median(times, axis=0) / WAVEFORMS * 1e6
            print(
                f"| {mode} | {samples} | {echoes} | {without:.2f} | {with_them:.2f} "
                f"| {with_them / without - 1.0:.0%} |"
            )


if __name__ == "__main__":
    main()
