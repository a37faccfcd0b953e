"""How soon a run over many small inputs works: files opened and measured per second, first part.

Usage: many_inputs.py [FILES]    (default: 1000)
Writes a simulated scan of 100 shots FILES times to a temporary folder and extracts the copies with
`extract_many`, with threads and with two processes, each in a new interpreter. Times are seconds
since the start of the interpreter by the clock, and processor time of this interpreter, which other
programs on the machine do not change; with threads that is the time of the work itself.
"""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path
from tempfile import TemporaryDirectory

FILES = 1000
_STAGES = {"files opened": "opened", "files measured": "measured", "parts done": "parts"}


def _processor_time() -> float:
    used = os.times()
    return used.user + used.system


def _extract(folder: Path, kind: str, started: float) -> None:
    """Extract all scans of the folder and print when each stage began to give results and ended."""
    from fullwaveform import extract_many
    from fullwaveform.cluster.executors import local_executor

    found: dict[str, dict[str, float]] = {}

    def note(stage: str, done: int, total: int) -> None:
        now = {"clock": time.time() - started, "processor": _processor_time()}
        if done == 1:
            found[f"first {_STAGES[stage]}"] = now
        if done == total:
            found[f"all {_STAGES[stage]}"] = now

    sources = sorted(folder.glob("*.las"))
    units = len(sources) if kind == "processes" else 1
    with local_executor(2, units) as executor:
        chosen = executor if kind == "processes" else None
        extract_many(sources, folder / kind, executor=chosen, threshold=20, progress=note)
    print(json.dumps(found))


def _copies(folder: Path, files: int) -> None:
    from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

    scan = write_scan(simulate_scan(ScanSettings(shots=100)), folder / "scan0000.las").las
    for number in range(1, files):
        for suffix in (".las", ".wdp"):
            shutil.copyfile(scan.with_suffix(suffix), folder / f"scan{number:04d}{suffix}")


def main(files: int) -> None:
    """Print the times."""
    with TemporaryDirectory() as name:
        folder = Path(name)
        _copies(folder, files)
        for kind in ("threads", "processes"):
            call = [sys.executable, __file__, "--child", name, kind, repr(time.time())]
            done = subprocess.run(call, capture_output=True, text=True, check=True)
            found = json.loads(done.stdout)
            print(f"{files} files, {kind}: seconds by the clock (processor time)")
            for stage, times in found.items():
                print(f"  {stage:15} {times['clock']:6.2f} ({times['processor']:5.2f})")
            for stage, before in (("opened", None), ("measured", "all opened")):
                start = 0.0 if before is None else found[before]["clock"]
                rate = files / (found[f"all {stage}"]["clock"] - start)
                print(f"  {stage} per second: {rate:,.0f}")


if __name__ == "__main__":
    if sys.argv[1:2] == ["--child"]:
        _extract(Path(sys.argv[2]), sys.argv[3], float(sys.argv[4]))
    else:
        main(int(sys.argv[1]) if len(sys.argv) > 1 else FILES)
