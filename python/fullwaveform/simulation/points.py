"""Discrete returns of a simulated scan."""

from __future__ import annotations

from dataclasses import dataclass, fields

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray, UInt8Array, UInt16Array
from fullwaveform.simulation.scene import position_in_space
from fullwaveform.simulation.waveforms import SimulatedScan

NO_PACKET = -1
LOW_POWER, HIGH = 0, 1  # second index of the samples
_UNCLASSIFIED = 1


@dataclass(frozen=True, slots=True)
class DiscretePoints:
    """Points of the LAS file, ascending by time."""

    shot: IntArray  # shot with the direction and scan angle of the point
    gps_time: FloatArray  # s
    channel: IntArray  # 0 low-power, 1 high-power, -1 without a packet
    position: FloatArray  # samples, of the trigger
    xyz: FloatArray  # (n, 3), m, exact
    intensity: UInt16Array  # counts above the baseline
    return_number: UInt8Array
    number_of_returns: UInt8Array
    classification: UInt8Array
    withheld: UInt8Array  # 1 for points of shots without echoes

    def __len__(self) -> int:
        return len(self.shot)


def discrete_points(scan: SimulatedScan, max_returns: int) -> DiscretePoints:
    """The points of a scan, with at most `max_returns` returns per shot.

    - The first echoes above the return threshold, up to `max_returns`, are returns of the low-power
      channel; if there are none, the strongest echo is.
    - The strongest echo of each shot is return 1 of 1 of the high-power channel.
    - A shot without echoes has one withheld point per channel at its first sample.
    - Some points are from pulses between two shots, without stored waveforms.
    """
    rng = np.random.default_rng([scan.settings.seed, 2])
    strongest = _strongest_of_each_shot(scan)
    parts = [
        _returns(scan, _listed_echoes(scan, strongest, max_returns), LOW_POWER, rng),
        _returns(scan, strongest, HIGH, rng),
        _withheld_points(scan, LOW_POWER),
        _withheld_points(scan, HIGH),
        _without_packet(scan, strongest, rng),
    ]
    together = {
        column.name: np.concatenate([getattr(part, column.name) for part in parts])
        for column in fields(DiscretePoints)
    }
    order = np.lexsort((together["return_number"], together["channel"], together["gps_time"]))
    return DiscretePoints(**{name: values[order] for name, values in together.items()})


def _strongest_of_each_shot(scan: SimulatedScan) -> IntArray:
    """Index of the strongest echo of each shot with echoes."""
    order = np.lexsort((-scan.truth.amplitude_low_power, scan.truth.shot))
    first = np.diff(scan.truth.shot[order], prepend=-1) > 0
    return np.asarray(order[first])


def _listed_echoes(scan: SimulatedScan, strongest: IntArray, max_returns: int) -> IntArray:
    """Indices of the echoes that are returns of the low-power channel."""
    listed = scan.truth.amplitude_low_power >= scan.settings.return_threshold
    listed[strongest] = True
    rows = np.flatnonzero(listed)
    return rows[_number_in_shot(scan.truth.shot[rows]) <= max_returns]


def _number_in_shot(shot: IntArray) -> IntArray:
    """Number from 1 within each shot; the shots must ascend."""
    return np.arange(len(shot)) - np.searchsorted(shot, shot, side="left") + 1


def _returns(
    scan: SimulatedScan, rows: IntArray, channel: int, rng: np.random.Generator
) -> DiscretePoints:
    """Returns of a channel, triggered on the leading edge of the given echoes."""
    settings, truth = scan.settings, scan.truth
    shot = truth.shot[rows]
    jitter = rng.normal(0.0, settings.return_jitter, len(rows))
    lead = settings.return_lead * truth.sigma_samples[rows]
    position = np.clip(truth.position_samples[rows] - lead + jitter, 0.0, settings.samples - 1)
    both = (truth.amplitude_low_power, truth.amplitude_high_power)
    counts = np.minimum(both[channel][rows], settings.maximum - settings.baseline)
    of_shot = np.bincount(shot, minlength=len(scan.shots))
    return DiscretePoints(
        shot=shot,
        gps_time=scan.shots.gps_time[shot],
        channel=np.full(len(rows), channel),
        position=position,
        xyz=position_in_space(scan.shots, shot, position, settings.range_per_sample),
        intensity=np.rint(counts).astype(np.uint16),
        return_number=_number_in_shot(shot).astype(np.uint8),
        number_of_returns=of_shot[shot].astype(np.uint8),
        classification=truth.classification[rows],
        withheld=np.zeros(len(rows), dtype=np.uint8),
    )


def _withheld_points(scan: SimulatedScan, channel: int) -> DiscretePoints:
    """One point per shot without echoes, which refers to its packet."""
    echoes = np.bincount(scan.truth.shot, minlength=len(scan.shots))
    shot = np.flatnonzero(echoes == 0)
    position = np.zeros(len(shot))
    ones = np.ones(len(shot), dtype=np.uint8)
    return DiscretePoints(
        shot=shot,
        gps_time=scan.shots.gps_time[shot],
        channel=np.full(len(shot), channel),
        position=position,
        xyz=position_in_space(scan.shots, shot, position, scan.settings.range_per_sample),
        intensity=np.zeros(len(shot), dtype=np.uint16),
        return_number=ones,
        number_of_returns=ones,
        classification=np.full(len(shot), _UNCLASSIFIED, dtype=np.uint8),
        withheld=ones,
    )


def _without_packet(
    scan: SimulatedScan, strongest: IntArray, rng: np.random.Generator
) -> DiscretePoints:
    """Returns of pulses halfway between two shots, close to an echo of the earlier shot."""
    count = min(scan.settings.points_without_packet, len(strongest))
    rows = np.sort(rng.choice(strongest, count, replace=False))
    near = _returns(scan, rows, LOW_POWER, rng)
    ones = np.ones(count, dtype=np.uint8)
    return DiscretePoints(
        shot=near.shot,
        gps_time=near.gps_time + 0.5 / scan.settings.pulse_rate,
        channel=np.full(count, NO_PACKET),
        position=np.zeros(count),
        xyz=near.xyz,
        intensity=near.intensity,
        return_number=ones,
        number_of_returns=ones,
        classification=near.classification,
        withheld=np.zeros(count, dtype=np.uint8),
    )
