"""Echoes from full-waveform laser scanner records: files or NumPy in, tables out."""

from __future__ import annotations

from importlib import import_module
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
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

# Name -> module and name there. Loaded when it is first asked for: NumPy, Arrow and laspy take
# most of a second, and the command line says what went wrong before they are there.
_HOMES = {
    "Columns": ("columns", "Columns"),
    "Driver": ("driver", "Driver"),
    "Extraction": ("api", "Extraction"),
    "Mode": ("driver", "Mode"),
    "Result": ("driver", "Result"),
    "RowState": ("driver", "RowState"),
    "Scanner": ("scanner", "Scanner"),
    "WaveformFileError": ("errors", "WaveformFileError"),
    "WaveformState": ("waveform_table", "WaveformState"),
    "extract": ("api", "extract"),
    "open": ("formats.opening", "open_waveforms"),
}


def __getattr__(name: str) -> Any:
    if name not in _HOMES:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    module, there = _HOMES[name]
    value = getattr(import_module(f"{__name__}.{module}"), there)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})
