"""Which of the HDF5 formats a file has."""

from __future__ import annotations

from importlib import import_module
from pathlib import Path
from typing import Any

import h5py

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.container.values import damaged_file_errors
from fullwaveform.io.gedi.reader import BEAM, GediReader
from fullwaveform.io.gedi.reader import SAMPLES as GEDI_SAMPLES
from fullwaveform.io.lvis.reader import SAMPLES as LVIS_SAMPLES
from fullwaveform.io.lvis.reader import LvisReader
from fullwaveform.io.remote import path_or_stream


def hdf5_reader_class(path: Path) -> Any:
    """The class of the reader, by the groups and datasets of the file.

    The attribute ``short_name`` of GEDI and LVIS is not read: it is of variable length, which can
    hang HDF5 in a damaged file. Raises OSError and WaveformFileError if the file cannot be read, or
    is a GEDI file without waveforms.
    """
    with path.open("rb"):  # a clear error for a missing file or a folder
        pass
    with damaged_file_errors(path, "HDF5 structure"), h5py.File(path_or_stream(path), "r") as file:
        beams = [name for name in file if BEAM.fullmatch(name)]
        groups = [file.get(name) for name in beams]
        if any(isinstance(group, h5py.Group) and GEDI_SAMPLES in group for group in groups):
            return GediReader
        if beams:
            raise WaveformFileError(
                f"{path} has GEDI beams without waveforms ({GEDI_SAMPLES}); open the L1B file of "
                "the orbit, GEDI01_B_*.h5"
            )
        if LVIS_SAMPLES in file:
            return LvisReader
    return import_module("fullwaveform.io.container.reader").ScanContainerReader
