"""Echoes from full-waveform laser scanner records: NumPy in, tables out."""

from fullwaveform.columns import Columns
from fullwaveform.driver import Driver, Mode, Result, RowState
from fullwaveform.errors import WaveformFileError
from fullwaveform.scanner import Scanner

__all__ = ["Columns", "Driver", "Mode", "Result", "RowState", "Scanner", "WaveformFileError"]
__version__ = "0.1.0"
