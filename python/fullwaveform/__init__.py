"""Echoes from full-waveform laser scanner data: files or NumPy arrays in, tables out."""

from __future__ import annotations

from importlib import import_module
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from fullwaveform.api import extract, plot, voxels
    from fullwaveform.cluster.many import ManyExtraction, extract_many
    from fullwaveform.core.driver import Driver, Mode, Result, RowState
    from fullwaveform.core.scanner import Scanner
    from fullwaveform.data.columns import Columns
    from fullwaveform.data.errors import WaveformFileError
    from fullwaveform.extraction.extraction import Extraction
    from fullwaveform.extraction.waveform_table import WaveformState
    from fullwaveform.io.opening import open_waveforms as open
    from fullwaveform.waveform_metrics.compute import Metrics, metrics
    from fullwaveform.waveform_metrics.settings import MetricsSettings

__all__ = [
    "Columns",
    "Driver",
    "Extraction",
    "ManyExtraction",
    "Metrics",
    "MetricsSettings",
    "Mode",
    "Result",
    "RowState",
    "Scanner",
    "WaveformFileError",
    "WaveformState",
    "extract",
    "extract_many",
    "metrics",
    "open",
    "plot",
    "voxels",
]
__version__ = "0.1.0"

# Name -> module and name there, imported on first access: NumPy, Arrow and laspy take most of a
# second to load, which would delay every command.
_EXPORTS = {
    "Columns": ("data.columns", "Columns"),
    "Driver": ("core.driver", "Driver"),
    "Extraction": ("extraction.extraction", "Extraction"),
    "ManyExtraction": ("cluster.many", "ManyExtraction"),
    "Metrics": ("waveform_metrics.compute", "Metrics"),
    "MetricsSettings": ("waveform_metrics.settings", "MetricsSettings"),
    "Mode": ("core.driver", "Mode"),
    "Result": ("core.driver", "Result"),
    "RowState": ("core.driver", "RowState"),
    "Scanner": ("core.scanner", "Scanner"),
    "WaveformFileError": ("data.errors", "WaveformFileError"),
    "WaveformState": ("extraction.waveform_table", "WaveformState"),
    "extract": ("api", "extract"),
    "extract_many": ("cluster.many", "extract_many"),
    "metrics": ("waveform_metrics.compute", "metrics"),
    "open": ("io.opening", "open_waveforms"),
    "plot": ("api", "plot"),
    "voxels": ("api", "voxels"),
}


def __getattr__(name: str) -> Any:
    if name not in _EXPORTS:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    module, attribute = _EXPORTS[name]
    value = getattr(import_module(f"{__name__}.{module}"), attribute)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})
