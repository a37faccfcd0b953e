"""Position offset of deconvolved echoes, compared with an independent deconvolution."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import pytest

from fullwaveform import Mode, Scanner
from fullwaveform.calibration.isolated import (
    Waveforms,
    echoes_of,
    isolated_echoes,
    strongest_echoes,
)
from fullwaveform.system_wave import (
    DeconvolutionOffset,
    SystemWave,
    average,
    fit_system_wave,
    measure_offset,
)
from fullwaveform.system_wave.description import with_system_wave
from fullwaveform.system_wave.offset import (
    offset_of_simulated_echoes,
    position_differences,
    summary_of,
)

from . import richardson_lucy
from .scenes import INTERVAL, echo_samples, pulses, recorded, sampled, shape

NOISE = 12
# Deconvolved positions are multiples of a fifth of a sample; the median of 200 differences that are
# spread evenly over a fifth has a standard deviation of 0.2 / (2 sqrt(200)) = 0.007.
MEDIAN_TOLERANCE = 0.03


@pytest.fixture(scope="module")
def wave() -> SystemWave:
    return fit_system_wave(average(pulses(recorded(400, 0.3)[0])))


@pytest.fixture(scope="module")
def scanner(wave: SystemWave) -> Scanner:
    return with_system_wave(Scanner.default(), wave.in_seconds(), INTERVAL)


def waveforms(count: int = 200) -> Waveforms:
    samples = echo_samples(count)
    return Waveforms(samples, np.full(count, samples.shape[1], np.uint16), INTERVAL)


def independent_positions(wave: SystemWave, rows: np.ndarray) -> np.ndarray:
    """Position of the strongest echo of each row."""
    terms = wave.in_seconds()
    kernel = richardson_lucy.system_wave(terms.coefficients, terms.exponents, INTERVAL)
    found = (richardson_lucy.echoes(row, NOISE, kernel) for row in rows)
    return np.array([max(echoes, key=lambda echo: echo[1])[0] for echoes in found])


def test_offset_agrees_with_an_independent_deconvolution(
    wave: SystemWave, scanner: Scanner
) -> None:
    found = measure_offset(scanner, [waveforms()], NOISE)
    _, truth = recorded(200, 0.5, 2)
    expected = np.median(independent_positions(wave, waveforms().samples) - truth)
    assert found is not None
    assert found.echoes >= 190
    # The error of the Gauss fit for a skewed pulse is smaller, in the median over all phases.
    assert found.position == pytest.approx(expected, abs=0.1)
    reference = echoes_of(waveforms(), scanner, NOISE, Mode.THREE_POINT)
    fitted = strongest_echoes(reference, waveforms().baseline()).position
    exact = np.median(independent_positions(wave, waveforms().samples) - fitted)
    assert found.position == pytest.approx(exact, abs=MEDIAN_TOLERANCE)
    # Refined positions are not multiples of a fifth, which have a spread of 1.48 * 0.05.
    assert 0.005 < found.spread < 0.05


def test_offset_follows_the_window(wave: SystemWave) -> None:
    """A window that begins a sample earlier moves deconvolved positions a sample earlier."""
    offsets = []
    for begin in (wave.begin - 1.0, wave.begin):
        moved = fit_system_wave(wave.pulse, begin=begin)
        described = with_system_wave(Scanner.default(), moved.in_seconds(), INTERVAL)
        found = measure_offset(described, [waveforms()], NOISE)
        assert found is not None
        offsets.append(found.position)
    assert offsets[1] - offsets[0] == pytest.approx(1.0, abs=0.1)


def test_offset_of_simulated_echoes_agrees_with_recorded_ones(
    wave: SystemWave, scanner: Scanner
) -> None:
    made = offset_of_simulated_echoes(scanner, wave.pulse)
    recorded_ones = measure_offset(scanner, [waveforms()], NOISE)
    assert recorded_ones is not None
    assert (made.simulated, recorded_ones.simulated) == (True, False)
    assert made.position == pytest.approx(recorded_ones.position, abs=0.1)


def test_counts_of_samples_may_be_strided(scanner: Scanner) -> None:
    """As those of every other waveform are."""
    every = waveforms()
    rows = slice(None, None, 2)
    strided = Waveforms(np.ascontiguousarray(every.samples[rows]), every.counts[rows], INTERVAL)
    contiguous = Waveforms(strided.samples, strided.counts.copy(), INTERVAL)
    found = measure_offset(scanner, [strided], NOISE)
    assert found is not None
    assert found == measure_offset(scanner, [contiguous], NOISE)


def test_too_few_echoes_give_no_offset(scanner: Scanner) -> None:
    assert measure_offset(scanner, [waveforms(19)], NOISE) is None
    assert measure_offset(scanner, [], NOISE) is None


def table(*echoes: tuple[int, float, float]) -> dict[str, np.ndarray]:
    row, idx, amplitude = np.array(echoes, dtype=np.float64).reshape(-1, 3).T
    return {"row": row.astype(np.int64), "idx": idx, "amplitudeCounts": amplitude}


def test_strongest_echo_of_each_row_is_selected() -> None:
    found = strongest_echoes(
        table((1, 30.0, 50.0), (1, 41.0, 90.0), (3, 20.0, 80.0), (3, 30.0, 17.0), (4, np.nan, 9.0)),
        np.full(5, 10.0),
    )
    np.testing.assert_array_equal(found.row, [1, 3])
    np.testing.assert_array_equal(found.position, [41.0, 20.0])
    np.testing.assert_array_equal(found.height, [80.0, 70.0])
    # 40 of 80 counts disturb; 7 of 70 are a tenth and count as ringing.
    np.testing.assert_array_equal(found.isolated, [False, True])


def test_distant_echo_does_not_disturb_isolation() -> None:
    for distance, alone in ((24.0, False), (24.1, True)):
        found = strongest_echoes(
            table((0, 20.0, 90.0), (0, 20.0 + distance, 60.0)), np.full(1, 10.0)
        )
        assert found.isolated.tolist() == [alone]


def test_positions_are_compared_within_the_row() -> None:
    reference = strongest_echoes(
        table((0, 20.0, 90.0), (2, 30.0, 90.0), (3, 50.0, 70.0)), np.full(4, 10.0)
    )
    sharpened = table(
        (0, 18.5, 60.0), (0, 21.0, 20.0), (1, 30.0, 99.0), (2, 45.0, 90.0), (3, 47.0, 80.0)
    )
    found = position_differences(reference, sharpened)
    np.testing.assert_array_equal(found, [-1.5, -3.0])  # row 2: out of reach


def test_empty_echoes_have_no_differences() -> None:
    empty = table()
    some = table((0, 20.0, 90.0))
    assert len(position_differences(strongest_echoes(some, np.zeros(1)), empty)) == 0
    assert len(position_differences(strongest_echoes(empty, np.zeros(1)), some)) == 0


def test_summary_has_median_and_robust_spread() -> None:
    found = summary_of(np.array([-1.0, -1.1, -0.9, -1.2, 7.0]))
    assert found == DeconvolutionOffset(-1.0, pytest.approx(1.4826 * 0.1), 5, hybrid=-1.0)


def test_isolated_echoes_show_the_pulse() -> None:
    found = average(isolated_echoes([waveforms(300)], Scanner.default(), NOISE, "echoes"))
    assert found.used > 140
    assert found.rejected["the weaker half"] == 150
    near = np.abs(found.position) < 12.0
    assert np.abs(found.value - shape(found.position))[near].max() < 1e-2


def test_crowded_echoes_and_other_intervals_are_rejected() -> None:
    rows = np.rint(
        sampled(np.full(40, 20.0) + np.arange(40) / 40)
        + np.where(np.arange(40)[:, None] < 10, sampled(np.full(40, 32.0), 60.0, 0.0), 0.0)
    ).astype(np.uint16)
    counts = np.full(40, 60, np.uint16)

    def parts() -> Iterator[Waveforms]:
        yield Waveforms(rows, counts, INTERVAL)
        yield Waveforms(rows, counts, 2 * INTERVAL)

    found = isolated_echoes(parts(), Scanner.default(), NOISE, "echoes")
    assert found.sampling_interval == INTERVAL
    assert found.rejected["another echo nearby"] == 10
    assert found.rejected["different sampling interval"] == 40


def test_waveforms_without_isolated_echo_are_refused() -> None:
    flat = Waveforms(np.full((5, 40), 3, np.uint16), np.full(5, 40, np.uint16), INTERVAL)
    with pytest.raises(
        ValueError, match="flat waveforms: no echo without others within 24 samples"
    ):
        isolated_echoes([flat], Scanner.default(), NOISE, "flat waveforms")
