"""Discrete returns of a simulated scan: what the scanner's own electronics would have listed."""

from __future__ import annotations

from dataclasses import dataclass, fields

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.simulation.scene import position_in_space
from fullwaveform.simulation.waveforms import SimulatedScan

NO_PACKET = -1
LOW_POWER, HIGH = 0, 1  # second index of the samples
_UNCLASSIFIED = 1


@dataclass(frozen=True, slots=True)
class DiscretePoints:
    """Points as they stand in the file, in the order of time."""

    shot: IntArray  # row of the shot that gives direction and scan angle
    gps_time: FloatArray  # s
    channel: IntArray  # 0 low-power, 1 the other; -1 = the point has no packet
    position: FloatArray  # samples after the record's first sample at which it was triggered
    xyz: FloatArray  # (n, 3), m, exact
    intensity: npt.NDArray[np.uint16]  # counts above the baseline, of the point's channel
    return_number: npt.NDArray[np.uint8]
    number_of_returns: npt.NDArray[np.uint8]
    classification: npt.NDArray[np.uint8]
    withheld: npt.NDArray[np.uint8]  # 1 for the place holders of empty shots

    def __len__(self) -> int:
        return len(self.shot)


def discrete_points(scan: SimulatedScan, most_returns: int) -> DiscretePoints:
    """The points that stand for a scan in a file with at most so many returns per shot.

    - Each echo above the threshold is a return of the low-power channel, up to `most_returns` of
      a shot, the first ones. A shot without one gives its strongest echo.
    - The other channel lists the strongest echo of each shot, as return 1 of 1.
    - An empty shot has one withheld point for each channel at the record's first sample.
    - Some points come from pulses between two shots whose waveforms were not stored.
    """
    chance = np.random.default_rng([scan.settings.seed, 2])
    strongest = _strongest_of_each_shot(scan)
    parts = [
        _returns(scan, _listed_echoes(scan, strongest, most_returns), LOW_POWER, chance),
        _returns(scan, strongest, HIGH, chance),
        _place_holders(scan, LOW_POWER),
        _place_holders(scan, HIGH),
        _without_packet(scan, strongest, chance),
    ]
    together = {
        column.name: np.concatenate([getattr(part, column.name) for part in parts])
        for column in fields(DiscretePoints)
    }
    order = np.lexsort((together["return_number"], together["channel"], together["gps_time"]))
    return DiscretePoints(**{name: values[order] for name, values in together.items()})


def _strongest_of_each_shot(scan: SimulatedScan) -> IntArray:
    """Row of the strongest echo of each shot that has one."""
    order = np.lexsort((-scan.truth.amplitude_low_power_counts, scan.truth.shot))
    first = np.diff(scan.truth.shot[order], prepend=-1) > 0
    return np.asarray(order[first])


def _listed_echoes(scan: SimulatedScan, strongest: IntArray, most_returns: int) -> IntArray:
    """Rows of the echoes that become returns of the low-power channel."""
    listed = scan.truth.amplitude_low_power_counts >= scan.settings.return_threshold
    listed[strongest] = True
    rows = np.flatnonzero(listed)
    return rows[_number_in_shot(scan.truth.shot[rows]) <= most_returns]


def _number_in_shot(shot: IntArray) -> IntArray:
    """Running number from 1 within runs of equal shots; the shots ascend."""
    return np.arange(len(shot)) - np.searchsorted(shot, shot, side="left") + 1


def _returns(
    scan: SimulatedScan, rows: IntArray, channel: int, chance: np.random.Generator
) -> DiscretePoints:
    """Returns of a channel, triggered on the leading edge of the given echoes."""
    settings, truth = scan.settings, scan.truth
    shot = truth.shot[rows]
    jitter = chance.normal(0.0, settings.return_jitter, len(rows))
    lead = settings.return_lead * truth.width_samples[rows]
    position = np.clip(truth.position_samples[rows] - lead + jitter, 0.0, settings.samples - 1)
    both = (truth.amplitude_low_power_counts, truth.amplitude_high_counts)
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


def _place_holders(scan: SimulatedScan, channel: int) -> DiscretePoints:
    """One point at the first sample of each shot without an echo, so that its packet is found."""
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
    scan: SimulatedScan, strongest: IntArray, chance: np.random.Generator
) -> DiscretePoints:
    """Returns of pulses halfway between two shots, close to an echo of the earlier shot."""
    count = min(scan.settings.points_without_packet, len(strongest))
    rows = np.sort(chance.choice(strongest, count, replace=False))
    near = _returns(scan, rows, LOW_POWER, chance)
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
