"""Outgoing pulses of NumPy archives."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform.data.blocks import OutgoingPulses
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.npz.reader import NpzReader

SAMPLES = np.array([[1, 2, 3], [4, 5, 6], [7, 8, 9], [5, 5, 5]], dtype=np.uint16)
SHOTS = {"shot_id": np.array([4, 4, 7, 8])}
SENT = {"out_samples": np.array([[21, 22], [31, 32]]), "out_shot_id": np.array([7, 4])}


def outgoing(folder: Path, **arrays: Any) -> OutgoingPulses:
    path = folder / "a.npz"
    np.savez(path, samples=SAMPLES, sampling_interval=2e-9, **arrays)
    with NpzReader(path) as reader:
        assert reader.has_outgoing
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.outgoing is not None
    return block.outgoing


def test_one_pulse_per_waveform(tmp_path: Path) -> None:
    found = outgoing(
        tmp_path,
        out_samples=np.arange(12, dtype=np.uint8).reshape(4, 3),
        out_count=np.array([3, 2, 0, 1]),
        out_t0_s=np.array([1e-9, np.nan, 0.0, -3e-9]),
        out_sampling_interval_s=5e-10,
    )
    assert found.samples.tolist() == [[0, 1, 2], [3, 4, 0], [0, 0, 0], [9, 0, 0]]
    assert found.samples.dtype == np.uint16
    assert found.counts.tolist() == [3, 2, 0, 1]
    assert found.durations.tolist() == [1e-9, 0.0, 0.0, -3e-9]
    assert found.sampling_intervals.tolist() == [5e-10] * 4


def test_pulses_by_the_number_of_the_shot(tmp_path: Path) -> None:
    found = outgoing(tmp_path, **SHOTS, **SENT)
    assert found.samples.tolist() == [[31, 32], [31, 32], [21, 22], [0, 0]]
    assert found.counts.tolist() == [2, 2, 2, 0]
    assert found.sampling_intervals.tolist() == [2e-9] * 4


def test_an_archive_without_outgoing_pulses(tmp_path: Path) -> None:
    np.savez(tmp_path / "a.npz", samples=SAMPLES, sampling_interval=2e-9)
    with NpzReader(tmp_path / "a.npz") as reader:
        assert not reader.has_outgoing
        reader.with_outgoing = True
        (block,) = reader.blocks()
    assert block.outgoing is None


@pytest.mark.parametrize(
    ("arrays", "message"),
    [
        ({"out_samples": np.zeros((3, 2), int)}, "3 rows of out_samples for 4 waveforms"),
        ({"out_samples": np.zeros((4, 2))}, "invalid out_samples of type float64"),
        ({"out_samples": np.zeros(4, int)}, r"shape \(4,\); must be integers"),
        ({"out_samples": np.full((4, 2), -1)}, "values from -1 to -1; must be 0 to 65535"),
        ({**SHOTS, **SENT, "out_t0_s": np.zeros(3)}, r"out_t0_s has shape \(3,\)"),
        ({**SHOTS, **SENT, "out_counts": np.full(2, -1)}, "out_counts must be integers"),
        ({**SHOTS, **SENT, "out_counts": np.full(2, 3)}, "count 3 of the outgoing pulse of wav"),
        ({**SHOTS, **SENT, "out_sampling_interval_s": 0.0}, "invalid sampling interval 0.0 s of"),
    ],
)
def test_invalid_outgoing_pulses(tmp_path: Path, arrays: dict[str, Any], message: str) -> None:
    with pytest.raises(WaveformFileError, match=message):
        outgoing(tmp_path, **arrays)
