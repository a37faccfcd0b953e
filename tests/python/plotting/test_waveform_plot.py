"""What the picture of a waveform shows, by its marks and its text."""

from __future__ import annotations

import re
from collections.abc import Sequence
from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest
from matplotlib.axes import Axes
from matplotlib.figure import Figure
from matplotlib.text import Text

from fullwaveform import Mode, Scanner
from fullwaveform.analysis.waveform_selection import SelectedShot
from fullwaveform.analysis.waveform_views import WaveformView, waveform_views
from fullwaveform.calibration.calibration import Calibration
from fullwaveform.core.pulse_models import ReceiverModel
from fullwaveform.data.returns import DiscreteReturns
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.plotting.waveform import draw_waveforms, waveform_figure

from ..core import test_modes
from ..extraction.test_extraction import Packet, block_of
from ..support.pulse_models import gaussian_model, waveform
from ..support.sample_triples import TRIPLE_STD, triples

TWO_ECHOES = Packet(triples({20: 100, 40: 60}), interval=2e-9)


def views(
    *packets: Packet, modes: Sequence[Mode] = (Mode.THREE_POINT,), scanner: Scanner | None = None
) -> list[WaveformView]:
    shot = SelectedShot(block_of(packets), np.arange(len(packets)))
    receivers = [ReceiverModel(flag, 0, "returned", 100, gaussian_model()) for flag in (0, 1)]
    calibration = Calibration(pulse_models=tuple(receivers))
    described = scanner or Scanner.default()
    settings = ExtractionSettings(described, threshold=10, calibration=calibration)
    return waveform_views(shot, settings, modes)


def marks(axes: Axes) -> dict[str, np.ndarray]:
    return {str(line.get_label()): np.asarray(line.get_xydata()) for line in axes.get_lines()}


def bars(axes: Axes, label: str) -> list[list[list[float]]]:
    """Ends of the bars of one name."""
    (found,) = [lines for lines in axes.collections if lines.get_label() == label]
    return [np.asarray(bar).tolist() for bar in found.get_segments()]  # type: ignore[attr-defined]


def texts(part: Axes | Figure) -> list[str]:
    found = part.findobj(Text)
    return [str(text.get_text()) for text in found if isinstance(text, Text)]


def test_samples_threshold_and_segments() -> None:
    axes = waveform_figure(views(TWO_ECHOES)).axes[0]
    drawn = marks(axes)["samples"]
    assert drawn[:, 0].tolist() == list(range(60))
    assert drawn[[19, 20, 21, 30], 1].tolist() == [50, 100, 50, 0]
    (threshold,) = [line for line in axes.get_lines() if set(np.ravel(line.get_ydata())) == {10}]
    assert threshold.get_linestyle() == "--"
    assert "threshold 10" in texts(axes)
    spans = [[end[0] for end in bar] for bar in bars(axes, "segments")]
    assert spans == [[18.0, 22.0], [38.0, 42.0]]
    assert "above the threshold" in texts(axes)


def test_echoes_have_position_amplitude_and_width() -> None:
    axes = waveform_figure(views(TWO_ECHOES)).axes[0]
    np.testing.assert_allclose(
        marks(axes)["three-point, echoes"], [[20.0, 100.0], [40.0, 60.0]], rtol=1e-5
    )
    height = 100.0 * 0.60653066  # of a Gaussian at one standard deviation
    np.testing.assert_allclose(
        bars(axes, "three-point, widths")[0],
        [[20.0 - TRIPLE_STD, height], [20.0 + TRIPLE_STD, height]],
        rtol=1e-5,
    )


def test_fitted_sum_passes_through_its_samples() -> None:
    axes = waveform_figure(views(TWO_ECHOES)).axes[0]
    curve = marks(axes)["three-point, fitted"]
    for sample, counts in ((19, 50.0), (20, 100.0), (21, 50.0), (40, 60.0)):
        nearest = np.argmin(np.abs(curve[:, 0] - sample))
        assert curve[nearest, 1] == pytest.approx(counts, rel=1e-4)
    between = curve[np.abs(curve[:, 0] - 30.0) < 3.0, 1]
    assert np.isnan(between).all()  # no Gaussian reaches there


def test_echoes_are_listed_next_to_the_panel() -> None:
    echo_list = waveform_figure(views(TWO_ECHOES)).axes[1]
    assert texts(echo_list)[:3] == ["sample", "counts", "width [ns]"]
    width = f"{2.0 * TRIPLE_STD:.2f}"  # ns
    assert [text for text in texts(echo_list) if text][3:] == [
        "three-point, 2 echoes", "20.00", "100", width, "40.00", "60", width,
    ]  # fmt: skip


def test_second_axis_is_in_nanoseconds() -> None:
    figure = waveform_figure(views(TWO_ECHOES))
    figure.draw_without_rendering()
    axes = figure.axes[0]
    (top,) = axes.child_axes
    low, high = axes.get_xlim()
    assert top.get_xlim() == pytest.approx((2.0 * low, 2.0 * high))
    assert "ns" in texts(axes)


def test_modes_have_different_colours() -> None:
    scanner = test_modes.scanner()
    samples = test_modes.scene(np.array([[30.0]]), np.array([[600.0]]))[0]
    axes = waveform_figure(views(Packet(samples), modes=list(Mode), scanner=scanner)).axes[0]
    names = ("three-point", "decomposition", "deconvolution", "hybrid", "pulse-fit")
    colours = {
        mode: {
            line.get_color()
            for line in axes.get_lines()
            if str(line.get_label()).startswith(f"{name},")
        }
        for mode, name in zip(Mode, names, strict=True)
    }
    assert colours == {mode: {METHOD_COLOURS[mode]} for mode in Mode}
    assert len(set(METHOD_COLOURS)) == 5
    drawn = marks(axes)
    assert len(drawn["deconvolution, deconvolved"]) > 0
    assert len(drawn["deconvolution, fitted"]) == 0
    assert len(drawn["decomposition, deconvolved"]) == 0
    assert bars(axes, "deconvolution, widths") == []


def test_pulse_fit_has_the_sum_of_its_pulses_and_residuals() -> None:
    samples = waveform(80, [(30.25, 300.0), (36.5, 150.0)])
    samples[60] += 7
    panel, _, below = waveform_figure(views(Packet(samples), modes=[Mode.PULSE_FIT])).axes
    drawn = marks(panel)
    np.testing.assert_allclose(
        drawn["pulse-fit, echoes"], [[30.25, 320.0], [36.5, 170.0]], rtol=0.01
    )
    curve = drawn["pulse-fit, fitted"]
    for sample in range(24, 44):
        height = np.interp(sample, *curve.T)
        assert height == pytest.approx(float(samples[sample]), abs=1.5), sample
    residuals = np.array(bars(below, "pulse-fit, residuals"))
    assert residuals[:, :, 0].tolist() == [[x, x] for x in range(80)]
    assert (residuals[:, 0, 1] == 0.0).all()
    assert residuals[60, 1, 1] == pytest.approx(7.0, abs=1.0)
    np.testing.assert_allclose(np.delete(residuals[:, 1, 1], 60), 0.0, atol=1.5)


def test_residuals_of_a_decomposition_are_near_its_echoes() -> None:
    samples = waveform(80, [(30.25, 300.0)])
    samples[35] += 14  # the Gaussian does not pass through this sample
    found = views(Packet(samples), modes=[Mode.DECOMPOSITION, Mode.PULSE_FIT])
    below = waveform_figure(found).axes[2]
    # Side by side, an eighth of a sample to either side of the sample.
    fitted = np.array(bars(below, "pulse-fit, residuals"))
    assert (fitted[:, 0, 0] % 1.0 == 0.125).all()
    decomposed = np.array(bars(below, "decomposition, residuals"))
    at = decomposed[:, 0, 0] + 0.125
    method = found[0].methods[0]
    echoes = list(zip(method.positions, method.amplitudes, method.widths, strict=True))
    assert at.tolist() == [
        x
        for x in range(80)
        if any(abs(x - position) <= 4.0 * width for position, _, width in echoes)
    ]
    expected = samples[at.astype(int)] - method.foot
    for position, amplitude, width in echoes:
        expected -= amplitude * np.exp(-(((at - position) / width) ** 2) / 2.0)
    assert np.ptp(expected) > 3.0
    np.testing.assert_allclose(decomposed[:, 1, 1], expected, atol=1e-9)


def test_methods_without_a_sum_have_no_residuals() -> None:
    assert len(waveform_figure(views(TWO_ECHOES)).axes) == 2


def test_each_channel_of_a_shot_has_a_panel() -> None:
    packets = [Packet(triples({20: 100}), flag=1), Packet(triples({40: 80}), flag=0)]
    figure = waveform_figure(views(*packets))
    assert len(figure.axes) == 4
    assert figure.axes[0].get_title(loc="left").startswith("waveform 70, low-power channel, GPS")
    assert figure.axes[2].get_title(loc="left").startswith("waveform 71, high-power channel, GPS")
    assert figure.axes[0].get_xlim() == figure.axes[2].get_xlim()


def test_waveform_without_echoes_is_not_cropped_and_shows_the_reason() -> None:
    figure = waveform_figure(views(Packet(triples({20: 8}))))
    axes, echo_list = figure.axes
    assert axes.get_xlim() == (-0.5, 59.5)
    assert marks(axes)["samples"][20].tolist() == [20.0, 8.0]
    assert "above the threshold" not in texts(axes)
    assert "three-point, no echoes" in texts(echo_list)
    assert "signal not above the threshold" in texts(echo_list)


def test_long_waveform_is_cropped_to_its_echoes() -> None:
    packet = Packet(triples({200: 100, 260: 100}, length=400))
    axes = waveform_figure(views(packet)).axes[0]
    # 15 samples to either side, and half a sample.
    np.testing.assert_allclose(axes.get_xlim(), (184.5, 275.5), atol=1e-4)


def test_longest_waveform_full_of_echoes_is_drawn() -> None:
    positions = range(20, 65_000, 30)
    (view,) = views(Packet(triples(dict.fromkeys(positions, 100), length=65_535)))
    axes = waveform_figure([view]).axes[0]
    echoes, curve = marks(axes)["three-point, echoes"], marks(axes)["three-point, fitted"]
    assert len(echoes) == len(positions)
    assert len(curve) < 50_000
    tops = curve[np.searchsorted(curve[:, 0], echoes[:, 0])]
    np.testing.assert_allclose(tops, echoes, rtol=1e-6)


def test_wide_echoes_are_shown_completely() -> None:
    x = np.arange(200)
    samples = np.rint(4000.0 * np.exp(-0.5 * ((x - 100.0) / 15.0) ** 2)).astype(np.uint16)
    axes = waveform_figure(views(Packet(samples))).axes[0]
    # Four standard deviations to either side, to 1 % because of rounding, and half a sample.
    np.testing.assert_allclose(axes.get_xlim(), (39.5, 160.5), atol=1.5)


def test_echoes_that_do_not_fit_are_counted() -> None:
    peaks = dict.fromkeys(range(5, 155, 5), 100)
    echo_list = waveform_figure(views(Packet(triples(peaks, length=160)))).axes[1]
    shown = texts(echo_list)
    assert "three-point, 30 echoes" in shown
    listed = sum(bool(re.fullmatch(r"\d+\.00", text)) for text in shown)
    assert 10 <= listed < 30
    assert f"and {30 - listed} more" in shown


def test_neighbouring_gaussians_are_drawn_one_by_one() -> None:
    """Each passes through its own three samples; their sum would be higher between them."""
    samples = np.zeros(60, np.uint16)
    samples[18:27] = [20, 60, 100, 60, 40, 60, 100, 60, 20]
    axes = waveform_figure(views(Packet(samples))).axes[0]
    curve = marks(axes)["three-point, fitted"]
    ends = np.flatnonzero(np.isnan(curve[:, 1]))
    assert len(ends) == 2
    for echo, part in ((20, curve[: ends[0]]), (24, curve[ends[0] + 1 : ends[1]])):
        for sample, counts in ((echo - 1, 60.0), (echo, 100.0), (echo + 1, 60.0)):
            nearest = np.argmin(np.abs(part[:, 0] - sample))
            assert part[nearest, 1] == pytest.approx(counts, rel=1e-4)
        # sigma = sqrt(1 / (2 ln(100 / 60))) = 0.98935 samples; two samples away: 100 * 0.6**4.
        assert part[np.argmin(np.abs(part[:, 0] - 22.0)), 1] == pytest.approx(12.96, rel=1e-3)


def test_whole_record_on_request() -> None:
    packet = Packet(triples({200: 100}, length=400))
    assert waveform_figure(views(packet), whole=True).axes[0].get_xlim() == (-0.5, 399.5)


def test_label_of_the_threshold_is_outside_the_data() -> None:
    """Also of a low threshold next to the label of the segments, which it does not cover."""
    for height in (20, 100, 4000):
        figure = waveform_figure(views(Packet(triples({20: height, 40: 15}))))
        figure.draw_without_rendering()
        axes, echo_list = figure.axes
        labels = {
            str(text.get_text()): text.get_window_extent()
            for text in axes.findobj(Text)
            if isinstance(text, Text)
        }
        label = labels["threshold 10"]
        assert label.x0 > axes.get_window_extent().x1
        assert label.x1 < echo_list.get_window_extent().x0
        assert label.y0 > labels["above the threshold"].y1 - 3.0  # pixels of a line of 17


def with_returns(packet: Packet, picoseconds: Sequence[float]) -> WaveformView:
    count = len(picoseconds)
    returns = DiscreteReturns(
        rows=np.zeros(count, np.int64),
        times=np.array(picoseconds),
        return_number=np.arange(1, count + 1, dtype=np.uint8),
        return_count=np.full(count, count, np.uint8),
        intensity=np.zeros(count, np.uint16),
        classification=np.zeros(count, np.uint8),
        extra=None,
    )
    block = replace(block_of([packet]), returns=returns)
    shot = SelectedShot(block, np.array([0]))
    settings = ExtractionSettings(Scanner.default(), threshold=10)
    (view,) = waveform_views(shot, settings, [Mode.THREE_POINT])
    return view


def test_returns_of_the_scanner_are_drawn_above_the_samples() -> None:
    # Samples 19.5 and 40 at 2 ns; the samples there are 75 (between 50 and 100) and 60 counts.
    view = with_returns(TWO_ECHOES, [39_000.0, 80_000.0])
    axes, echo_list = waveform_figure([view]).axes
    drawn = marks(axes)["returns"]
    np.testing.assert_allclose(drawn[:, 0], [19.5, 40.0])
    np.testing.assert_allclose(drawn[:, 1], [83.0, 68.0])  # 8 % of 100 above
    listed = [text for text in texts(echo_list) if text]
    assert listed[-3:] == ["scanner, 2 returns", "19.50", "40.00"]


def test_returns_far_from_the_echoes_are_shown() -> None:
    view = with_returns(Packet(triples({200: 100}, length=400)), [300_000.0])
    assert waveform_figure([view]).axes[0].get_xlim()[1] == pytest.approx(315.5)


def test_text_of_an_svg_is_text(tmp_path: Path) -> None:
    path = tmp_path / "a.svg"
    draw_waveforms(path, views(TWO_ECHOES))
    content = path.read_text(encoding="utf-8")
    for text in ("three-point, 2 echoes", "threshold 10", "digitiser counts"):
        assert f">{text}</text>" in content
    assert METHOD_COLOURS[Mode.THREE_POINT] in content


@pytest.mark.parametrize("ending", [".png", ".pdf", ".svg"])
def test_equal_waveforms_make_equal_files(tmp_path: Path, ending: str) -> None:
    for name in ("a", "b"):
        draw_waveforms(tmp_path / f"{name}{ending}", views(TWO_ECHOES))
    first, second = ((tmp_path / f"{name}{ending}").read_bytes() for name in ("a", "b"))
    assert first == second


def test_invalid_input_is_refused(tmp_path: Path) -> None:
    with pytest.raises(ValueError, match="no waveform"):
        draw_waveforms(tmp_path / "a.png", [])
    with pytest.raises(OSError, match="does not exist"):
        draw_waveforms(tmp_path / "no" / "a.png", views(TWO_ECHOES))
    assert list(tmp_path.iterdir()) == []
