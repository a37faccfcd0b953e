"""What a run reports while it goes on."""

from __future__ import annotations

import time
from collections.abc import Callable
from dataclasses import dataclass, field
from enum import Enum

_WAITING_NOTICE_S = 15.0  # workers that restart after a loss are back sooner


class Stage(Enum):
    """A stage of a run: what is counted, and what was done to it."""

    OPENED = ("file", "opened")
    MEASURED = ("file", "measured")
    DONE = ("part", "done")


@dataclass(frozen=True)
class JobProgress:
    """Callbacks on the progress of a run."""

    count: Callable[[Stage, int, int], None] = field(default=lambda stage, done, total: None)
    waiting: Callable[[], None] = field(default=lambda: None)  # no workers for a while

    def tick(self) -> Callable[[bool], None]:
        """For a `Dispatcher`: calls `waiting` once when there have been no workers for a while."""
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
                self.waiting()
                is_reported = True

        return tick
