"""The end of a run: outcomes of all parts in the manifest, and nothing else left in the folder."""

from __future__ import annotations

from collections.abc import Iterable
from pathlib import Path

from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.manifest import Manifest, Part
from fullwaveform.extraction.warning_file import warning_path
from fullwaveform.io.atomic import protected_inputs
from fullwaveform.io.echo_writers.joining import join_echo_files
from fullwaveform.io.remote import location


def collect(parts: Iterable[Part], folder: JobFolder) -> None:
    """Take over the records of the folder; parts with missing or truncated files are waiting."""
    for part in parts:
        if part.outcome is None:
            record = folder.read_record(part.file)
            if record is not None and record.outcome is not None:
                part.finish(record.outcome)
            elif record is not None and part.state != Part.SKIPPED:
                part.fail(record.error)
        if part.outcome is not None and not folder.is_whole(part.outcome):
            part.reset()


def manifest_with_outcomes(folder: JobFolder) -> Manifest:
    """The manifest of the folder with all outcomes so far.

    Another machine that joins the run removes records after it has written their outcomes into the
    manifest: what seems to be missing may be found there now.
    """
    manifest = folder.read_manifest()
    collect(manifest.parts, folder)
    if any(part.state == Part.WAITING for part in manifest.parts):
        manifest = folder.read_manifest()
        collect(manifest.parts, folder)
    return manifest


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


def join_parts(
    manifest: Manifest, folder: JobFolder, output: Path, *, overwrite: bool = False
) -> int:
    """Write the echoes of each input of a finished run to one file, as a single machine would.

    Parameters
    ----------
    output
        A file for a run of one input; a folder for files named after the inputs, which is made if
        it is missing. Inputs with skipped parts have none.
    overwrite
        Whether existing files of echoes of the same format are replaced.

    Returns
    -------
    Number of waveforms that are padded in these files and not in the parts.

    Raises
    ------
    ValueError
        As `join_echo_files`.
    OSError
        A part cannot be read, or a file not written.
    """
    sources = [location(entry.path) for entry in manifest.inputs]
    outputs = [output]
    if len(sources) > 1 or output.is_dir():
        output.mkdir(exist_ok=True)
        outputs = [output / f"{path.stem}.{manifest.settings.part_format}" for path in sources]
    by_input: list[list[Part]] = [[] for _ in sources]
    for part in manifest.parts:
        by_input[part.input].append(part)
    padded = 0
    with protected_inputs(*sources):
        for path, parts in zip(outputs, by_input, strict=True):
            if all(part.outcome is not None for part in parts):
                padded += join_echo_files(
                    [folder.part_path(part.file) for part in parts],
                    path,
                    overwrite=overwrite,
                    with_waveforms=manifest.settings.with_waveforms,
                )
    return padded


def _write_statistics(manifest: Manifest, folder: JobFolder) -> None:
    """Write the statistics of suspicious blocks anew, in the order of the parts.

    Each file is replaced at once, because others may complete the same run at the same time.
    """
    texts = [""] * len(manifest.inputs)
    for part in manifest.parts:
        if part.outcome is not None:
            texts[part.input] += part.outcome.statistics
    for entry, text in zip(manifest.inputs, texts, strict=True):
        path = warning_path(folder.path, location(entry.path))
        if text:
            folder.write(path.name, text.encode("ascii"))
        else:
            path.unlink(missing_ok=True)
