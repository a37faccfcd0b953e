"""What the waveform panel shows of a shot, computed when it is asked for."""

from __future__ import annotations

import math
import os
import shlex
from collections.abc import Sequence
from dataclasses import dataclass, field
from importlib import import_module
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any

import numpy as np

from fullwaveform.analysis.waveform_selection import SelectedShot
from fullwaveform.analysis.waveform_views import MethodView, WaveformView, waveform_views
from fullwaveform.calibration.calibration import Calibration, measure
from fullwaveform.core.driver import MODE_NAMES, Mode, Threshold
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import OutgoingPulses
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.base import WaveformReader
from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.view.directory import WaveformDirectory


@dataclass(frozen=True, slots=True)
class NamedScanner:
    """A scanner description that the panel offers."""

    label: str
    scanner: Scanner
    path: Path | None = None  # of its file; None: that of the waveform file, or the default


@dataclass(frozen=True, slots=True)
class PanelSettings:
    """What a user chooses in the panel."""

    modes: tuple[Mode, ...] = (Mode.THREE_POINT,)
    threshold: Threshold | None = None
    scanner: int = 0  # number of the scanner description


@dataclass
class WaveformPanel:
    """Computes the panel of any shot of a file.

    reader : of the file; used by one thread at a time, under the lock of the directory
    scanners : the descriptions to choose from, at least one
    plot_options : options of the command plot that open the file as the reader does
    """

    reader: WaveformReader
    waveforms: WaveformDirectory
    scanners: Sequence[NamedScanner]
    plot_options: Sequence[str] = ()
    _calibrations: dict[tuple[int, bool], Calibration] = field(default_factory=dict)

    def __post_init__(self) -> None:
        self.reader.with_outgoing = True

    def views(self, number: int, settings: PanelSettings) -> list[WaveformView]:
        """The waveforms of the shot of a waveform with the results of the chosen modes.

        Raises as `WaveformDirectory.shot`; ValueError also if a mode needs what the scanner
        description lacks.
        """
        return self._views(self.waveforms.shot(number), settings)

    def data(self, number: int, settings: PanelSettings) -> dict[str, Any]:
        """The panel as JSON data; raises as `views`."""
        shot = self.waveforms.shot(number)
        views = self._views(shot, settings)
        return {
            "waveform": number,
            "shot": self.waveforms.shot_number(number),
            "waveforms": [_waveform_data(view) for view in views],
            "outgoing": _outgoing_data(shot.block.outgoing),
            "command": self.plot_command(number, settings, "svg"),
        }

    def picture(self, number: int, settings: PanelSettings, kind: str) -> bytes:
        """The picture of the command `plot_command` as "png", "pdf" or "svg"."""
        # Imported on demand: the viewer starts sooner without the library that draws pictures.
        draw_waveforms = import_module("fullwaveform.plotting.waveform").draw_waveforms
        views = self.views(number, settings)
        with TemporaryDirectory(prefix="fullwaveform-") as folder:
            path = Path(folder) / f"waveform.{kind}"
            draw_waveforms(path, views)
            return path.read_bytes()

    def plot_command(self, number: int, settings: PanelSettings, kind: str) -> str:
        """The command that draws the same picture."""
        shot = self.waveforms.shot_number(number)
        words = ["fullwaveform", "plot", str(self.reader.path), "--shot", str(shot)]
        for mode in settings.modes:
            words += ["--mode", MODE_NAMES[mode]]
        if settings.threshold is not None:
            words += ["--threshold", str(settings.threshold)]
        chosen = self.scanners[settings.scanner]
        if chosen.path is not None:
            words += ["--scanner", str(chosen.path)]
        words += [*self.plot_options, "-o", f"shot-{shot}.{kind}"]
        return shlex.join(words)

    def _views(self, shot: SelectedShot, settings: PanelSettings) -> list[WaveformView]:
        scanner = self.scanners[settings.scanner].scanner
        calibration = self._calibration(settings)
        extraction = ExtractionSettings(
            scanner, threshold=settings.threshold, calibration=calibration
        )
        return waveform_views(shot, extraction, settings.modes)

    def _calibration(self, settings: PanelSettings) -> Calibration:
        """Measured once for each scanner, with pulse models from the first pulse fit on."""
        fits = Mode.PULSE_FIT in settings.modes
        key = settings.scanner, fits
        with self.waveforms.lock:
            if key not in self._calibrations:
                scanner = self.scanners[settings.scanner].scanner
                pulses = ExtractionSettings(scanner, Mode.PULSE_FIT).pulses if fits else None
                self._calibrations[key] = measure(self.reader, "off", pulses)
                self.reader.with_outgoing = True  # the measurement has reset it
            return self._calibrations[key]


def offered_scanners(reader: WaveformReader, paths: Sequence[Path]) -> list[NamedScanner]:
    """The given descriptions, then that of the file, then the default.

    Raises OSError or ValueError if a given one cannot be read or is invalid.
    """
    given = [NamedScanner(path.name, Scanner.from_toml(path), path) for path in paths]
    own = reader.scanner()
    if own is not None:
        return [*given, NamedScanner(f"of {os.path.basename(reader.path)}", own)]  # noqa: PTH119
    return [*given, NamedScanner("default", Scanner.default())]


def _waveform_data(view: WaveformView) -> dict[str, Any]:
    return {
        "number": view.number,
        "channel": view.channel_flag,
        "beam": view.beam,
        "gps_time": _number(view.gps_time),
        "interval": view.interval,
        "samples": view.samples.tolist(),
        "threshold": view.threshold,
        "segments": view.segments.tolist(),
        "returns": view.returns.tolist(),
        "methods": [_method_data(method) for method in view.methods],
    }


def _method_data(method: MethodView) -> dict[str, Any]:
    fitted = method.fitted_near_echoes if method.fits_a_sum else method.fitted
    return {
        "mode": int(method.mode),
        "name": method.name,
        "colour": METHOD_COLOURS[method.mode],
        "note": method.note,
        "baseline": method.foot,
        "positions": _numbers(method.positions),
        "amplitudes": _numbers(method.amplitudes),
        "widths": _numbers(method.widths),
        "uncertainties": [_numbers(row) for row in method.uncertainties],
        "fitted": _curve(fitted),
        "deconvolved": _curve(method.deconvolved),
        "residuals": _curve(method.residuals),
    }


def _outgoing_data(pulses: OutgoingPulses | None) -> dict[str, Any] | None:
    if pulses is None or not len(pulses) or not pulses.counts[0]:
        return None
    return {
        "samples": pulses.samples[0, : pulses.counts[0]].tolist(),
        "interval": float(pulses.sampling_intervals[0]),
    }


def _curve(points: FloatArray) -> list[list[float | None]]:
    return [_numbers(points[:, 0]), _numbers(points[:, 1])]


def _numbers(values: FloatArray) -> list[float | None]:
    """As JSON numbers, rounded to what a screen can show; NaN becomes null."""
    if np.isfinite(values).all():
        return np.round(values, 5).tolist()  # type: ignore[no-any-return]
    return [_number(value) for value in np.round(values, 5).tolist()]


def _number(value: float) -> float | None:
    return value if math.isfinite(value) else None
