"""Echoes as the lines of the library's ASCII export."""

from __future__ import annotations

from fullwaveform import _core
from fullwaveform.data.echo_columns import EchoTable


def ascii_lines(echoes: EchoTable) -> bytes:
    """One line per echo: waveform number, dB, position and width in samples, GPS time in s."""
    return _core.ascii_lines(
        echoes["waveform_number"],
        echoes["amplitude_db"],
        echoes["position"],
        echoes["width_samples"],
        echoes["gps_time"],
    )
