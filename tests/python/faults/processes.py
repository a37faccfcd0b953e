"""The command line in its own process."""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

from ..support.child_processes import TIMEOUT_S, environment, started

SLOW = Path(__file__).with_name("slow_command.py")


def finished(
    *call: str | Path, before: Callable[[], object] | None = None, stdout: Any = subprocess.PIPE
) -> subprocess.CompletedProcess[str]:
    """Run the command line; `before` is called in the new process."""
    return subprocess.run(
        [sys.executable, "-m", "fullwaveform", *map(str, call)],
        env=environment(),
        stdout=stdout,
        stderr=subprocess.PIPE,
        text=True,
        check=False,
        timeout=TIMEOUT_S,
        preexec_fn=before,
    )


def slow(slowed: str, *call: str | Path) -> subprocess.Popen[str]:
    """The command line with one slow step, see `slow_command`."""
    return started(
        subprocess.Popen(
            [sys.executable, str(SLOW), slowed, *map(str, call)],
            env=environment(),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
    )


def assert_error_line(done: subprocess.CompletedProcess[str], *messages: str) -> None:
    """Exit code 1, and one of the messages as the only output."""
    assert done.returncode == 1, done.stderr
    assert done.stderr in [f"fullwaveform: {message}\n" for message in messages]
