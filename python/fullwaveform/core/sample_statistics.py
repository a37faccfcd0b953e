"""Counts of samples by their value, of waveforms by their largest sample, and their box."""

from __future__ import annotations

from fullwaveform._core import PlaceBounds as PlaceBounds
from fullwaveform._core import SampleStatistics as SampleStatistics
