"""One row per shot: where its pulse left, where its record begins and ends, its outgoing pulse."""

from __future__ import annotations

import numpy as np

from fullwaveform.analysis.places import ends_of
from fullwaveform.calibration.pulses import baseline_of
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.blocks import OutgoingPulses, WaveformBlock
from fullwaveform.data.columns import Column, Table
from fullwaveform.data.echo_columns import SHOT_COLUMNS, shot_columns_of

_COORDINATE = "coordinate unit of the input"
_PICOSECONDS_PER_NANOSECOND = 1e3
_MIN_SAMPLES = 3  # of an outgoing pulse


def _of_place(name: str, what: str) -> tuple[Column, ...]:
    return tuple(
        Column(f"{axis}_{name}", np.float64, _COORDINATE, f"{long} of {what}")
        for axis, long in (("x", "Easting"), ("y", "Northing"), ("z", "Height"))
    )


PULSE_COLUMNS: tuple[Column, ...] = (
    Column("waveform_number", np.int64, "1", "Number of the first waveform of the shot, from 0"),
    Column("waveform_count", np.int64, "1", "Waveforms of the shot"),
    Column("channels", np.str_, "1", "Channel flags of its waveforms, ascending"),
    Column("sample_count", np.int64, "samples", "Samples of all waveforms of the shot"),
    Column("gps_time", np.float64, "s", "Time of the shot, as in the input"),
    *_of_place("origin", "the place where the pulse left; NaN where the input has none"),
    *_of_place("first", "the first sample"),
    *_of_place("last", "the last sample"),
    *(
        Column(
            f"{axis}_direction",
            np.float64,
            f"{_COORDINATE} per ns",
            f"Step of the record along {axis}, in the direction of the flight of light",
        )
        for axis in "xyz"
    ),
    Column(
        "outgoing_amplitude",
        np.float64,
        "counts",
        "Largest sample of the outgoing pulse above its baseline, which is the median of the lower "
        "half of its samples; NaN without one",
    ),
    Column(
        "outgoing_position",
        np.float64,
        "samples",
        "Vertex of the parabola through the largest sample of the outgoing pulse and its "
        "neighbours, from its first sample; NaN without one, or at its edge",
    ),
)


class PulseTable(Table):
    """One row per shot with the columns of `PULSE_COLUMNS`, and of `SHOT_COLUMNS` what is known."""

    @classmethod
    def of(cls, block: WaveformBlock) -> PulseTable:
        """The shots of a block, in the order of their first waveforms."""
        _, first, which = np.unique(block.shot_times, return_index=True, return_inverse=True)
        order = np.argsort(first)
        rank = np.empty(len(order), np.int64)
        rank[order] = np.arange(len(order))
        return cls(_columns(block, first[order], rank[which]))


def pulse_columns(shot_columns: tuple[str, ...]) -> tuple[Column, ...]:
    """The columns of a file whose shots have these columns of their own."""
    own = (column for column in SHOT_COLUMNS if column.name in shot_columns)
    return (*PULSE_COLUMNS, *own)


def _columns(block: WaveformBlock, first: IntArray, shot: IntArray) -> dict[str, AnyArray]:
    """The columns, from the first row (m,) of each shot and the shot (n,) of each row."""
    total = len(first)
    places = {
        "origin": np.full((total, 3), np.nan) if block.origins is None else block.origins[first],
        **_ends(block, first, shot),
        "direction": -block.geometry.direction[first] * _PICOSECONDS_PER_NANOSECOND,
    }
    columns: dict[str, AnyArray] = {
        "waveform_number": block.waveform_numbers[first],
        "waveform_count": np.bincount(shot, minlength=total),
        "channels": _channels(block, shot, total),
        "sample_count": np.bincount(shot, block.counts, total).astype(np.int64),
        "gps_time": block.attributes.gps_time[first],
    }
    for name, place in places.items():
        columns |= {f"{axis}_{name}": place[:, number] for number, axis in enumerate("xyz")}
    amplitude, position = _outgoing(block.outgoing, first)
    columns |= {"outgoing_amplitude": amplitude, "outgoing_position": position}
    known = {"beam": block.beams, "shot_number": block.shot_numbers}
    for name in shot_columns_of(block):
        values = known[name]
        assert values is not None
        columns[name] = values[first]
    return columns


def _ends(block: WaveformBlock, first: IntArray, shot: IntArray) -> dict[str, FloatArray]:
    """Places (m, 3) of the first and last samples along the flight, of any waveform of the shot."""
    begins, ends = ends_of(block)
    flight = -block.geometry.direction[first[shot]]
    origin = begins[first[shot]]
    found = {}
    for name, places, sign in (("first", begins, 1.0), ("last", ends, -1.0)):
        along = sign * np.einsum("ij,ij->i", places - origin, flight)
        order = np.lexsort((along, shot))  # NaN comes last
        _, nearest = np.unique(shot[order], return_index=True)
        found[name] = places[order[nearest]]
    return found


def _channels(block: WaveformBlock, shot: IntArray, total: int) -> AnyArray:
    """Flags of the waveforms of each shot as text, such as ``0 1``."""
    pairs = np.unique(np.column_stack([shot, block.channel_flags]), axis=0)
    texts = np.full(total, "", dtype=object)
    for flag in np.unique(pairs[:, 1]).tolist():
        having = pairs[pairs[:, 1] == flag, 0]
        texts[having] += f" {flag}"
    return np.char.lstrip(texts.astype(np.str_))


def _outgoing(outgoing: OutgoingPulses | None, first: IntArray) -> tuple[FloatArray, FloatArray]:
    """Amplitude above the baseline, and position of the maximum, of the pulse of each shot."""
    amplitude, position = np.full(len(first), np.nan), np.full(len(first), np.nan)
    if outgoing is None:
        return amplitude, position
    counts = outgoing.counts[first].astype(np.int64)
    rows = np.flatnonzero(counts >= _MIN_SAMPLES)
    if len(rows) == 0:
        return amplitude, position
    inside = np.arange(outgoing.samples.shape[1]) < counts[rows, np.newaxis]
    values = np.where(inside, outgoing.samples[first[rows]].astype(np.float64), np.nan)
    top = np.nanargmax(values, axis=1)
    each = np.arange(len(rows))
    amplitude[rows] = values[each, top] - baseline_of(values)
    inner = np.flatnonzero((top > 0) & (top < counts[rows] - 1))
    left, centre, right = (values[inner, top[inner] + step] for step in (-1, 0, 1))
    # The largest sample is the first of equal ones, so the curvature is not 0.
    shift = 0.5 * (left - right) / (left - 2.0 * centre + right)
    position[rows[inner]] = top[inner] + shift
    return amplitude, position
