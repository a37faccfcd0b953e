"""The driver: blocks of waveforms in, columns of waveforms and echoes out."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from enum import IntEnum
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform import _core
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.columns import Columns, checked_counts, checked_flags, checked_times

# A directory that cannot exist: the library skips a report that it cannot open.
_NO_DIRECTORY = "/dev/null"
Mode = _core.Mode

#: Modes that deconvolve, and so need the scanner's system wave.
DECONVOLVING_MODES = (Mode.DECONVOLUTION, Mode.HYBRID)

# Transforms are planned for every 25 samples up to the longest waveform: at 8192 samples this is
# about 1 GB, and no scanner records a pulse's return for longer.
LONGEST_DECONVOLUTION = 8192


class RowState(IntEnum):
    """What became of one row of a block."""

    KEPT = 0
    SIGNAL_TOO_LOW = 1
    DUPLICATE = 2
    NOT_PLACED = 3
    WITHOUT_PLANE = 4  # too long to be deconvolved
    MERGED_AWAY = 5  # its echoes stand in the other channel of the shot


_BlockArrays = tuple[
    npt.NDArray[np.uint16],
    npt.NDArray[np.uint16],
    npt.NDArray[np.float64],
    npt.NDArray[np.float64],
    npt.NDArray[np.uint8],
]


@dataclass(frozen=True)
class Result:
    """What one block gave; shots stand in ascending order of their time.

    waveforms : one row per waveform above its noise: ``row`` (of the samples), every value of the
        analysis under its own name (times in s, ``maxAmplitudeDB`` in dB, positions in samples),
        ``afterPulseFrom`` and ``afterPulseTo`` (NaN without a window), ``segmentCount``,
        ``peakCount``
    segments : stretches above the noise: ``waveform`` (row in `waveforms`), ``start``, ``end``
    peaks : one row per echo: ``waveform`` (row in `waveforms`), ``row`` (of the samples),
        ``amplitude`` (dB), ``amplitudeCounts``, ``idx`` (samples), ``time`` (s), ``quality``,
        ``type``, ``std`` (samples), ``classification``, ``reflectance``
    row_states : (n,) uint8, one `RowState` per row of the samples
    statistics : counters of the block
    record : the counters as the file of suspicious blocks holds them; empty for other blocks
    """

    waveforms: Columns
    segments: Columns
    peaks: Columns
    row_states: npt.NDArray[np.uint8]
    statistics: Mapping[str, Any]
    record: str


class Driver:
    """Runs one extraction method over blocks of waveforms.

    Parameters
    ----------
    mode : Mode or int
        0 three-point Gauss fit, 1 decomposition, 2 deconvolution, 3 hybrid.
    scanner : Scanner
        Must know its sampling interval.
    report_directory : path, optional
        Where the statistics of suspicious blocks are appended; None writes none.
    input_file : str
        Names the file of the statistics, by its stem.
    longest_waveform : int
        Samples of the longest waveform that a deconvolution will meet.

    Raises
    ------
    ValueError
        The mode is none or not available, the scanner is not complete, or the longest waveform is
        no number of samples.

    A driver serves one call at a time; a second thread waits. Use one driver per thread.
    """

    def __init__(
        self,
        mode: Mode | int,
        scanner: Scanner,
        *,
        report_directory: str | Path | None = None,
        input_file: str | Path = "waveforms",
        longest_waveform: int = 400,
    ) -> None:
        self.mode = checked_mode(mode)
        self.scanner = scanner
        check_system_wave(self.mode, scanner)
        deconvolves = self.mode in DECONVOLVING_MODES
        self._longest = _checked_longest(longest_waveform, deconvolves)
        self._driver = _core.PeakDetectionFamily(
            int(self.mode),
            scanner.device(),
            _NO_DIRECTORY if report_directory is None else str(report_directory),
            str(input_file),
            self._longest if deconvolves else 0,
        )
        forward_messages()

    @property
    def message(self) -> str:
        """What the operator should know about this driver; empty when there is nothing."""
        return self._driver.message

    def apply(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.ArrayLike | None = None,
        shot_times: npt.ArrayLike | None = None,
        sbl_times: npt.ArrayLike | None = None,
        channel_flags: npt.ArrayLike | None = None,
        *,
        noise: int = -1,
        text: str = "",
    ) -> Result:
        """Extracts the echoes of a block.

        Parameters
        ----------
        samples : (n, width) uint16
            Counts; read where they are, without a copy. Samples of a row must lie side by side.
        counts : (n,) integers, optional
            Valid samples of each row, at most `width`; all of them when left out.
        shot_times : (n,) float, optional
            Seconds; equal times make one shot. Left out: every row is a shot of its own.
        sbl_times : (n,) float, optional
            Seconds; 0 when left out.
        channel_flags : (n,) integers, optional
            0 normal, 1 low power (the default when left out).
        noise : int
            Noise level in counts, 0 to 65535; negative: estimated for every waveform.

        Raises
        ------
        ValueError
            A shape, type, count or time does not fit; the sentence names it.
        """
        arrays = self._checked(samples, counts, shot_times, sbl_times, channel_flags)
        raw = self._driver.apply(*arrays, checked_noise(noise), text)
        forward_messages()
        return Result(
            Columns(raw["waveforms"]),
            Columns(raw["segments"]),
            Columns(raw["peaks"]),
            raw["row_states"],
            raw["statistics"],
            raw["record"],
        )

    def reports(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.ArrayLike | None = None,
        shot_times: npt.ArrayLike | None = None,
        sbl_times: npt.ArrayLike | None = None,
        channel_flags: npt.ArrayLike | None = None,
        *,
        noise: int = -1,
        extent: bool = False,
    ) -> tuple[npt.NDArray[np.uint8], list[str | None]]:
        """Extract a block as `apply` does, and report its waveforms as text.

        Parameters
        ----------
        extent
            One line on the number and extent of the echoes (one-way distances) in place of a line
            per value and per echo.

        Returns
        -------
        One `RowState` per row, and the report of its waveform without a final newline; None for
        rows that have no waveform in the result.
        """
        arrays = self._checked(samples, counts, shot_times, sbl_times, channel_flags)
        states, texts = self._driver.reports(*arrays, checked_noise(noise), extent)
        forward_messages()
        return states, texts

    def _checked(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.ArrayLike | None,
        shot_times: npt.ArrayLike | None,
        sbl_times: npt.ArrayLike | None,
        channel_flags: npt.ArrayLike | None,
    ) -> _BlockArrays:
        """The arrays of a block as the library takes them, with defaults for missing ones."""
        samples = _checked_samples(samples)
        rows, width = samples.shape
        if counts is None:
            counts = np.full(rows, width, np.uint16)
        else:
            counts = checked_counts(counts, rows, width)
        self._check_lengths(counts)
        return (
            samples,
            counts,
            np.arange(rows, dtype=np.float64)
            if shot_times is None
            else checked_times(shot_times, "shot_times", rows),
            np.zeros(rows) if sbl_times is None else checked_times(sbl_times, "sbl_times", rows),
            np.ones(rows, np.uint8)
            if channel_flags is None
            else checked_flags(channel_flags, rows),
        )

    def _check_lengths(self, counts: npt.NDArray[np.uint16]) -> None:
        if self.mode not in DECONVOLVING_MODES or not counts.size:
            return
        row = int(np.argmax(counts))
        # At the limit nothing longer can be planned: the library leaves those without echoes.
        if counts[row] > self._longest and self._longest < LONGEST_DECONVOLUTION:
            raise ValueError(
                f"counts: {counts[row]} of waveform {row} is above longest_waveform "
                f"{self._longest}, for which this driver's deconvolution was planned"
            )


def checked_mode(mode: Mode | int) -> Mode:
    """The mode; ValueError when there is none of that number."""
    try:
        if isinstance(mode, bool):
            raise ValueError
        return Mode(mode)
    except ValueError:
        raise ValueError(f"mode {mode!r} is none of 0, 1, 2, 3") from None


def check_system_wave(mode: Mode, scanner: Scanner) -> None:
    """ValueError when the mode deconvolves and the scanner has no system wave to do it with."""
    if mode in DECONVOLVING_MODES and not scanner.has_system_wave:
        raise ValueError(
            f"mode {int(mode)} ({mode.title}) needs the scanner's system wave, the attributes "
            "a_real, a_imag, b_real and b_imag: give a scanner description that has them (the "
            "command fullwaveform system-wave estimates one), or use mode 0 or 1"
        )
    interval = scanner.sampling_interval
    if mode in DECONVOLVING_MODES and interval is not None:
        largest = _largest_of_system_wave(scanner, interval)
        if not (np.isfinite(largest) and largest > 0.0):
            raise ValueError(
                f"the system wave of a_real, a_imag, b_real and b_imag is no pulse: over its 12 "
                f"samples of {interval * 1e9:g} ns its largest value is {largest}"
            )


def _largest_of_system_wave(scanner: Scanner, interval: float) -> float:
    """Largest value of the exponential sum where the deconvolution evaluates it."""
    a, b = (
        np.asarray(scanner.attributes[f"{table}_real"], dtype=np.float64)
        + 1j * np.asarray(scanner.attributes[f"{table}_imag"], dtype=np.float64)
        for table in "ab"
    )
    time = np.arange(56) * (interval / 5)
    with np.errstate(all="ignore"):
        return float(np.max((np.exp(np.outer(time, b)) @ a).real))


def _checked_samples(samples: npt.NDArray[np.uint16]) -> npt.NDArray[np.uint16]:
    array = np.asarray(samples)
    if array.ndim != 2:
        raise ValueError(f"samples must have 2 dimensions (waveform, sample), not {array.ndim}")
    if array.dtype != np.uint16:
        raise ValueError(f"samples must be uint16 in native byte order, not {array.dtype.str}")
    rows, width = array.shape
    if width > _core.MAX_COUNT:
        raise ValueError(f"samples have {width} columns, at most {_core.MAX_COUNT} are allowed")
    side_by_side = array.strides[1] == 2 or rows == 0 or width <= 1
    if not (side_by_side and array.flags.aligned):
        raise ValueError(
            "the samples of a row must lie side by side in memory, at even addresses; "
            "use numpy.array(samples, order='C')"
        )
    return array


def _checked_longest(longest: int, deconvolves: bool) -> int:
    if isinstance(longest, bool) or not isinstance(longest, int | np.integer):
        raise ValueError(f"longest_waveform must be an integer in samples, not {longest!r}")
    limit = LONGEST_DECONVOLUTION if deconvolves else _core.MAX_COUNT
    if not 0 <= longest <= limit:
        raise ValueError(f"longest_waveform {longest} is not between 0 and {limit}")
    return int(longest)


def checked_noise(noise: int) -> int:
    """Noise level in counts, -1 for an estimate; ValueError when it is neither."""
    if isinstance(noise, bool) or not isinstance(noise, int | np.integer):
        raise ValueError(f"noise must be an integer in counts, not {noise!r}")
    if noise > _core.MAX_COUNT:
        raise ValueError(f"noise {noise} is above {_core.MAX_COUNT} counts")
    return max(int(noise), -1)
