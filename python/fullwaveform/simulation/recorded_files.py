"""Files of a simulated scan that hold the outgoing pulses: scan containers and PulseWaves."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

from fullwaveform.io.atomic import ANY_FILE, FileKind
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.simulation.files import (
    TRUTH_KIND,
    las_header,
    truth_path,
    write_all_or_nothing,
)
from fullwaveform.simulation.pulsewaves_files import (
    PULSES_KIND,
    WAVES_KIND,
    write_pulses,
    write_waves,
)
from fullwaveform.simulation.recording import record, recorded_block
from fullwaveform.simulation.truth import write_truth
from fullwaveform.simulation.waveforms import SimulatedScan

CONTAINER_ENDINGS, PULSEWAVES_ENDING = (".h5", ".hdf5"), ".pls"
RECORDED_ENDINGS = (*CONTAINER_ENDINGS, PULSEWAVES_ENDING)
_SHOTS_PER_BLOCK = 10_000


def recorded_files(path: Path) -> dict[Path, FileKind]:
    """The files of the scan with the given name; ValueError for another ending."""
    ending = path.suffix.lower()
    if ending in CONTAINER_ENDINGS:
        container = ScanContainerWriter.kind
        assert container is not None
        return {path: container, truth_path(path): TRUTH_KIND}
    if ending == PULSEWAVES_ENDING:
        waves = path.with_suffix(".wvs")
        return {path: PULSES_KIND, waves: WAVES_KIND, truth_path(path): TRUTH_KIND}
    raise ValueError(f"invalid name {path.name!r}; it must end in {', '.join(RECORDED_ENDINGS)}")


def write_recording(
    scan: SimulatedScan, path: Path | str, *, overwrite: bool = False
) -> tuple[Path, ...]:
    """Write a scan with its outgoing pulses, and `<stem>_truth.csv`.

    The ranges in these files count in whole samples from the tick of the digitiser next to the
    outgoing pulse. The ending chooses the format: ``.h5`` and ``.hdf5`` a scan container, ``.pls``
    a PulseWaves file with its ``.wvs``. Returns the paths; the files appear when all are complete.

    Raises ValueError for another ending, OSError if a file cannot be written, FileExistsError for
    existing files, unless `overwrite` is set and each is of its kind.
    """
    target = Path(path)
    kinds = recorded_files(target)
    writers: dict[Path, Callable[[Path], None]] = {
        truth_path(target): lambda part: write_truth(scan.truth, part)
    }
    if target.suffix.lower() == PULSEWAVES_ENDING:
        writers[target.with_suffix(".wvs")] = lambda part: write_waves(scan, part)
        writers[target] = lambda part: write_pulses(scan, part)
    else:
        writers[target] = lambda part: _write_container(scan, part)
    write_all_or_nothing(writers, kinds, overwrite)
    return tuple(kinds)


def _write_container(scan: SimulatedScan, path: Path) -> None:
    recording = record(scan)
    writer = ScanContainerWriter(path, las_header(scan.settings))
    writer.kind, writer.overwrite = ANY_FILE, True  # a temporary file, which exists
    with writer:
        for first in range(0, len(scan.shots), _SHOTS_PER_BLOCK):
            stop = min(first + _SHOTS_PER_BLOCK, len(scan.shots))
            writer.write(recorded_block(scan, recording, first, stop))
