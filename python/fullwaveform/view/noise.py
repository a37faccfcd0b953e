"""Noise of the waveforms of a file."""

from __future__ import annotations

from collections.abc import Iterator
from threading import Lock
from typing import Any

import numpy as np

from fullwaveform.calibration.levels import samples_by_receiver
from fullwaveform.calibration.waveform_levels import MIN_SAMPLES, waveform_levels
from fullwaveform.data.arrays import AnyArray, FloatArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.data.summaries import distinct
from fullwaveform.io.base import WaveformReader
from fullwaveform.view.cache import cached_name, cached_sections, check_unchanged
from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.histograms import class_counts, described_histogram
from fullwaveform.view.sections import SectionWriter


class WaveformNoise:
    """Noise rms, counts: of waveforms spread over the file, and of all when it is asked for.

    May be used by several threads at a time. The sample is measured here, unless that was done
    before.

    reader : of the file; used by one thread at a time, under the lock of the directory
    """

    def __init__(self, reader: WaveformReader, waveforms: WaveformDirectory) -> None:
        self._reader, self._waveforms = reader, waveforms
        self._sampled = _sampled_histogram(reader, waveforms.identity)
        self._measuring = Lock()
        self._values: AnyArray | None = None

    @property
    def edges(self) -> list[float]:
        """Edges of the classes of the histogram; empty if nothing could be measured."""
        return [] if self._sampled is None else self._sampled["edges"]

    @property
    def histogram(self) -> dict[str, Any] | None:
        """Edges and counts of up to 4,096 waveforms, of all once they are measured.

        None without any, also if the samples are damaged: the echoes can be looked at all the same.
        """
        if self._sampled is None or self._values is None:
            return self._sampled
        return {"edges": self.edges, "counts": class_counts(self._values, self.edges).tolist()}

    @property
    def is_measured(self) -> bool:
        """Whether all waveforms are measured."""
        return self._values is not None

    def values(self) -> AnyArray:
        """Noise rms (m,) of all waveforms, NaN where it is unknown; measured once.

        Raises
        ------
        OSError
            The file was removed or changed since it was opened.
        WaveformFileError
            The file is not valid.
        """
        with self._measuring:
            if self._values is None:
                known = self._waveforms.identity
                name = cached_name("waveform-noise", self._reader.path, known)
                with cached_sections(name, self._write) as sections:
                    self._values = sections.read("noise_rms")
        return self._values

    def _write(self, writer: SectionWriter) -> None:
        check_unchanged(self._reader.path, self._waveforms.identity)
        found = np.full(len(self._waveforms), np.nan, np.float32)
        for block in self._blocks():
            for count in distinct(block.counts):
                rows = np.flatnonzero(block.counts == count)
                if count >= MIN_SAMPLES:
                    found[block.waveform_numbers[rows]] = _noise_rms(block.samples[rows, :count])
        writer.add("noise_rms", found)
        writer.finish({})

    def _blocks(self) -> Iterator[WaveformBlock]:
        """All blocks; between them others may use the reader."""
        with self._waveforms.lock:
            blocks = self._reader.blocks()
        while True:
            with self._waveforms.lock:
                block = next(blocks, None)
            if block is None:
                return
            yield block


def _sampled_histogram(reader: WaveformReader, identified: dict[str, Any]) -> dict[str, Any] | None:
    name = cached_name("noise", reader.path, identified)
    try:
        with cached_sections(name, lambda writer: writer.finish(_described(reader))) as sections:
            histogram: dict[str, Any] | None = sections.described["histogram"]
    except WaveformFileError:
        return None
    return histogram


def _described(reader: WaveformReader) -> dict[str, Any]:
    parts = [_noise_rms(samples) for _, samples in samples_by_receiver(reader.spread_blocks())]
    return {"histogram": described_histogram(np.concatenate([np.empty(0), *parts]))}


def _noise_rms(samples: AnyArray) -> FloatArray:
    return np.asarray(np.sqrt(waveform_levels(samples).mean_square))
