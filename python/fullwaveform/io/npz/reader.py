"""Waveforms of NumPy archives (.npz)."""

from __future__ import annotations

import os
from collections.abc import Mapping
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.las.waveform_packets import MAX_SAMPLES
from fullwaveform.io.npz.arrays import load_arrays
from fullwaveform.io.waveform_rows import RowReader, WaveformRows

ZIP_SIGNATURE = b"PK"

_FIRST_SHOT_KEY = -(2.0**52)  # from here on 2**52 whole numbers are doubles
_LARGEST_SAMPLE = 65535
_FOUR_GIGABYTES = 1 << 32
# Key -> the other name that such arrays are found under.
_OTHER_NAMES = {
    "counts": "count",
    "shot_times": "shot_time",
    "sbl_times": "t0_s",
    "sampling_interval": "sampling_interval_s",
}
_ATTRIBUTES: dict[str, type[np.generic]] = {
    "scan_angle": np.float32,
    "scan_direction_flag": np.uint8,
    "edge_of_flight_line": np.uint8,
    "user_data": np.uint8,
    "point_source_id": np.uint16,
}
_KEYS = frozenset(
    {"samples", "shot_id", "channel", "channel_flags", "gps_time"}
    | {"anchor", "location", "direction"}
    | set(_OTHER_NAMES)
    | set(_OTHER_NAMES.values())
    | set(_ATTRIBUTES)
)


class NpzReader(RowReader):
    """Reads the waveforms of a NumPy archive; its arrays are read whole when it is opened.

    Parameters
    ----------
    path
        The archive. Its keys, one row per waveform (docs/file-formats.md says more): ``samples``
        (n, width) counts, and as far as they are there ``counts`` (or ``count``), ``shot_times``
        (``shot_time``) in s, ``shot_id``, ``sbl_times`` (``t0_s``) in s, ``channel_flags`` or
        ``channel``, ``sampling_interval`` (``sampling_interval_s``) in s, one or one per waveform,
        ``anchor`` (n, 3), ``location`` in ps, ``direction`` (n, 3) and ``gps_time``.
    waveforms_per_block, channel_flags
        As in `WaveformReader`, flags by the numbers in ``channel``, 0 where there is none;
        ``channel_flags`` in the file come first.
    sampling_interval
        s per sample; comes before what the file says.
    memory_limit
        Most bytes that the arrays may take.

    Waveforms without a shot time are told apart by ``shot_id``; where that is missing too and no
    waveform has a time, each is a shot of its own. Without ``anchor``, ``location`` and
    ``direction`` positions in space are NaN. Raises as `RowReader`.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        waveforms_per_block: int = 20_000,
        channel_flags: Mapping[int, int] | int = 1,
        sampling_interval: float | None = None,
        memory_limit: int = _FOUR_GIGABYTES,
    ) -> None:
        super().__init__(path, waveforms_per_block, channel_flags)
        notes: list[str] = []
        self._arrays = load_arrays(self._path, _KEYS, memory_limit)
        self._size = (0, 0)
        self._size = self._samples().shape[0], self._samples().shape[1]
        self._columns = self._made_columns(sampling_interval, notes)
        self._channels = self._channel_numbers()
        if self._channels is None:
            notes += self._note_on_unused_flags()
        self._begin_anew(notes)

    @property
    def header(self) -> None:
        """None: an archive says nothing of reference systems."""
        return None

    @property
    def channel_numbers(self) -> frozenset[int] | None:
        """What stands in ``channel``, 0 without it; None beside ``channel_flags``."""
        return self._channels

    @property
    def _shape(self) -> tuple[int, int]:
        return self._size

    def _rows(self) -> WaveformRows:
        return self._columns

    def close(self) -> None:
        """Let the arrays go; may be called twice."""
        super().close()
        self._arrays = {}

    def _made_columns(self, interval: float | None, notes: list[str]) -> WaveformRows:
        width = self._size[1]
        times = self._column("shot_times", np.float64, np.nan)
        sbl_times = self._column("sbl_times", np.float64, 0.0)
        return WaveformRows(
            samples=self._samples(),
            counts=self._counts(width),
            shot_times=self._shots(times, notes),
            sbl_times=np.where(np.isfinite(sbl_times), sbl_times, 0.0),
            channel_flags=self._channel_flags(),
            sampling_intervals=self._intervals(interval, notes),
            anchor=self._column("anchor", np.float64, np.nan, (3,)),
            location=self._column("location", np.float64, np.nan),
            direction=self._column("direction", np.float64, np.nan, (3,)),
            gps_time=self._column("gps_time", np.float64, times),
            **{name: self._column(name, kind, 0) for name, kind in _ATTRIBUTES.items()},
        )

    def _samples(self) -> npt.NDArray[np.uint16]:
        if "samples" not in self._arrays:
            raise WaveformFileError(f"{self._path} holds no array samples, (n, width) counts")
        samples = self._arrays["samples"]
        if samples.dtype == np.uint16 and samples.ndim == 2 and samples.shape[1] <= MAX_SAMPLES:
            return samples
        if samples.ndim != 2 or samples.dtype.kind not in "ui" or samples.shape[1] > MAX_SAMPLES:
            raise WaveformFileError(
                f"{self._path}: samples are {samples.dtype} of shape {samples.shape}, must be "
                f"whole numbers of shape (n, width) with a width of {MAX_SAMPLES} at most"
            )
        self._arrays["samples"] = self._within("samples", samples, _LARGEST_SAMPLE).astype(
            np.uint16
        )
        return self._arrays["samples"]

    def _counts(self, width: int) -> npt.NDArray[np.int64]:
        counts = self._column("counts", np.int64, width)
        return self._within("counts", counts, _LARGEST_SAMPLE)

    def _shots(self, times: npt.NDArray[np.float64], notes: list[str]) -> npt.NDArray[np.float64]:
        """What tells shots apart: the times, or numbers of shots far below any time."""
        timed = np.isfinite(times)
        if len(times) == 0 or timed.all():
            return times
        if "shot_id" in self._arrays:
            notes.append("Not all waveforms have a shot time; shots are told apart by shot_id.")
            return self._column("shot_id", np.float64, 0.0) + _FIRST_SHOT_KEY
        if timed.any():
            return times  # those without are rejected, and counted
        notes.append("No waveform has a shot time; each waveform counts as a shot of its own.")
        return np.arange(len(times), dtype=np.float64) + _FIRST_SHOT_KEY

    def _channel_flags(self) -> npt.NDArray[np.uint8]:
        if "channel_flags" in self._arrays:
            flags = self._column("channel_flags", np.int64, 1)
            return self._within("channel_flags", flags, 255).astype(np.uint8)
        channels = self._within("channel", self._column("channel", np.int64, 0), 255)
        flags_by_channel: npt.NDArray[np.uint8] = self._flags[channels]
        return flags_by_channel

    def _channel_numbers(self) -> frozenset[int] | None:
        if "channel_flags" in self._arrays:
            return None
        return frozenset(np.unique(self._column("channel", np.int64, 0)).tolist())

    def _intervals(self, given: float | None, notes: list[str]) -> npt.NDArray[np.float64]:
        name = self._name("sampling_interval")
        if given is not None and name in self._arrays:
            notes.append(f"The interval given, {given * 1e9:g} ns, stands in for the file's own.")
        if given is None and name not in self._arrays:
            raise WaveformFileError(
                f"{self._path} does not say its sampling interval: it holds no array "
                "sampling_interval, in seconds; give the interval: the argument "
                "sampling_interval in s, or --interval in ns on the command line"
            )
        if given is None and self._arrays[name].ndim > 0:
            return self._column("sampling_interval", np.float64, 0.0)
        value = float(self._arrays[name]) if given is None else given
        return np.broadcast_to(np.float64(value), self._size[:1])

    def _column(
        self,
        key: str,
        kind: type[np.generic],
        missing: Any,
        row: tuple[int, ...] = (),
    ) -> npt.NDArray[Any]:
        """The array of a key, or `missing` for every waveform."""
        name, shape = self._name(key), (self._size[0], *row)
        if name not in self._arrays:
            return np.broadcast_to(np.asarray(missing, dtype=kind), shape)
        array = self._arrays[name]
        if array.shape != shape:
            raise WaveformFileError(
                f"{self._path}: {name} has the shape {array.shape}, must have {shape} like the "
                f"{self._size[0]} rows of samples"
            )
        whole = np.issubdtype(kind, np.integer)
        if whole and array.dtype.kind not in "bui":
            raise WaveformFileError(
                f"{self._path}: {name} holds {array.dtype}, must hold whole numbers"
            )
        if whole and np.dtype(kind).itemsize < 8:
            array = self._within(name, array, 256 ** np.dtype(kind).itemsize - 1)
        return array.astype(kind)

    def _name(self, key: str) -> str:
        """The key itself, or its other name if only that is there."""
        other = _OTHER_NAMES.get(key, key)
        return other if key not in self._arrays and other in self._arrays else key

    def _within(self, name: str, values: npt.NDArray[Any], largest: int) -> npt.NDArray[Any]:
        if values.size > 0 and not (values.min() >= 0 and values.max() <= largest):
            raise WaveformFileError(
                f"{self._path}: {name} holds {values.min()} to {values.max()}, must hold 0 to "
                f"{largest}"
            )
        return values
