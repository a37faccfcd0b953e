"""Echoes from full-waveform laser scanner records: NumPy in, tables out."""

from fullwaveform.driver import Columns, Driver, Mode, Result, RowState
from fullwaveform.errors import WaveformFileError
from fullwaveform.scanner import Scanner

__all__ = ["Columns", "Driver", "Mode", "Result", "RowState", "Scanner", "WaveformFileError"]
__version__ = "0.1.0"
