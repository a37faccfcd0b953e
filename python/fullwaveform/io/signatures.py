"""First bytes of the files that are read, from which their format follows."""

from __future__ import annotations

LAS_SIGNATURE = b"LASF"
PULSE_SIGNATURE = b"PulseWavesPulse"
WAVES_SIGNATURE = b"PulseWavesWaves"  # of the samples of a PulseWaves file
HDF5_SIGNATURE = b"\x89HDF\r\n\x1a\n"
ZIP_SIGNATURE = b"PK"  # of a NumPy archive
NPY_SIGNATURE = b"\x93NUMPY"
