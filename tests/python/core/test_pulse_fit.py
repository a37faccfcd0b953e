"""Arrays, columns, errors, threads and cancellation of the pulse fit."""

from __future__ import annotations

import signal
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace
from types import FrameType

import numpy as np
import numpy.typing as npt
import pytest
from tests.python.support.pulse_models import (
    BASELINE,
    FWHM,
    NOISE_RMS,
    SIGMA,
    gaussian_model,
    waveform,
)

from fullwaveform.core.driver import Cancelled, RunMonitor
from fullwaveform.core.pulse_fit import (
    PulseEchoFlag,
    PulseFit,
    PulseFitSettings,
    PulseModel,
    fit_pulses,
)

WIDTH = 80


def scene() -> npt.NDArray[np.uint16]:
    return np.stack(
        [
            waveform(WIDTH, [(30.25, 200.0)]),
            waveform(WIDTH, []),
            waveform(WIDTH, [(20.5, 100.0), (50.75, 400.0)]),
        ]
    )


def test_echoes_and_waveforms_have_the_constructed_values() -> None:
    table = fit_pulses(scene(), None, gaussian_model())
    echoes = table.echoes
    assert echoes["row"].tolist() == [0, 2, 2]
    # Rounding to counts moves an echo of 100 counts by a few thousandths of a sample.
    np.testing.assert_allclose(echoes["position"], [30.25, 20.5, 50.75], atol=0.01)
    np.testing.assert_allclose(echoes["amplitude"], [200.0, 100.0, 400.0], atol=1.0)
    np.testing.assert_allclose(echoes["fwhm"], FWHM, atol=0.05)
    assert echoes["flags"].tolist() == [0, 0, 0]
    # With a known baseline and width, the variance of the amplitude is that of the noise over the
    # sum of squares of the pulse, sqrt(pi) SIGMA.
    least = NOISE_RMS / np.sqrt(np.sqrt(np.pi) * SIGMA)
    assert (echoes["sigma_amplitude"] > 0.99 * least).all()
    assert (echoes["sigma_amplitude"] < 1.6 * least).all()
    np.testing.assert_allclose(
        echoes["significance"], echoes["amplitude"] / echoes["sigma_amplitude"]
    )
    assert table.waveforms["echo_count"].tolist() == [1, 0, 2]
    assert table.waveforms["clipped_samples"].tolist() == [0, 0, 0]
    np.testing.assert_allclose(table.waveforms["baseline"], BASELINE, atol=0.2)
    assert (table.waveforms["reduced_chi_square"] < 1.0).all()  # no noise but that of the rounding


def test_chosen_rows_equal_those_of_the_whole() -> None:
    samples = scene()
    fit = PulseFit(gaussian_model())
    whole = fit.apply(samples)
    part = fit.apply(samples, rows=[2])
    assert part.echoes["row"].tolist() == [2, 2]
    for name in part.echoes:
        np.testing.assert_array_equal(part.echoes[name], whole.echoes[name][1:], err_msg=name)
    for name in part.waveforms:
        np.testing.assert_array_equal(part.waveforms[name], whole.waveforms[name][2:], err_msg=name)
    assert fit.apply(samples, rows=[]).waveforms.rows == 0


def test_samples_after_the_count_are_not_used() -> None:
    samples = scene()
    samples[:, 40:] = 60_000
    table = fit_pulses(samples, [40, 0, 40], gaussian_model())
    assert table.echoes["row"].tolist() == [0, 2]
    np.testing.assert_allclose(table.echoes["position"], [30.25, 20.5], atol=0.01)
    assert np.isnan(table.waveforms["baseline"]).tolist() == [False, True, False]


def test_clipped_echo_is_marked_and_keeps_its_height() -> None:
    samples = waveform(WIDTH, [(30.25, 400.0)], limit=255.0)[np.newaxis]
    table = fit_pulses(samples, None, gaussian_model(), PulseFitSettings(digitiser_limit=255.0))
    assert table.waveforms["clipped_samples"].tolist() == [int((samples == 255).sum())]
    assert table.echoes["flags"][0] & PulseEchoFlag.CLIPPED
    assert table.echoes["amplitude"][0] == pytest.approx(400.0, rel=0.03)
    assert table.echoes["position"][0] == pytest.approx(30.25, abs=0.02)


def noise(rows: int) -> npt.NDArray[np.uint16]:
    random = np.random.default_rng(3)
    return np.rint(BASELINE + random.normal(0.0, NOISE_RMS, (rows, WIDTH))).astype(np.uint16)


def test_rate_of_false_alarms_reaches_the_fit() -> None:
    def false_echoes(rate: float) -> int:
        settings = PulseFitSettings(false_alarms=rate, min_echo_cost=0.0)
        return fit_pulses(noise(5000), None, gaussian_model(), settings).echoes.rows

    assert false_echoes(50.0) > 10 * max(false_echoes(0.01), 1)


def test_threads_give_the_same_result() -> None:
    random = np.random.default_rng(8)
    samples = np.stack(
        [waveform(WIDTH, [(x, 50.0), (x + 12.0, 90.0)]) for x in random.uniform(15, 50, 200)]
    )
    whole = fit_pulses(samples, None, gaussian_model()).echoes
    parts = [samples[first : first + 50] for first in range(0, 200, 50)]
    with ThreadPoolExecutor(4) as threads:
        tables = list(threads.map(lambda part: fit_pulses(part, None, gaussian_model()), parts))
    for name in set(whole) - {"row"}:
        together = np.concatenate([table.echoes[name] for table in tables])
        np.testing.assert_array_equal(together, whole[name], err_msg=name)


def test_monitor_counts_waveforms_and_cancels() -> None:
    monitor = RunMonitor()
    fit = PulseFit(gaussian_model(), monitor=monitor)
    fit.apply(noise(30))
    assert monitor.waveforms_done == 30
    monitor.cancel()
    with pytest.raises(Cancelled):
        fit.apply(noise(30))


def crowded(rows: int) -> npt.NDArray[np.uint16]:
    """Waveforms of nine echoes, each of which takes some milliseconds."""
    pulses = [(position, 90.0) for position in np.arange(8.0, WIDTH - 8.0, 7.3)]
    return np.tile(waveform(WIDTH, pulses), (rows, 1))


MINUTES = 40_000  # crowded waveforms take that long


def test_cancel_ends_a_call_in_another_thread() -> None:
    monitor = RunMonitor()
    samples = crowded(MINUTES)
    with ThreadPoolExecutor(1) as threads:
        call = threads.submit(PulseFit(gaussian_model(), monitor=monitor).apply, samples)
        while monitor.waveforms_done == 0 and not call.done():
            time.sleep(0.001)
        monitor.cancel()
        with pytest.raises(Cancelled):
            call.result()
    assert monitor.waveforms_done < MINUTES


def test_signal_ends_a_call_in_the_main_thread() -> None:
    class SignalError(Exception):
        pass

    def interrupt(_number: int, _frame: FrameType | None) -> None:
        raise SignalError

    previous = signal.signal(signal.SIGUSR1, interrupt)
    main = threading.get_ident()
    monitor = RunMonitor()

    def send() -> None:
        while monitor.waveforms_done == 0:
            time.sleep(0.001)
        signal.pthread_kill(main, signal.SIGUSR1)

    sender = threading.Thread(target=send)
    try:
        sender.start()
        with pytest.raises(SignalError):
            PulseFit(gaussian_model(), monitor=monitor).apply(crowded(MINUTES))
    finally:
        sender.join()
        signal.signal(signal.SIGUSR1, previous)
    assert monitor.waveforms_done < MINUTES


@pytest.mark.parametrize(
    ("change", "message"),
    [
        ({"noise_rms": 0.0}, "noise"),
        ({"noise_rms": float("nan")}, "noise"),
        ({"pulse": ()}, "pulse"),
        ({"pulse": (float("nan"),) * 100}, "pulse"),
        ({"sampling_interval": 0.0}, "sampling interval 0.0 of a pulse model; expected seconds"),
        ({"sampling_interval": float("inf")}, "sampling interval inf of a pulse model"),
    ],
)
def test_invalid_model_is_refused(change: dict[str, object], message: str) -> None:
    with pytest.raises(ValueError, match=message):
        replace(gaussian_model(), **change)  # type: ignore[arg-type]


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("false_alarms", 0.0),
        ("false_alarms", float("nan")),
        ("min_echo_cost", -1.0),
        ("digitiser_limit", float("nan")),
        ("max_variance", 0.0),
    ],
)
def test_invalid_setting_is_refused(name: str, value: float) -> None:
    with pytest.raises(ValueError, match="of the pulse fit; expected"):
        PulseFitSettings(**{name: value})


def test_rows_and_counts_out_of_range_are_refused() -> None:
    fit = PulseFit(gaussian_model())
    with pytest.raises(ValueError, match="rows: 3 of waveform 1 is not a row of the samples"):
        fit.apply(scene(), rows=[0, 3])
    with pytest.raises(ValueError, match="rows: -1 of waveform 0"):
        fit.apply(scene(), rows=[-1])
    with pytest.raises(ValueError, match="counts: 81 of waveform 2"):
        fit.apply(scene(), [80, 80, 81])
    with pytest.raises(ValueError, match="samples must have 2 dimensions"):
        fit.apply(scene()[0])


def test_models_are_equal_by_value() -> None:
    assert gaussian_model() == gaussian_model()
    assert replace(gaussian_model(), scatter=0.01) != gaussian_model()
    assert isinstance(replace(gaussian_model(), pulse=list(gaussian_model().pulse)), PulseModel)  # type: ignore[arg-type]
