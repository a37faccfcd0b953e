"""Processes that tests start, wait for, and end."""

from __future__ import annotations

import os
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import fullwaveform

PATIENCE = 120.0  # s; only ever waited out where something is broken
PACKAGE = str(Path(fullwaveform.__file__).resolve().parents[1])
_started: list[subprocess.Popen[str]] = []


def until(what: Callable[[], Any]) -> Any:
    """What the function gives as soon as it is true."""
    end = time.monotonic() + PATIENCE
    while not (found := what()):
        assert time.monotonic() < end, "waited in vain"
        time.sleep(0.005)
    return found


def environment(**more: str) -> dict[str, str]:
    """Of processes that know this package."""
    path = os.pathsep.join([PACKAGE, *filter(None, [os.environ.get("PYTHONPATH")])])
    return {**os.environ, "PYTHONPATH": path, "COLUMNS": "200", **more}


def started(process: subprocess.Popen[str]) -> subprocess.Popen[str]:
    """The process, remembered: a test that fails leaves it running, with its children."""
    _started.append(process)
    return process


def end_what_was_left() -> None:
    """Ends the groups of those that still run."""
    while _started:
        process = _started.pop()
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
