"""Rows of waveforms without echoes in a table of echoes."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.echo_columns import EchoTable


def without_empty_waveforms(echoes: EchoTable) -> EchoTable:
    """The rows that are echoes, for files that have no rows without a position in space."""
    is_echo = echoes["echo_number"] > 0
    return echoes if is_echo.all() else echoes.take(np.flatnonzero(is_echo))
