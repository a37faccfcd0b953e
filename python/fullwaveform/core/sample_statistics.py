"""Counts of samples by their value, and of waveforms by their largest sample."""

from __future__ import annotations

from fullwaveform._core import SampleStatistics as SampleStatistics
