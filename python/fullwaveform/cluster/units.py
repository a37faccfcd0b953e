"""Division of the inputs into units of work."""

from __future__ import annotations

from collections.abc import Sequence

from fullwaveform.cluster.inputs import InputFile
from fullwaveform.cluster.manifest import Part

_MIN_DIGITS = 5


def planned_parts(inputs: Sequence[InputFile], blocks_per_part: int, suffix: str) -> list[Part]:
    """The parts of a run in the order of files and blocks, at most `blocks_per_part` blocks each.

    The last part of a file has no end: the points after the last block are counted there. A file
    without blocks is one part.
    """
    ranges = [
        (number, first, None if first + blocks_per_part >= file.blocks else first + blocks_per_part)
        for number, file in enumerate(inputs)
        for first in range(0, max(file.blocks, 1), blocks_per_part)
    ]
    digits = max(_MIN_DIGITS, len(str(len(ranges) - 1)))
    return [
        Part(number, file, first, stop, f"part-{number:0{digits}d}{suffix}")
        for number, (file, first, stop) in enumerate(ranges)
    ]
