"""Statistics of the selected echoes, counted in parts so that memory does not grow with them."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

import numpy as np

from fullwaveform.data.arrays import AnyArray, BoolArray
from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_index import UNKNOWN, EchoIndex
from fullwaveform.view.histograms import class_counts
from fullwaveform.view.selection import SelectedRun, Selection, histogram_edges

_CHUNK = 1 << 20  # waveforms that are examined at a time


def described_selection(
    index: EchoIndex, waveforms: WaveformDirectory, selection: Selection, worst: int
) -> dict[str, Any]:
    """Numbers of the selected echoes and shots, histograms and worst fits, as JSON data.

    The histograms have the classes of those of the whole file. Those of shots and of the noise of
    waveforms, null unless all are measured, count those with a selected echo. `worst` limits the
    list of fits. Raises as `Selection.runs`.
    """
    edges = histogram_edges(index)
    counts = {name: np.zeros(len(ends) - 1, np.int64) for name, ends in edges.items()}
    has_echo: BoolArray = np.zeros(len(waveforms), np.bool_)
    fits = _WorstFits(worst)
    echoes = 0
    for run in selection.runs(index):
        echoes += run.count
        for name, ends in edges.items():
            counts[name] += class_counts(run.values(name), ends)
        numbers = run.values("waveform")
        has_echo[numbers[numbers != UNKNOWN]] = True
        if "chi_square" in edges:
            fits.add(run)
    of_shots = _echoes_of_shots(index, waveforms, has_echo)
    return {
        "echoes": echoes,
        "shots": int(of_shots.sum()),
        "values": {name: one.tolist() for name, one in counts.items()},
        "shot_echoes": of_shots.tolist(),
        "noise": _noise_of_waveforms(index, has_echo),
        "worst": fits.described(index),
    }


def _echoes_of_shots(
    index: EchoIndex, waveforms: WaveformDirectory, has_echo: BoolArray
) -> AnyArray:
    """Shots of the chosen waveforms by the number of their echoes, as the histogram of the file."""
    whole = index.described["shots"]
    counts = np.zeros(0 if whole is None else len(whole["counts"]), np.int64)
    former = -1  # the last shot of the chunk before, which may go on in the next one
    for first in range(0, len(waveforms), _CHUNK):
        chosen = has_echo[first : first + _CHUNK]
        if not chosen.any():
            continue
        shots = waveforms.shot_numbers(first, first + _CHUNK)[chosen].astype(np.int64)
        shots = shots[
            np.diff(shots, prepend=former) != 0
        ]  # the waveforms of a shot are consecutive
        if len(shots) == 0:
            continue
        former = int(shots[-1])
        of_shots = index.read("shot_counts", int(shots[0]), former + 1)[shots - shots[0]]
        counts += np.bincount(of_shots, minlength=len(counts))
    return counts


def _noise_of_waveforms(index: EchoIndex, has_echo: BoolArray) -> list[int] | None:
    """Chosen waveforms by their noise, as the histogram of the file."""
    if index.noise is None or not index.noise.is_measured:
        return None
    counts: list[int] = class_counts(index.noise.values()[has_echo], index.noise.edges).tolist()
    return counts


@dataclass
class _WorstFits:
    """The waveforms with the largest reduced chi square, the first of their echoes each."""

    limit: int
    _kept: dict[int, tuple[float, int]] = field(default_factory=dict)  # by waveform

    def add(self, run: SelectedRun) -> None:
        chi, numbers = run.values("chi_square"), run.values("waveform")
        lowest = min((one for one, _ in self._kept.values()), default=0.0)
        is_full = len(self._kept) >= self.limit
        candidates = np.flatnonzero(
            np.isfinite(chi) & (numbers != UNKNOWN) & ((chi >= lowest) if is_full else True)
        )
        # Largest first, then by waveform, and of equal ones the first echo: for any runs the same.
        order = candidates[np.lexsort((numbers[candidates], -chi[candidates]))]
        _, firsts = np.unique(numbers[order], return_index=True)
        chosen = order[np.sort(firsts)[: self.limit]]
        found = zip(numbers[chosen], chi[chosen], run.numbers()[chosen], strict=True)
        for waveform, value, index in found:
            self._offer(int(waveform), float(value), int(index))
        largest = sorted(self._kept.items(), key=lambda item: (-item[1][0], item[0]))
        self._kept = dict(largest[: self.limit])

    def _offer(self, waveform: int, chi: float, index: int) -> None:
        known = self._kept.get(waveform)
        if known is None or chi > known[0]:
            self._kept[waveform] = chi, index

    def described(self, index: EchoIndex) -> list[dict[str, Any]]:
        found = []
        for waveform, (chi, number) in self._kept.items():
            place = index.place(number)
            echo = {"index": number, "waveform": waveform, "row": place.row, "xyz": place.xyz}
            found.append({**echo, "chi_square": round(chi, 4)})
        return found
