"""Echoes as the lines of the library's ASCII export."""

from __future__ import annotations

from fullwaveform import _core
from fullwaveform.data.echo_columns import EchoTable


def ascii_lines(echoes: EchoTable) -> bytes:
    """Lines of waveform number, library's dB, position and sigma in samples, GPS time in s."""
    return _core.ascii_lines(
        echoes["waveform_number"],
        echoes["amplitude_library_db"],
        echoes["position"],
        echoes["sigma_samples"],
        echoes["gps_time"],
    )
