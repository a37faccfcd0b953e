"""Blocks of waveforms along known lines, and a reader that returns them."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from dataclasses import dataclass, field, replace
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.blocks import PulseGeometry, WaveformBlock

from ..support.waveform_blocks import block

PICOSECONDS = 1000.0  # per sample


def lines(
    samples: Sequence[Sequence[int]],
    first: Sequence[tuple[float, float, float]],
    step: Sequence[tuple[float, float, float]],
    **options: object,
) -> WaveformBlock:
    """Waveforms from the place of their first sample, and the way from sample to sample."""
    width = max(map(len, samples))
    padded = [[*row, *[0] * (width - len(row))] for row in samples]
    made = block(padded, counts=[len(row) for row in samples], **options)  # type: ignore[arg-type]
    direction = -np.array(step) / PICOSECONDS
    return replace(made, geometry=PulseGeometry(np.array(first), np.zeros(len(made)), direction))


@dataclass
class Scan:
    """Blocks in place of a file."""

    found: list[WaveformBlock]
    header: laspy.LasHeader | None = None
    path: Path = Path("scan.las")
    paths: tuple[Path, ...] = (path,)
    is_geographic: bool = False
    on_unreadable: None = None
    passes: list[int] = field(default_factory=list)

    def blocks(self) -> Iterator[WaveformBlock]:
        self.passes.append(len(self.found))
        yield from self.found


def flat(length: int = 24, **counts: int) -> list[int]:
    """A waveform of 10 counts but for given samples, as ``s5=30``."""
    values = [10] * length
    for name, count in counts.items():
        values[int(name[1:])] = count
    return values


def three_lines() -> WaveformBlock:
    """Down through (2.5, 7.5); east through y = 7.5, z = 4.5; down through (4.5, 5.5)."""
    return lines(
        [flat(s9=30, s10=110, s21=20), flat(s0=15), flat(s2=60)],
        [(2.5, 7.5, 5.9), (2.6, 7.5, 4.5), (4.5, 5.5, 5.9)],
        [(0.0, 0.0, -0.25), (0.25, 0.0, 0.0), (0.0, 0.0, -0.25)],
    )
