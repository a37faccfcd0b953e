"""PulseWaves files of a simulated scan."""

from __future__ import annotations

import struct
from pathlib import Path

import numpy as np

from fullwaveform import __version__
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.io.atomic import FileKind
from fullwaveform.io.las.origin import SIMULATED
from fullwaveform.simulation.recording import OUTGOING_SAMPLES, Recording, record
from fullwaveform.simulation.waveforms import SimulatedScan

_SIGNATURE, _WAVES_SIGNATURE = b"PulseWavesPulse", b"PulseWavesWaves"
_HEADER = struct.Struct("<16sII16s64s64sHHBBHqqIIIIqIidd2q3d3d6d")
_RECORD = struct.Struct("<16sIIq64s")
_COMPOSITION = struct.Struct("<IIiHHfII64s")
_SAMPLING = struct.Struct("<IIBBBBffBBHIHHfI64s")
_WAVES_HEADER = struct.Struct("<16sI40s")
_DESCRIPTOR_RECORD = 200_001
_OUTGOING, _RETURNING = 1, 2
_LOW, _HIGH, _REFERENCE = 1, 2, 3  # channels; the first two as the descriptors of LAS files
_SYSTEM = SIMULATED.encode()
_DESCRIPTION = b"Simulated waveforms"
_SCALE = 0.0001  # m
_TIME_SCALE = 1e-9  # s
_TARGET_UNITS = 1000  # sampling units from anchor to target
_PULSE = np.dtype(
    [
        ("time", "<i8"),
        ("offset", "<i8"),
        ("anchor", "<3i4"),
        ("target", "<3i4"),
        ("first_returning", "<i2"),
        ("last_returning", "<i2"),
        ("descriptor", "u1"),
        ("flags", "u1"),
        ("intensity", "u1"),
        ("classification", "u1"),
    ]
)


def _is_pulses(path: Path) -> bool:
    with path.open("rb") as file:
        fields = _HEADER.unpack(file.read(_HEADER.size))
    return bool(fields[0].startswith(_SIGNATURE) and fields[4].startswith(_SYSTEM))


def _is_waves(path: Path) -> bool:
    with path.open("rb") as file:
        signature, _, description = _WAVES_HEADER.unpack(file.read(_WAVES_HEADER.size))
    return bool(signature.startswith(_WAVES_SIGNATURE) and description.startswith(_DESCRIPTION))


PULSES_KIND = FileKind("a simulated PulseWaves file", _is_pulses)
WAVES_KIND = FileKind("the waveforms of a simulated PulseWaves file", _is_waves)


def write_waves(scan: SimulatedScan, path: Path) -> None:
    """The ``.wvs`` file: of each shot the outgoing pulse and the waveforms of both channels."""
    recording = record(scan)
    waves = np.zeros(len(scan.shots), dtype=_waves_type(scan))
    waves["outgoing"] = recording.outgoing
    waves["low_start"] = waves["high_start"] = recording.start
    waves["low"], waves["high"] = scan.samples[:, 0], scan.samples[:, 1]
    with path.open("wb") as file:
        file.write(_WAVES_HEADER.pack(_WAVES_SIGNATURE, 0, _DESCRIPTION))
        file.write(waves.tobytes())


def write_pulses(scan: SimulatedScan, path: Path) -> None:
    """The ``.pls`` file: header, pulse descriptor and pulses; anchors are at the scanner."""
    settings, shots = scan.settings, scan.shots
    offsets = 1000.0 * np.floor(shots.origin[0] / 1000.0)
    step = _TARGET_UNITS * settings.range_per_sample * shots.direction
    pulses = np.zeros(len(shots), dtype=_PULSE)
    pulses["time"] = np.rint((shots.gps_time - settings.start_time) / _TIME_SCALE)
    pulses["offset"] = _WAVES_HEADER.size + _waves_type(scan).itemsize * np.arange(len(shots))
    pulses["anchor"] = _whole(shots.origin, offsets)
    pulses["target"] = _whole(shots.origin + step, offsets)
    pulses["descriptor"] = 1
    descriptor = _descriptor(scan, record(scan))
    with path.open("wb") as file:
        file.write(_header(scan, pulses["time"], offsets, _RECORD.size + len(descriptor)))
        head = (b"PulseWaves_Spec", _DESCRIPTOR_RECORD, 0, len(descriptor), _DESCRIPTION)
        file.write(_RECORD.pack(*head))
        file.write(descriptor)
        file.write(pulses.tobytes())


def _waves_type(scan: SimulatedScan) -> np.dtype[np.void]:
    """Waves of one shot, in the order of the samplings of the descriptor."""
    value = f"<u{scan.settings.bits // 8}"
    return np.dtype(
        [
            ("outgoing", value, (OUTGOING_SAMPLES,)),
            ("low_start", "<i4"),
            ("low", value, (scan.settings.samples,)),
            ("high_start", "<i4"),
            ("high", value, (scan.settings.samples,)),
        ]
    )


def _whole(coordinates: FloatArray, offsets: FloatArray) -> IntArray:
    """Coordinates as stored."""
    return np.rint((coordinates - offsets) / _SCALE).astype(np.int64)


def _descriptor(scan: SimulatedScan, recording: Recording) -> bytes:
    settings = scan.settings
    unit = settings.sampling_interval * 1e9
    samplings = (
        (_OUTGOING, _REFERENCE, 0, -float(recording.tick), OUTGOING_SAMPLES),
        (_RETURNING, _LOW, 32, 0.0, settings.samples),
        (_RETURNING, _HIGH, 32, 0.0, settings.samples),
    )
    data = _COMPOSITION.pack(_COMPOSITION.size, 0, 0, 0, len(samplings), unit, 0, 0, b"Scan")
    for kind, channel, duration_bits, duration, samples in samplings:
        data += _SAMPLING.pack(
            _SAMPLING.size, 0, kind, channel, 0, duration_bits, 1.0, duration, 0, 0, 1, samples,
            settings.bits, 0, unit, 0, b"",
        )  # fmt: skip
    return data


def _header(scan: SimulatedScan, times: IntArray, offsets: FloatArray, records: int) -> bytes:
    software = f"fullwaveform {__version__}".encode()
    return _HEADER.pack(
        _SIGNATURE, 0, 1, b"", _SYSTEM, software, 0, 0, 0, 3, _HEADER.size,
        _HEADER.size + records, len(scan.shots), 0, 0, _PULSE.itemsize, 0, 0, 1, 0,
        _TIME_SCALE, scan.settings.start_time, int(times[0]), int(times[-1]),
        _SCALE, _SCALE, _SCALE, *offsets, *([0.0] * 6),
    )  # fmt: skip
