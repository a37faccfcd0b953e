"""The public functions on whole files and sources: extract, plot, voxels."""

from __future__ import annotations

import os
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import replace
from importlib import import_module
from typing import TYPE_CHECKING, cast

import numpy as np

from fullwaveform.analysis.waveform_selection import Selector, find_shot
from fullwaveform.analysis.waveform_views import waveform_views
from fullwaveform.calibration.calibration import measure, measure_first
from fullwaveform.calibration.phase_choice import PhaseChoice, checked_phase_choice
from fullwaveform.calibration.pulse_choice import PulseChoice
from fullwaveform.core.driver import (
    Mode,
    Threshold,
    Thresholds,
    check_system_wave,
    checked_mode,
    checked_threshold,
)
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import ReadTally, WaveformBlock, blocks_of
from fullwaveform.extraction.choices import ExtractionChoices, scanner_of, settings_of
from fullwaveform.extraction.extraction import Extraction
from fullwaveform.extraction.extractor import (
    ExtractionSettings,
)
from fullwaveform.extraction.pipeline import available_workers, extracted_blocks
from fullwaveform.extraction.prepare import (
    Baseline,
    SampleScale,
)
from fullwaveform.extraction.smoothing import checked_smoothing
from fullwaveform.io.atomic import protected_inputs
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import location
from fullwaveform.volumes.volume import VolumeSettings, VolumeSummary, write_volume

if TYPE_CHECKING:
    from matplotlib.figure import Figure

Source = str | os.PathLike[str] | WaveformReader | WaveformBlock | Iterable[WaveformBlock]


def extract(
    source: Source,
    *,
    mode: Mode | int | str = Mode.THREE_POINT,
    scanner: Scanner | str | os.PathLike[str] | None = None,
    threshold: Thresholds | None = None,
    baseline: Baseline = "auto",
    sample_scale: SampleScale = "auto",
    smoothing: float | None = None,
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    workers: int | None = None,
    outgoing_phase: PhaseChoice = "auto",
    false_alarms: float | None = None,
    max_width: float | None = None,
    pulse: PulseChoice = "auto",
    keep_empty: bool = False,
    carry: bool = True,
    uncertainty: bool = True,
    skip_unreadable: bool = False,
    max_samples: int = DEFAULT_MAX_SAMPLES,
    keep_degraded: bool = False,
    crs: str | None = None,
) -> Extraction:
    """Extract the echoes of a file, an open reader, or blocks of waveforms.

    All echoes are held in memory. For larger files, read blocks with `fullwaveform.open` or use the
    command line.

    Parameters
    ----------
    source
        The path of a file in any format that `fullwaveform.open` knows, an open reader, a
        `WaveformBlock` or an iterable of them. For arrays use `Driver`.
    mode
        0 "three-point" Gauss fit, 1 "decomposition", 2 "deconvolution", 3 "hybrid", 4 "pulse-fit".
    scanner
        Scanner description or path of its TOML file. Default: that of the source if it has one,
        else `Scanner.default`.
    threshold
        Counts, 0 to 65535: samples at or below it are not searched for echoes. One for all
        waveforms, or an array with one for each waveform of the source, by its number (-1: the
        library's estimate). "estimate" lets the library estimate it for every waveform from its
        samples. Default: 5 times the noise rms above the baseline, measured for each channel and
        descriptor on waveforms spread over the file, or on the first 4,096 waveforms of blocks.
    baseline
        "keep", "remove" (subtract the baseline from each waveform), or "auto": remove where it is
        high compared with the noise. Amplitudes are heights above the baseline in any case.
    sample_scale
        Factor by which the samples are multiplied before the extraction, which deconvolution of few
        counts needs, or "auto". Amplitudes and thresholds are counts of the source in any case.
    smoothing
        Standard deviation in s of a Gaussian with which the samples are convolved before the
        extraction, for echoes much broader than a sample; 0: none. Amplitudes and widths are those
        of the smoothed waveforms, and decomposed echoes lie at their maxima. Default: 6.5e-9, the
        outgoing pulse, for GEDI, else 0.
    channel_flags
        Channel of the waveforms of a file (1 low power, 0 high power), one for all or by packet
        descriptor or channel number.
    sampling_interval
        s, for the path of a NumPy array, or of an archive without a sampling interval.
    workers
        Number of threads. Default: all processors. The result does not depend on it.
    outgoing_phase
        Whether the ranges are corrected for the phase of the outgoing pulses: "auto" if that
        reduces the scatter of neighbouring ranges by more than 20 %, "on" or "off". Only for paths
        and readers.
    false_alarms
        In mode "pulse-fit": accepted false echoes per 1,000 waveforms of noise. Default: 1.
    max_width
        In mode "pulse-fit": largest full width of an echo at half maximum, s. Default: that of the
        pulse, widened by a Gaussian of 5 samples standard deviation.
    pulse
        In mode "pulse-fit", unless the scanner description has pulse models: pulses of the source
        from which they are made, "returned" (isolated echoes), "outgoing", or "auto": isolated
        echoes if there are enough.
    keep_empty
        Whether waveforms without echoes have a row in `peaks`, with ``echo_number`` 0 and NaN.
    carry
        Whether echoes take class, return number and extra bytes of the nearest discrete return of
        their shot, if it lies within half the width of the echo.
    uncertainty
        Whether the uncertainties of the echoes are computed; else their columns are NaN.
    skip_unreadable
        Skip and count unreadable waveforms of a file, instead of raising an error. An open reader
        has its own setting.
    max_samples
        Waveforms of a file with more samples are unreadable. An open reader has its own setting.
    keep_degraded, crs
        For the path of a GEDI or LVIS file: whether shots are read that it marks as degraded or
        without a return, and the reference system of the coordinates, as EPSG:32610 (default:
        degrees, EPSG:4979).

    Raises
    ------
    OSError
        A file cannot be opened.
    WaveformFileError
        A file is not valid.
    ValueError
        Invalid argument, or a source without waveforms.
    """
    settings = settings_of(
        ExtractionChoices(
            mode=mode,
            scanner=scanner,
            threshold=threshold,
            baseline=baseline,
            sample_scale=sample_scale,
            smoothing=smoothing,
            false_alarms=false_alarms,
            max_width=max_width,
            pulse=pulse,
            keep_empty=keep_empty,
            carry=carry,
            uncertainty=uncertainty,
        )
    )
    choice = checked_phase_choice(outgoing_phase)
    threads = available_workers() if workers is None else workers
    if isinstance(source, str | os.PathLike):
        with open_waveforms(
            source,
            channel_flags=channel_flags,
            sampling_interval=sampling_interval,
            skip_unreadable=skip_unreadable,
            max_samples=max_samples,
            keep_degraded=keep_degraded,
            crs=crs,
        ) as reader:
            settings = _of_file(settings, scanner, reader, choice)
            return _of_reader(reader, settings, threads)
    if sampling_interval is not None:
        raise ValueError("sampling_interval is only for paths; readers and blocks have their own")
    if hasattr(source, "blocks"):
        reader = cast(WaveformReader, source)
        return _of_reader(reader, _of_file(settings, scanner, reader, choice), threads)
    if isinstance(source, np.ndarray):
        raise ValueError("the source is an array; use Driver for arrays, or make a WaveformBlock")
    if choice == "on":
        raise ValueError("outgoing_phase='on' needs a path or a reader; blocks are not measured")
    check_system_wave(settings.mode, settings.scanner)
    calibration, blocks = measure_first(blocks_of(source), settings.pulses)
    settings = replace(settings, calibration=calibration)
    extracted = list(extracted_blocks(blocks, settings, threads))
    return Extraction(extracted, None, ReadTally(), settings)


def plot(
    source: str | os.PathLike[str],
    waveform: int | None = None,
    *,
    shot: int | None = None,
    time: float | None = None,
    mode: Mode | int | str | Sequence[Mode | int | str] = Mode.THREE_POINT,
    scanner: Scanner | str | os.PathLike[str] | None = None,
    threshold: Threshold | None = None,
    smoothing: float | None = None,
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    keep_degraded: bool = False,
    whole: bool = False,
) -> Figure:
    """Plot a waveform of a file, or all waveforms of a shot, with their echoes.

    Only the samples of that shot are read. A notebook shows the figure; ``figure.savefig`` writes
    it.

    Parameters
    ----------
    source
        The path of a file in any format that `fullwaveform.open` knows.
    waveform, shot, time
        Exactly one of them: number of the waveform or of the shot, from 0, or GPS time in s.
    mode
        One mode or several, as for `extract`.
    scanner, threshold, smoothing, channel_flags, sampling_interval, keep_degraded
        As for `extract`.
    whole
        Whether to show the whole record, not only the part with echoes.

    Raises
    ------
    OSError
        The file cannot be opened.
    ValueError
        Invalid argument, or no such waveform or shot.
    """
    wanted = {Selector.WAVEFORM: waveform, Selector.SHOT: shot, Selector.TIME: time}
    given = [(selector, value) for selector, value in wanted.items() if value is not None]
    if len(given) != 1:
        names = " and ".join(selector.value for selector, _ in given) or "none"
        raise ValueError(f"expected one of waveform, shot and time, got {names}")
    modes = [mode] if isinstance(mode, int | str) else list(mode)
    chosen = [checked_mode(one) for one in modes]
    level = None if threshold is None else checked_threshold(threshold)
    smoothed = checked_smoothing(smoothing)
    with open_waveforms(
        source,
        channel_flags=channel_flags,
        sampling_interval=sampling_interval,
        keep_degraded=keep_degraded,
    ) as reader:
        described = scanner_of(scanner)
        carried = reader.scanner() if scanner is None else None
        used = described if carried is None else carried
        has_fit = Mode.PULSE_FIT in chosen
        pulses = ExtractionSettings(used, Mode.PULSE_FIT).pulses if has_fit else None
        settings = ExtractionSettings(
            used, threshold=level, smoothing=smoothed, calibration=measure(reader, pulse=pulses)
        )
        views = waveform_views(find_shot(reader, *given[0]), settings, chosen)
    # Imported on demand: an extraction needs no matplotlib, which takes long to load.
    figures = import_module("fullwaveform.plotting.waveform")
    return cast("Figure", figures.waveform_figure(views, whole=whole))


def voxels(
    source: str | os.PathLike[str],
    output: str | os.PathLike[str],
    *,
    size: float,
    quantity: str | None = None,
    channel: str | None = None,
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    skip_unreadable: bool = False,
    max_samples: int = DEFAULT_MAX_SAMPLES,
    keep_degraded: bool = False,
    crs: str | None = None,
    overwrite: bool = False,
) -> VolumeSummary:
    """Write sum, mean and maximum of the samples above the baseline, and pulses, per voxel.

    Memory does not depend on the size of the file or of the volume. Needs the packages of the extra
    ``volumes``.

    Parameters
    ----------
    source
        The path of a file in any format that `fullwaveform.open` knows.
    output
        A folder ``.zarr`` with all quantities, or a GeoTIFF ``.tif`` with one, a band per layer.
    size
        Edge of a voxel in coordinate units of the file.
    quantity
        Of a GeoTIFF: "sum" (default), "mean", "max", "samples" or "pulses".
    channel
        Use only the waveforms of the "low" or "high" power channel. Default: all.
    channel_flags, sampling_interval, skip_unreadable, max_samples, keep_degraded, crs
        As for `extract`.
    overwrite
        Whether an existing volume of the same format is replaced.

    Raises
    ------
    OSError
        A file cannot be opened or written.
    WaveformFileError
        The file is not valid.
    ValueError
        Invalid argument, no waveform with a place in space, coordinates in degrees, too many
        voxels, or a missing package.
    """
    settings = VolumeSettings(size, channel)
    with (
        protected_inputs(location(source)),
        open_waveforms(
            source,
            channel_flags=channel_flags,
            sampling_interval=sampling_interval,
            skip_unreadable=skip_unreadable,
            max_samples=max_samples,
            keep_degraded=keep_degraded,
            crs=crs,
        ) as reader,
    ):
        return write_volume(reader, output, settings, quantity=quantity, overwrite=overwrite)


def _of_file(
    settings: ExtractionSettings, scanner: object, reader: WaveformReader, choice: PhaseChoice
) -> ExtractionSettings:
    """The settings with the calibration of the file, and its scanner unless one was given."""
    carried = reader.scanner() if scanner is None else None
    if carried is not None:
        settings = replace(settings, scanner=carried)
    check_system_wave(settings.mode, settings.scanner)
    return replace(settings, calibration=measure(reader, choice, settings.pulses))


def _of_reader(reader: WaveformReader, settings: ExtractionSettings, workers: int) -> Extraction:
    blocks = list(extracted_blocks(reader.blocks(), settings, workers))
    sources = [path.absolute() for path in reader.paths]
    return Extraction(blocks, reader.header, reader.tally, settings, sources)
