"""Loaded by the workers of a test at their start: a chosen range of blocks does not go on.

The worker that gets it in the middle of its part says its number in a file ``held`` of the folder
HOLD_FOLDER and waits there; HOLD_BLOCK is the first block of the range. Once the file ``go`` stands
there as well, the range is worked on as any other. With HOLD_KILLS every worker that meets the
range kills itself.
"""

from __future__ import annotations

import os
import signal
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from fullwaveform.cluster import work

_noted, _extract_unit = work._noted, work._extract_unit
_current: dict[str, int] = {}


def _remembering(unit: work.Unit) -> work.Plain:
    _current["first"] = unit.first
    return _extract_unit(unit)


def _held(extracted: Any, outcome: Any) -> Iterator[Any]:
    for number, block in enumerate(_noted(extracted, outcome)):
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
        work._extract_unit, work._noted = _remembering, _held
