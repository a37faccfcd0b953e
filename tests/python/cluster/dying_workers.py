"""Computes all units of a run in eight processes, in random order; a third kill their process.

Called with the folder and a seed. A unit that is chosen to die kills its process whenever it is
computed: in the middle of its part, between part and record, or in the middle of the record. Some
units are computed by two processes. Prints the numbers of the units that die, as JSON.
"""

from __future__ import annotations

import json
import os
import random
import signal
import sys
from collections.abc import Iterator
from importlib import import_module
from pathlib import Path
from typing import Any

from fullwaveform.cluster import folder as folder_module
from fullwaveform.cluster import work
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.manifest import Manifest
from fullwaveform.cluster.run import run_part

PROCESSES = 8
REPEATED = 3  # units of each process that others compute as well
#: Loaded once, before the processes are forked, each of which would take 0.3 s for it.
LOADED = ("pandas", "fullwaveform.io.las.reader", "fullwaveform.io.echo_writers.csv")


def die(*_: Any) -> None:
    os.kill(os.getpid(), signal.SIGKILL)


def in_the_part() -> None:
    counted = work._counted

    def cut(extracted: Any, outcome: Any) -> Iterator[Any]:
        for number, block in enumerate(counted(extracted, outcome)):
            if number == 1:
                die()
            yield block

    work._counted = cut


def before_the_record() -> None:
    JobFolder.write_record = die  # type: ignore[method-assign]


def in_the_record() -> None:
    flush = folder_module._flush

    def cut(path: Path) -> None:
        if ".record.json" in path.name:
            os.truncate(path, path.stat().st_size // 2)
            die()
        flush(path)

    folder_module._flush = cut


DEATHS = (in_the_part, before_the_record, in_the_record)


def compute(manifest: Manifest, folder: JobFolder, units: list[int], dying: dict[int, int]) -> None:
    for unit in units:
        if unit in dying:
            DEATHS[dying[unit]]()
        run_part(manifest, manifest.parts[unit], folder, threads=1)


def start(manifest: Manifest, folder: JobFolder, units: list[int], dying: dict[int, int]) -> int:
    """Process ID of a child that computes the units."""
    child = os.fork()
    if child == 0:
        try:
            compute(manifest, folder, units, dying)
        except BaseException as error:
            print(repr(error), file=sys.stderr, flush=True)
            os._exit(1)
        os._exit(0)
    return child


def main(path: str, seed: str) -> None:
    for name in LOADED:
        import_module(name)
    folder = JobFolder(path)
    manifest = folder.read_manifest()
    chance = random.Random(int(seed))
    units = list(range(len(manifest.parts)))
    dying = {unit: chance.randrange(len(DEATHS)) for unit in chance.sample(units, len(units) // 3)}
    chance.shuffle(units)
    shares = [units[n::PROCESSES] + chance.sample(units, REPEATED) for n in range(PROCESSES)]
    running = {start(manifest, folder, share, dying): share for share in shares}
    while running:
        child, status = os.wait()
        share = running.pop(child)
        dead = next((number for number, unit in enumerate(share) if unit in dying), None)
        expected = 0 if dead is None else signal.SIGKILL
        assert status == expected, f"exit status {status}, expected {expected}"
        if dead is not None:
            rest = share[dead + 1 :]
            running[start(manifest, folder, rest, dying)] = rest
    print(json.dumps(sorted(dying)))


if __name__ == "__main__":
    main(*sys.argv[1:])
