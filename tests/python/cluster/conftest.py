"""Two workers for all tests that need no more than workers."""

from __future__ import annotations

from collections.abc import Iterator

import pytest

from ..support.child_processes import end_what_was_left
from .processes import scheduler, workers


@pytest.fixture(autouse=True)
def nothing_runs_on() -> Iterator[None]:
    """Whatever becomes of a test, its processes end with it."""
    yield
    end_what_was_left()


@pytest.fixture(scope="session")
def address(tmp_path_factory: pytest.TempPathFactory) -> Iterator[str]:
    """A scheduler with two worker processes."""
    with (
        scheduler(tmp_path_factory.mktemp("scheduler")) as (found, _),
        workers(found, 2),
    ):
        yield found
