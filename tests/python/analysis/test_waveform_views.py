"""Results of the methods for one waveform, compared with hand-calculated echoes."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import pytest

from fullwaveform import Mode, Scanner, WaveformState
from fullwaveform.analysis.waveform_selection import SelectedShot
from fullwaveform.analysis.waveform_views import WaveformView, fitted_sum, waveform_views
from fullwaveform.core.driver import Threshold
from fullwaveform.extraction.extractor import ExtractionSettings

from ..core import test_modes
from ..extraction.test_extraction import Packet, block_of
from ..support import reference_three_point as reference_three_point
from ..support.sample_triples import TRIPLE_STD, triples
from ..system_wave import richardson_lucy as plain

HALF = np.exp(-0.5)


def views(
    *packets: Packet,
    modes: Sequence[Mode] = (Mode.THREE_POINT,),
    threshold: Threshold = 10,
    scanner: Scanner | None = None,
) -> list[WaveformView]:
    shot = SelectedShot(block_of(packets), np.arange(len(packets)))
    settings = ExtractionSettings(scanner or Scanner.default(), threshold=threshold)
    return waveform_views(shot, settings, modes)


def height_at(curve: np.ndarray, position: float) -> float:
    """Height of a curve at one of its positions; fails elsewhere."""
    (row,) = np.flatnonzero(np.abs(curve[:, 0] - position) < 1e-9)
    return float(curve[row, 1])


def test_sum_of_one_gaussian() -> None:
    curve = fitted_sum(np.array([10.0]), np.array([100.0]), np.array([2.0]), 5.0, 40)
    assert height_at(curve, 10.0) == 105.0
    assert height_at(curve, 12.0) == pytest.approx(5.0 + 100.0 * 0.60653066)
    assert curve[[0, -1], 0].tolist() == pytest.approx([0.0, 39.0])


def test_sum_of_two_gaussians_at_their_own_positions() -> None:
    echoes = np.array([10.013, 14.013]), np.array([100.0, 50.0]), np.array([2.0, 2.0])
    curve = fitted_sum(*echoes, 0.0, 40)
    # At a distance of two standard deviations: exp(-2) of the other one's amplitude is added.
    assert height_at(curve, 10.013) == pytest.approx(100.0 + 50.0 * 0.13533528)
    assert height_at(curve, 14.013) == pytest.approx(50.0 + 100.0 * 0.13533528)


def test_sum_without_gaussians_is_empty() -> None:
    assert fitted_sum(np.empty(0), np.empty(0), np.empty(0), 5.0, 40).shape == (0, 2)


def test_three_point_view_has_threshold_segments_and_gaussians() -> None:
    (view,) = views(Packet(triples({20: 100, 40: 60})))
    assert (view.number, view.channel_flag, view.gps_time, view.interval) == (70, 1, 1000.0, 1e-9)
    assert view.threshold == 10
    # From the last sample at or below the threshold to the first one below it.
    assert view.segments.tolist() == [[18, 22], [38, 42]]
    (method,) = view.methods
    assert method.state is WaveformState.WITH_ECHOES
    np.testing.assert_allclose(method.positions, [20.0, 40.0], atol=1e-6)
    np.testing.assert_allclose(method.tops, [100.0, 60.0], rtol=1e-6)
    np.testing.assert_allclose(method.widths, [TRIPLE_STD, TRIPLE_STD], rtol=1e-6)
    np.testing.assert_allclose(method.bar_heights, [100.0 * HALF, 60.0 * HALF], rtol=1e-6)
    # The Gaussian goes through its three samples, 50, 100, 50.
    assert height_at(method.fitted, 21.0) == pytest.approx(50.0, rel=1e-5)
    assert method.deconvolved.shape == (0, 2)


def test_gaussians_of_a_decomposition_start_at_the_baseline() -> None:
    x = np.arange(60)
    samples = np.rint(20.0 + 400.0 * np.exp(-0.5 * ((x - 30.4) / 2.5) ** 2)).astype(np.uint16)
    (view,) = views(Packet(samples, flag=0), modes=[Mode.DECOMPOSITION], threshold=30)
    (method,) = view.methods
    np.testing.assert_allclose(method.positions, [30.4], atol=0.02)
    np.testing.assert_allclose(method.widths, [2.5], atol=0.02)
    assert method.foot == 20.0
    np.testing.assert_allclose(method.amplitudes, [400.0], rtol=0.005)
    np.testing.assert_allclose(method.tops, [420.0], rtol=0.005)
    # The tolerance covers the rounding of the counts.
    for sample in (26, 30, 33):
        assert height_at(method.fitted, float(sample)) == pytest.approx(samples[sample], abs=1.5)


def deconvolved_maxima(signal: np.ndarray) -> np.ndarray:
    """Positions of the local maxima of a curve (k, 2)."""
    height = signal[:, 1]
    is_maximum = (height[1:-1] > height[:-2]) & (height[1:-1] >= height[2:])
    return np.asarray(signal[1:-1, 0][is_maximum])


def test_deconvolved_signal_has_the_positions_of_its_echoes() -> None:
    samples = test_modes.scene(np.array([[20.3, 28.0]]), np.array([[500.0, 300.0]]))
    offset = 0.75  # samples
    scanner = Scanner.from_attributes(test_modes.scanner().attributes)
    moved = Scanner(scanner.attributes, deconvolution_offset=offset)
    found = {}
    for name, described in (("as it is", scanner), ("moved", moved)):
        (view,) = views(
            Packet(samples[0]), modes=[Mode.DECONVOLUTION], threshold=25, scanner=described
        )
        (found[name],) = view.methods
    for method in found.values():
        assert len(method.positions) >= 2
        assert np.isnan(method.widths).all()
        # The signal has a value every fifth of a sample and its maxima at most one of them away.
        maxima = deconvolved_maxima(method.deconvolved)
        for position in method.positions:
            assert np.min(np.abs(maxima - position)) < 0.3
    np.testing.assert_allclose(
        found["moved"].deconvolved[:, 0], found["as it is"].deconvolved[:, 0] - offset
    )
    # Expected: the same iteration in NumPy.
    kernel = plain.system_wave(
        np.array(test_modes.SYSTEM_WAVE["a_real"]),
        np.array(test_modes.SYSTEM_WAVE["b_real"])
        + 1j * np.array(test_modes.SYSTEM_WAVE["b_imag"]),
        1e-9,
    )
    row = samples[0].astype(np.float64)
    stretch = plain.signal_range(row, 25)
    assert stretch is not None
    np.testing.assert_allclose(
        found["as it is"].deconvolved[:, 1], plain.deconvolved(row, 25, kernel, *stretch), rtol=1e-6
    )


def test_hybrid_shows_the_signal_of_its_echoes() -> None:
    samples = test_modes.scene(np.array([[30.0]]), np.array([[600.0]]))
    scanner = test_modes.scanner()
    for flag, deconvolves in ((1, True), (0, False)):
        (view,) = views(
            Packet(samples[0], flag=flag), modes=[Mode.HYBRID], threshold=25, scanner=scanner
        )
        (method,) = view.methods
        assert (len(method.deconvolved) > 0) is deconvolves
        assert (len(method.fitted) > 0) is not deconvolves


def test_modes_keep_their_order() -> None:
    modes = [Mode.DECOMPOSITION, Mode.THREE_POINT]
    (view,) = views(Packet(triples({20: 100})), modes=modes)
    assert [method.mode for method in view.methods] == modes


def test_channels_are_merged_before_selection() -> None:
    packets = [Packet(triples({20: 100}), flag=1), Packet(triples({20: 80}), flag=0)]
    shot = SelectedShot(block_of(packets), np.array([1]))
    settings = ExtractionSettings(Scanner.default(), threshold=10)
    (view,) = waveform_views(shot, settings, [Mode.THREE_POINT])
    assert view.number == 71
    assert view.methods[0].state is WaveformState.MERGED_INTO_OTHER_CHANNEL
    assert len(view.methods[0].positions) == 0


def test_waveform_below_the_threshold_has_a_state_and_no_echoes() -> None:
    (view,) = views(Packet(triples({20: 8})))
    assert view.segments.shape == (0, 2)
    assert view.methods[0].state is WaveformState.SIGNAL_TOO_LOW
    assert view.methods[0].fitted.shape == (0, 2)


def test_threshold_is_estimated_for_every_waveform() -> None:
    rng = np.random.default_rng(2)
    samples = rng.integers(15, 25, 80).astype(np.uint16)
    samples[40:43] = 300, 600, 300
    (view,) = views(Packet(samples), threshold="estimate")
    assert view.threshold == reference_three_point.estimate(samples.tolist())


def test_mode_without_its_system_wave_is_refused() -> None:
    with pytest.raises(ValueError, match="needs the scanner's system wave"):
        views(Packet(triples({20: 100})), modes=[Mode.DECONVOLUTION])
