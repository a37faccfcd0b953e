"""Rms of the residuals of echoes, by hand."""

from __future__ import annotations

import math

import numpy as np
import pytest

from fullwaveform.view import misfit
from fullwaveform.view.misfit import rms_of_residuals

G1 = math.exp(-0.5)  # of a Gaussian, one standard deviation from its maximum


def rms(
    samples: list[list[int]],
    counts: list[int],
    echoes: list[tuple[int, float, float, float]],
    *,
    adds_up: bool = True,
) -> list[float]:
    """Of echoes (row, position, standard deviation, amplitude) on a baseline of 10."""
    rows, *values = zip(*echoes, strict=True) if echoes else ([], [], [], [])
    columns = (np.array(rows, np.int64), *(np.array(column, np.float64) for column in values))
    return rms_of_residuals(
        np.array(samples, np.uint16),
        np.array(counts, np.uint16),
        np.full(len(samples), 10.0),
        columns,  # type: ignore[arg-type]
        adds_up=adds_up,
    ).tolist()


def test_only_samples_near_echoes_count() -> None:
    """An echo of sigma 0.5 reaches two samples to either side; the 99 is beyond."""
    heights = [100 * math.exp(-2.0 * at**2) for at in (-2, -1, 0, 1, 2)]
    samples = [99, *(round(10 + height) for height in heights), 99, 0]
    rests = [sample - 10 - height for sample, height in zip(samples[1:6], heights, strict=True)]
    expected = math.sqrt(sum(rest**2 for rest in rests) / 5)
    assert rms([samples], [7], [(0, 3.0, 0.5, 100.0)]) == pytest.approx([expected])


def test_overlapping_echoes_add_up_or_not() -> None:
    """Two echoes of sigma 1 that are 1 apart in a waveform of two samples."""
    together = 50.0 * (1.0 + G1)
    echoes = [(0, 0.0, 1.0, 50.0), (0, 1.0, 1.0, 50.0)]
    samples = [[80, 60]]
    added = math.sqrt(((70 - together) ** 2 + (50 - together) ** 2) / 2)
    assert rms(samples, [2], echoes) == pytest.approx([added])
    highest = math.sqrt((20.0**2 + 0.0) / 2)
    assert rms(samples, [2], echoes, adds_up=False) == pytest.approx([highest])


def test_waveforms_without_usable_echoes_have_none() -> None:
    nan = math.nan
    echoes = [(1, 0.0, nan, 5.0), (2, 0.0, 0.0, 5.0), (3, 0.0, 1.0, nan), (4, 90.0, 1.0, 5.0)]
    found = rms([[10, 10]] * 6, [2] * 5 + [0], [*echoes, (5, 0.0, 1.0, 5.0)])
    assert np.isnan(found).all()


def test_padding_is_not_compared() -> None:
    assert rms([[60, 0, 0]], [1], [(0, 0.0, 1.0, 50.0)]) == [0.0]


def test_work_in_parts_is_the_same(monkeypatch: pytest.MonkeyPatch) -> None:
    random = np.random.default_rng(3)
    samples = random.integers(0, 200, (9, 30)).tolist()
    echoes = [
        (int(row), float(at), float(width), 50.0)
        for row, at, width in zip(
            random.integers(0, 9, 40),
            random.uniform(0, 29, 40),
            random.uniform(1, 9, 40),
            strict=True,
        )
    ]
    whole = rms(samples, [30] * 9, echoes)
    monkeypatch.setattr(misfit, "_AT_ONCE", 40)
    assert rms(samples, [30] * 9, echoes) == pytest.approx(whole, nan_ok=True)
