"""The readers under a fuzzer that watches which lines an input reaches (atheris, libFuzzer within).

Usage: coverage_guided.py READER SEED_FILE [LIBFUZZER_OPTION...] CORPUS

Not among the packages of the tests: ``pip install atheris``. The bytes are those of the seed's own
file; a second file of the scan stays as it is. Options are those of libFuzzer, as
``-max_total_time=600 -rss_limit_mb=2048 -timeout=15``.
"""

from __future__ import annotations

import shutil
import sys
import tempfile
from pathlib import Path

import atheris

sys.path.insert(0, str(Path(__file__).parent))

with atheris.instrument_imports(include=["fullwaveform", "laspy"]):
    from readers import READERS

COMPANIONS = (".wdp", ".wvs", ".wvz")


def main() -> None:
    """Runs until libFuzzer's options end it."""
    read, seed = READERS[sys.argv[1]], Path(sys.argv[2])
    folder = Path(tempfile.mkdtemp())
    for companion in (seed.with_suffix(ending) for ending in COMPANIONS):
        if companion.exists():
            shutil.copy(companion, folder)
    path = folder / seed.name

    def read_bytes(content: bytes) -> None:
        path.write_bytes(content)
        try:
            read(path)
        except (OSError, ValueError):
            return

    atheris.Setup([sys.argv[0], *sys.argv[3:]], read_bytes)
    atheris.Fuzz()


if __name__ == "__main__":
    main()
