"""Tables of constructed waveforms: isolated echoes, pairs, noise, clipped echoes."""

from __future__ import annotations

from functools import partial

import numpy as np

from accuracy.bound import Bound
from accuracy.measures import pair_measures, single_measures
from accuracy.methods import PULSE_FIT, find
from accuracy.plan import Plan, Row, Task, gaussian_pulse
from accuracy.pulses import Pulse
from accuracy.scenes import (
    EIGHT_BIT,
    TWELVE_BIT,
    Receiver,
    Scene,
    generator,
    isolated_scene,
    noise_scene,
    pair_scene,
    scene_of,
)
from fullwaveform.core.pulse_fit import PulseFitSettings

ISOLATED_SNR = {
    EIGHT_BIT.name: (5.0, 10.0, 20.0, 50.0, 100.0, 200.0),
    TWELVE_BIT.name: (5.0, 10.0, 20.0, 50.0, 100.0, 200.0, 500.0, 1000.0),
}
PAIR_SNR = (30.0, 100.0, 500.0)
#: Heights of the two echoes, relative to that of the higher one.
RATIOS = {"1:1": (1.0, 1.0), "4:1": (1.0, 0.25), "1:4": (0.25, 1.0)}
#: Ratios by the factor of the mean widening: as of single echoes, and as of vegetation.
WIDENINGS = {1.0: tuple(RATIOS), 3.0: ("1:1",)}
#: Share of the neighbours in the noise of a sample, by the name of the noise.
NOISES = {"white": 0.0, "correlated +": 0.2, "correlated -": -0.2}
#: Heights of clipped echoes, relative to the range of the digitiser.
HEIGHTS = (1.2, 2.0, 4.0, 8.0)
_WAVEFORMS_AT_ONCE = 20_000


def isolated_tasks(plan: Plan, pulses: list[Pulse]) -> list[Task]:
    """A task per pulse, receiver and SNR."""
    return [
        partial(_isolated, plan, pulse, receiver, snr)
        for pulse in pulses
        for receiver in (TWELVE_BIT, EIGHT_BIT)
        for snr in ISOLATED_SNR[receiver.name]
    ]


def _isolated(plan: Plan, pulse: Pulse, receiver: Receiver, snr: float) -> list[Row]:
    scene = isolated_scene(pulse, receiver, snr, plan.isolated)
    key: Row = {"pulse": pulse.name, "bits": receiver.name, "snr": snr}
    return _single_rows(plan, scene, key)


def _single_rows(plan: Plan, scene: Scene, key: Row) -> list[Row]:
    bound = scene.bound()
    return [
        {
            **key,
            "method": method,
            **_bound_columns(bound),
            **single_measures(find(method, scene), scene.truth, scene.pulse, bound),
        }
        for method in plan.methods
    ]


def _bound_columns(bound: Bound) -> Row:
    return {
        "bound": float(bound.position[0, 0]),  # samples
        "bound_height": float(bound.height[0, 0]),  # counts
        "bound_fwhm": float(bound.fwhm[0, 0]),  # samples
    }


def pair_tasks(plan: Plan) -> list[Task]:
    """A task per widening, ratio of heights, SNR and separation."""
    return [
        partial(_pair, plan, widening, ratio, snr, separation)
        for widening, ratios in WIDENINGS.items()
        for ratio in ratios
        for snr in PAIR_SNR
        for separation in plan.separations
    ]


def _pair(plan: Plan, widening: float, ratio: str, snr: float, separation: float) -> list[Row]:
    pulse = gaussian_pulse()
    heights = (snr * RATIOS[ratio][0], snr * RATIOS[ratio][1])
    scene = pair_scene(pulse, TWELVE_BIT, separation, heights, plan.pairs, widening)
    bound = scene.bound()
    key: Row = {"widening": widening, "ratio": ratio, "snr": snr, "separation": separation}
    bounds: Row = {
        f"{name}_bound": float(bound.position[0, echo])
        for echo, name in enumerate(("first", "second"))
    }
    return [
        {
            **key,
            "method": method,
            **bounds,
            **pair_measures(find(method, scene), scene.truth, pulse, bound),
        }
        for method in plan.methods
    ]


def noise_tasks(plan: Plan) -> list[Task]:
    """A task per noise, method and stated rate."""
    tasks: list[Task] = []
    for noise in NOISES:
        for method in plan.methods:
            if method == PULSE_FIT:
                tasks += [partial(_stated_alarms, plan, noise, rate) for rate in plan.rates]
            tasks.append(partial(_alarms, noise, method, plan.noise, None))
    return tasks


def _stated_alarms(plan: Plan, noise: str, rate: float) -> list[Row]:
    """With the floor of the cost switched off, so that the rate alone decides."""
    return _alarms(noise, PULSE_FIT, round(1000.0 * plan.alarms / rate), rate)


def _alarms(noise: str, method: str, waveforms: int, rate: float | None) -> list[Row]:
    alarms = 0
    settings = None if rate is None else PulseFitSettings(false_alarms=rate, min_echo_cost=0.0)
    for first in range(0, waveforms, _WAVEFORMS_AT_ONCE):
        rows = min(_WAVEFORMS_AT_ONCE, waveforms - first)
        name = f"noise {noise} {method} {rate} {first}"
        scene = noise_scene(name, gaussian_pulse(), TWELVE_BIT, rows, NOISES[noise])
        alarms += len(find(method, scene, settings))
    return [
        {
            "noise": noise,
            "correlation": scene.noise_correlation,
            "method": method,
            "stated": float("nan") if rate is None else rate,
            "waveforms": waveforms,
            "alarms": alarms,
            "per_1000": 1000.0 * alarms / waveforms,
        }
    ]


def saturated_tasks(plan: Plan) -> list[Task]:
    """A task per height."""
    return [partial(_saturated, plan, height) for height in HEIGHTS]


def _saturated(plan: Plan, height: float) -> list[Row]:
    name = f"saturated {height:g}"
    receiver = TWELVE_BIT
    position = generator(name + " positions").uniform(28.0, 32.0, (plan.saturated, 1))
    heights = np.full((plan.saturated, 1), height * (receiver.limit - receiver.baseline))
    scene = scene_of(name, gaussian_pulse(), receiver, position, heights)
    clipped = float(np.mean(np.sum(scene.samples == receiver.limit, axis=1)))
    return _single_rows(plan, scene, {"height": height, "clipped_samples": clipped})
