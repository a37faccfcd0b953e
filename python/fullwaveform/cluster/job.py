"""A run on a cluster, from its plan to its parts."""

from __future__ import annotations

import re
import time
from collections.abc import Callable, Sequence
from dataclasses import asdict, dataclass, field, replace
from functools import partial
from pathlib import Path
from typing import Any

from fullwaveform import __version__
from fullwaveform.cluster.dispatch import Dispatcher
from fullwaveform.cluster.inputs import InputFile, check_states
from fullwaveform.cluster.manifest import MANIFEST_VERSION, Manifest, Part
from fullwaveform.cluster.manifest_file import ManifestFile, read_manifest
from fullwaveform.cluster.settings import JobSettings, differences
from fullwaveform.cluster.units import planned_parts
from fullwaveform.cluster.work import Unit, UnitResult, count_blocks, extract_unit, unit_text
from fullwaveform.extraction.warning_file import append_statistics, warning_path

_WAITING_NOTICE_S = 15.0  # workers that restart after a loss are back sooner
# Temporary files of workers that were killed while writing a part.
_UNFINISHED_PART = re.compile(r"\.(?P<part>.+)\.[0-9a-f]{8}\.part")


@dataclass(frozen=True)
class JobProgress:
    """Callbacks on the progress of a run."""

    parts: Callable[[int, int], None] = field(default=lambda done, total: None)
    files: Callable[[int, int], None] = field(default=lambda done, total: None)  # before the parts
    waiting: Callable[[], None] = field(default=lambda: None)  # no workers for a while


def plan_job(
    client: Any, inputs: Sequence[InputFile], settings: JobSettings, progress: JobProgress
) -> Manifest:
    """The manifest of a new run over files, measured by the workers.

    An input with an error, or whose content is invalid, has one part that has failed.

    Raises OSError if a worker cannot read a file.
    """
    manifest = Manifest(MANIFEST_VERSION, __version__, settings, list(inputs), [])
    _measure(client, manifest, range(len(inputs)), progress)
    _plan_parts(manifest)
    return manifest


def retry_inputs(
    client: Any, manifest: Manifest, inputs: Sequence[InputFile], progress: JobProgress
) -> None:
    """Plan the parts of inputs that could not be read before, as they are now."""
    failed = [number for number, entry in enumerate(manifest.inputs) if entry.error]
    if not failed:
        return
    for number in failed:
        manifest.inputs[number] = inputs[number]
    _measure(client, manifest, failed, progress)
    before = {part.file: part for part in manifest.parts}
    _plan_parts(manifest)
    for part in manifest.parts:
        outcome = before[part.file].outcome if part.file in before else None
        if outcome is not None:
            part.finish(outcome)


def _measure(
    client: Any, manifest: Manifest, numbers: Sequence[int], progress: JobProgress
) -> None:
    """Count the blocks of inputs and calibrate them, or note why that is not possible."""
    inputs = manifest.inputs
    units = [
        (number, partial(_unit, manifest.settings, inputs[number], Part(0, number, 0, None, "")))
        for number in numbers
        if not inputs[number].error
    ]
    dispatcher = Dispatcher(client, _delayed(progress.waiting))
    for done, (number, result) in enumerate(dispatcher.run(count_blocks, units), start=1):
        if result.ends_run:
            raise OSError(result.error)
        if result.blocks is None or result.calibration is None:
            inputs[number] = replace(inputs[number], error=result.error)
        else:
            inputs[number] = replace(
                inputs[number],
                blocks=result.blocks,
                calibration=result.calibration,
                starts=result.starts,
            )
        progress.files(done, len(units))


def _plan_parts(manifest: Manifest) -> None:
    settings = manifest.settings
    suffix = f".{settings.part_format}"
    manifest.parts = planned_parts(manifest.inputs, settings.blocks_per_part, suffix)
    for part in manifest.parts:
        if error := manifest.inputs[part.input].error:
            part.fail(error)


def earlier_job(folder: Path, sources: Sequence[Path]) -> Manifest:
    """The manifest of a folder, if it is of the same inputs and version.

    Raises
    ------
    OSError
        The folder has no manifest, or an input cannot be read.
    ValueError
        The manifest is invalid, or of other inputs; the message lists the differences.
    """
    manifest = read_manifest(folder)
    _refuse(
        folder,
        differences(
            {
                "version of fullwaveform": manifest.package_version,
                "inputs": {str(i): entry.path for i, entry in enumerate(manifest.inputs)},
            },
            {
                "version of fullwaveform": __version__,
                "inputs": {str(i): str(source) for i, source in enumerate(sources)},
            },
        ),
    )
    for entry in manifest.inputs:
        if not entry.error:
            check_states(Path(entry.path), entry.files)
    return manifest


def prepare_resume(manifest: Manifest, folder: Path, settings: JobSettings) -> None:
    """Reset the parts whose files are missing or have another size.

    ValueError with the differences if the run has other settings.
    """
    _refuse(folder, differences(asdict(manifest.settings), asdict(settings), "settings"))
    for part in manifest.parts:
        path = folder / part.file
        if part.outcome is None or not _has_size(path, part.outcome.bytes):
            part.reset()


def _refuse(folder: Path, found: list[str]) -> None:
    if found:
        raise ValueError(f"{folder} contains a different run: {'; '.join(found)}")


def run_job(client: Any, manifest: Manifest, folder: Path, progress: JobProgress) -> None:
    """Write the unfinished parts, and keep the manifest in the folder up to date.

    However the run ends, also by an error or Ctrl-C, the manifest says which parts are finished.
    Invalid content of a file affects only its own parts.

    Raises
    ------
    OSError
        A disk, folder or worker fails; parts in progress are abandoned.
    """
    folder = folder.absolute()
    file = ManifestFile(manifest, folder)
    file.save()
    try:
        _run_parts(client, manifest, folder, progress, file)
    finally:
        file.save()
    stems = {Path(part.file).stem for part in manifest.parts}
    for path in folder.iterdir():
        found = _UNFINISHED_PART.fullmatch(path.name)
        if found is not None and Path(found["part"]).stem in stems:
            path.unlink(missing_ok=True)
    _write_statistics(manifest, folder)


def failures(manifest: Manifest) -> list[str]:
    """The different error messages of failed parts."""
    return list(dict.fromkeys(part.error for part in manifest.parts if part.error))


def skip_failed(manifest: Manifest, folder: Path) -> None:
    """Mark failed parts as skipped, so that the run is finished without them."""
    for part in manifest.parts:
        if part.state == Part.FAILED:
            part.state = Part.SKIPPED
    ManifestFile(manifest, folder).save()


def _run_parts(
    client: Any, manifest: Manifest, folder: Path, progress: JobProgress, file: ManifestFile
) -> None:
    unfinished = [part for part in manifest.unfinished() if not manifest.inputs[part.input].error]
    done = len(manifest.parts) - len(unfinished)
    progress.parts(done, len(manifest.parts))
    report_waiting = _delayed(progress.waiting)

    def tick(has_workers: bool) -> None:
        file.save_if_due()
        report_waiting(has_workers)

    def store(number: int, result: UnitResult) -> None:
        nonlocal done
        done += 1
        _store(manifest.parts[number], result, manifest)
        file.mark_changed()
        progress.parts(done, len(manifest.parts))

    dispatcher = Dispatcher(client, tick)
    units = {part.number: partial(_unit_of, manifest, part, folder) for part in unfinished}
    suspects = []
    for number, result in dispatcher.run(extract_unit, list(units.items())):
        if result.lost_workers:
            suspects.append(number)
        else:
            store(number, result)
    # Run alone, a unit cannot fail because of another one on the same worker.
    for suspect in suspects:
        for number, result in dispatcher.run(extract_unit, [(suspect, units[suspect])]):
            store(number, result)


def _store(part: Part, result: UnitResult, manifest: Manifest) -> None:
    if result.ends_run:
        raise OSError(result.error)
    if result.outcome is not None:
        part.finish(result.outcome)
        return
    path = manifest.inputs[part.input].path
    part.fail(result.error if path in result.error else f"{path}: {result.error}")


def _unit_of(manifest: Manifest, part: Part, folder: Path) -> str:
    source = manifest.inputs[part.input]
    return _unit(manifest.settings, source, part, folder / part.file)


def _unit(
    settings: JobSettings,
    source: InputFile,
    part: Part,
    output: Path | None = None,
) -> str:
    return unit_text(
        Unit(
            package_version=__version__,
            settings=settings,
            path=str(Path(source.path).absolute()),
            files=source.files,
            first=part.first,
            stop=part.stop,
            output=str(output or ""),
            calibration=source.calibration,
            start=source.start_of(part.first),
        )
    )


def _delayed(report: Callable[[], None]) -> Callable[[bool], None]:
    """Calls `report` once each time when there have been no workers for a while."""
    missing_since: float | None = None
    is_reported = False

    def tick(has_workers: bool) -> None:
        nonlocal missing_since, is_reported
        if has_workers:
            missing_since, is_reported = None, False
            return
        now = time.monotonic()
        missing_since = now if missing_since is None else missing_since
        if not is_reported and now - missing_since > _WAITING_NOTICE_S:
            report()
            is_reported = True

    return tick


def _has_size(path: Path, size: int) -> bool:
    return path.is_file() and path.stat().st_size == size


def _write_statistics(manifest: Manifest, folder: Path) -> None:
    """Write the statistics of suspicious blocks anew, in the order of the parts."""
    paths = [warning_path(folder, Path(entry.path)) for entry in manifest.inputs]
    for path in paths:
        path.unlink(missing_ok=True)
    for part in manifest.parts:
        if part.outcome is not None and part.outcome.statistics:
            append_statistics(paths[part.input], part.outcome.statistics)
