"""The pulse fit over blocks: columns, rules of the driver, states, receivers."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import replace

import numpy as np
import pytest

from fullwaveform import Scanner
from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.core.driver import Cancelled, Mode, RunMonitor
from fullwaveform.core.pulse_fit import PulseEchoFlag, PulseModel
from fullwaveform.core.pulse_models import ReceiverModel
from fullwaveform.core.scanner import NO_AFTER_PULSE, AfterPulse
from fullwaveform.data.columns import take_rows
from fullwaveform.data.echo_columns import ECHO_COLUMNS, EchoTable
from fullwaveform.extraction.extractor import ExtractedBlock, ExtractionSettings, Extractor
from fullwaveform.extraction.pipeline import extracted_blocks
from fullwaveform.extraction.pulse_fitting import (
    InapplicableOptionError,
    PulseFitOptions,
    check_applicable,
)
from fullwaveform.extraction.waveform_table import WaveformState

from ..support.pulse_models import BASELINE, FWHM, INTERVAL, SIGMA, gaussian_model, waveform
from .test_extraction import Packet, block_of

WIDTH = 80
NANOSECOND = 1e-9


def settings(
    *,
    models: dict[int, PulseModel] | None = None,
    levels: Sequence[ChannelLevels] = (),
    options: PulseFitOptions | None = None,
    after_pulse: AfterPulse = NO_AFTER_PULSE,
    scanner: Scanner | None = None,
    keep_empty: bool = False,
) -> ExtractionSettings:
    chosen = models or {0: gaussian_model(), 1: gaussian_model()}
    known = tuple(ReceiverModel(flag, 0, "returned", 100, one) for flag, one in chosen.items())
    return ExtractionSettings(
        scanner=scanner or Scanner.default(after_pulse=after_pulse),
        mode=Mode.PULSE_FIT,
        calibration=Calibration(tuple(levels), pulse_models=known),
        pulse_fit=options or PulseFitOptions(),
        keep_empty=keep_empty,
    )


def packet(*echoes: tuple[float, float], limit: float = 65_535.0, **of_shot: object) -> Packet:
    return Packet(waveform(WIDTH, echoes, limit), **of_shot)  # type: ignore[arg-type]


def extracted(*packets: Packet, **changes: object) -> ExtractedBlock:
    chosen = settings(**changes)  # type: ignore[arg-type]
    return Extractor(chosen).extract(block_of(packets))


def states(result: ExtractedBlock) -> list[WaveformState]:
    return [WaveformState(state) for state in result.waveforms.state]


def test_echo_has_place_time_and_uncertainty() -> None:
    scanner = Scanner.from_attributes(
        {**Scanner.default().attributes, "ampl_unit": 0.5}, after_pulse=NO_AFTER_PULSE
    )
    result = extracted(packet((30.25, 400.0), location=5_000.0), scanner=scanner)
    echoes = result.echoes
    assert echoes.echo_type.tolist() == [8]
    # Rounding to counts moves the echo by about a thousandth of a sample.
    np.testing.assert_allclose(echoes.position, [30.25], atol=0.003)
    np.testing.assert_allclose(echoes.time, [30.25e-9], atol=3e-12)
    # 30.25 ns after the first sample, 25.25 ns after the anchor, at 0.15 m per ns.
    np.testing.assert_allclose(echoes.xyz, [[100.0, 200.0, 296.2125]], rtol=0, atol=5e-4)
    np.testing.assert_allclose(echoes.amplitude, [400.0], rtol=0.003)
    np.testing.assert_allclose(echoes.amplitude_db, [46.0206], atol=0.03)  # 20 log10(200)
    np.testing.assert_allclose(echoes.fwhm_ns, [FWHM], rtol=0.01)
    np.testing.assert_allclose(echoes.sigma_ns, [SIGMA], rtol=0.01)
    for name in ("amplitude_library_db", "position_library", "reflectance"):
        assert np.isnan(echoes[name]).tolist() == [True], name
    # The bound for a pulse of known width: noise / (amplitude sqrt(sum of squares of its slope));
    # that sum is sqrt(pi) / (2 SIGMA), and the unknown width does not add to it.
    bound = 1.0 / (400.0 * np.sqrt(np.sqrt(np.pi) / (2.0 * SIGMA)))
    np.testing.assert_allclose(echoes.sigma_position_ns, [bound], rtol=0.02)
    # Half of 299708256 m/s.
    np.testing.assert_allclose(echoes.sigma_range, [bound * 0.149854128], rtol=0.02)
    np.testing.assert_allclose(echoes.significance, echoes.amplitude / echoes.sigma_amplitude)
    assert echoes.fit_flags.tolist() == [0]
    waveforms = result.waveforms
    np.testing.assert_array_equal(
        echoes.reduced_chi_square, waveforms.reduced_chi_square.astype(np.float32)
    )
    np.testing.assert_allclose(waveforms.baseline, [BASELINE], atol=0.2)
    assert waveforms.clipped_samples.tolist() == [0.0]
    assert np.isnan(waveforms.threshold).tolist() == [True]
    assert (waveforms.max_amplitude.tolist(), waveforms.max_position.tolist()) == ([416], [30])
    assert result.tally.echoes == result.tally.waveforms_with_echoes == 1
    assert result.tally.estimated_as_0 == result.tally.estimated_as_180 == 0


def test_other_modes_have_no_values_of_the_fit() -> None:
    chosen = ExtractionSettings(scanner=Scanner.default(), threshold=30)
    result = Extractor(chosen).extract(block_of([packet((30.25, 400.0))]))
    assert len(result.echoes) == 1
    assert np.isnan(result.echoes.significance).all()
    assert np.isnan(result.echoes.reduced_chi_square).all()
    assert result.echoes.fit_flags.tolist() == [0]
    for name in ("baseline", "reduced_chi_square", "clipped_samples"):
        assert np.isnan(result.waveforms[name]).all(), name


def test_states_of_waveforms_without_echoes() -> None:
    empty = Packet(np.zeros(0, np.uint16), shot=9.0)
    packets = [
        packet((30.0, 400.0), shot=1.0),
        packet((30.0, 400.0), shot=1.0),  # the same signature
        packet((30.0, 400.0), shot=2.0),  # in another shot
        packet(shot=3.0),
    ]
    block = block_of(packets)
    result = Extractor(settings(keep_empty=True)).extract(block)
    assert states(result) == [
        WaveformState.WITH_ECHOES,
        WaveformState.DUPLICATE,
        WaveformState.WITH_ECHOES,
        WaveformState.NO_ECHO,
    ]
    assert result.tally.rejected == {
        "duplicate of a waveform of the same shot": 1,
        "no plausible echo found": 1,
    }
    assert np.isnan(result.waveforms.baseline).tolist() == [False, True, False, False]
    assert np.isnan(result.waveforms.max_amplitude).tolist() == [False, True, False, False]
    # Without an echo: a row for the third shot; the duplicate belongs to a shot with echoes.
    assert result.echoes.echo_type.tolist().count(8) == 2
    alone = extracted(empty)
    assert states(alone) == [WaveformState.INVALID_ROW]
    assert len(alone.echoes) == 0


def test_record_of_statistics_if_half_are_duplicates() -> None:
    one = packet((30.0, 400.0))
    assert extracted(one, one).record.startswith("NumberOfWaves: 2Splitted FWFs: 0 count: 2\n")
    assert "Duplicates: 1 -> 50[%] \n" in extracted(one, one).record
    assert "SignalTooLow: 0 -> 0[%] \n" in extracted(one, one).record
    assert extracted(one, one).tally.suspicious_blocks == 1
    result = extracted(one, replace(one, shot=2.0), replace(one, shot=3.0))
    assert (result.record, result.tally.suspicious_blocks) == ("", 0)


# High power: echoes at 20, 40, 60. Low power: 2.9 samples from the first, 3.1 from the second, and
# at the third with 3,100 counts, baseline included.
MERGE = (
    packet((20.0, 500.0), (40.0, 500.0), (60.0, 500.0), flag=0),
    packet((22.9, 300.0), (43.1, 300.0), (60.0, 3_080.0), flag=1),
)


def test_channels_are_merged_by_the_rules_of_the_driver() -> None:
    for high, low in (MERGE, MERGE[::-1]):
        echoes = extracted(high, low).echoes
        kept = list(zip(np.rint(echoes.position * 10).tolist(), echoes.channel_flag, strict=True))
        assert sorted(kept) == [(229, 1), (400, 0), (431, 1), (600, 0)]
    # The same echoes by the three-point fit.
    driver = Extractor(ExtractionSettings(scanner=Scanner.default(), threshold=30))
    found = driver.extract(block_of(MERGE)).echoes
    assert sorted(zip(np.rint(found.position).tolist(), found.channel_flag, strict=True)) == [
        (23, 1), (40, 0), (43, 1), (60, 0),
    ]  # fmt: skip


def test_channels_are_merged_in_the_order_of_the_waveforms() -> None:
    """The saturated echo meets the high-power one only if it comes before the other echo."""
    high = packet((40.0, 500.0), flag=0)
    saturated, weak = (packet((40.0, height), flag=1) for height in (3_100.0, 300.0))
    # The first waveform of low power has the larger descriptor.
    block = replace(block_of([saturated, weak, high]), descriptors=np.array([2, 1, 0], np.uint8))
    echoes = Extractor(settings()).extract(block).echoes
    assert np.rint(echoes.amplitude).tolist() == [300.0]
    block = replace(block_of([weak, saturated, high]), descriptors=np.array([2, 1, 0], np.uint8))
    echoes = Extractor(settings()).extract(block).echoes
    assert sorted(np.rint(echoes.amplitude / 100).tolist()) == [3.0, 31.0]


def test_level_of_a_saturated_echo_includes_the_baseline() -> None:
    high = packet((40.0, 500.0), flag=0)
    weak, strong = (packet((40.0, height), flag=1) for height in (2_970.0, 2_990.0))
    assert extracted(high, weak).echoes.channel_flag.tolist() == [1]
    assert extracted(high, strong).echoes.channel_flag.tolist() == [0]


def test_waveform_whose_echoes_are_in_the_other_channel() -> None:
    result = extracted(packet((40.0, 500.0), flag=0), packet((41.0, 300.0), flag=1))
    assert states(result) == [WaveformState.MERGED_INTO_OTHER_CHANNEL, WaveformState.WITH_ECHOES]
    # In different shots they are not compared.
    apart = extracted(packet((40.0, 500.0), flag=0), packet((41.0, 300.0), flag=1, shot=2.0))
    assert states(apart) == [WaveformState.WITH_ECHOES] * 2


def test_after_pulses_are_removed_by_the_rule_of_the_driver() -> None:
    # 780 counts and the baseline are 800; the window begins 5 - 2 samples after the maximum.
    scene = ((30.0, 780.0), (37.0, 60.0), (60.0, 60.0))
    window = AfterPulse(offset=5, width=2)
    echoes = extracted(packet(*scene), after_pulse=window).echoes
    assert np.rint(echoes.position).tolist() == [30.0]
    weaker = ((30.0, 779.0), *scene[1:])
    echoes = extracted(packet(*weaker), after_pulse=window).echoes
    assert np.rint(echoes.position).tolist() == [30.0, 37.0, 60.0]
    far = AfterPulse(offset=20, width=2)
    echoes = extracted(packet(*scene), after_pulse=far).echoes
    assert np.rint(echoes.position).tolist() == [30.0, 37.0]


def test_each_receiver_has_its_model() -> None:
    other = replace(gaussian_model(), baseline=BASELINE + 40.0)
    high = packet((30.0, 400.0), flag=0)
    low = replace(packet((30.0, 400.0), shot=2.0), samples=high.samples + np.uint16(40))
    result = extracted(high, low, models={0: gaussian_model(), 1: other})
    np.testing.assert_allclose(result.waveforms.baseline, [BASELINE, BASELINE + 40.0], atol=0.2)
    np.testing.assert_allclose(result.echoes.amplitude, [400.0, 400.0], rtol=0.003)
    order = extracted(low, high, models={0: gaussian_model(), 1: other}).waveforms.baseline
    np.testing.assert_allclose(order, [BASELINE + 40.0, BASELINE], atol=0.2)


def test_any_flag_but_0_is_low_power() -> None:
    models = {0: gaussian_model(), 255: gaussian_model()}
    pair = packet((40.0, 500.0), flag=0), packet((41.0, 300.0), flag=255)
    assert extracted(*pair, models=models).echoes.channel_flag.tolist() == [255]


def test_limit_of_the_digitiser_comes_from_the_levels() -> None:
    level = ChannelLevels(1, 0, 10, BASELINE, 0.5, 1.0, digitiser_limit=255)
    clipped = packet((30.25, 400.0), limit=255.0)
    result = extracted(clipped, levels=[level])
    assert result.waveforms.clipped_samples.tolist() == [int((clipped.samples == 255).sum())]
    assert result.echoes.fit_flags[0] & PulseEchoFlag.CLIPPED
    np.testing.assert_allclose(result.echoes.amplitude, [400.0], rtol=0.03)
    assert extracted(clipped).waveforms.clipped_samples.tolist() == [0.0]


def test_model_of_another_sampling_interval_is_refused() -> None:
    with pytest.raises(ValueError, match="interval of 1 ns, but the waveforms have 2 ns"):
        extracted(packet((30.0, 400.0), interval=2 * INTERVAL))
    near = packet((30.0, 400.0), interval=1.0005 * INTERVAL)
    assert len(extracted(near).echoes) == 1


def test_missing_model_names_the_decomposition() -> None:
    chosen = replace(settings(), calibration=Calibration())
    with pytest.raises(ValueError, match="no pulse model;"):
        Extractor(chosen).extract(block_of([packet((30.0, 400.0))]))
    with pytest.raises(ValueError, match="--mode decomposition"):
        Extractor(chosen).extract(block_of([packet((30.0, 400.0))]))


def test_largest_width_can_be_raised() -> None:
    x = np.arange(120)
    wide = BASELINE + 200.0 * np.exp(-0.5 * ((x - 60.0) / 7.0) ** 2)  # 16.5 ns at half maximum
    one = Packet(np.rint(wide).astype(np.uint16))
    free = extracted(one, options=PulseFitOptions(max_width=20 * NANOSECOND)).echoes
    np.testing.assert_allclose(free.fwhm_ns, [16.48], rtol=0.01)
    assert len(extracted(one).echoes) > 1
    with pytest.raises(ValueError, match="width 3 ns must be above that of the pulse, 4 ns"):
        extracted(one, options=PulseFitOptions(max_width=3 * NANOSECOND))


def test_largest_width_bounds_the_variance() -> None:
    # (20^2 - 4^2) / 5.545 samples squared; 5.545 is 8 ln 2.
    chosen = PulseFitOptions(max_width=20 * NANOSECOND).settings(gaussian_model(), 4095)
    assert chosen.max_variance == pytest.approx(69.25, rel=1e-3)
    assert chosen.digitiser_limit == 4095.0


@pytest.mark.parametrize("width", [0.0, -1.0, float("nan"), float("inf")])
def test_invalid_options_are_refused(width: float) -> None:
    with pytest.raises(ValueError, match="invalid max_width"):
        PulseFitOptions(max_width=width)
    with pytest.raises(ValueError, match="invalid rate of false alarms 0"):
        PulseFitOptions(false_alarms=0.0)


def test_options_that_a_mode_does_not_have_are_refused() -> None:
    check_applicable(Mode.PULSE_FIT, ["false_alarms", "max_width", "keep_empty"])
    check_applicable(Mode.HYBRID, ["threshold", "baseline", "sample_scale"])
    with pytest.raises(InapplicableOptionError, match="sample_scale does not apply to mode pulse-"):
        check_applicable(Mode.PULSE_FIT, ["sample_scale"])
    with pytest.raises(InapplicableOptionError, match="max_width applies only to mode pulse-fit"):
        check_applicable(Mode.THREE_POINT, ["max_width"])


def scene(count: int) -> list[Packet]:
    """Shots of two channels with up to three echoes each."""
    random = np.random.default_rng(4)
    packets = []
    for number in range(count):
        echoes = list(zip(random.uniform(5, 75, 3), random.uniform(5, 3500, 3), strict=True))
        chosen = echoes[: int(random.integers(0, 4))]
        packets.append(packet(*chosen, shot=float(number // 2), flag=number % 2))
    return packets


def joined(parts: Sequence[ExtractedBlock]) -> EchoTable:
    return EchoTable.join([part.echoes for part in parts])


def test_result_does_not_depend_on_blocks_and_workers() -> None:
    block = block_of(scene(120))
    whole = Extractor(settings()).extract(block).echoes
    assert len(whole) > 100
    parts = [take_rows(block, np.arange(first, first + 8)) for first in range(0, 120, 8)]
    for workers in (1, 3):
        found = joined(list(extracted_blocks(parts, settings(), workers)))
        for column in ECHO_COLUMNS:
            np.testing.assert_array_equal(found[column.name], whole[column.name], column.name)


def test_cancelled_monitor_ends_the_extraction() -> None:
    monitor = RunMonitor()
    extractor = Extractor(settings(), monitor)
    extractor.extract(block_of(scene(10)))
    assert monitor.waveforms_done == 10
    monitor.cancel()
    with pytest.raises(Cancelled):
        extractor.extract(block_of(scene(10)))
