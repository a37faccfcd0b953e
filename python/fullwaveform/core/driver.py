"""The driver: blocks of waveforms in, columns of waveforms and echoes out."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from enum import IntEnum
from pathlib import Path
from typing import Any, Literal, cast

import numpy as np
import numpy.typing as npt

from fullwaveform import _core
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.checks import (
    checked_counts,
    checked_flags,
    checked_integers,
    checked_samples,
    checked_times,
)
from fullwaveform.data.columns import Columns

# Not a directory: the library skips a report that it cannot open.
_NO_DIRECTORY = "/dev/null"


class Mode(IntEnum):
    """Extraction method: those of the driver, and the pulse fit."""

    THREE_POINT = _core.Mode.THREE_POINT
    DECOMPOSITION = _core.Mode.DECOMPOSITION
    DECONVOLUTION = _core.Mode.DECONVOLUTION
    HYBRID = _core.Mode.HYBRID
    PULSE_FIT = 4

    @property
    def title(self) -> str:
        """Display name."""
        return "Pulse fit" if self is Mode.PULSE_FIT else _core.Mode(self).title


#: Modes that the driver runs.
DRIVER_MODES = tuple(Mode(int(mode)) for mode in _core.Mode)
MODE_NAMES = {mode: mode.name.lower().replace("_", "-") for mode in Mode}
#: Largest sample in counts, and largest number of samples of a waveform.
MAX_COUNT = _core.MAX_COUNT
RowState = _core.RowState
#: Counts, or an estimate for every waveform.
Threshold = int | Literal["estimate"]
#: Also one value per waveform, -1 for an estimate.
Thresholds = Threshold | npt.NDArray[np.integer[Any]]

#: Modes that deconvolve, for which the scanner needs a system wave.
DECONVOLVING_MODES = (Mode.DECONVOLUTION, Mode.HYBRID)

# Transforms are planned for every 25 samples up to the longest waveform; up to 8192 samples they
# take about 1 GB. Waveforms of scanners are shorter.
LONGEST_DECONVOLUTION = 8192

#: Operations on one waveform after which it is given up, about half a second. Recorded waveforms
#: need a tenth of it at most, also with threshold 0; thousands of samples of noise take hours.
WORK_LIMIT = 1_000_000_000

#: Cancels the drivers that share it, and counts their waveforms; for use from any thread.
RunMonitor = _core.RunMonitor
Cancelled = _core.Cancelled


_BlockArrays = tuple[
    npt.NDArray[np.uint16],
    npt.NDArray[np.uint16],
    npt.NDArray[np.float64],
    npt.NDArray[np.float64],
    npt.NDArray[np.uint8],
    npt.NDArray[np.int32],
]


@dataclass(frozen=True)
class Result:
    """Waveforms and echoes of one block, in ascending order of shot time.

    waveforms : one row per waveform above the threshold: ``row`` (of the samples), every value of
        the analysis (times in s, ``maxAmplitudeDB`` in dB, positions in samples, the threshold
        ``noise`` in counts), ``afterPulseFrom`` and ``afterPulseTo`` (NaN without a window),
        ``segmentCount``, ``peakCount``
    segments : runs of samples above the threshold: ``waveform`` (row in `waveforms`), ``start``,
        ``end``
    peaks : one row per echo: ``waveform`` (row in `waveforms`), ``row`` (of the samples),
        ``amplitude`` (dB), ``amplitudeCounts``, ``idx`` (samples), ``time`` (s), ``quality``,
        ``type``, ``std`` (samples), ``classification``, ``reflectance``
    row_states : (n,) uint8, one `RowState` per row of the samples
    statistics : counters of the block
    record : the counters as written to the statistics file; empty unless the block is suspicious
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
    mode : Mode, int or str
        0 "three-point" Gauss fit, 1 "decomposition", 2 "deconvolution", 3 "hybrid".
    scanner : Scanner
        Must know its sampling interval.
    report_directory : path, optional
        Directory of the statistics file, to which suspicious blocks are appended. Default: none.
    input_file : str
        Its stem names the statistics file.
    longest_waveform : int
        Longest waveform that will be deconvolved, in samples.
    work_limit : int, optional
        Operations of about 0.2 ns on one waveform; a waveform that would need more gets no echoes
        and the state `RowState.TOO_COMPLEX`. None: no limit.
    monitor : RunMonitor, optional
        Cancels the driver from another thread: `apply` then raises `Cancelled`. Signals end a call
        in the main thread without it.

    Raises
    ------
    ValueError
        Invalid mode or longest waveform, incomplete scanner, or no usable system wave for a mode
        that deconvolves.

    Calls from several threads run one after the other; use one driver per thread.
    """

    def __init__(
        self,
        mode: Mode | int | str,
        scanner: Scanner,
        *,
        report_directory: str | Path | None = None,
        input_file: str | Path = "waveforms",
        longest_waveform: int = 400,
        work_limit: int | None = WORK_LIMIT,
        monitor: RunMonitor | None = None,
    ) -> None:
        self.mode = _driver_mode(mode)
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
            _checked_work_limit(work_limit),
            monitor,
        )
        forward_messages()

    @property
    def message(self) -> str:
        """Why the deconvolution cannot run; empty if it can or is not used."""
        return self._driver.message

    def apply(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.ArrayLike | None = None,
        shot_times: npt.ArrayLike | None = None,
        sbl_times: npt.ArrayLike | None = None,
        channel_flags: npt.ArrayLike | None = None,
        *,
        threshold: Thresholds = "estimate",
        text: str = "",
    ) -> Result:
        """Extract the echoes of a block.

        Parameters
        ----------
        samples : (n, width) whole numbers from 0 to 65535
            Counts. uint16 is read without a copy; its rows must be contiguous and aligned. Other
            types are copied.
        counts : (n,) integers, optional
            Valid samples of each row, at most `width`. Default: `width`.
        shot_times : (n,) float, optional
            Seconds; rows of equal time are one shot. Default: every row is its own shot.
        sbl_times : (n,) float, optional
            Seconds. Default: 0.
        channel_flags : (n,) integers, optional
            0 high power, 1 low power. Default: 1.
        threshold : int, (n,) integers or "estimate"
            Counts, 0 to 65535: samples at or below it are not searched for echoes. "estimate"
            estimates it for every waveform from its samples, -1 in an array for that waveform.

        Raises
        ------
        ValueError
            Wrong shape or type, or a count, time or flag out of range.
        """
        block = self._checked(samples, counts, shot_times, sbl_times, channel_flags, threshold)
        raw = self._driver.apply(*block, text)
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
        threshold: Thresholds = "estimate",
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
        block = self._checked(samples, counts, shot_times, sbl_times, channel_flags, threshold)
        states, texts = self._driver.reports(*block, extent)
        forward_messages()
        return states, texts

    def _checked(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.ArrayLike | None,
        shot_times: npt.ArrayLike | None,
        sbl_times: npt.ArrayLike | None,
        channel_flags: npt.ArrayLike | None,
        threshold: Thresholds,
    ) -> _BlockArrays:
        """The arrays of a block as the library takes them, with defaults for missing ones."""
        samples = checked_samples(samples)
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
            _noises(threshold, rows),
        )

    def _check_lengths(self, counts: npt.NDArray[np.uint16]) -> None:
        if self.mode not in DECONVOLVING_MODES or not counts.size:
            return
        row = int(np.argmax(counts))
        # A driver at the limit accepts longer waveforms: they get no echoes and are counted.
        if counts[row] > self._longest and self._longest < LONGEST_DECONVOLUTION:
            raise ValueError(
                f"counts: {counts[row]} of waveform {row} exceeds longest_waveform {self._longest} "
                "of this driver"
            )


def checked_mode(mode: Mode | int | str, valid: Sequence[Mode] = tuple(Mode)) -> Mode:
    """The mode of a number or name; ValueError if it is invalid or none of the valid ones."""
    if isinstance(mode, str):
        by_name = {MODE_NAMES[known]: known for known in valid}
        if mode not in by_name:
            raise ValueError(f"invalid mode {mode!r}; expected one of {', '.join(by_name)}")
        return by_name[mode]
    if isinstance(mode, bool) or mode not in valid:
        *others, last = (str(int(one)) for one in valid)
        raise ValueError(f"invalid mode {mode!r}; expected {', '.join(others)} or {last}")
    return Mode(mode)


def _driver_mode(mode: Mode | int | str) -> Mode:
    """A mode of the driver; ValueError for the pulse fit and for invalid modes."""
    if not isinstance(mode, bool) and mode in (Mode.PULSE_FIT, MODE_NAMES[Mode.PULSE_FIT]):
        raise ValueError(
            f"mode {mode} is not a method of the driver; use fullwaveform.extract, or "
            "fullwaveform.core.pulse_fit for arrays"
        )
    return checked_mode(mode, DRIVER_MODES)


def check_system_wave(mode: Mode, scanner: Scanner) -> None:
    """ValueError if the mode deconvolves and the scanner has no usable system wave."""
    if mode not in DECONVOLVING_MODES:
        return
    if not scanner.has_system_wave:
        raise ValueError(
            f"mode {int(mode)} ({mode.title}) needs the scanner's system wave: add a_real, a_imag, "
            "b_real and b_imag to the scanner description (fullwaveform system-wave estimates "
            "them), or use mode 0 or 1"
        )
    interval = scanner.sampling_interval
    if interval is None:
        return
    maximum = float(np.max(system_wave(scanner, interval)[1]))
    if not (np.isfinite(maximum) and maximum > 0.0):
        raise ValueError(
            f"invalid system wave: the maximum of its {_core.SYSTEM_WAVE_SAMPLES} samples at "
            f"{interval * 1e9:g} ns is {maximum}; it must be finite and above 0 (check a_real, "
            "a_imag, b_real and b_imag)"
        )


def system_wave(
    scanner: Scanner, interval: float
) -> tuple[npt.NDArray[np.float64], npt.NDArray[np.float64]]:
    """Times, s, at which the deconvolution evaluates the exponential sum, and its values there."""
    a, b = (
        np.asarray(scanner.attributes[f"{table}_real"], dtype=np.float64)
        + 1j * np.asarray(scanner.attributes[f"{table}_imag"], dtype=np.float64)
        for table in "ab"
    )
    steps = (_core.SYSTEM_WAVE_SAMPLES - 1) * _core.UP_SAMPLING + 1
    time = np.arange(steps, dtype=np.float64) * (interval / _core.UP_SAMPLING)
    with np.errstate(all="ignore"):
        return time, np.asarray((np.exp(np.outer(time, b)) @ a).real, dtype=np.float64)


def _checked_longest(longest: int, deconvolves: bool) -> int:
    if isinstance(longest, bool) or not isinstance(longest, int | np.integer):
        raise ValueError(f"longest_waveform must be an integer (samples), not {longest!r}")
    limit = LONGEST_DECONVOLUTION if deconvolves else _core.MAX_COUNT
    if not 0 <= longest <= limit:
        raise ValueError(f"invalid longest_waveform {longest}; expected 0 to {limit}")
    return int(longest)


def _checked_work_limit(limit: int | None) -> int:
    if limit is None:
        return _core.UNLIMITED_WORK
    is_integer = isinstance(limit, int | np.integer) and not isinstance(limit, bool)
    if not is_integer or not 0 < limit <= _core.UNLIMITED_WORK:
        raise ValueError(f"invalid work_limit {limit!r}; expected a positive integer, or None")
    return int(limit)


def checked_threshold(threshold: Threshold) -> Threshold:
    """The threshold in plain Python types; ValueError if it is invalid."""
    if isinstance(threshold, str) and threshold == "estimate":
        return "estimate"
    is_integer = isinstance(threshold, int | np.integer) and not isinstance(threshold, bool)
    if not is_integer or not 0 <= threshold <= _core.MAX_COUNT:
        raise ValueError(
            f"threshold {threshold!r} must be 'estimate' or an integer from 0 to {_core.MAX_COUNT}"
        )
    return int(threshold)


def _noises(threshold: Thresholds, rows: int) -> npt.NDArray[np.int32]:
    """Thresholds of a block as the compiled module takes them: -1 for an estimate."""
    if isinstance(threshold, str) or np.ndim(threshold) == 0:
        return np.full(rows, noise_argument(cast(Threshold, threshold)), np.int32)
    rule = f"is neither -1 (estimate) nor from 0 to {_core.MAX_COUNT}"
    noises = checked_integers(threshold, "threshold", rows, _core.MAX_COUNT, rule, smallest=-1)
    return np.ascontiguousarray(noises, dtype=np.int32)


def checked_thresholds(threshold: Thresholds | None) -> Thresholds | None:
    """The threshold, or thresholds by number of the waveform; ValueError if they are invalid."""
    if threshold is None:
        return None
    if isinstance(threshold, str) or np.ndim(threshold) == 0:
        return checked_threshold(cast(Threshold, threshold))
    return _noises(threshold, np.size(threshold))


def noise_argument(threshold: Threshold) -> int:
    """The threshold as the compiled module takes it: -1 for an estimate."""
    threshold = checked_threshold(threshold)
    return -1 if threshold == "estimate" else threshold
