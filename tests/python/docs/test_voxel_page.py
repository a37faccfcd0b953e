"""The page on volumes: its commands and code run, its picture is that of the script."""

from __future__ import annotations

import re
import shlex
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
import zarr

from fullwaveform.volumes.grid import MAX_ALONG_AXIS, MAX_CROSSED, MAX_VOXELS
from fullwaveform.volumes.quantities import QUANTITIES

from ..support.command_line import run
from ..support.pictures import assert_same_picture
from .test_documents import ROOT, code_blocks, commands_of

PAGE = "docs/voxels.md"
TEXT = (ROOT / PAGE).read_text(encoding="utf-8")


def test_commands_and_code_run(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    for line in commands_of(PAGE):
        result = run(*shlex.split(line)[1:])
        assert result.exit_code == 0, result.output
    (code,) = code_blocks(PAGE, "python")
    names: dict[str, object] = {}
    exec(compile(code, "voxels.md", "exec"), names)
    assert zarr.open_group("volume.zarr")["sum"].shape == names["summary"].shape  # type: ignore[attr-defined]


def test_picture_is_that_of_the_script(tmp_path: Path) -> None:
    script = ROOT / "examples" / "python" / "draw_voxel_profile.py"
    subprocess.run([sys.executable, script, tmp_path / "voxels.png"], check=True)
    assert_same_picture(tmp_path / "voxels.png", "voxels.png")


def test_table_has_the_quantities() -> None:
    rows = re.findall(r"^\| `(\w+)` \| (\w+) \| (\w+) \|", TEXT, flags=re.MULTILINE)
    assert rows == [(q.name, np.dtype(q.dtype).name, q.unit) for q in QUANTITIES.values()]


def test_limits_are_stated() -> None:
    stated = " ".join(TEXT.split())
    assert (
        f"At most {MAX_VOXELS:,} voxels, {MAX_ALONG_AXIS:,} along an axis and {MAX_CROSSED:,} along"
        in stated
    )
