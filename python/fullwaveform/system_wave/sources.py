"""Sources of pulses and echoes: waveform files, NumPy archives, two columns of text."""

from __future__ import annotations

import zipfile
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass
from enum import StrEnum
from pathlib import Path

import numpy as np

from fullwaveform.calibration.averaging import AveragePulse, average, pulse_of_curve
from fullwaveform.calibration.calibration import measure
from fullwaveform.calibration.isolated import OTHER_INTERVAL, Waveforms, isolated_echoes
from fullwaveform.calibration.pulses import SUBSAMPLED, Pulses, pulses_of_rows
from fullwaveform.core.driver import Threshold
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, FloatArray
from fullwaveform.data.columns import take_rows
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.signatures import ZIP_SIGNATURE

_TEXT_ENDINGS = {".txt", ".csv", ".dat", ".xy", ".tsv"}
_NANOSECONDS = 1e9
_OUTGOING_ARRAY, _ECHO_ARRAY = "out_samples", "samples"
# Maximum number of outgoing pulses, taken evenly from the file.
_MAX_OUTGOING = 20_000
NOT_RECORDED = "no outgoing samples"


class Source(StrEnum):
    """Pulses of a file to average."""

    OUTGOING = "outgoing"
    ECHOES = "echoes"


@dataclass(frozen=True)
class Input:
    """A file and how to read it.

    source : None: outgoing pulses if the file has them, else echoes
    array : name of the array with pulses in an .npz
    interval : sampling interval in s, for files without one
    threshold : counts, or "estimate", for the extraction of echoes; None: as measured on the file
    """

    path: Path
    source: Source | None = None
    array: str | None = None
    interval: float | None = None
    threshold: Threshold | None = None

    @property
    def is_arrays(self) -> bool:
        """Whether the file is an .npz, by its content."""
        try:
            with self.path.open("rb") as stream:
                return stream.read(len(ZIP_SIGNATURE)) == ZIP_SIGNATURE
        except OSError:  # reported when the file is read
            return self.path.suffix.lower() == ".npz"

    @property
    def is_text(self) -> bool:
        """Whether the file is two columns of text."""
        return self.path.suffix.lower() in _TEXT_ENDINGS and not self.is_arrays

    def averaged_pulse(self, scanner: Scanner) -> AveragePulse:
        """The average of the pulses. Raises OSError, and ValueError if there are none."""
        if self.is_text:
            return self._pulse_of_text()
        if self.is_arrays:
            arrays = _arrays(self.path)
            if not self._uses_echoes(arrays):
                return average(self._pulses_of_arrays(arrays))
        elif self.source is not Source.ECHOES and self._has_outgoing():
            return average(self._outgoing())
        origin = f"isolated echoes of {self.path.name}"
        return average(isolated_echoes(self.waveforms(), scanner, self.threshold, origin))

    def waveforms(self) -> Iterator[Waveforms]:
        """The waveforms with echoes, in parts of one sampling interval; none for text files."""
        if self.is_text:
            return
        may_be_missing = self.is_arrays and self.source is not Source.ECHOES
        if may_be_missing and _ECHO_ARRAY not in _arrays(self.path):
            return
        with open_waveforms(self.path, sampling_interval=self.interval) as reader:
            calibration = measure(reader, "off")
            for block in reader.blocks():
                thresholds = calibration.thresholds(block)
                for interval in np.unique(block.sampling_intervals):
                    of_interval = block.sampling_intervals == interval
                    yield Waveforms(
                        block.samples[of_interval],
                        block.counts[of_interval],
                        float(interval),
                        thresholds[of_interval],
                    )

    def _has_outgoing(self) -> bool:
        with open_waveforms(self.path) as reader:
            has_outgoing = reader.has_outgoing
        if self.source is Source.OUTGOING and not has_outgoing:
            raise ValueError(f"{self.path} has no outgoing pulses; use --source echoes")
        return has_outgoing

    def _outgoing(self) -> Pulses:
        origin = f"outgoing pulses of {self.path.name}"
        rows: list[FloatArray] = []
        rejected: Counter[str] = Counter()
        interval = None
        shots = 0
        with open_waveforms(self.path) as reader:
            reader.with_outgoing = True
            every = max(reader.point_count // _MAX_OUTGOING, 1)
            for block in reader.blocks():
                assert block.outgoing is not None
                firsts = np.flatnonzero(np.diff(block.shot_times, prepend=np.nan) != 0.0)
                chosen = firsts[(shots + np.arange(len(firsts))) % every == 0]
                shots += len(firsts)
                pulses = take_rows(block.outgoing, chosen)
                recorded = pulses.counts > 0
                if interval is None and recorded.any():
                    interval = float(pulses.sampling_intervals[recorded][0])
                is_equal = pulses.sampling_intervals == interval
                rejected[SUBSAMPLED] += len(firsts) - len(chosen)
                rejected[NOT_RECORDED] += int(np.count_nonzero(~recorded))
                rejected[OTHER_INTERVAL] += int(np.count_nonzero(recorded & ~is_equal))
                used = take_rows(pulses, np.flatnonzero(recorded & is_equal))
                rows.append(Waveforms(used.samples, used.counts, 0.0).as_float())
            rejected += reader.tally.rejected
        if interval is None:
            reasons = ", ".join(f"{reason}: {count}" for reason, count in rejected.items() if count)
            raise ValueError(
                f"{self.path}: no readable outgoing pulse ({reasons or 'no waveforms'}); use "
                "--source echoes"
            )
        return Pulses(_stacked(rows), interval, origin, +rejected)

    def _pulse_of_text(self) -> AveragePulse:
        table = _columns(self.path)
        time = table[:, 0] / _NANOSECONDS
        if self.interval is None:
            raise ValueError(
                f"{self.path}: a text file has no sampling interval; give that of the scanner in "
                "ns with --interval"
            )
        return pulse_of_curve(time, table[:, 1], self.interval, self.path.name)

    def _uses_echoes(self, arrays: dict[str, AnyArray]) -> bool:
        if self.source is None and self.array is None:
            return _OUTGOING_ARRAY not in arrays and _ECHO_ARRAY in arrays
        return self.source is Source.ECHOES

    def _pulses_of_arrays(self, arrays: dict[str, AnyArray]) -> Pulses:
        name = self.array or _OUTGOING_ARRAY
        if name not in arrays and self.array is None and _ECHO_ARRAY in arrays:
            raise ValueError(f"{self.path} has no array {name}; use --source echoes")
        samples = _array(arrays, name, self.path)
        counts = arrays.get(_name_of_counts(name)) if samples.ndim == 2 else None
        return pulses_of_rows(
            samples, counts, self._interval_of(arrays), f"{name} of {self.path.name}"
        )

    def _interval_of(self, arrays: dict[str, AnyArray]) -> float:
        if self.interval is not None:
            return self.interval
        stored = arrays.get("sampling_interval", arrays.get("sampling_interval_s"))
        if stored is None or stored.size != 1:
            raise ValueError(
                f"{self.path} has no sampling_interval (one number, s); give it in ns with "
                "--interval"
            )
        return float(stored.reshape(())[()])


def _name_of_counts(name: str) -> str:
    """Name of the counts of an array of samples: count for samples, out_count for out_samples."""
    return f"{name.removesuffix('samples')}count" if name.endswith("samples") else ""


def _stacked(rows: list[FloatArray]) -> FloatArray:
    width = max(each.shape[1] for each in rows)
    padded = [
        np.pad(each, ((0, 0), (0, width - each.shape[1])), constant_values=np.nan) for each in rows
    ]
    return np.concatenate(padded)


def _arrays(path: Path) -> dict[str, AnyArray]:
    try:
        # Opened here, since numpy does not close files that are not archives.
        with path.open("rb") as stream, np.load(stream, allow_pickle=False) as content:
            return {name: content[name] for name in content}
    except (zipfile.BadZipFile, ValueError, EOFError) as error:
        raise ValueError(f"{path}: corrupt .npz or unsupported array type: {error}") from error


def _array(arrays: dict[str, AnyArray], name: str, path: Path) -> AnyArray:
    if name not in arrays:
        raise ValueError(f"{path} has no array {name}; it has {', '.join(sorted(arrays))}")
    array = arrays[name]
    if array.ndim not in (1, 2) or array.size == 0 or not np.issubdtype(array.dtype, np.number):
        raise ValueError(f"{path}: {name} must be numbers, (samples,) or (pulses, samples)")
    return array


def _columns(path: Path) -> FloatArray:
    """Two columns of numbers, separated by blanks, commas or semicolons; # begins a comment."""
    try:
        text = path.read_text(encoding="utf-8-sig")
    except UnicodeDecodeError as error:
        raise WaveformFileError(f"{path}: not UTF-8 text: {error}") from error
    lines = (
        line.partition("#")[0].replace(",", " ").replace(";", " ") for line in text.splitlines()
    )
    fields = [line.split() for line in lines if line.strip()]
    if fields and not any(map(_is_number, fields[0])):
        fields = fields[1:]  # column names
    try:
        table = np.array(fields, dtype=np.float64)
    except ValueError as error:
        raise ValueError(f"{path}: not a table of numbers: {error}") from error
    if table.ndim != 2 or table.shape[1] != 2:
        raise ValueError(f"{path}: expected two columns, time in ns and amplitude")
    return table


def _is_number(text: str) -> bool:
    try:
        float(text)
    except ValueError:
        return False
    return True
