"""The end of a run: outcomes of all parts in the manifest, and nothing else left in the folder."""

from __future__ import annotations

from pathlib import Path

from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.manifest import Manifest, Part
from fullwaveform.extraction.warning_file import append_statistics, warning_path


def collect(manifest: Manifest, folder: JobFolder) -> None:
    """Take over the records of the folder; parts with missing or truncated files are waiting."""
    for part in manifest.parts:
        if part.outcome is None:
            record = folder.read_record(part.file)
            if record is not None and record.outcome is not None:
                part.finish(record.outcome)
            elif record is not None and part.state != Part.SKIPPED:
                part.fail(record.error)
        if part.outcome is not None and not folder.is_whole(part.outcome):
            part.reset()


def save_outcomes(manifest: Manifest, folder: JobFolder) -> None:
    """Write the manifest with the outcomes so far, and remove their records."""
    folder.write_manifest(manifest)
    folder.remove_records(part.file for part in manifest.parts if part.state != Part.WAITING)


def tidy(manifest: Manifest, folder: JobFolder) -> None:
    """Write the statistics of suspicious blocks, and remove what killed processes have left.

    Only when no part is being written any more.
    """
    folder.remove_unfinished(part.file for part in manifest.parts)
    _write_statistics(manifest, folder)


def _write_statistics(manifest: Manifest, folder: JobFolder) -> None:
    """Write the statistics of suspicious blocks anew, in the order of the parts."""
    paths = [warning_path(folder.path, Path(entry.path)) for entry in manifest.inputs]
    for path in paths:
        path.unlink(missing_ok=True)
    for part in manifest.parts:
        if part.outcome is not None and part.outcome.statistics:
            append_statistics(paths[part.input], part.outcome.statistics)
