"""Choice of example waveforms of a file, in one pass over its blocks."""

from __future__ import annotations

from dataclasses import dataclass, field, replace

import numpy as np

from fullwaveform.analysis.waveform_selection import SelectedShot
from fullwaveform.calibration.clipping import TopSamples, digitiser_limit
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.io.base import WaveformReader
from fullwaveform.view.example_kinds import BlockScores, ExampleKind

#: Examples of each kind, at most.
EXAMPLES_PER_KIND = 30


@dataclass(frozen=True, slots=True)
class Example:
    """A waveform of a kind, with the other waveforms of its shot."""

    waveform: int  # number in the file
    shot_number: int  # in the file, counted over the readable waveforms
    score: float  # as in `BlockScores`; of saturated waveforms the samples at the limit
    shot: SelectedShot


@dataclass(frozen=True, slots=True)
class ChosenExamples:
    """The best examples of a kind, the best first, and how many waveforms are of the kind."""

    examples: tuple[Example, ...]
    total: int


class ExampleSelection:
    """Chooses the examples of all kinds from blocks in the order of the file.

    The choice does not depend on the division into blocks. Of waveforms with equal scores those
    with the smallest numbers are chosen.
    """

    def __init__(self) -> None:
        self._best = {kind: _Best() for kind in ExampleKind}
        self._tops: dict[tuple[int, int], tuple[int, _Best]] = {}
        self._shots = 0

    def add(self, block: WaveformBlock, found: BlockScores) -> None:
        """Enter the waveforms of a block."""
        shots = _ShotsOfBlock(block, self._shots)
        for kind, scores in found.scores.items():
            rows = np.flatnonzero(~np.isnan(scores))
            self._best[kind].add(shots, rows, scores[rows])
        for top in found.tops:
            largest, best = self._tops.get(top.receiver, (-1, _Best()))
            if top.largest > largest:  # those below were not at the limit
                largest, best = top.largest, _Best()
            if top.largest == largest:
                best.add(shots, top.rows, top.clipped.astype(np.float64))
            self._tops[top.receiver] = largest, best
        self._shots += shots.count

    def chosen(self) -> dict[ExampleKind, ChosenExamples]:
        """The examples of each kind."""
        found = self._best | {ExampleKind.SATURATED: self._saturated()}
        return {
            kind: ChosenExamples(tuple(found[kind].examples), found[kind].total)
            for kind in ExampleKind
        }

    def _saturated(self) -> _Best:
        """Those of the receivers whose largest sample is the limit of the digitiser."""
        merged = _Best()
        for largest, best in self._tops.values():
            if digitiser_limit([TopSamples(largest, best.total)]) is not None:
                merged.total += best.total
                merged.examples += best.examples
        merged.keep_best()
        return merged


class _ShotsOfBlock:
    """The shots of a block, of which those that are needed are copied, so that it can be freed."""

    def __init__(self, block: WaveformBlock, first: int) -> None:
        self.block = block
        begins = np.concatenate([[True], block.shot_times[1:] != block.shot_times[:-1]])
        self.count = int(np.count_nonzero(begins))
        self._numbers = first + np.cumsum(begins) - 1
        self._copies: dict[int, WaveformBlock] = {}

    def example(self, row: int, score: float) -> Example:
        """The waveform of a row as an example."""
        number, shot = int(self.block.waveform_numbers[row]), int(self._numbers[row])
        if shot not in self._copies:
            copy = take_rows(self.block, np.flatnonzero(self._numbers == shot))
            width = int(copy.counts.max(initial=0))
            samples = np.ascontiguousarray(copy.samples[:, :width])
            self._copies[shot] = replace(copy, samples=samples)
        rows = np.flatnonzero(self._copies[shot].waveform_numbers == number)
        return Example(number, shot, score, SelectedShot(self._copies[shot], rows))


@dataclass
class _Best:
    """The waveforms with the largest scores, the best first."""

    examples: list[Example] = field(default_factory=list)
    total: int = 0

    def add(self, shots: _ShotsOfBlock, rows: IntArray, scores: FloatArray) -> None:
        """Enter waveforms (k,), rows of a block that follows those entered before."""
        self.total += len(rows)
        if len(self.examples) == EXAMPLES_PER_KIND:
            better = scores > self.examples[-1].score
            rows, scores = rows[better], scores[better]
        best = np.lexsort((rows, -scores))[:EXAMPLES_PER_KIND]
        self.examples += [shots.example(int(rows[at]), float(scores[at])) for at in best]
        self.keep_best()

    def keep_best(self) -> None:
        """Sort the examples and drop those that are too many."""
        self.examples.sort(key=lambda one: (-one.score, one.waveform))
        del self.examples[EXAMPLES_PER_KIND:]


def numbers_of_shots(reader: WaveformReader, waveforms: list[int]) -> dict[int, int]:
    """Number of the shot in the file of each waveform, counted over unreadable ones, too.

    Visits the points up to the last of the waveforms without reading samples.
    """
    found: dict[int, int] = {}
    wanted, first = sorted(set(waveforms)), 0
    for numbers, block in reader.unread_blocks():
        shots = block.shots()[0]
        begins = np.concatenate([[True], shots[1:] != shots[:-1]])[: len(shots)]
        of_waveforms = first + np.cumsum(begins) - 1
        chosen = [number for number in wanted if numbers[0] <= number <= numbers[-1]]
        found.update({one: int(of_waveforms[one - numbers[0]]) for one in chosen})
        first += int(np.count_nonzero(begins))
        if len(found) == len(wanted):
            break
    return found
