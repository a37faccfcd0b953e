"""What became of every waveform: one row each, whether it gave echoes or not."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
from enum import IntEnum

import numpy as np
import numpy.typing as npt
import pyarrow as pa

from fullwaveform.core.driver import LONGEST_DECONVOLUTION, Result, RowState
from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import WaveformBlock


class WaveformState(IntEnum):
    """What became of a waveform; the driver's states of a row, and what was found behind them."""

    WITH_ECHOES = RowState.KEPT
    SIGNAL_TOO_LOW = RowState.SIGNAL_TOO_LOW
    DUPLICATE = RowState.DUPLICATE
    INVALID_ROW = RowState.INVALID_ROW
    TOO_LONG_TO_DECONVOLVE = RowState.TOO_LONG_TO_DECONVOLVE
    MERGED_INTO_OTHER_CHANNEL = RowState.MERGED_INTO_OTHER_CHANNEL
    NO_ECHO = 6
    NOT_FINITE = 7

    @property
    def phrase(self) -> str:
        """The state in words."""
        return _PHRASES[self]


_PHRASES = {
    WaveformState.WITH_ECHOES: "with echoes",
    WaveformState.SIGNAL_TOO_LOW: "signal not above the threshold",
    WaveformState.DUPLICATE: "repeats a waveform of its shot",
    WaveformState.INVALID_ROW: "no shot time",
    WaveformState.TOO_LONG_TO_DECONVOLVE: (
        f"longer than the {LONGEST_DECONVOLUTION:,} samples that can be deconvolved"
    ),
    WaveformState.MERGED_INTO_OTHER_CHANNEL: "echoes stand in the other channel of the shot",
    WaveformState.NO_ECHO: "no echo found, or none that can be real",
    WaveformState.NOT_FINITE: "no echo that is finite",
}


@dataclass(frozen=True, slots=True)
class WaveformTable:
    """One row per waveform of a block, in its order; all columns have the same length."""

    waveform_number: npt.NDArray[np.int64]  # running number of the waveform in the file
    shot_time: FloatArray  # s, what the waveforms of a shot share
    gps_time: FloatArray  # s, of the shot
    channel_flag: npt.NDArray[np.uint8]  # 1 for the low-power channel, 0 for the other
    sample_count: npt.NDArray[np.uint16]
    sampling_interval: FloatArray  # s
    threshold: FloatArray  # counts, NaN where the waveform was not kept
    max_amplitude: FloatArray  # counts, NaN where the waveform was not kept
    max_position: FloatArray  # samples, of the largest sample; NaN where it was not kept
    segment_count: npt.NDArray[np.int64]  # runs of samples above the threshold
    echo_count: npt.NDArray[np.int64]  # echoes of this waveform
    state: npt.NDArray[np.uint8]  # a WaveformState

    def __len__(self) -> int:
        return len(self.state)


_UNITS = {
    "waveform_number": (pa.int64(), "1"),
    "shot_time": (pa.float64(), "s"),
    "gps_time": (pa.float64(), "s"),
    "channel_flag": (pa.uint8(), "1"),
    "sample_count": (pa.uint16(), "samples"),
    "sampling_interval": (pa.float64(), "s"),
    "threshold": (pa.float64(), "counts"),
    "max_amplitude": (pa.float64(), "counts"),
    "max_position": (pa.float64(), "samples"),
    "segment_count": (pa.int64(), "1"),
    "echo_count": (pa.int64(), "1"),
    "state": (pa.uint8(), "1"),
}
#: Names, types and, in the metadata of each field, units of the columns.
WAVEFORM_SCHEMA = pa.schema(
    [pa.field(name, kind, metadata={"unit": unit}) for name, (kind, unit) in _UNITS.items()]
)


def waveform_table(block: WaveformBlock) -> WaveformTable:
    """The table of a block of which nothing has been extracted yet."""
    rows = len(block)
    return WaveformTable(
        waveform_number=block.waveform_numbers,
        shot_time=block.shot_times,
        gps_time=block.attributes.gps_time,
        channel_flag=block.channel_flags,
        sample_count=block.counts,
        sampling_interval=block.sampling_intervals,
        threshold=np.full(rows, np.nan),
        max_amplitude=np.full(rows, np.nan),
        max_position=np.full(rows, np.nan),
        segment_count=np.zeros(rows, np.int64),
        echo_count=np.zeros(rows, np.int64),
        state=np.full(rows, WaveformState.INVALID_ROW, np.uint8),
    )


def enter_result(table: WaveformTable, rows: npt.NDArray[np.int64], result: Result) -> None:
    """Enter what the driver says of the given rows (of the block) into the table."""
    table.state[rows] = result.row_states
    kept = rows[result.waveforms["row"]]
    table.threshold[kept] = result.waveforms["noise"]
    table.max_amplitude[kept] = result.waveforms["maxAmplitude"]
    table.max_position[kept] = result.waveforms["idxOfMaxAmplitude"]
    table.segment_count[kept] = result.waveforms["segmentCount"]
    without = kept[result.waveforms["peakCount"] == 0]
    found_nothing = without[table.state[without] == WaveformState.WITH_ECHOES]
    table.state[found_nothing] = WaveformState.NO_ECHO


def enter_echoes(table: WaveformTable, rows: npt.NDArray[np.int64]) -> None:
    """Enter the echoes that were kept, by their rows of the block."""
    table.echo_count[:] = np.bincount(rows, minlength=len(table))
    lost = (table.state == WaveformState.WITH_ECHOES) & (table.echo_count == 0)
    table.state[lost] = WaveformState.NOT_FINITE


def without_echoes(table: WaveformTable) -> Counter[str]:
    """Waveforms without echoes by the reason, in words."""
    counts = np.bincount(table.state, minlength=len(WaveformState))
    return Counter(
        {
            state.phrase: int(counts[state])
            for state in WaveformState
            if state is not WaveformState.WITH_ECHOES and counts[state] > 0
        }
    )
