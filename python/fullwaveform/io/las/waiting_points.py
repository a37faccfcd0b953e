"""Points that wait until they fill a block."""

from __future__ import annotations

import numpy as np

from fullwaveform.core.las_points import PointRun
from fullwaveform.data.arrays import FloatArray

# Of the points of a run, those that belong to pulses; with a smaller share the others are not kept.
_MIN_USED = 0.25


class WaitingPoints:
    """Runs of points in the order of the file, and the waveforms to which they refer."""

    def __init__(self) -> None:
        self._runs: list[PointRun] = []

    def __len__(self) -> int:
        """Number of waveforms."""
        return sum(len(run.waveforms) for run in self._runs)

    def add(self, run: PointRun) -> None:
        """Append a run; one without waveforms is not kept."""
        if len(run.waveforms) > 0:
            is_sparse = len(run.pulses) < _MIN_USED * len(run.points)
            self._runs.append(run.without_others() if is_sparse else run)

    def times(self) -> FloatArray:
        """GPS time of each waveform, s."""
        return np.concatenate([np.empty(0), *(run.times for run in self._runs)])

    def take(self, waveforms: int) -> list[PointRun]:
        """Remove and return the first waveforms."""
        taken = runs_between(self._runs, 0, waveforms)
        self._runs = runs_between(self._runs, waveforms, len(self))
        return taken


def runs_between(runs: list[PointRun], first: int, stop: int) -> list[PointRun]:
    """The waveforms `first` <= number < `stop` of the runs."""
    parts = []
    for run in runs:
        count = len(run.waveforms)
        if first < count and stop > 0:
            part = run.split(first)[1] if first > 0 else run
            kept = min(stop, count) - max(first, 0)
            parts.append(part.split(kept)[0] if kept < len(part.waveforms) else part)
        first, stop = first - count, stop - count
    return parts
