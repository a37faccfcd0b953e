"""Extraction of many files by any executor, in one call."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator, Mapping, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Any, Unpack

from fullwaveform.calibration.phase_choice import PhaseChoice, checked_phase_choice
from fullwaveform.cluster.executors import ExecutorWorkers, Workers, local_threads, workers_of
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.join import save_outcomes, tidy
from fullwaveform.cluster.manifest import Manifest
from fullwaveform.cluster.plan import (
    check_settings,
    earlier_job,
    open_inputs,
    plan_job,
    resume_job,
)
from fullwaveform.cluster.progress import JobProgress, Stage
from fullwaveform.cluster.run import run_parts
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.core.driver import check_system_wave
from fullwaveform.extraction.choices import ExtractionChoices, common_scanner, settings_of
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.echo_writers.opening import check_takes_empty
from fullwaveform.io.input_names import check_distinct
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import location


@dataclass(frozen=True)
class ManyExtraction:
    """Result of `extract_many`.

    folder : has the parts and the manifest that lists them
    parts : files of echoes, by input and place in it
    failures : error of each input that could not be extracted completely, by its path
    waveforms, echoes : how many were read and written
    """

    folder: Path
    parts: list[Path]
    failures: dict[str, str]
    waveforms: int
    echoes: int


def extract_many(
    inputs: Sequence[str | os.PathLike[str]],
    output: str | os.PathLike[str],
    *,
    executor: Any = None,
    file_format: str = "parquet",
    block: int = 20_000,
    blocks_per_part: int | None = None,
    resume: bool = False,
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    outgoing_phase: PhaseChoice = "auto",
    skip_unreadable: bool = False,
    max_samples: int = DEFAULT_MAX_SAMPLES,
    keep_degraded: bool = False,
    crs: str | None = None,
    progress: Callable[[str, int, int], None] | None = None,
    **choices: Unpack[ExtractionChoices],
) -> ManyExtraction:
    """Extract the echoes of files into a folder of part files.

    The parts are the same for any executor, and those of ``fullwaveform cluster``;
    `fullwaveform.cluster.read_parts` reads them. A file that cannot be extracted does not stop the
    others. However the call ends, finished parts are kept.

    Parameters
    ----------
    inputs
        Waveform files, no two of one name.
    output
        The folder: new or empty, or with `resume` that of an earlier call.
    executor
        Runs the units of work: an executor as in `concurrent.futures`, or any object whose
        ``submit(function, argument)`` returns a future with ``result()``, or a client of
        dask.distributed. Other machines must have the inputs and the folder under the same path.
        Default: threads.
    file_format
        Of the parts, "parquet", "las", "laz", "csv", "h5" or "txt".
    block
        Waveforms per block.
    blocks_per_part
        Blocks per part. Default: a few minutes of work.
    resume
        Whether to complete the earlier call with these arguments instead of starting anew.
    progress
        Called with what was done to how many of how many: ("parts done", 3, 10).
    channel_flags, sampling_interval, outgoing_phase, skip_unreadable, max_samples, keep_degraded
        As for `fullwaveform.extract`; so are `crs` and all other arguments.

    Raises
    ------
    OSError
        The folder cannot be written, a disk or the executor fails.
    ValueError
        Invalid argument, none of the inputs can be opened, or an earlier call was different.
    """
    sources = [location(source) for source in inputs]
    job = JobFolder(output)
    if not sources:
        raise ValueError("no inputs; expected at least one file")
    check_distinct(sources)
    settings = settings_of(choices)
    check_takes_empty(Path(f"part.{file_format}"), settings.keep_empty)
    phase = checked_phase_choice(outgoing_phase)
    reported = _progress(progress)
    if resume:
        manifest = earlier_job(job, sources)
    else:
        manifest = None
        job.check_new()

    def opened(path: Path) -> WaveformReader:
        return open_waveforms(
            path, channel_flags=channel_flags, sampling_interval=sampling_interval
        )

    found = open_inputs(sources, opened, lambda reader: (reader.scanner(),), reported)
    if choices.get("scanner") is None:
        carried = common_scanner([seen[0] for _, seen in found if seen is not None])
        settings = settings if carried is None else replace(settings, scanner=carried)
    check_system_wave(settings.mode, settings.scanner)
    job_settings = JobSettings.of(
        settings,
        channel_flags,
        block=block,
        blocks_per_part=blocks_per_part,
        part_format=file_format,
        sampling_interval=sampling_interval,
        skip_unreadable=skip_unreadable,
        max_samples=max_samples,
        outgoing_phase=phase,
        keep_degraded=keep_degraded,
        crs=crs,
    )
    with _workers(executor) as workers:
        files = [file for file, _ in found]
        if manifest is None:
            manifest = plan_job(workers, files, job_settings, reported)
        else:
            check_settings(job, manifest, job_settings)
            resume_job(workers, manifest, files, reported)
        job.write_manifest(manifest)
        try:
            run_parts(workers, manifest, job, reported)
        finally:
            save_outcomes(manifest, job)
    tidy(manifest, job)
    return _result(manifest, job)


@contextmanager
def _workers(executor: Any) -> Iterator[Workers]:
    if executor is not None:
        yield workers_of(executor)
        return
    with local_threads(available_workers()) as threads:
        yield ExecutorWorkers(threads)


def _progress(report: Callable[[str, int, int], None] | None) -> JobProgress:
    if report is None:
        return JobProgress()

    def count(stage: Stage, done: int, total: int) -> None:
        noun, verb = stage.value
        report(f"{noun}s {verb}", done, total)

    return JobProgress(count)


def _result(manifest: Manifest, job: JobFolder) -> ManyExtraction:
    failures: dict[str, str] = {}
    for part in manifest.parts:
        if part.error:
            failures.setdefault(manifest.inputs[part.input].path, part.error)
    total = manifest.total()
    return ManyExtraction(
        folder=job.path,
        parts=[job.part_path(part.file) for part in manifest.parts if part.outcome is not None],
        failures=failures,
        waveforms=total.waveforms,
        echoes=total.written,
    )
