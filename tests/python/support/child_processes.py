"""Processes that tests start, wait for, and kill."""

from __future__ import annotations

import os
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import fullwaveform

TIMEOUT_S = 300.0  # reached only if something is broken
PACKAGE = str(Path(fullwaveform.__file__).resolve().parents[1])
_started: list[subprocess.Popen[str]] = []


def wait_until(condition: Callable[[], Any]) -> Any:
    """The first true result of the function."""
    end = time.monotonic() + TIMEOUT_S
    while not (found := condition()):
        assert time.monotonic() < end, f"not true after {TIMEOUT_S} s"
        time.sleep(0.005)
    return found


def environment(**more: str) -> dict[str, str]:
    """Environment in which processes find this package."""
    path = os.pathsep.join([PACKAGE, *filter(None, [os.environ.get("PYTHONPATH")])])
    return {**os.environ, "PYTHONPATH": path, "COLUMNS": "200", **more}


def started(process: subprocess.Popen[str]) -> subprocess.Popen[str]:
    """Registers the process for `kill_started`: a failing test leaves it running."""
    _started.append(process)
    return process


def kill_started() -> None:
    """Kill the process groups of the registered processes that still run, and close all pipes."""
    while _started:
        process = _started.pop()
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        for stream in (process.stdout, process.stderr):
            if stream is not None:
                stream.close()
