"""State and measured values of every waveform, with or without echoes."""

from __future__ import annotations

from collections import Counter
from enum import IntEnum

import numpy as np

from fullwaveform.core.driver import LONGEST_DECONVOLUTION, Result, RowState
from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import Column, Table
from fullwaveform.extraction.prepare import PreparedBlock
from fullwaveform.extraction.pulse_fitting import FIT_VALUES, FittedWaveforms


class WaveformState(IntEnum):
    """Whether a waveform has echoes, and why not: the driver's row states, divided further."""

    WITH_ECHOES = RowState.KEPT
    SIGNAL_TOO_LOW = RowState.SIGNAL_TOO_LOW
    DUPLICATE = RowState.DUPLICATE
    INVALID_ROW = RowState.INVALID_ROW
    TOO_LONG_TO_DECONVOLVE = RowState.TOO_LONG_TO_DECONVOLVE
    MERGED_INTO_OTHER_CHANNEL = RowState.MERGED_INTO_OTHER_CHANNEL
    TOO_COMPLEX = RowState.TOO_COMPLEX
    NO_ECHO = 7
    NOT_FINITE = 8

    @property
    def phrase(self) -> str:
        """The state in words."""
        return _PHRASES[self]


_PHRASES = {
    WaveformState.WITH_ECHOES: "with echoes",
    WaveformState.SIGNAL_TOO_LOW: "signal not above the threshold",
    WaveformState.DUPLICATE: "duplicate of a waveform of the same shot",
    WaveformState.INVALID_ROW: "no samples or no shot time",
    WaveformState.TOO_LONG_TO_DECONVOLVE: (
        f"too long to deconvolve (more than {LONGEST_DECONVOLUTION:,} samples)"
    ),
    WaveformState.MERGED_INTO_OTHER_CHANNEL: "echoes merged into the other channel",
    WaveformState.TOO_COMPLEX: "too complex: the work would exceed the limit",
    WaveformState.NO_ECHO: "no plausible echo found",
    WaveformState.NOT_FINITE: "no echo with finite values",
}

WAVEFORM_COLUMNS = (
    Column("waveform_number", np.int64, "1", "Running number of the waveform in the input, from 0"),
    Column("shot_time", np.float64, "s", "Time of the shot, equal for all waveforms of the shot"),
    Column("gps_time", np.float64, "s", "Time of the shot, as in the input"),
    Column("channel_flag", np.uint8, "1", "Channel of the waveform: 1 low power, 0 high power"),
    Column("sample_count", np.uint16, "samples", "Number of samples"),
    Column("sampling_interval", np.float64, "s", "Time between two samples"),
    Column("threshold", np.float64, "counts", "Threshold; NaN if the waveform was rejected"),
    Column("max_amplitude", np.float64, "counts", "Largest sample; NaN if rejected"),
    Column("max_position", np.float64, "samples", "Index of the largest sample; NaN if rejected"),
    Column("segment_count", np.int64, "1", "Segments above the threshold"),
    Column("echo_count", np.int64, "1", "Echoes of the waveform"),
    Column("baseline", np.float64, "counts", "Baseline of the pulse fit; NaN in other modes"),
    Column(
        "reduced_chi_square",
        np.float64,
        "1",
        "Of the pulse fit, 1 if it explains the samples; NaN in other modes",
    ),
    Column(
        "clipped_samples",
        np.float64,
        "samples",
        "Samples at the digitiser's limit; NaN except in the pulse fit",
    ),
    Column("state", np.uint8, "1", "A WaveformState: 0 with echoes, else why there are none"),
)


class WaveformTable(Table):
    """One row per waveform with the columns of `WAVEFORM_COLUMNS`, in the order of the block."""

    @classmethod
    def of(cls, block: WaveformBlock) -> WaveformTable:
        """The table of a block before its extraction."""
        rows = len(block)
        return cls(
            {
                "waveform_number": block.waveform_numbers,
                "shot_time": block.shot_times,
                "gps_time": block.attributes.gps_time,
                "channel_flag": block.channel_flags,
                "sample_count": block.counts,
                "sampling_interval": block.sampling_intervals,
                "threshold": np.full(rows, np.nan),
                "max_amplitude": np.full(rows, np.nan),
                "max_position": np.full(rows, np.nan),
                "segment_count": np.zeros(rows, np.int64),
                "echo_count": np.zeros(rows, np.int64),
                **{name: np.full(rows, np.nan) for name in FIT_VALUES},
                "state": np.full(rows, WaveformState.INVALID_ROW, np.uint8),
            }
        )

    def enter_result(self, rows: IntArray, result: Result) -> None:
        """Enter the driver's result for the given rows of the block."""
        state = self["state"]
        state[rows] = result.row_states
        kept = rows[result.waveforms["row"]]
        self["threshold"][kept] = result.waveforms["noise"]
        self["max_amplitude"][kept] = result.waveforms["maxAmplitude"]
        self["max_position"][kept] = result.waveforms["idxOfMaxAmplitude"]
        self["segment_count"][kept] = result.waveforms["segmentCount"]
        without_peaks = kept[result.waveforms["peakCount"] == 0]
        is_kept = state[without_peaks] == WaveformState.WITH_ECHOES
        state[without_peaks[is_kept]] = WaveformState.NO_ECHO

    def enter_fit(self, block: WaveformBlock, rows: IntArray, fitted: FittedWaveforms) -> None:
        """Enter the result of the pulse fit for the given rows of the block."""
        for name in FIT_VALUES:
            self[name][rows] = fitted.values[name]
        state = self["state"]
        state[rows] = fitted.states
        rejected = np.isin(fitted.states, (RowState.DUPLICATE, RowState.INVALID_ROW))
        kept = rows[~rejected]
        samples = block.samples[kept]
        self["max_amplitude"][kept] = samples.max(axis=1, initial=0)
        self["max_position"][kept] = samples.argmax(axis=1) if samples.size else 0.0
        without = kept[~np.isin(kept, rows[fitted.rows])]
        state[without[state[without] == WaveformState.WITH_ECHOES]] = WaveformState.NO_ECHO

    def enter_input_counts(self, prepared: PreparedBlock) -> None:
        """Convert the levels of prepared waveforms to counts of the input."""
        for name in ("threshold", "max_amplitude"):
            self[name][:] = self[name] / prepared.scale + prepared.removed

    def enter_echoes(self, counts: IntArray) -> None:
        """Enter the number (n,) of finite echoes of each waveform."""
        state = self["state"]
        self["echo_count"][:] = counts
        state[(state == WaveformState.WITH_ECHOES) & (counts == 0)] = WaveformState.NOT_FINITE

    def rejected(self) -> Counter[str]:
        """Number of waveforms without echoes, by the phrase of their state."""
        counts = np.bincount(self["state"], minlength=len(WaveformState)).tolist()
        return +Counter({state.phrase: counts[state] for state in list(WaveformState)[1:]})
