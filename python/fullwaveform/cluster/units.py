"""Division of the inputs into units of work."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path

from fullwaveform.cluster.inputs import InputFile
from fullwaveform.cluster.manifest import Part

_MIN_DIGITS = 5


def planned_parts(inputs: Sequence[InputFile], blocks_per_part: int, suffix: str) -> list[Part]:
    """The parts of a run in the order of files and blocks, at most `blocks_per_part` blocks each.

    A part is named after its input, whose stem no other input has, and numbered within it. The last
    part of a file has no end: the points after the last block are counted there. A file without
    blocks is one part.
    """
    parts: list[Part] = []
    for number, file in enumerate(inputs):
        starts = range(0, max(file.blocks, 1), blocks_per_part)
        digits = max(_MIN_DIGITS, len(str(len(starts) - 1)))
        for index, first in enumerate(starts):
            stop = None if first + blocks_per_part >= file.blocks else first + blocks_per_part
            name = f"{Path(file.path).stem}.part-{index:0{digits}d}{suffix}"
            parts.append(Part(len(parts), number, first, stop, name))
    return parts
