"""The job files of Slurm, AWS Batch and Kubernetes in examples/job_arrays."""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
import yaml

from ..support.child_processes import TIMEOUT_S, environment
from ..support.command_line import run
from .scenes import las_scan, states

FILES = Path(__file__).resolve().parents[3] / "examples" / "job_arrays"
#: Options of sbatch that the files may use, and the form of their values.
SBATCH = {
    "job-name": r"[\w-]+",
    "array": r"\d+-\d+(%\d+)?",
    "ntasks": r"\d+",
    "cpus-per-task": r"\d+",
    "mem": r"\d+[KMGT]",
    "time": r"(\d+-)?\d\d:\d\d:\d\d",
    "requeue": None,
    "output": r"[\w%-]+\.log",
}
NAME = r"[a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?"  # of objects of Kubernetes
QUANTITY = r"\d+(m|[KMGT]i?)?"


@pytest.fixture
def job(tmp_path: Path) -> Path:
    """The folder of a run of eleven to twenty units."""
    scan = las_scan(tmp_path / "scan.las", shots=75)
    call = ("plan", scan, "-o", tmp_path / "job", "--threshold", "20", "--block", "10")
    planned = run(*call, "--blocks-per-part", "1", "--print-count")
    assert planned.exit_code == 0, planned.output
    assert 10 < int(planned.stdout) <= 20
    return tmp_path / "job"


def done(job: Path) -> list[int]:
    return [number for number, state in enumerate(states(job).values()) if state == "done"]


def json_of(name: str) -> Any:
    return json.loads((FILES / name).read_text(encoding="utf-8"))


def test_every_file_is_checked() -> None:
    assert sorted(path.name for path in FILES.iterdir()) == [
        "batch_definition.json",
        "batch_job.json",
        "job_array.sbatch",
        "join.sbatch",
        "kubernetes_job.yaml",
    ]


@pytest.mark.parametrize("name", ["job_array.sbatch", "join.sbatch"])
def test_sbatch_options(name: str) -> None:
    lines = (FILES / name).read_text(encoding="utf-8").splitlines()
    assert lines[0] == "#!/bin/bash"
    commands = next(n for n, line in enumerate(lines) if line and not line.startswith("#"))
    # Slurm ignores options after the first command.
    assert not any(line.startswith("#SBATCH") for line in lines[commands:])
    options = [line.removeprefix("#SBATCH --") for line in lines if line.startswith("#SBATCH")]
    assert len(options) > 5
    for option in options:
        key, _, value = option.partition("=")
        form = SBATCH[key]
        assert (value == "") if form is None else re.fullmatch(form, value), option
    checked = subprocess.run(["bash", "-n", FILES / name], capture_output=True, check=False)
    assert (checked.returncode, checked.stderr) == (0, b"")


def test_sbatch_file_runs(job: Path, tmp_path: Path) -> None:
    program = tmp_path / "bin" / "fullwaveform"
    program.parent.mkdir()
    program.write_text(f'#!/bin/sh\nexec {sys.executable} -m fullwaveform "$@"\n', encoding="ascii")
    program.chmod(0o755)
    variables = {
        "PATH": f"{program.parent}{os.pathsep}{os.environ['PATH']}",
        "SLURM_ARRAY_TASK_ID": "1",
        "SLURM_CPUS_PER_TASK": "1",
    }
    ran = subprocess.run(
        ["bash", FILES / "job_array.sbatch", job],
        env=environment(**variables),
        capture_output=True,
        text=True,
        timeout=TIMEOUT_S,
        check=False,
    )
    assert (ran.returncode, ran.stderr) == (0, "")
    assert done(job) == list(range(10, len(states(job))))


def test_batch_files(job: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """The fields that the interface of the service requires, and the types of their values."""
    definition, submitted = json_of("batch_definition.json"), json_of("batch_job.json")
    assert re.fullmatch(r"[A-Za-z0-9][\w-]{0,127}", definition["jobDefinitionName"])
    assert definition["type"] == "container"
    assert 1 <= definition["retryStrategy"]["attempts"] <= 10
    assert definition["timeout"]["attemptDurationSeconds"] >= 60
    container = definition["containerProperties"]
    assert re.fullmatch(r"[\w./-]+:[\w.-]+", container["image"])
    needs = {need["type"]: need["value"] for need in container["resourceRequirements"]}
    assert set(needs) == {"VCPU", "MEMORY"}
    assert all(isinstance(value, str) and value.isdigit() for value in needs.values())
    volumes = {volume["name"] for volume in container["volumes"]}
    assert {point["sourceVolume"] for point in container["mountPoints"]} == volumes

    assert {"jobName", "jobQueue", "jobDefinition"} <= set(submitted)
    assert submitted["jobDefinition"] == definition["jobDefinitionName"]
    assert 2 <= submitted["arrayProperties"]["size"] <= 10_000
    parameters = {**definition["parameters"], **submitted["parameters"]}
    assert set(submitted["parameters"]) <= set(definition["parameters"])

    words = [
        parameters[word.removeprefix("Ref::")] if word.startswith("Ref::") else word
        for word in container["command"]
    ]
    monkeypatch.setenv("AWS_BATCH_JOB_ARRAY_INDEX", "0")
    assert_runs(words, "/data/flight-1/job", job)


def test_kubernetes_file(job: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """The fields that an indexed job requires, and the types of their values."""
    content = yaml.safe_load((FILES / "kubernetes_job.yaml").read_text(encoding="utf-8"))
    assert (content["apiVersion"], content["kind"]) == ("batch/v1", "Job")
    assert re.fullmatch(NAME, content["metadata"]["name"])
    spec = content["spec"]
    assert spec["completionMode"] == "Indexed"
    assert 1 <= spec["parallelism"] <= spec["completions"]
    assert spec["backoffLimitPerIndex"] >= 1
    pod = spec["template"]["spec"]
    assert pod["restartPolicy"] == "Never"  # which backoffLimitPerIndex requires
    (container,) = pod["containers"]
    assert re.fullmatch(NAME, container["name"])
    assert re.fullmatch(r"[\w./-]+:[\w.-]+", container["image"])
    for amounts in container["resources"].values():
        assert all(re.fullmatch(QUANTITY, amount) for amount in amounts.values())
    volumes = {volume["name"] for volume in pod["volumes"]}
    assert {mount["name"] for mount in container["volumeMounts"]} == volumes
    assert all(isinstance(word, str) for word in container["command"])
    monkeypatch.setenv("JOB_COMPLETION_INDEX", "0")
    assert_runs(container["command"], "/data/job", job)


def assert_runs(words: list[str], folder: str, job: Path) -> None:
    """The command of a container computes the first ten units."""
    assert words[0] == "fullwaveform"
    assert folder in words
    result = run(*(job if word == folder else word for word in words[1:]))
    assert result.exit_code == 0, result.output
    assert done(job) == list(range(10))
