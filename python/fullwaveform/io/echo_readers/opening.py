"""Opening a file of echoes or discrete returns, whose format follows from its content."""

from __future__ import annotations

import os

from fullwaveform.data.echo_records import EchoFile
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.echo_readers.las import las_echo_file
from fullwaveform.io.echo_readers.tables import (
    csv_echo_file,
    hdf5_echo_file,
    npz_echo_file,
    parquet_echo_file,
)
from fullwaveform.io.remote import location
from fullwaveform.io.signatures import HDF5_SIGNATURE, ZIP_SIGNATURE

_BY_SIGNATURE = {
    b"LASF": las_echo_file,
    b"PAR1": parquet_echo_file,
    HDF5_SIGNATURE: hdf5_echo_file,
    ZIP_SIGNATURE: npz_echo_file,
}
_PULSEWAVES = b"PulseWaves"
_CSV_ENDINGS = (".csv", ".txt")
_SIGNATURE_BYTES = 16


def open_echoes(path: str | os.PathLike[str]) -> EchoFile:
    """The echoes or discrete returns of a file.

    Of a LAS or LAZ file with waveforms the discrete returns; of other LAS files, and of tables
    (Parquet, HDF5, CSV, NumPy archive) with the columns x, y, z and optionally gps_time, amplitude
    and fwhm_ns, all echoes.

    Raises OSError if the file cannot be opened, WaveformFileError if it is none of these or is not
    valid.
    """
    source = location(path)
    if source.exists() and not source.is_file() and not source.is_dir():
        raise WaveformFileError(f"{source} is a device or a pipe; expected a regular file")
    with source.open("rb") as stream:
        start = stream.read(_SIGNATURE_BYTES)
    for signature, opener in _BY_SIGNATURE.items():
        if start.startswith(signature):
            return opener(source)
    if start.startswith(_PULSEWAVES):
        raise WaveformFileError(
            f"{source} holds waveforms without discrete returns; extract its echoes first"
        )
    if source.suffix.lower() in _CSV_ENDINGS and start:
        return csv_echo_file(source)
    found = f"starts with {start!r}" if start else "empty"
    raise WaveformFileError(
        f"{source} is not a file of echoes ({found}); supported: LAS, LAZ, Parquet, HDF5, CSV and "
        "NumPy archives (.npz) with columns x, y, z"
    )
