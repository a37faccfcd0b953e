"""Echoes by the pulse fit, with the driver's rules for duplicates, after-pulses and channels."""

from __future__ import annotations

import math
from collections.abc import Collection, Mapping, Sequence
from dataclasses import dataclass, replace

import numpy as np

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.pulse_choice import PulseChoice
from fullwaveform.core.constants import EchoType
from fullwaveform.core.driver import Mode, RowState, RunMonitor
from fullwaveform.core.pulse_fit import PulseFit, PulseFitSettings, PulseModel
from fullwaveform.core.pulse_models import full_width
from fullwaveform.core.scanner import Scanner
from fullwaveform.core.shot_rules import EchoState, apply_echo_rules, report_of_rows
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray, UInt8Array
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import FWHM_PER_SIGMA

#: Values that the fit gives of each waveform; NaN where nothing was fitted.
FIT_VALUES = ("baseline", "reduced_chi_square", "clipped_samples")
_INTERVAL_TOLERANCE = 1e-3  # relative


_DRIVER_OPTIONS = ("threshold", "baseline", "sample_scale", "smoothing")
_PULSE_FIT_OPTIONS = ("false_alarms", "max_width", "pulse")


class InapplicableOptionError(ValueError):
    """An option that the mode does not have."""

    def __init__(self, option: str, problem: str) -> None:
        super().__init__(f"{option} {problem}")
        self.option = option
        self.problem = problem


def check_applicable(mode: Mode, given: Collection[str]) -> None:
    """InapplicableOptionError if one of the given options has no effect in the mode."""
    is_fit = mode is Mode.PULSE_FIT
    for option in _DRIVER_OPTIONS if is_fit else _PULSE_FIT_OPTIONS:
        if option in given:
            problem = (
                "does not apply to mode pulse-fit, which fits the samples as they are"
                if is_fit
                else "applies only to mode pulse-fit"
            )
            raise InapplicableOptionError(option, problem)


@dataclass(frozen=True)
class PulseFitOptions:
    """Choices of a run by the pulse fit."""

    false_alarms: float = 1.0  # echoes of noise per 1,000 waveforms without light
    max_width: float | None = None  # s, full width at half maximum; None: that of the fit
    pulse: PulseChoice = "auto"  # pulses of which a model is made, if the scanner has none

    def __post_init__(self) -> None:
        _ = PulseFitSettings(self.false_alarms)  # ValueError if out of range
        width = self.max_width
        if width is not None and not (width > 0.0 and math.isfinite(width)):
            raise ValueError(f"invalid max_width {width}; expected seconds above 0")

    def settings(self, model: PulseModel, digitiser_limit: int | None) -> PulseFitSettings:
        """The settings for one receiver.

        Raises ValueError if the largest width is not above that of the pulse.
        """
        settings = PulseFitSettings(
            false_alarms=self.false_alarms,
            digitiser_limit=math.inf if digitiser_limit is None else float(digitiser_limit),
        )
        if self.max_width is None:
            return settings
        width_of_pulse = full_width(model)
        samples = self.max_width / model.sampling_interval
        variance = (samples**2 - width_of_pulse**2) / FWHM_PER_SIGMA**2
        if not variance > 0.0:
            raise ValueError(
                f"the maximum width {self.max_width * 1e9:g} ns must be above that of the pulse, "
                f"{width_of_pulse * model.sampling_interval * 1e9:.3g} ns"
            )
        return replace(settings, max_variance=variance)


@dataclass(frozen=True, slots=True)
class FittedWaveforms:
    """Result of the pulse fit for n waveforms of one sampling interval."""

    rows: IntArray  # (m,), waveform of each echo
    peaks: dict[str, AnyArray]  # columns (m,) as in `FoundEchoes`
    states: UInt8Array  # (n,), of `RowState`
    values: Mapping[str, FloatArray]  # (n,) each: the columns of `FIT_VALUES`
    record: str  # statistics, if half or more of the waveforms were rejected; else empty


class PulseFitter:
    """Fits waveforms, with one fit per receiver."""

    def __init__(
        self,
        scanner: Scanner,
        calibration: Calibration,
        options: PulseFitOptions,
        monitor: RunMonitor | None = None,
    ) -> None:
        self._scanner = scanner
        self._calibration = calibration
        self._options = options
        self._monitor = monitor
        self._fits: dict[tuple[int, int], tuple[PulseModel, PulseFit]] = {}

    def fit(self, block: WaveformBlock, rows: IntArray) -> FittedWaveforms:
        """Fit the given waveforms of a block but duplicates; they have one sampling interval.

        `FittedWaveforms` counts rows from the first of these.

        Raises ValueError if there is no pulse model, or one for another sampling interval.
        """
        # Indices copy the samples; blocks with one sampling interval are passed on as they are.
        pick = slice(None) if len(rows) == len(block) else rows
        interval = float(block.sampling_intervals[rows[0]])
        samples, counts = block.samples[pick], block.counts[pick]
        shot_times = block.shot_times[pick]
        states, record = report_of_rows(samples, counts, shot_times)
        values = {name: np.full(len(rows), np.nan) for name in FIT_VALUES}
        receivers = np.column_stack([block.channel_flags[pick], block.descriptors[pick]])
        tables = []
        for flag, descriptor in np.unique(receivers, axis=0).tolist():
            alike = np.flatnonzero(
                (states == RowState.KEPT) & (receivers == (flag, descriptor)).all(axis=1)
            )
            table = self._fit_of(flag, descriptor, interval).apply(samples, counts, alike)
            for name in FIT_VALUES:
                values[name][alike] = table.waveforms[name]
            tables.append(table.echoes)
        echoes = _joined(tables)
        of_waveform = echoes["row"]
        times, fates = apply_echo_rules(
            samples,
            counts,
            shot_times,
            block.sbl_times[pick],
            block.channel_flags[pick],
            of_waveform,
            echoes["position"],
            echoes["amplitude"] + values["baseline"][of_waveform],
            self._scanner.at_interval(interval),
            self._monitor,
        )
        remains = fates == EchoState.KEPT
        moved = np.setdiff1d(of_waveform[fates == EchoState.IN_OTHER_CHANNEL], of_waveform[remains])
        states[moved] = RowState.MERGED_INTO_OTHER_CHANNEL
        chosen = {name: column[remains] for name, column in echoes.items()}
        peaks = _peaks(chosen, times[remains], values["reduced_chi_square"][chosen["row"]])
        return FittedWaveforms(chosen["row"], peaks, states, values, record)

    def _fit_of(self, flag: int, descriptor: int, interval: float) -> PulseFit:
        """The fit of a receiver, which is built once."""
        if (flag, descriptor) not in self._fits:
            model = self._calibration.pulse_model_of(flag, descriptor)
            level = self._calibration.levels_of(flag, descriptor)
            limit = None if level is None else level.digitiser_limit
            fit = PulseFit(model, self._options.settings(model, limit), self._monitor)
            self._fits[flag, descriptor] = model, fit
        model, fit = self._fits[flag, descriptor]
        measured = model.sampling_interval
        if abs(interval - measured) > _INTERVAL_TOLERANCE * measured:
            raise ValueError(
                f"the pulse model was measured at a sampling interval of {measured * 1e9:g} ns, "
                f"but the waveforms have {interval * 1e9:g} ns; use the decomposition "
                "(--mode decomposition)"
            )
        return fit


def _joined(tables: Sequence[Mapping[str, AnyArray]]) -> dict[str, AnyArray]:
    """The echoes of all receivers, of which there is at least one, by waveform and position."""
    echoes = {name: np.concatenate([table[name] for table in tables]) for name in tables[0]}
    if len(tables) > 1:
        order = np.argsort(echoes["row"], kind="stable")
        echoes = {name: column[order] for name, column in echoes.items()}
    return echoes


def _peaks(
    echoes: Mapping[str, AnyArray], times: FloatArray, chi_square: FloatArray
) -> dict[str, AnyArray]:
    """The columns of `FoundEchoes`; what only the library knows is NaN."""
    count = len(times)
    unknown = np.full(count, np.float32(np.nan))
    return {
        "idx": echoes["position"],
        "library_idx": np.full(count, np.nan),
        "time": times,
        "height": echoes["amplitude"],
        "amplitude": unknown,
        "amplitudeCounts": unknown,
        "std": echoes["fwhm"] / FWHM_PER_SIGMA,
        "quality": np.zeros(count, np.uint8),
        "type": np.full(count, EchoType.PULSE_FIT, np.uint8),
        "reflectance": unknown,
        "sigma_position": echoes["sigma_position"],
        "sigma_height": echoes["sigma_amplitude"],
        "sigma_fwhm": echoes["sigma_fwhm"],
        "significance": echoes["significance"],
        "fit_flags": echoes["flags"],
        "reduced_chi_square": chi_square,
    }
