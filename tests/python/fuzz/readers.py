"""Everything that reads a file, each read to its end."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

from fullwaveform.cluster.folder import JobFolder
from fullwaveform.core.scanner import Scanner
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import read_truth
from fullwaveform.system_wave.sources import Input
from fullwaveform.volumes.volume import VolumeSettings, write_volume
from fullwaveform.waveform_metrics.compute import metrics
from fullwaveform.waveform_metrics.settings import MetricsSettings


def read_waveforms(path: Path) -> None:
    """Opens a file of waveforms, and takes what a run takes of it."""
    for skip in (True, False):
        with open_waveforms(path, waveforms_per_block=50, skip_unreadable=skip) as reader:
            assert reader.header is None or reader.header.version
            assert reader.point_count >= 0
            scanner = reader.scanner()
            if scanner is not None:
                scanner.device()
            for block in reader.blocks():
                assert block.counts.size == block.samples.shape[0]
                assert block.counts.max(initial=0) <= block.samples.shape[1]


def measure(path: Path) -> None:
    """The metrics of the readable waveforms of a file."""
    found = metrics(path, MetricsSettings(smoothing=2.0), workers=1, skip_unreadable=True)
    assert len(found) > 0


def fill_voxels(path: Path) -> None:
    """A volume of the readable waveforms of a file."""
    output = path.with_name("volume.tif")
    with open_waveforms(path, waveforms_per_block=50) as reader:
        write_volume(reader, output, VolumeSettings(2.0), overwrite=True)


def read_description(path: Path) -> None:
    """Reads a scanner, as far as the library's form of it."""
    scanner = Scanner.from_toml(path)
    scanner.device()
    scanner.report()


def read_curve(path: Path) -> None:
    """Reads a system wave's pulse from text."""
    Input(path, interval=1e-9).averaged_pulse(Scanner.default(sampling_interval=1e-9))


def read_job(path: Path) -> None:
    """Reads the manifest of a job and sums its parts."""
    JobFolder(path.parent).read_manifest().total()


READERS: dict[str, Callable[[Path], object]] = {
    "las": read_waveforms,
    "laz": read_waveforms,
    "pls": read_waveforms,
    "plz": read_waveforms,
    "h5": read_waveforms,
    "npz": read_waveforms,
    "gedi": read_waveforms,
    "lvis": read_waveforms,
    "metrics": measure,
    "voxels": fill_voxels,
    "toml": read_description,
    "csv": read_curve,
    "truth": read_truth,
    "manifest": read_job,
}
