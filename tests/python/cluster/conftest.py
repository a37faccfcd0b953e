"""Two workers that tests share."""

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
