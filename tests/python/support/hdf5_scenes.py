"""Small GEDI L1B and LVIS L1B files, written with h5py from lists of shots."""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import h5py
import numpy as np

from fullwaveform.data.blocks import WaveformBlock

EPOCH = 1198800018.0  # s, GPS time of 1 January 2018
#: Degrees of the first sample, and how far the last sample of 101 ns lies from it.
FIRST = (-44.125, -13.75, 850.0)
STEP = (1e-7, -2e-7, -0.15)  # per sample

# Structure -> number of the lowest sample, samples of the outgoing pulse, ns.
LVIS_STRUCTURES = {
    "1.04": (527, 120, 1),
    "1.05": (431, 80, 2),
    "2.0.3 facility": (1215, 128, 1),
    "2.0.4 classic": (1023, 128, 1),
}


@dataclass
class Shot:
    """A shot of a GEDI beam; places are those of the first sample."""

    samples: Sequence[float]
    time: float = 10.0  # s after the epoch
    number: int = 19640119100108615
    outgoing: Sequence[float] = (240.0, 900.5, 240.25)
    degrade: int = 0
    stale: int = 0
    noise: tuple[float, float] | None = None  # mean and rms, counts
    first: tuple[float, float, float] = FIRST
    step: tuple[float, float, float] = STEP

    def last(self) -> np.ndarray:
        return np.array(self.first) + (len(self.samples) - 1) * np.array(self.step)


@dataclass
class GediScene:
    """Beams of a file, by name."""

    beams: Mapping[str, Sequence[Shot]]
    epoch: float | None = EPOCH
    chunk: int | None = None  # samples
    sample_type: str = "<f4"
    degrade_type: str = "i1"
    instrument: tuple[float, float, float] | None = None  # degrees and m
    gap: int = 0  # samples between two waveforms that belong to none

    def write(self, path: Path) -> Path:
        with h5py.File(path, "w") as file:
            file.attrs["short_name"] = np.array(["GEDI_L1B"], dtype=h5py.string_dtype())
            for name, shots in self.beams.items():
                self._write_beam(file.create_group(name), shots)
        return path

    def _write_beam(self, beam: h5py.Group, shots: Sequence[Shot]) -> None:
        beam.attrs["description"] = np.array(["Coverage beam"], dtype=h5py.string_dtype())
        if self.epoch is not None:
            beam["ancillary/master_time_epoch"] = np.array([self.epoch])
        for kind, rows in (
            ("rx", [shot.samples for shot in shots]),
            ("tx", [shot.outgoing for shot in shots]),
        ):
            padded = [[*row, *[-9999.0] * self.gap] for row in rows]
            values = np.array([value for row in padded for value in row], self.sample_type)
            chunks = (self.chunk,) if self.chunk else None
            limit = (None,) if self.chunk else None
            beam.create_dataset(f"{kind}waveform", data=values, chunks=chunks, maxshape=limit)
            lengths = np.array([len(row) for row in padded], np.int64)
            beam[f"{kind}_sample_start_index"] = (1 + np.cumsum(lengths) - lengths).astype("<u8")
            beam[f"{kind}_sample_count"] = np.array([len(row) for row in rows], "<u2")
        beam["shot_number"] = np.array([shot.number for shot in shots], "<u8")
        beam["delta_time"] = np.array([shot.time for shot in shots], "<f8")
        beam["stale_return_flag"] = np.array([shot.stale for shot in shots], "u1")
        beam["geolocation/degrade"] = np.array([shot.degrade for shot in shots], self.degrade_type)
        if all(shot.noise is not None for shot in shots):
            mean, rms = np.array([shot.noise for shot in shots]).T
            beam["noise_mean_corrected"], beam["noise_stddev_corrected"] = mean, rms
        for place, axis in enumerate(("longitude", "latitude", "elevation")):
            beam[f"geolocation/{axis}_bin0"] = np.array([shot.first[place] for shot in shots])
            beam[f"geolocation/{axis}_lastbin"] = np.array([shot.last()[place] for shot in shots])
        for place, axis in enumerate(("longitude", "latitude", "altitude")):
            if self.instrument is not None:
                values = np.full(len(shots), self.instrument[place])
                beam[f"geolocation/{axis}_instrument"] = values


def bump(length: int = 40, at: float = 20.0, height: float = 100.0) -> list[float]:
    """A pulse of a standard deviation of 3 samples above a baseline of 230.25 counts."""
    time = np.arange(length)
    return (230.25 + height * np.exp(-0.5 * ((time - at) / 3.0) ** 2)).tolist()


def two_beams() -> GediScene:
    """Three and two shots, of which two of different beams have the same time."""
    return GediScene(
        {
            "BEAM0101": [
                Shot(bump(40), 10.0, 501),
                Shot(bump(44), 10.5, 502),
                Shot(bump(41), 11.0, 503),
            ],
            "BEAM1011": [Shot(bump(42), 10.5, 1101), Shot(bump(43), 12.0, 1102)],
        }
    )


@dataclass
class LvisScene:
    """Shots of a file: one waveform each, all of the same length."""

    samples: np.ndarray  # (n, k + 1)
    times: Sequence[float]
    interval_ns: float = 1.0
    numbers: Sequence[int] | None = None
    outgoing: np.ndarray | None = None  # (n, m)
    first: tuple[float, float, float] = (310.5, 69.25, 1500.0)  # degrees East, North, m
    slant: float = 0.0  # degrees of longitude per sample
    extra: Mapping[str, Any] = field(default_factory=dict)

    def write(self, path: Path) -> Path:
        rows, width = self.samples.shape
        last = width - 1
        outgoing = np.full((rows, 80), 12, "<u2") if self.outgoing is None else self.outgoing
        numbers = np.arange(1, rows + 1) if self.numbers is None else self.numbers
        with h5py.File(path, "w") as file:
            file.attrs["short_name"] = np.array(["LVIS1B"], dtype=h5py.string_dtype())
            group = file.create_group("ancillary_data")
            group.attrs["ancillary_text"] = "Instrument: LVIS-F"
            drop = 0.1498 * self.interval_ns * last
            ends = {0: self.first, last: (self.first[0] + self.slant * last, self.first[1], 0.0)}
            for sample, (longitude, latitude, height) in ends.items():
                file[f"LON{sample}"] = np.full(rows, longitude)
                file[f"LAT{sample}"] = np.full(rows, latitude)
                below = self.first[2] - drop if sample else height
                file[f"Z{sample}"] = np.full(rows, below, "<f4")
            file["LFID"] = np.full(rows, 1_955_054_934, "<u4")
            file["SHOTNUMBER"] = np.asarray(numbers, "<u4")
            file["TIME"] = np.asarray(self.times, "<f8")
            for name in ("AZIMUTH", "INCIDENTANGLE", "RANGE", "SIGMEAN"):
                file[name] = np.full(rows, 3.5, "<f4")
            file["RXWAVE"] = self.samples.astype("<u2", casting="unsafe")
            file["TXWAVE"] = outgoing
            for name, values in self.extra.items():
                file[name] = values
        return path


def lvis_scene(structure: str, rows: int = 3) -> LvisScene:
    """A pulse at sample 100 + row, in one of the data structures."""
    last, outgoing, interval = LVIS_STRUCTURES[structure]
    samples = [np.rint(bump(last + 1, 100.0 + row, 200.0)) for row in range(rows)]
    sent = np.tile(np.arange(outgoing, dtype="<u2"), (rows, 1))
    extra = {"DATE": np.full(rows, 20071028, "<i4")} if structure == "1.05" else {}
    return LvisScene(
        np.array(samples),
        [50_000.0 + 0.01 * row for row in range(rows)],
        interval,
        outgoing=sent,
        extra=extra,
    )


def five_shots(**options: Any) -> LvisScene:
    """Thirty samples each, all different."""
    samples = np.arange(5 * 30).reshape(5, 30)
    return LvisScene(samples, [10.0, 11.0, 12.0, 13.0, 14.0], **options)


def as_gedi(blocks: Sequence[WaveformBlock], path: Path, beams: Sequence[str]) -> Path:
    """Waveforms of one per shot and 1 ns as a GEDI file; each beam has the shots of a block."""
    found: dict[str, list[Shot]] = {}
    for name, block in zip(beams, blocks, strict=True):
        rows = zip(block.samples, block.counts, block.attributes.gps_time, strict=True)
        found[name] = [
            Shot(samples[:count].tolist(), float(time) + 1e9 - EPOCH, number)
            for number, (samples, count, time) in enumerate(rows)
        ]
    return GediScene(found).write(path)


def as_lvis(blocks: Sequence[WaveformBlock], path: Path) -> Path:
    """Waveforms of one per shot, 1 ns and equal length as an LVIS file."""
    return LvisScene(
        np.concatenate([block.samples for block in blocks]),
        np.concatenate([block.attributes.gps_time for block in blocks]).tolist(),
    ).write(path)


def changed(path: Path, change: Callable[[h5py.File], object]) -> Path:
    """The file after a change."""
    with h5py.File(path, "r+") as file:
        change(file)
    return path
