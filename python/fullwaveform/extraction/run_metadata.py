"""How the echoes of a file were made, for its metadata."""

from __future__ import annotations

import json
from collections.abc import Sequence
from pathlib import Path

from fullwaveform import __version__
from fullwaveform.calibration.receiver_names import receiver_name
from fullwaveform.core.driver import Mode
from fullwaveform.extraction.extractor import ExtractionSettings


def run_metadata(settings: ExtractionSettings, sources: Sequence[Path] = ()) -> dict[str, str]:
    """Version, settings and names of the inputs, for the files that can hold metadata."""
    return {
        **({"input": ", ".join(source.name for source in sources)} if sources else {}),
        "version": __version__,
        "mode": settings.mode.title,
        **_of_mode(settings),
        "outgoing_phase": settings.outgoing_phase,
        "scanner": json.dumps(dict(settings.scanner.attributes), sort_keys=True),
    }


def _of_mode(settings: ExtractionSettings) -> dict[str, str]:
    """What the mode was set to."""
    if settings.mode is not Mode.PULSE_FIT:
        return {
            "threshold": _threshold(settings),
            "baseline": settings.baseline,
            "sample_scale": str(settings.sample_scale),
            **_smoothing(settings.smoothing),
        }
    width = settings.pulse_fit.max_width
    return {
        "false_alarms": f"{settings.pulse_fit.false_alarms:g} per 1,000 waveforms",
        "max_width": "default" if width is None else f"{width * 1e9:g} ns",
    }


def _smoothing(seconds: float | None) -> dict[str, str]:
    if seconds is None:
        return {"smoothing_ns": "auto"}
    return {"smoothing_ns": repr(seconds * 1e9)} if seconds else {}


def _threshold(settings: ExtractionSettings) -> str:
    """The threshold in counts, or those measured of each receiver."""
    threshold = settings.threshold
    if isinstance(threshold, int | str):
        return str(threshold)
    if threshold is not None:
        return "given for each waveform"
    levels = settings.calibration.levels
    if not levels:
        return "estimate"
    values = [settings.preparation.threshold_of(level) for level in levels]
    if len(set(values)) == 1:
        return f"{values[0]} (measured)"
    names = settings.calibration.receiver_names
    receivers = (
        f"{value} (measured, {receiver_name(level, levels, names)})"
        for value, level in zip(values, levels, strict=True)
    )
    return ", ".join(receivers)
