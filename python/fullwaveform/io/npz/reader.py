"""Waveforms of NumPy archives (.npz) and of single arrays (.npy)."""

from __future__ import annotations

import os
from collections.abc import Mapping
from typing import Any

import numpy as np

from fullwaveform.core.driver import MAX_COUNT
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray, UInt8Array, UInt16Array
from fullwaveform.data.checks import as_counts
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.array_reader import ArrayReader, OutgoingArrays, WaveformArrays
from fullwaveform.io.limits import MAX_SAMPLES, numbered_shots
from fullwaveform.io.npz.arrays import has_array, is_single_array, load_arrays, load_samples
from fullwaveform.io.npz.outgoing import OUTGOING_SAMPLES, load_outgoing

_FOUR_GIGABYTES = 1 << 32
# Key -> alternative key.
_ALTERNATIVES = {
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
    | set(_ALTERNATIVES)
    | set(_ALTERNATIVES.values())
    | set(_ATTRIBUTES)
)


class NpzReader(ArrayReader):
    """Reads the waveforms of a NumPy archive; its arrays are loaded when it is opened.

    Blocks may share memory with the loaded arrays; copy them before changing them.

    Parameters
    ----------
    path
        The archive, or a single array, which has the samples only. Keys of the archive, one row per
        waveform (details in docs/file-formats.md): ``samples`` (n, width) counts, and optionally
        ``counts`` (or ``count``), ``shot_times`` (``shot_time``) in s, ``shot_id``, ``sbl_times``
        (``t0_s``) in s, ``channel_flags`` or ``channel``, ``sampling_interval``
        (``sampling_interval_s``) in s, one or one per waveform, ``anchor`` (n, 3), ``location`` in
        ps, ``direction`` (n, 3) and ``gps_time``.
    waveforms_per_block, channel_flags
        As in `WaveformReader`; flags by the numbers in ``channel``, 0 without it. The array
        ``channel_flags`` of the file takes precedence.
    sampling_interval
        s per sample; takes precedence over the file.
    memory_limit
        Maximum size of the arrays in bytes.

    Without shot times, ``shot_id`` identifies the shots; without either, each waveform is a
    separate shot. Without ``anchor``, ``location`` and
    ``direction`` positions in space are NaN. Raises as `ArrayReader`.
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
        if is_single_array(self._path):
            self._arrays, self._has_outgoing = load_samples(self._path, memory_limit), False
        else:
            self._arrays = load_arrays(self._path, _KEYS, memory_limit)
            self._has_outgoing = has_array(self._path, OUTGOING_SAMPLES)
        self._sent: OutgoingArrays | None = None  # loaded when it is needed
        self._memory_limit = memory_limit
        self._shape = (0, 0)
        self._shape = self._samples().shape[0], self._samples().shape[1]
        self._columns = self._make_columns(sampling_interval, notes)
        self._channels = self._channel_numbers()
        if self._channels is None:
            notes += self._note_on_unused_flags()
        self._set_notes(notes)

    @property
    def header(self) -> None:
        """None: an archive has no coordinate reference system."""
        return None

    @property
    def channel_numbers(self) -> frozenset[int] | None:
        """Numbers in ``channel``, 0 without it; None if the file has ``channel_flags``."""
        return self._channels

    @property
    def receiver_names(self) -> dict[int, str]:
        """The numbers in ``channel``; empty without it."""
        if "channel" not in self._arrays:
            return {}
        return {number: f"channel {number}" for number in np.unique(self._descriptors()).tolist()}

    @property
    def has_outgoing(self) -> bool:
        """Whether the file has ``out_samples``."""
        return self._has_outgoing

    def _outgoing_arrays(self) -> OutgoingArrays:
        if self._sent is None:
            numbers = self._column("shot_id", np.int64, 0) if "shot_id" in self._arrays else None
            intervals = np.asarray(self._columns.sampling_intervals[0 : self._shape[0]])
            self._sent = load_outgoing(self._path, numbers, intervals, self._memory_limit)
        return self._sent

    def close(self) -> None:
        """Release the arrays; may be called twice."""
        super().close()
        self._arrays, self._sent = {}, None

    def _make_columns(self, interval: float | None, notes: list[str]) -> WaveformArrays:
        width = self._shape[1]
        times = self._column("shot_times", np.float64, np.nan)
        sbl_times = self._column("sbl_times", np.float64, 0.0)
        return WaveformArrays(
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
            descriptors=self._descriptors(),
            **{name: self._column(name, kind, 0) for name, kind in _ATTRIBUTES.items()},
        )

    def _samples(self) -> UInt16Array:
        if "samples" not in self._arrays:
            raise WaveformFileError(f"{self._path} has no array samples (n, width) in counts")
        samples = self._arrays["samples"]
        if samples.dtype == np.uint16 and samples.ndim == 2 and samples.shape[1] <= MAX_SAMPLES:
            return samples
        if samples.ndim != 2 or samples.shape[1] > MAX_SAMPLES:
            raise WaveformFileError(
                f"{self._path}: invalid samples of type {samples.dtype} and shape {samples.shape}; "
                f"must be numbers of shape (n, width) with a width of at most {MAX_SAMPLES}"
            )
        try:
            self._arrays["samples"] = as_counts(samples, "samples")
        except ValueError as error:
            raise WaveformFileError(f"{self._path}: {error}") from error
        return self._arrays["samples"]

    def _counts(self, width: int) -> IntArray:
        counts = self._column("counts", np.int64, width)
        return self._within("counts", counts, MAX_COUNT)

    def _shots(self, times: FloatArray, notes: list[str]) -> FloatArray:
        """What identifies shots: their times, or numbers in place of times."""
        timed = np.isfinite(times)
        if len(times) == 0 or timed.all():
            return times
        if "shot_id" in self._arrays:
            notes.append("Not all waveforms have a shot time; shots are identified by shot_id.")
            return numbered_shots(self._column("shot_id", np.float64, 0.0))
        if timed.any():
            return times  # waveforms without a time are rejected and counted
        notes.append("No waveform has a shot time; each waveform is treated as a separate shot.")
        return numbered_shots(np.arange(len(times)))

    def _channel_flags(self) -> UInt8Array:
        if "channel_flags" in self._arrays:
            flags = self._column("channel_flags", np.int64, 1)
            return self._within("channel_flags", flags, 255).astype(np.uint8)
        flags_by_channel: UInt8Array = self._flags[self._descriptors()]
        return flags_by_channel

    def _descriptors(self) -> UInt8Array:
        channels = self._column("channel", np.int64, 0)
        return self._within("channel", channels, 255).astype(np.uint8)

    def _channel_numbers(self) -> frozenset[int] | None:
        if "channel_flags" in self._arrays:
            return None
        return frozenset(np.unique(self._column("channel", np.int64, 0)).tolist())

    def _intervals(self, given: float | None, notes: list[str]) -> FloatArray:
        name = self._name("sampling_interval")
        if given is not None and name in self._arrays:
            notes.append(f"The given interval, {given * 1e9:g} ns, replaces that of the file.")
        if given is None and name not in self._arrays:
            raise WaveformFileError(
                f"{self._path} has no array sampling_interval (s); give the interval with "
                "--interval in ns (in Python sampling_interval in s)"
            )
        if given is None and self._arrays[name].ndim > 0:
            return self._column("sampling_interval", np.float64, 0.0)
        value = float(self._arrays[name]) if given is None else given
        return np.broadcast_to(np.float64(value), self._shape[:1])

    def _column(
        self,
        key: str,
        kind: type[np.generic],
        missing: Any,
        row: tuple[int, ...] = (),
    ) -> AnyArray:
        """The array of a key; where it is missing, `missing` for every waveform."""
        name, shape = self._name(key), (self._shape[0], *row)
        if name not in self._arrays:
            return np.broadcast_to(np.asarray(missing, dtype=kind), shape)
        array = self._arrays[name]
        if array.shape != shape:
            raise WaveformFileError(
                f"{self._path}: {name} has shape {array.shape}; expected {shape} for "
                f"{self._shape[0]} waveforms"
            )
        is_integer = np.issubdtype(kind, np.integer)
        if is_integer and array.dtype.kind not in "bui":
            raise WaveformFileError(
                f"{self._path}: {name} has type {array.dtype}; must be integers"
            )
        if is_integer and np.dtype(kind).itemsize < 8:
            array = self._within(name, array, 256 ** np.dtype(kind).itemsize - 1)
        return array.astype(kind)

    def _name(self, key: str) -> str:
        """The key, or its alternative if only that is present."""
        alternative = _ALTERNATIVES.get(key, key)
        return alternative if key not in self._arrays and alternative in self._arrays else key

    def _within(self, name: str, values: AnyArray, largest: int) -> AnyArray:
        if values.size > 0 and not (values.min() >= 0 and values.max() <= largest):
            raise WaveformFileError(
                f"{self._path}: {name} has values from {values.min()} to {values.max()}; must be "
                f"0 to {largest}"
            )
        return values
