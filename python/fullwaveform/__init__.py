"""Echoes from full-waveform laser scanner records: files or NumPy in, tables out."""

from fullwaveform.api import Extraction, extract
from fullwaveform.columns import Columns
from fullwaveform.driver import Driver, Mode, Result, RowState
from fullwaveform.errors import WaveformFileError
from fullwaveform.formats.opening import open_waveforms as open
from fullwaveform.scanner import Scanner
from fullwaveform.waveform_table import WaveformState

__all__ = [
    "Columns",
    "Driver",
    "Extraction",
    "Mode",
    "Result",
    "RowState",
    "Scanner",
    "WaveformFileError",
    "WaveformState",
    "extract",
    "open",
]
__version__ = "0.1.0"
