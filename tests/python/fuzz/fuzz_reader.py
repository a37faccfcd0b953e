"""Reads a file repeatedly, each time with different bytes changed.

Usage: fuzz_reader.py READER SEED_FILE SECONDS MIN_INPUTS SEED

A reader may reject a file with an OSError or a ValueError. Any other exception, an input that takes
longer than 15 s of processor time, and one that needs more than a gigabyte end the run with exit
code 1; the input is then stored next to the seed file. A file of samples (.wdp, .wvs, .wvz) is
changed in one of four.
"""

from __future__ import annotations

import random
import resource
import shutil
import signal
import sys
import time
import traceback
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

from mutation import mutated
from readers import READERS

_LONGEST = 15.0  # s of processor time for one input
_MEMORY = 2**30  # bytes beyond what the process has at its start
_COMPANIONS = (".wdp", ".wvs", ".wvz")


class TooLongError(BaseException):
    """Not an Exception, so that no reader takes it for its own."""


def _too_long(*_: object) -> None:
    raise TooLongError


def _limit_memory() -> None:
    pages = int(Path("/proc/self/statm").read_text().split()[0])
    limit = pages * resource.getpagesize() + _MEMORY
    resource.setrlimit(resource.RLIMIT_AS, (limit, limit))


def _change(seed: Path, chance: random.Random) -> Path:
    """Writes the next input into a separate folder."""
    target = seed.parent / "input" / seed.name
    files = [
        seed,
        *(seed.with_suffix(end) for end in _COMPANIONS if seed.with_suffix(end).exists()),
    ]
    chosen = files[-1] if chance.random() < 0.25 else seed
    for file in files:
        content = file.read_bytes()
        changed = mutated(content, chance) if file is chosen else content
        (target.parent / file.name).write_bytes(changed)
    return target


def main() -> int:
    """Runs for the given time and at least the given number of inputs."""
    name, seed, seconds, least, number = sys.argv[1], Path(sys.argv[2]), *map(float, sys.argv[3:])
    read, chance = READERS[name], random.Random(int(number))
    read(seed)
    (seed.parent / "input").mkdir(exist_ok=True)
    signal.signal(signal.SIGPROF, _too_long)
    _limit_memory()
    inputs, refused, begin = 0, 0, time.monotonic()
    while inputs < least or time.monotonic() - begin < seconds:
        inputs += 1
        path = _change(seed, chance)
        signal.setitimer(signal.ITIMER_PROF, _LONGEST)
        try:
            read(path)
        except (OSError, ValueError):
            refused += 1
        except BaseException:
            traceback.print_exc()
            kept = path.parent.with_name(f"failed-{inputs}")
            shutil.copytree(path.parent, kept, dirs_exist_ok=True)
            print(f"{name}: input {inputs} failed, see {kept}", file=sys.stderr)
            return 1
        finally:
            signal.setitimer(signal.ITIMER_PROF, 0.0)
    print(f"{name}: {inputs} inputs, {refused} refused")
    return 0


if __name__ == "__main__":
    sys.exit(main())
