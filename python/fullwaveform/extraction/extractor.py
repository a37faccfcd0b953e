"""From blocks of waveforms to tables of echoes in space."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field

import numpy as np

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.pulse_choice import PulseChoice
from fullwaveform.core.driver import (
    DECONVOLVING_MODES,
    LONGEST_DECONVOLUTION,
    Driver,
    Mode,
    Result,
    RunMonitor,
    Thresholds,
)
from fullwaveform.core.echo_table import FoundEchoes, echo_table
from fullwaveform.core.pulse_models import ReceiverModel
from fullwaveform.core.scanner import Scanner
from fullwaveform.core.signal import NO_SIGNAL_THRESHOLD, estimated_threshold
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.data.summaries import distinct
from fullwaveform.extraction.carry import half_width_of_system_wave
from fullwaveform.extraction.prepare import (
    ESTIMATE,
    Baseline,
    Preparation,
    PreparedBlock,
    SampleScale,
    prepare,
)
from fullwaveform.extraction.pulse_fitting import PulseFitOptions, PulseFitter
from fullwaveform.extraction.refine import refined_peaks, with_own_baselines
from fullwaveform.extraction.uncertainty import fitted_rows, with_uncertainties
from fullwaveform.extraction.waveform_table import WaveformTable

_MUST_BE_FINITE = ("idx", "amplitudeCounts", "std")


@dataclass(frozen=True)
class ExtractionSettings:
    """Settings of an extraction."""

    scanner: Scanner
    mode: Mode = Mode.THREE_POINT
    # Counts for all waveforms or for each by its number; "estimate": the library's for each; None:
    # that of the calibration for each receiver, an estimate if nothing was measured.
    threshold: Thresholds | None = None
    baseline: Baseline = "auto"
    sample_scale: SampleScale = "auto"
    # s, standard deviation; None: that of the format. Thresholds are those of samples as they are.
    smoothing: float | None = None
    keep_empty: bool = False  # whether waveforms without echoes have a row in the echo table
    carry: bool = True  # whether echoes take class and extra bytes of a discrete return nearby
    pulse_fit: PulseFitOptions = field(default_factory=PulseFitOptions)
    with_waveforms: bool = False  # whether the result of a block includes its waveforms
    uncertainty: bool = True  # whether the uncertainties of the echoes are computed
    # Of the file; empty: nothing was measured.
    calibration: Calibration = field(default_factory=Calibration)

    @property
    def outgoing_phase(self) -> str:
        """What is subtracted for the outgoing pulse: "none", "phase" or "whole time"."""
        phase = self.calibration.outgoing_phase
        return "none" if phase is None else phase.form

    @property
    def pulses(self) -> PulseChoice | tuple[ReceiverModel, ...] | None:
        """Pulse models, or the pulses of which they are to be made; None: not needed.

        Raises ValueError if pulses are chosen for which there are models already.
        """
        if self.mode is not Mode.PULSE_FIT:
            return None
        if self.scanner.pulse_models and self.pulse_fit.pulse != "auto":
            raise ValueError(
                f"pulse {self.pulse_fit.pulse!r} has no effect, because the scanner description "
                "has pulse models; leave it out, or remove its tables pulse_model"
            )
        return self.scanner.pulse_models or self.pulse_fit.pulse

    @property
    def preparation(self) -> Preparation:
        """How waveforms are prepared for the driver."""
        return Preparation(
            self.mode,
            self.threshold,
            self.baseline,
            self.sample_scale,
            self.calibration,
            self.smoothing,
            self.scanner.has_after_pulses,
        )

    @property
    def position_offset(self) -> float:
        """Samples to subtract from positions of deconvolved echoes; 0 if the mode has none."""
        if self.mode not in DECONVOLVING_MODES:
            return 0.0
        offset, hybrid = (
            self.scanner.deconvolution_offset,
            self.scanner.deconvolution_offset_hybrid,
        )
        return hybrid if self.mode is Mode.HYBRID and hybrid is not None else offset


@dataclass
class ExtractionTally:
    """Counts of an extraction."""

    waveforms: int = 0
    waveforms_with_echoes: int = 0
    echoes: int = 0
    rejected: Counter[str] = field(default_factory=Counter)  # reason -> waveforms without echoes
    echoes_left_out: int = 0  # not finite: three samples without a maximum
    suspicious_blocks: int = 0
    without_phase: int = 0  # waveforms whose outgoing pulse could not be fitted
    baseline_removed: int = 0  # waveforms
    scaled: int = 0  # waveforms
    # Waveforms with these estimates of the library, which it makes of too few samples above 10.
    estimated_as_0: int = 0
    estimated_as_180: int = 0

    def add(self, other: ExtractionTally) -> None:
        """Add the counts of another tally."""
        self.waveforms += other.waveforms
        self.waveforms_with_echoes += other.waveforms_with_echoes
        self.echoes += other.echoes
        self.rejected.update(other.rejected)
        self.echoes_left_out += other.echoes_left_out
        self.suspicious_blocks += other.suspicious_blocks
        self.without_phase += other.without_phase
        self.baseline_removed += other.baseline_removed
        self.scaled += other.scaled
        self.estimated_as_0 += other.estimated_as_0
        self.estimated_as_180 += other.estimated_as_180


@dataclass(frozen=True)
class ExtractedBlock:
    """Result of one block.

    echoes : shot by shot along the flight of light
    waveforms : state of each waveform
    tally : counts
    record : statistics, if half or more of the waveforms were rejected; else empty
    source : the block, if the settings ask for it
    """

    echoes: EchoTable
    waveforms: WaveformTable
    tally: ExtractionTally
    record: str
    source: WaveformBlock | None = None


@dataclass(frozen=True, slots=True)
class _FoundPart:
    """Echoes of waveforms of one sampling interval."""

    rows: IntArray  # (m,), of the block
    peaks: dict[str, AnyArray]  # columns (m,) as in `FoundEchoes`
    record: str  # statistics
    left_out: int = 0  # echoes with values that are not finite


class Extractor:
    """Runs the driver over blocks, with one driver per sampling interval.

    The result of a block depends on the block and the settings only. `monitor` cancels the
    extraction from another thread, see `Driver`.
    """

    def __init__(self, settings: ExtractionSettings, monitor: RunMonitor | None = None) -> None:
        self.settings = settings
        self._monitor = monitor
        self._drivers: dict[float, tuple[int, Driver]] = {}  # and their longest waveform
        self._fitter = PulseFitter(
            settings.scanner, settings.calibration, settings.pulse_fit, monitor
        )

    def extract(self, block: WaveformBlock) -> ExtractedBlock:
        """The echoes of a block; echoes that are not finite are skipped and counted.

        Raises ValueError if the position offset of the scanner or the pulse model was measured at
        another sampling interval, if there is no pulse model, and as `prepare`.
        """
        prepared = prepare(block, self.settings.preparation)
        waveforms = WaveformTable.of(block)
        find = self._driver_echoes
        if self.settings.mode is Mode.PULSE_FIT:
            find = self._fitted_echoes
        parts, records, left_out = [], [], 0
        half_width = np.zeros(len(block))
        for interval in distinct(block.sampling_intervals):
            rows = np.flatnonzero(block.sampling_intervals == interval)
            part = find(prepared, rows, waveforms)
            parts.append((part.rows, part.peaks))
            records.append(part.record)
            left_out += part.left_out
            half_width[rows] = half_width_of_system_wave(self.settings.scanner, interval)
        rows, peaks = _joined(parts)
        fitted = None
        if self.settings.uncertainty and self.settings.mode is not Mode.PULSE_FIT:
            threshold = waveforms["threshold"]
            fitted = fitted_rows(prepared, self.settings.preparation, threshold, rows)
            intervals = block.sampling_intervals
            peaks = with_uncertainties(peaks, rows, fitted, self.settings.scanner, intervals)
        phase = self._outgoing_phase(block)
        found = FoundEchoes(
            rows,
            peaks,
            prepared.scale,
            np.nan_to_num(phase, nan=0.0),
            self.settings.position_offset,
            half_width if self.settings.carry else None,
            fitted,
        )
        echoes, counts = echo_table(
            block, found, self.settings.scanner, keep_empty=self.settings.keep_empty
        )
        waveforms.enter_echoes(counts)
        estimates = _estimates(prepared, waveforms)
        waveforms.enter_input_counts(prepared)
        tally = ExtractionTally(
            waveforms=len(waveforms),
            waveforms_with_echoes=int(np.count_nonzero(counts)),
            echoes=len(rows),
            rejected=waveforms.rejected(),
            echoes_left_out=left_out,
            suspicious_blocks=sum(bool(record) for record in records),
            without_phase=int(np.count_nonzero(np.isnan(phase))),
            baseline_removed=int(np.count_nonzero(prepared.removed)),
            scaled=int(np.count_nonzero(prepared.scale > 1)),
            estimated_as_0=int(np.count_nonzero(estimates == 0)),
            estimated_as_180=int(np.count_nonzero(estimates == NO_SIGNAL_THRESHOLD)),
        )
        source = block if self.settings.with_waveforms else None
        return ExtractedBlock(echoes, waveforms, tally, "".join(records), source)

    def _driver_echoes(
        self, prepared: PreparedBlock, rows: IntArray, waveforms: WaveformTable
    ) -> _FoundPart:
        """The echoes of waveforms of one sampling interval; enters the state of these."""
        interval = float(prepared.block.sampling_intervals[rows[0]])
        result = self._apply_driver(prepared, interval, rows)
        waveforms.enter_result(rows, result)
        finite = np.logical_and.reduce([np.isfinite(result.peaks[n]) for n in _MUST_BE_FINITE])
        pick = slice(None) if finite.all() else finite  # a mask copies the columns
        found = {name: column[pick] for name, column in result.peaks.items()}
        threshold = waveforms["threshold"]
        peaks = self._refined(prepared, found, rows, threshold)
        return _FoundPart(rows[found["row"]], peaks, result.record, len(finite) - len(found["row"]))

    def _fitted_echoes(
        self, prepared: PreparedBlock, rows: IntArray, waveforms: WaveformTable
    ) -> _FoundPart:
        """The same by the pulse fit."""
        fitted = self._fitter.fit(prepared.block, rows)
        waveforms.enter_fit(prepared.block, rows, fitted)
        return _FoundPart(rows[fitted.rows], fitted.peaks, fitted.record)

    def _apply_driver(self, prepared: PreparedBlock, interval: float, rows: IntArray) -> Result:
        # Indices copy the samples; blocks with one sampling interval are passed on as they are.
        block = prepared.block
        pick = slice(None) if len(rows) == len(block) else rows
        longest = int(block.counts[pick].max(initial=0))
        return self._driver(interval, longest).apply(
            block.samples[pick],
            block.counts[pick],
            block.shot_times[pick],
            block.sbl_times[pick],
            block.channel_flags[pick],
            threshold=prepared.thresholds[pick],
        )

    def baselines(self, block: WaveformBlock, rows: IntArray) -> FloatArray:
        """Counts from which the amplitudes of waveforms (k,) of a block count."""
        prepared = prepare(block, self.settings.preparation)
        known = with_own_baselines(prepared.block, prepared.baseline, rows)[rows]
        return np.asarray(known / prepared.scale[rows] + prepared.removed[rows])

    def _refined(
        self,
        prepared: PreparedBlock,
        peaks: dict[str, AnyArray],
        rows: IntArray,
        threshold: FloatArray,
    ) -> dict[str, AnyArray]:
        """The peaks found in the given rows, which have one sampling interval."""
        block = prepared.block
        pick = slice(None) if len(rows) == len(block) else rows
        echo_rows = rows[peaks["row"]]
        baseline = with_own_baselines(block, prepared.baseline, echo_rows)
        scanner = self.settings.scanner.at_interval(float(block.sampling_intervals[rows[0]]))
        return refined_peaks(
            peaks,
            threshold[pick],
            block.samples[pick],
            block.counts[pick],
            baseline[pick],
            scanner,
            at_modes=prepared.is_smoothed,
        )

    def _outgoing_phase(self, block: WaveformBlock) -> FloatArray:
        """Samples to subtract from the positions of the echoes of each waveform, to place them.

        NaN where the outgoing pulse could not be fitted.
        """
        phase = self.settings.calibration.outgoing_phase
        if phase is None or not phase.is_applied:
            return np.zeros(len(block))
        return phase.corrections(block)

    def _driver(self, interval: float, longest: int) -> Driver:
        planned, driver = self._drivers.get(interval, (-1, None))
        if driver is None or longest > planned:
            self._check_interval(interval)
            driver = Driver(
                self.settings.mode,
                self.settings.scanner.at_interval(interval),
                longest_waveform=min(longest, LONGEST_DECONVOLUTION),
                monitor=self._monitor,
            )
            self._drivers[interval] = (longest, driver)
        return driver

    def _check_interval(self, interval: float) -> None:
        """ValueError if there is an offset in samples, measured at another interval."""
        known = self.settings.scanner.sampling_interval
        if (
            self.settings.position_offset != 0.0
            and known is not None
            and abs(interval - known) > 1e-3 * known
        ):
            raise ValueError(
                "the position offset of the scanner description was measured at a sampling "
                f"interval of {known * 1e9:g} ns, but the waveforms have {interval * 1e9:g} ns; "
                "estimate the system wave for this interval"
            )


def _estimates(prepared: PreparedBlock, waveforms: WaveformTable) -> IntArray:
    """Thresholds (k,) of the library for those waveforms for which it made them, counts."""
    estimated = np.flatnonzero(prepared.thresholds == ESTIMATE)
    found = waveforms["threshold"][estimated]
    for entry in np.flatnonzero(np.isnan(found)):  # of rejected waveforms
        row = estimated[entry]
        count = int(prepared.block.counts[row])
        found[entry] = estimated_threshold(prepared.block.samples[row, :count])
    return found.astype(np.int64)


def _joined(
    parts: list[tuple[IntArray, dict[str, AnyArray]]],
) -> tuple[IntArray, dict[str, AnyArray]]:
    """Rows and columns of all parts; at least one."""
    if len(parts) == 1:
        return parts[0]
    rows = np.concatenate([part[0] for part in parts])
    return rows, {name: np.concatenate([part[1][name] for part in parts]) for name in parts[0][1]}
