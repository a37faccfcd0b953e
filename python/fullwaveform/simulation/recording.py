"""What a recorder stores that counts ranges in whole samples, and the outgoing pulses.

The digitiser samples at the ticks of its clock, the pulse leaves at any time between two of them.
The samples of the echoes are those of `SimulatedScan`; the time from the tick nearest to the pulse
to the first of them is a whole number of samples, which is wrong by the phase of the pulse.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray, UInt16Array
from fullwaveform.data.blocks import (
    OutgoingPulses,
    PulseGeometry,
    ShotAttributes,
    WaveformBlock,
)
from fullwaveform.simulation.settings import ScanSettings
from fullwaveform.simulation.waveforms import SimulatedScan

OUTGOING_SAMPLES = 40
_TICK = 16  # sample of the outgoing pulse's recording from which the ranges count
_OUTGOING_SHARE = 0.6  # of the digitiser limit
_OUTGOING_SPREAD = 0.02  # relative standard deviation of the pulse energy
_RANDOM_STREAM = 3


@dataclass(frozen=True, slots=True)
class Recording:
    """The whole samples and outgoing pulses of each shot."""

    start: IntArray  # (shots,), samples from the tick to the first sample of the waveforms
    phase: FloatArray  # (shots,), samples by which the pulse left after the tick, -0.5 to 0.5
    outgoing: UInt16Array  # (shots, OUTGOING_SAMPLES), counts
    tick: int = _TICK  # sample of the recording of the outgoing pulse


def record(scan: SimulatedScan) -> Recording:
    """Record a scan; equal scans give equal recordings."""
    settings = scan.settings
    start = scan.shots.waveform_start / settings.range_per_sample
    whole = np.rint(start).astype(np.int64)
    phase = whole - start
    rng = np.random.default_rng([settings.seed, _RANDOM_STREAM])
    return Recording(whole, phase, _outgoing_pulses(phase, settings, rng))


def _outgoing_pulses(
    phase: FloatArray, settings: ScanSettings, rng: np.random.Generator
) -> UInt16Array:
    x = np.arange(OUTGOING_SAMPLES) - _TICK - phase[:, np.newaxis]
    energy = 1.0 + rng.normal(0.0, _OUTGOING_SPREAD, len(phase))
    height = _OUTGOING_SHARE * (settings.maximum - settings.baseline) * energy
    pulse = height[:, np.newaxis] * np.exp(-0.5 * (x / settings.pulse_width) ** 2)
    noise = rng.normal(0.0, settings.noise_rms, x.shape)
    counts = np.rint(settings.baseline + pulse + noise)
    return np.clip(counts, 0, settings.maximum).astype(np.uint16)


def recorded_block(
    scan: SimulatedScan, recording: Recording, first: int, stop: int
) -> WaveformBlock:
    """The shots `first` to `stop` as a recorder places them, low-power channel first."""
    settings, shots = scan.settings, scan.shots
    shot = np.repeat(np.arange(first, stop), 2)
    rows = len(shot)
    start = recording.start[shot]
    distance = start * settings.range_per_sample
    direction = shots.direction[shot]
    flags = np.tile(np.array([1, 0], np.uint8), rows // 2)
    return WaveformBlock(
        samples=scan.samples[first:stop].reshape(rows, settings.samples),
        counts=np.full(rows, settings.samples, np.uint16),
        shot_times=shots.gps_time[shot],
        sbl_times=start.astype(np.float64) * settings.sampling_interval,
        channel_flags=flags,
        sampling_intervals=np.full(rows, settings.sampling_interval),
        geometry=PulseGeometry(
            anchor=shots.origin[shot] + distance[:, np.newaxis] * direction,
            location=np.zeros(rows),
            direction=direction * (-settings.range_per_sample / settings.interval_ps),
        ),
        attributes=ShotAttributes(
            gps_time=shots.gps_time[shot],
            scan_angle=shots.scan_angle[shot].astype(np.float32),
            scan_direction_flag=shots.scan_direction_flag[shot],
            edge_of_flight_line=shots.edge_of_flight_line[shot],
            user_data=np.zeros(rows, np.uint8),
            point_source_id=np.ones(rows, np.uint16),
        ),
        waveform_numbers=2 * first + np.arange(rows),
        descriptors=2 - flags,
        outgoing=OutgoingPulses(
            samples=recording.outgoing[shot],
            counts=np.full(rows, OUTGOING_SAMPLES, np.uint16),
            sampling_intervals=np.full(rows, settings.sampling_interval),
            durations=np.full(rows, -recording.tick * settings.sampling_interval),
        ),
    )
