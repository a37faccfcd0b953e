"""Noise of the waveforms of a file."""

from __future__ import annotations

from typing import Any

import numpy as np

from fullwaveform.calibration.levels import samples_by_receiver
from fullwaveform.calibration.waveform_levels import waveform_levels
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.view.cache import cached_name, cached_sections
from fullwaveform.view.histograms import described_histogram


def noise_histogram(reader: WaveformReader, identified: dict[str, Any]) -> dict[str, Any] | None:
    """Noise rms, counts, of up to 4,096 waveforms spread over the file; None without any.

    Measured once; `identified` is the identity of the directory of the waveforms. None also if the
    samples are damaged: the echoes can be looked at all the same.
    """
    name = cached_name("noise", reader.path, identified)
    try:
        with cached_sections(name, lambda writer: writer.finish(_described(reader))) as sections:
            histogram: dict[str, Any] | None = sections.described["histogram"]
    except WaveformFileError:
        return None
    return histogram


def _described(reader: WaveformReader) -> dict[str, Any]:
    parts = [
        np.sqrt(waveform_levels(samples).mean_square)
        for _, samples in samples_by_receiver(reader.spread_blocks())
    ]
    return {"histogram": described_histogram(np.concatenate([np.empty(0), *parts]))}
