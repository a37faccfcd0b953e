"""Preloaded by the workers of a test: stops them in the middle of a selected part.

HOLD_BLOCK is the first block of the part. Its worker writes its process ID to the file ``held``
in the folder HOLD_FOLDER and waits until the file ``go`` exists there. With HOLD_KILLS every worker
that gets the part kills itself.
"""

from __future__ import annotations

import os
import signal
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from fullwaveform.cluster import work

_counted, _extract_unit = work._counted, work._extract_unit
_current: dict[str, int] = {}


def _recording(unit: work.Unit, threads: int) -> work.UnitResult:
    _current["first"] = unit.first
    return _extract_unit(unit, threads)


def _held(extracted: Any, outcome: Any) -> Iterator[Any]:
    for number, block in enumerate(_counted(extracted, outcome)):
        if number == 1 and _current["first"] == int(os.environ["HOLD_BLOCK"]):
            _hold()
        yield block


def _hold() -> None:
    folder = Path(os.environ["HOLD_FOLDER"])
    if "HOLD_KILLS" in os.environ:
        os.kill(os.getpid(), signal.SIGKILL)
    if (folder / "go").exists():
        return
    (folder / "held.new").write_text(str(os.getpid()), encoding="ascii")
    (folder / "held.new").rename(folder / "held")
    while not (folder / "go").exists():
        time.sleep(0.02)


def dask_setup(worker: Any) -> None:
    if "HOLD_BLOCK" in os.environ:
        work._extract_unit, work._counted = _recording, _held
