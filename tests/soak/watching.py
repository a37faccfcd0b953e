"""Memory and descriptors of a running process over time, from /proc."""

from __future__ import annotations

import subprocess
import time
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from statistics import median


@dataclass(frozen=True)
class Reading:
    """State of a process at one time."""

    seconds: float  # since the first reading
    memory: float  # MB, resident
    descriptors: int  # open files
    threads: int


@dataclass(frozen=True)
class WatchedProcess:
    """Exit code and readings of a process."""

    exit_code: int
    seconds: float
    readings: Sequence[Reading]  # from the first output file on

    def quarter(self, number: int) -> Sequence[Reading]:
        """The readings of quarter 0 to 3 of the run."""
        length = len(self.readings)
        return self.readings[number * length // 4 : (number + 1) * length // 4]

    @property
    def memory_growth(self) -> float:
        """Median memory in the last quarter over that in the second quarter."""
        second, last = (median(reading.memory for reading in self.quarter(k)) for k in (1, 3))
        return last / second

    @property
    def descriptor_growth(self) -> int:
        """Maximum of open files in the last quarter minus that in the second quarter."""
        second, last = (max(reading.descriptors for reading in self.quarter(k)) for k in (1, 3))
        return last - second

    def failures(self, max_growth: float) -> list[str]:
        """Messages about a failed run or growth; `max_growth` limits `memory_growth`."""
        found = []
        if self.exit_code != 0:
            found.append(f"exit code {self.exit_code}")
        if len(self.readings) < 4:
            return [*found, f"{len(self.readings)} readings; the run is too short"]
        if self.memory_growth >= max_growth:
            found.append(f"memory grew by a factor of {self.memory_growth:.3f}")
        if self.descriptor_growth > 0:
            found.append(f"{self.descriptor_growth} more open files in the last quarter")
        return found


def watch(call: Sequence[str], working: Path, interval: float) -> WatchedProcess:
    """Run the call and read its state every `interval` seconds once there is a file in `working`.

    The time before, while libraries are loaded, is not representative.
    """
    started = time.monotonic()
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
    return WatchedProcess(process.returncode, time.monotonic() - started, readings)


def read(process: int, seconds: float) -> Reading | None:
    """A reading of the process; None if it has ended."""
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
