"""A simulated scan, repeated in one large file."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.simulation import TruthTable, read_truth
from fullwaveform.simulation.files import RECORD_HEADER

CHANNELS = 2  # waveforms per shot


@dataclass(frozen=True)
class RepeatedScan:
    """A file with `repetitions` copies of a scan, each `period` seconds after the previous one."""

    path: Path
    truth: TruthTable  # of one repetition
    shots: int  # of one repetition
    repetitions: int
    period: float  # s

    @property
    def waveforms_once(self) -> int:
        """Waveforms of one repetition."""
        return CHANNELS * self.shots

    @property
    def waveforms(self) -> int:
        """Waveforms of the file."""
        return self.repetitions * self.waveforms_once


def repeat(scan: Path, shots: int, repetitions: int, target: Path) -> RepeatedScan:
    """Write points and packets of the scan repeatedly, with increasing times and offsets."""
    with laspy.open(scan) as reader:
        header, points = reader.header, reader.read_points(-1).array
    packets = scan.with_suffix(".wdp").read_bytes()
    record_header, packets = packets[: RECORD_HEADER.size], packets[RECORD_HEADER.size :]
    period = float(np.ptp(points["gps_time"])) + 1.0
    has_packet = points["wavepacket_index"] > 0
    with laspy.open(target, mode="w", header=header) as writer:
        for number in range(repetitions):
            copy = points.copy()
            copy["gps_time"] += number * period
            copy["wavepacket_offset"][has_packet] += number * len(packets)
            writer.write_points(laspy.PackedPointRecord(copy, header.point_format))
    with target.with_suffix(".wdp").open("wb") as stream:
        stream.write(record_header)
        for _ in range(repetitions):
            stream.write(packets)
    truth = read_truth(scan.with_name(f"{scan.stem}_truth.csv"))
    return RepeatedScan(target, truth, shots, repetitions, period)
