"""The driver's rules on shots, for waveforms and echoes of a method outside the driver."""

from __future__ import annotations

import numpy as np

from fullwaveform import _core
from fullwaveform._core import RunMonitor
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray, IntArray, UInt8Array, UInt16Array

EchoState = _core.EchoState


def report_of_rows(
    samples: UInt16Array, counts: UInt16Array, shot_times: FloatArray
) -> tuple[UInt8Array, str]:
    """State (n,) of each waveform, of `RowState`: kept, duplicate of its shot, or invalid.

    Also the statistics of the block as text; empty unless half or more are duplicates.

    Parameters
    ----------
    samples : (n, width) counts, rows contiguous
    counts : (n,) valid samples of each row
    shot_times : (n,) s; rows of equal time are one shot
    """
    return _core.report_of_rows(
        samples, np.ascontiguousarray(counts), np.ascontiguousarray(shot_times)
    )


def apply_echo_rules(
    samples: UInt16Array,
    counts: UInt16Array,
    shot_times: FloatArray,
    sbl_times: FloatArray,
    channel_flags: UInt8Array,
    rows: IntArray,
    positions: FloatArray,
    amplitudes: FloatArray,
    scanner: Scanner,
    monitor: RunMonitor | None = None,
) -> tuple[FloatArray, UInt8Array]:
    """Times (m,) of echoes in s, and their states (m,), of `EchoState`.

    Echoes in the after-pulse window of a strong waveform are after-pulses. Of the others, one copy
    is kept of those that both channels of a shot recorded.

    Parameters
    ----------
    samples, counts, shot_times : as for `report_of_rows`
    sbl_times : (n,) s
    channel_flags : (n,) 0 high power, else low power
    rows : (m,) row of each echo, ascending
    positions : (m,) samples
    amplitudes : (m,) counts as the digitiser stores them, baseline included
    scanner : with its sampling interval
    monitor : cancels the call from another thread
    """
    times, states = _core.apply_echo_rules(
        samples,
        np.ascontiguousarray(counts),
        np.ascontiguousarray(shot_times),
        np.ascontiguousarray(sbl_times),
        np.ascontiguousarray(channel_flags),
        np.ascontiguousarray(rows),
        np.ascontiguousarray(positions),
        np.ascontiguousarray(amplitudes),
        scanner.device(),
        monitor,
    )
    forward_messages()
    return times, states
