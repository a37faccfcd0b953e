"""Memory and descriptors of a running process over time, as /proc shows them."""

from __future__ import annotations

import subprocess
import time
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from statistics import median


@dataclass(frozen=True)
class Reading:
    """The state of a process at one moment."""

    seconds: float  # since the first reading
    memory: float  # MB, resident
    descriptors: int  # open files
    threads: int


@dataclass(frozen=True)
class Watched:
    """How a process went."""

    exit_code: int
    seconds: float
    readings: Sequence[Reading]  # from the first byte of work on, at least four

    def quarter(self, number: int) -> Sequence[Reading]:
        """The readings of quarter 0 to 3 of the run."""
        length = len(self.readings)
        return self.readings[number * length // 4 : (number + 1) * length // 4]

    @property
    def memory_growth(self) -> float:
        """Median memory of the last quarter over that of the second one."""
        second, last = (median(one.memory for one in self.quarter(k)) for k in (1, 3))
        return last / second

    @property
    def descriptor_growth(self) -> int:
        """Most open files in the last quarter less the most in the second one."""
        second, last = (max(one.descriptors for one in self.quarter(k)) for k in (1, 3))
        return last - second

    def faults(self, largest_growth: float) -> list[str]:
        """What ought not to be, a sentence each; the limit is one for `memory_growth`."""
        found = []
        if self.exit_code != 0:
            found.append(f"exit code {self.exit_code}")
        if len(self.readings) < 4:
            return [*found, f"{len(self.readings)} readings: the run is too short to be judged"]
        if self.memory_growth >= largest_growth:
            found.append(f"memory grew by a factor of {self.memory_growth:.3f}")
        if self.descriptor_growth > 0:
            found.append(f"{self.descriptor_growth} more files are open at the end")
        return found


def watch(call: Sequence[str], working: Path, interval: float) -> Watched:
    """Run the call, with a reading every `interval` seconds from when there is a file in `working`.

    What comes before, the loading of libraries, is no work.
    """
    began = time.monotonic()
    first = 0.0
    readings: list[Reading] = []
    with subprocess.Popen(call) as process:
        while process.poll() is None:
            now = time.monotonic()
            if readings or any(working.iterdir()):
                first = first or now
                reading = read(process.pid, now - first)
                readings += [] if reading is None else [reading]
            time.sleep(interval)
    return Watched(process.returncode, time.monotonic() - began, readings)


def read(process: int, seconds: float) -> Reading | None:
    """A reading of the process; None if it just ended."""
    folder = Path("/proc") / str(process)
    try:
        lines = (folder / "status").read_text(encoding="ascii", errors="replace").splitlines()
        descriptors = sum(1 for _ in (folder / "fd").iterdir())
    except OSError:
        return None
    status = dict(line.split(":", 1) for line in lines)
    if "VmRSS" not in status:
        return None
    memory = int(status["VmRSS"].split()[0]) / 1024
    return Reading(seconds, memory, descriptors, int(status["Threads"]))
