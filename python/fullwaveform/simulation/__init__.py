"""Simulated scans with known echoes: flight line, waveforms, files and true echoes."""

from __future__ import annotations

from fullwaveform.simulation.files import ScanFiles, write_scan
from fullwaveform.simulation.recorded_files import write_recording
from fullwaveform.simulation.scene import Echoes, Shots
from fullwaveform.simulation.settings import ScanSettings
from fullwaveform.simulation.truth import TruthTable, read_truth
from fullwaveform.simulation.waveforms import SimulatedScan, simulate_scan

__all__ = [
    "Echoes",
    "ScanFiles",
    "ScanSettings",
    "Shots",
    "SimulatedScan",
    "TruthTable",
    "read_truth",
    "simulate_scan",
    "write_recording",
    "write_scan",
]
