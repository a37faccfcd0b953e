"""The plan of a run: inputs that are opened and measured once, and the parts that follow."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from concurrent.futures import ThreadPoolExecutor, as_completed
from dataclasses import asdict, replace
from functools import partial
from pathlib import Path
from typing import Any, TypeVar

from fullwaveform import __version__
from fullwaveform.cluster.checksums import verify
from fullwaveform.cluster.dispatch import Dispatcher
from fullwaveform.cluster.executors import Workers
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.inputs import InputFile, check_states, states_of
from fullwaveform.cluster.join import collect
from fullwaveform.cluster.manifest import MANIFEST_VERSION, Manifest
from fullwaveform.cluster.progress import JobProgress, Stage
from fullwaveform.cluster.settings import JobSettings, differences
from fullwaveform.cluster.units import planned_parts
from fullwaveform.cluster.work import count_blocks, file_unit
from fullwaveform.data.errors import describe, naming
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.remote import location

_OPENING_THREADS = 16  # what waits for a file server waits for many files at once
_Seen = TypeVar("_Seen")


def open_inputs(
    sources: Sequence[Path],
    opened: Callable[[Path], WaveformReader],
    look: Callable[[WaveformReader], _Seen],
    progress: JobProgress,
) -> list[tuple[InputFile, _Seen | None]]:
    """Open all files, several at a time, and look at each; None and an error for bad files.

    Raises ValueError if that is all of them.
    """

    def open_one(path: Path) -> tuple[InputFile, _Seen | None]:
        try:
            file = InputFile(str(path), states_of(path), 0)
            with opened(path) as reader:
                return file, look(reader)
        except (OSError, ValueError) as error:
            return InputFile(str(path), [], 0, error=naming(path, describe(error))), None

    pool = ThreadPoolExecutor(min(_OPENING_THREADS, len(sources)), thread_name_prefix="opening")
    try:
        futures = [pool.submit(open_one, source.absolute()) for source in sources]
        for done, _ in enumerate(as_completed(futures), start=1):
            progress.count(Stage.OPENED, done, len(sources))
    finally:
        pool.shutdown(cancel_futures=True)
    found = [future.result() for future in futures]
    if all(file.error for file, _ in found):
        raise ValueError("; ".join(file.error for file, _ in found))
    return found


def plan_job(
    workers: Workers, inputs: Sequence[InputFile], settings: JobSettings, progress: JobProgress
) -> Manifest:
    """The manifest of a new run over files, measured by the workers.

    An input with an error, or whose content is invalid, has one part that has failed.

    Raises OSError if a worker cannot read a file.
    """
    manifest = Manifest(MANIFEST_VERSION, __version__, settings, list(inputs), [])
    _measure(workers, manifest, range(len(inputs)), progress)
    _plan_parts(manifest)
    return manifest


def earlier_job(folder: JobFolder, sources: Sequence[Path]) -> Manifest:
    """The manifest of a folder with the outcomes so far, if it is of these inputs and this version.

    Raises
    ------
    OSError
        The folder has no manifest, or an input cannot be read.
    ValueError
        The manifest is invalid, or of other inputs; the message lists the differences.
    """
    manifest = folder.read_manifest()
    before = {
        "version of fullwaveform": manifest.package_version,
        "inputs": {str(i): entry.path for i, entry in enumerate(manifest.inputs)},
    }
    now = {
        "version of fullwaveform": __version__,
        "inputs": {str(i): str(source.absolute()) for i, source in enumerate(sources)},
    }
    _refuse(folder, differences(before, now))
    for entry in manifest.inputs:
        if not entry.error:
            check_states(location(entry.path), entry.files)
    collect(manifest.parts, folder)
    verify(manifest.parts, folder)
    return manifest


def resume_job(
    workers: Workers,
    manifest: Manifest,
    inputs: Sequence[InputFile],
    progress: JobProgress,
) -> None:
    """Reset the parts that are not written, and plan inputs anew that could not be read before."""
    for part in manifest.parts:
        if part.outcome is None:
            part.reset()
    failed = [number for number, entry in enumerate(manifest.inputs) if entry.error]
    if not failed:
        return
    for number in failed:
        manifest.inputs[number] = inputs[number]
    _measure(workers, manifest, failed, progress)
    before = {part.file: part for part in manifest.parts}
    _plan_parts(manifest)
    for part in manifest.parts:
        outcome = before[part.file].outcome if part.file in before else None
        if outcome is not None:
            part.finish(outcome)


def check_settings(folder: JobFolder, manifest: Manifest, settings: JobSettings) -> None:
    """ValueError with the differences if the run has other settings."""
    _refuse(folder, differences(asdict(manifest.settings), asdict(settings), "settings"))


def _refuse(folder: JobFolder, found: list[str]) -> None:
    if found:
        raise ValueError(f"{folder} contains a different run: {'; '.join(found)}")


def _measure(
    workers: Workers, manifest: Manifest, numbers: Sequence[int], progress: JobProgress
) -> None:
    """Count the blocks of inputs and calibrate them, or note why that is not possible."""
    inputs = manifest.inputs
    units: list[Any] = [
        (number, partial(file_unit, manifest, inputs[number]))
        for number in numbers
        if not inputs[number].error
    ]
    dispatcher = Dispatcher(workers, progress.tick())
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
        progress.count(Stage.MEASURED, done, len(units))


def _plan_parts(manifest: Manifest) -> None:
    settings = manifest.settings
    suffix = f".{settings.part_format}"
    manifest.parts = planned_parts(manifest.inputs, settings.blocks_per_part, suffix)
    for part in manifest.parts:
        if error := manifest.inputs[part.input].error:
            part.fail(error)
