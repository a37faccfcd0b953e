"""Files of shots with 1, 2 and 5 threads: the same bytes."""

from __future__ import annotations

from pathlib import Path

import pytest

from ...support.command_line import run
from ...support.hdf5_scenes import GediScene, Shot, bump, lvis_scene


def gedi(path: Path) -> Path:
    """Two beams; a shot with a sample that is not a number, and a degraded one."""
    beams = {
        name: [Shot(bump(50, 15.0 + n % 13), 0.1 * n, n, degrade=n == 7) for n in range(25)]
        for name in ("BEAM0010", "BEAM1000")
    }
    beams["BEAM1000"][4].samples = [float("nan"), *bump(49)]
    return GediScene(beams).write(path)


def lvis(path: Path) -> Path:
    return lvis_scene("1.05", rows=40).write(path)


@pytest.mark.parametrize("make", [gedi, lvis])
@pytest.mark.parametrize("mode", ["three-point", "decomposition"])
def test_bytes_do_not_depend_on_workers_and_blocks(tmp_path: Path, make: object, mode: str) -> None:
    scan = make(tmp_path / "scan.h5")  # type: ignore[operator]
    found = set()
    for workers, block in ((1, 1000), (1, 3), (2, 4), (5, 1)):
        path = tmp_path / f"{workers}-{block}.csv"
        options = ["--mode", mode, "--skip-unreadable", "--block", str(block)]
        result = run("extract", scan, "-o", path, *options, "--workers", str(workers))
        assert result.exit_code == 0, result.output
        found.add(path.read_bytes())
    assert len(found) == 1
    assert found.pop().count(b"\n") >= 40
