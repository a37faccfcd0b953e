"""Two workers that tests share; processes and variables that no test leaves to another."""

from __future__ import annotations

from collections.abc import Iterator

import pytest

from ..support.child_processes import kill_started
from .processes import scheduler, workers


@pytest.fixture(autouse=True)
def no_process_left() -> Iterator[None]:
    """Processes end with their test, also after a failure."""
    yield
    kill_started()


@pytest.fixture(scope="session")
def address(tmp_path_factory: pytest.TempPathFactory) -> Iterator[str]:
    """A scheduler with two worker processes."""
    with (
        scheduler(tmp_path_factory.mktemp("scheduler")) as (found, _),
        workers(found, 2),
    ):
        yield found


@pytest.fixture(autouse=True)
def outside_of_a_job_array(monkeypatch: pytest.MonkeyPatch) -> None:
    for name in ("SLURM_ARRAY_TASK_ID", "AWS_BATCH_JOB_ARRAY_INDEX", "JOB_COMPLETION_INDEX"):
        monkeypatch.delenv(name, raising=False)
