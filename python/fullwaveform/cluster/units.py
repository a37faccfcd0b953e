"""Cutting the inputs into units of work."""

from __future__ import annotations

from collections.abc import Sequence

from fullwaveform.cluster.inputs import InputFile
from fullwaveform.cluster.manifest import Part

_FEWEST_DIGITS = 5


def planned_parts(inputs: Sequence[InputFile], unit_blocks: int, ending: str) -> list[Part]:
    """The parts of a job in the order of files and blocks, `unit_blocks` blocks each at most.

    The last part of a file goes to its end, whatever stands behind the last block: what the reader
    has to say of the end belongs to it. A file without blocks is one part.
    """
    ranges = [
        (number, first, None if first + unit_blocks >= file.blocks else first + unit_blocks)
        for number, file in enumerate(inputs)
        for first in range(0, max(file.blocks, 1), unit_blocks)
    ]
    digits = max(_FEWEST_DIGITS, len(str(len(ranges) - 1)))
    return [
        Part(number, file, first, stop, f"part-{number:0{digits}d}{ending}")
        for number, (file, first, stop) in enumerate(ranges)
    ]
