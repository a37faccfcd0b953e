"""Writing of the parts of a plan, by any workers or in this process."""

from __future__ import annotations

from functools import partial

from fullwaveform.cluster.dispatch import Dispatcher
from fullwaveform.cluster.executors import Workers
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.manifest import Manifest, Part
from fullwaveform.cluster.progress import JobProgress, Stage
from fullwaveform.cluster.work import UnitResult, extract_unit, part_unit, read_result
from fullwaveform.data.errors import naming


def run_parts(
    workers: Workers, manifest: Manifest, folder: JobFolder, progress: JobProgress
) -> None:
    """Have the unfinished parts written, and note the outcomes in the manifest.

    However the run ends, the folder has the records of the finished parts. Invalid content of a
    file affects only its own parts.

    Raises
    ------
    OSError
        A disk, folder or worker fails; parts in progress are abandoned.
    """
    unfinished = [part for part in manifest.unfinished() if not manifest.inputs[part.input].error]
    done = len(manifest.parts) - len(unfinished)
    progress.count(Stage.DONE, done, len(manifest.parts))

    def store(number: int, result: UnitResult) -> None:
        nonlocal done
        done += 1
        _store(manifest, manifest.parts[number], result)
        progress.count(Stage.DONE, done, len(manifest.parts))

    dispatcher = Dispatcher(workers, progress.tick())
    units = {part.number: partial(part_unit, manifest, part, folder) for part in unfinished}
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


def run_part(manifest: Manifest, part: Part, folder: JobFolder, threads: int) -> None:
    """Write a part in this process, and note the outcome in the manifest.

    Raises OSError if disk, folder, memory or version of the program do not allow it.
    """
    result = extract_unit(part_unit(manifest, part, folder), threads)
    _store(manifest, part, read_result(result))


def _store(manifest: Manifest, part: Part, result: UnitResult) -> None:
    if result.ends_run:
        raise OSError(result.error)
    if result.outcome is not None:
        part.finish(result.outcome)
    else:
        part.fail(naming(manifest.inputs[part.input].path, result.error))
