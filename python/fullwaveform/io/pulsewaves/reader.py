"""Waveforms of PulseWaves files, block by block."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping, Sequence
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import OutgoingPulses, ReadTally, WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import START_OF_FILE, BlockStart, PendingBlock
from fullwaveform.io.pulsewaves.descriptors import (
    OUTGOING,
    RETURNING,
    PulseDescriptor,
    SamplingDescriptor,
    SamplingTable,
    check_supported,
)
from fullwaveform.io.pulsewaves.header import (
    las_header,
)
from fullwaveform.io.pulsewaves.parts import open_parts
from fullwaveform.io.pulsewaves.pulses import (
    PulseSurvey,
    optical_centres,
    segment_geometry,
    shot_attributes,
    shot_times,
    survey,
    survey_of,
)
from fullwaveform.io.pulsewaves.selection import Selection
from fullwaveform.io.pulsewaves.waves import (
    Segments,
)
from fullwaveform.io.remote import location

_MISSING = "pulse missing in the truncated file"


class PulseWavesReader(WaveformReader):
    """Reads the waveforms of a PulseWaves file of version 0.x, compressed or not.

    Each segment of a returning sampling is a waveform, each pulse a shot. Pulses are read in the
    order of the file. Values are counts as stored; lookup tables are not applied.

    `sbl_times` of a block are the times from the anchor to the first sample of a segment (its
    duration), so that the times of echoes in several segments of a shot are comparable.

    Parameters
    ----------
    path
        The pulse file, ``.pls`` or ``.plz``. The samples are in the file of the same name ending
        ``.wvs`` or ``.wvz``. A list of files: the parts of a flight line, which are read one after
        the other as one file.
    waveforms_per_block, channel_flags
        As in `WaveformReader`; flags by the channel number of a sampling in the pulse descriptor.

    A pulse whose samples are damaged or not all inside their file counts as one rejected waveform,
    and so does each pulse of a damaged chunk and each that a truncated file does not hold.
    Raises as `WaveformReader`, and while reading if a descriptor that pulses refer to is missing or
    not supported.
    """

    def __init__(
        self,
        path: str | os.PathLike[str] | Sequence[str | os.PathLike[str]],
        *,
        waveforms_per_block: int = 20_000,
        channel_flags: Mapping[int, int] | int = 1,
    ) -> None:
        paths = [path] if isinstance(path, str | os.PathLike) else list(path)
        super().__init__(paths[0], waveforms_per_block, channel_flags)
        self._paths = tuple(map(location, paths))
        opened = open_parts(self._paths)
        self._descriptors = opened.descriptors
        self._pulses, self._waves = opened.pulses, opened.waves
        self._header = las_header(opened.header, opened.records)

    def close(self) -> None:
        """Close the file; may be called twice."""
        super().close()
        self._pulses.close()
        self._waves.close()

    @property
    def paths(self) -> tuple[Path, ...]:
        """The file, or the parts of the flight line."""
        return self._paths

    @property
    def header(self) -> laspy.LasHeader:
        """LAS header with the scales, offsets and reference system of the file."""
        return self._header

    @property
    def descriptors(self) -> dict[int, PulseDescriptor]:
        """All pulse descriptors of the file by index."""
        return self._descriptors

    @property
    def point_count(self) -> int:
        """Pulses of the file."""
        return len(self._pulses)

    @property
    def channel_numbers(self) -> frozenset[int]:
        """Channels of the returning samplings in the pulse descriptors."""
        samplings = (one for whole in self._descriptors.values() for one in whole.samplings)
        return frozenset(one.channel for one in samplings if one.kind == RETURNING)

    @property
    def receiver_names(self) -> dict[int, str]:
        """The channels of the returning samplings."""
        return {number: f"channel {number}" for number in sorted(self.channel_numbers)}

    @property
    def channel_numbers_in_use(self) -> frozenset[int]:
        """Channels of the returning samplings of the descriptors to which pulses refer."""
        used = survey(self._pulses).descriptors
        samplings = (one for index in used for one in self._descriptors[index].samplings)
        return frozenset(one.channel for one in samplings if one.kind == RETURNING)

    @property
    def has_outgoing(self) -> bool:
        """Whether a pulse descriptor has an outgoing sampling."""
        samplings = (one for whole in self._descriptors.values() for one in whole.samplings)
        return any(one.kind == OUTGOING for one in samplings)

    def _pending_blocks(self, tally: ReadTally) -> Iterator[PendingBlock]:
        return self._pending_blocks_from(START_OF_FILE, tally)

    def _pending_blocks_from(self, start: BlockStart, tally: ReadTally) -> Iterator[PendingBlock]:
        """The place of a block is its first pulse and the survey of all pulses."""
        if start.place:
            first, times_differ, *used = self._checked_place(start)
            surveyed = PulseSurvey(bool(times_differ), tuple(used))
        else:
            first, surveyed = 0, survey(self._pulses)
        run = self._prepare(surveyed)
        tally.notes += self._notes_on(run)
        if not start.place:
            for number, count in self._pulses.source.gaps():
                tally.reject(_MISSING, count, [f"pulses from number {number} on"])
        for segments, following in run.blocks(
            self._waveforms_per_block, tally, first, start.points
        ):
            place = (following, int(surveyed.times_differ), *surveyed.descriptors)
            yield self._pending(segments, run, place)

    def _checked_place(self, start: BlockStart) -> tuple[int, ...]:
        place = start.place
        if len(place) < 2 or not 0 <= place[0] <= start.points <= len(self._pulses):
            raise ValueError(
                f"{self._path}: invalid start of block {start.block} at pulse {place[0]}, with "
                f"{start.points} pulses counted; the file has {len(self._pulses)} pulses"
            )
        return place

    def _pending(
        self, segments: Segments, run: Selection, next_place: tuple[int, ...]
    ) -> PendingBlock:
        def read(part: slice, numbers: IntArray) -> WaveformBlock:
            return self._block(segments[part], run, numbers)

        def shots() -> tuple[FloatArray, FloatArray]:
            pulses = self._pulses.take(segments["pulse"])
            identifiers = shot_times(pulses, segments["pulse"], self._pulses, run.surveyed)
            return identifiers, self._pulses.times(pulses)

        return PendingBlock(len(segments), read, shots, next_place)

    def _window(self, points: slice) -> WaveformBlock | None:
        numbers = np.arange(points.start, points.stop)
        rows = self._pulses.take(numbers[~self._pulses.source.damaged(numbers)])
        run = self._prepare(survey_of(rows, self._pulses))
        segments = run.readable(points.start, points.stop, ReadTally())
        numbers = points.start + np.arange(len(segments), dtype=np.int64)
        return self._block(segments, run, numbers) if len(segments) > 0 else None

    def _prepare(self, surveyed: PulseSurvey) -> Selection:
        for index in surveyed.descriptors:
            if index not in self._descriptors:
                raise WaveformFileError(
                    f"{self._path}: missing pulse descriptor {index}; the file has "
                    f"{', '.join(map(str, sorted(self._descriptors))) or 'none'}"
                )
            check_supported(self._descriptors[index], self._path)
        table = SamplingTable(self._descriptors[index] for index in surveyed.descriptors)
        return Selection(self._pulses, self._waves, surveyed, table, self.max_samples)

    def _notes_on(self, run: Selection) -> list[str]:
        notes = list(self._pulses.source.notes)
        if not run.surveyed.times_differ:
            notes.append("Several pulses have the same time; each is treated as a separate shot.")
        if self._pulses.header.attributes != 0:
            notes.append("The pulses have additional attributes; they were ignored.")
        returning = [one for one in run.table.samplings if one.kind == RETURNING]
        if any(one.lookup_table != 0 for one in returning):
            notes.append("Lookup tables of the samples were ignored; values are counts.")
        notes += _note_on_kinds(run.table.samplings)
        channels = sorted({one.channel for one in returning})
        flags = {int(self._flags[channel]) for channel in channels}
        if len(channels) > 1 and len(flags) == 1:
            numbers = " and ".join(map(str, channels))
            notes.append(f"Channels {numbers} of the file all have channel flag {flags.pop()}.")
        return notes

    def _block(self, segments: Segments, run: Selection, numbers: IntArray) -> WaveformBlock:
        code, pulses = segments["sampling"], self._pulses.take(segments["pulse"])
        unit = run.table.units_ns[code]
        return WaveformBlock(
            samples=self._waves.read(segments, run.table),
            counts=segments["count"].astype(np.uint16),
            shot_times=shot_times(pulses, segments["pulse"], self._pulses, run.surveyed),
            sbl_times=segments["duration"] * unit / 1e9,
            channel_flags=self._flags[run.table.channels[code]],
            sampling_intervals=unit / 1e9,
            geometry=segment_geometry(pulses, segments["duration"], unit, self._pulses.header),
            attributes=shot_attributes(pulses, self._pulses),
            waveform_numbers=numbers,
            descriptors=run.table.channels[code],
            origins=optical_centres(
                pulses, run.table.centres_to_anchors[code], self._pulses.header
            ),
            outgoing=self._outgoing(segments, run) if self._reads_outgoing else None,
        )

    def _outgoing(self, segments: Segments, run: Selection) -> OutgoingPulses:
        """The first outgoing segment of the pulse of each segment."""
        pulses, row = np.unique(segments["pulse"], return_inverse=True)
        sent = run.outgoing(pulses)
        unit = run.table.units_ns[sent["sampling"]]
        once = OutgoingPulses(
            samples=self._waves.read(sent, run.table),
            counts=sent["count"].astype(np.uint16),
            sampling_intervals=unit / 1e9,
            durations=sent["duration"] * unit / 1e9,
        )
        return take_rows(once, row)


def _note_on_kinds(samplings: tuple[SamplingDescriptor, ...]) -> list[str]:
    others = sorted({one.kind for one in samplings} - {OUTGOING, RETURNING})
    if not others:
        return []
    kinds = ", ".join(map(str, others))
    return [f"Samplings of type {kinds}, neither outgoing nor returning, were skipped."]
