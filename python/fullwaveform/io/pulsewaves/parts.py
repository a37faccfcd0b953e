"""Parts of a flight line: PulseWaves files that are read one after the other as one file."""

from __future__ import annotations

from collections.abc import Sequence
from contextlib import ExitStack
from dataclasses import replace
from pathlib import Path

import numpy as np

from fullwaveform.data.counting import counted
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.pulsewaves.chained import ChainedPulses, ChainedWaves
from fullwaveform.io.pulsewaves.header import PROJECTION_USER_ID, Triple
from fullwaveform.io.pulsewaves.pulse_file import PulseFile, open_pulse_file
from fullwaveform.io.pulsewaves.pulses import OFFSET_BYTES, PulseData

_COMPARED = 256  # pulses at the start of a part, with which it is recognised

#: What the headers of all parts must have in common.
_COMMON = {
    "pulse_size": "size of a pulse",
    "source_id": "file source identifier",
    "time_scale": "scale of the times",
    "time_offset": "offset of the times",
    "time_adjustment": "origin of the times",
    "scales": "scale of the coordinates",
    "offsets": "offset of the coordinates",
}


def open_parts(paths: Sequence[Path]) -> PulseFile:
    """Open the parts of a flight line as one file; numbers of pulses run on from part to part.

    Raises
    ------
    OSError
        If a file cannot be opened.
    WaveformFileError
        If a file is not valid, or its header, pulse descriptors or coordinate system differ from
        those of the first one.
    ValueError
        If a file is given twice, under whatever names, compressed or not.
    """
    _check_given_once(paths)
    with ExitStack() as opened:
        parts = []
        for path in paths:
            parts.append(open_pulse_file(path))
            opened.callback(parts[-1].close)
        for part in parts[1:]:
            _check_agreement(parts[0], part)
        _check_different(parts)
        whole = parts[0] if len(parts) == 1 else _joined(parts)
        opened.pop_all()
    return whole


def _check_given_once(paths: Sequence[Path]) -> None:
    seen: set[Path] = set()
    for path in paths:
        if path.resolve() in seen:
            raise ValueError(f"{path} is given twice; give each part of a flight line once")
        seen.add(path.resolve())


def _check_different(parts: Sequence[PulseFile]) -> None:
    """ValueError for files of the same pulses, such as copies, links and a compressed file."""
    seen: dict[bytes, PulseFile] = {}
    for part in parts:
        if (count := len(part.pulses)) == 0:
            continue
        ends = np.unique(np.concatenate([np.arange(min(count, _COMPARED)), [count - 1]]))
        records = part.pulses.source.records(ends)
        part.pulses.source.forget()
        # Where the samples are depends on their compression.
        compared = np.delete(records, OFFSET_BYTES, axis=1)
        other = seen.setdefault(count.to_bytes(8, "little") + compared.tobytes(), part)
        if other is not part:
            raise ValueError(
                f"{part.path} has the same {counted(count, 'pulse')} as {other.path}; give each "
                "part of a flight line once"
            )


def _check_agreement(first: PulseFile, part: PulseFile) -> None:
    for name, what in _COMMON.items():
        expected, found = getattr(first.header, name), getattr(part.header, name)
        if name == "time_adjustment" and min(len(first.pulses), len(part.pulses)) == 0:
            continue  # follows from the times of pulses
        if found != expected:
            raise _differing(first, part, f"{what} {_shown(found)}", _shown(expected))
    # repr, because a NaN scale is unequal to itself.
    if repr(sorted(first.descriptors.items())) != repr(sorted(part.descriptors.items())):
        raise _differing(first, part, "pulse descriptors", "those")
    if _reference_system(first) != _reference_system(part):
        raise _differing(first, part, "coordinate reference system", "that")


def _differing(first: PulseFile, part: PulseFile, found: str, expected: str) -> WaveformFileError:
    return WaveformFileError(
        f"{part.path}: {found}; must be equal to {expected} of {first.path} in the parts of a "
        "flight line; process the files separately"
    )


def _shown(value: object) -> str:
    return ", ".join(map(str, value)) if isinstance(value, tuple) else str(value)


def _reference_system(file: PulseFile) -> set[tuple[int, bytes]]:
    projections = [one for one in file.records if one.user == PROJECTION_USER_ID]
    return {(record.record_id, record.data) for record in projections}


def _joined(parts: Sequence[PulseFile]) -> PulseFile:
    first_pulses = np.cumsum([0, *(len(part.pulses) for part in parts)])
    sources = [part.pulses.source for part in parts]
    notes = (f"{part.path.name}: {note}" for part in parts for note in part.pulses.source.notes)
    headers = [part.header for part in parts if len(part.pulses) > 0] or [parts[0].header]
    header = replace(
        parts[0].header,
        pulse_count=int(first_pulses[-1]),
        time_range=(
            min(one.time_range[0] for one in headers),
            max(one.time_range[1] for one in headers),
        ),
        lower=_each_axis(np.minimum, [one.lower for one in headers]),
        upper=_each_axis(np.maximum, [one.upper for one in headers]),
    )
    return PulseFile(
        parts[0].path,
        PulseData(header, ChainedPulses(sources, first_pulses, tuple(notes))),
        ChainedWaves([part.waves for part in parts], first_pulses),
        parts[0].descriptors,
        parts[0].records,
    )


def _each_axis(extreme: np.ufunc, corners: Sequence[Triple]) -> Triple:
    x, y, z = extreme.reduce(np.array(corners), axis=0).tolist()
    return x, y, z
