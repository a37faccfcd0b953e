"""The pages of the methods: pictures and numbers can be reproduced."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[3]
PAGES = ROOT / "docs" / "methods"
METHODS = ("three-point", "decomposition", "deconvolution", "hybrid")
Table = dict[str, list[str]]


def run_script(name: str, *arguments: Path) -> str:
    call = [sys.executable, ROOT / "examples" / "python" / name, *arguments]
    done = subprocess.run([str(word) for word in call], check=True, capture_output=True, text=True)
    return done.stdout


def table(text: str) -> Table:
    """Rows of values by the name in the first column, without titles and rules."""
    rows = [
        [cell.strip() for cell in line.strip("|").split("|")]
        for line in text.splitlines()
        if line.startswith("|") and not line.startswith("|---")
    ]
    return {row[0]: row[1:] for row in rows if re.search(r"[\d–]", "".join(row[1:]))}


@pytest.fixture(scope="module")
def measured() -> Table:
    return table(run_script("method_limits.py"))


def number(cell: str) -> float | None:
    return None if cell == "–" else float(cell.rstrip("%").replace(",", ""))


def assert_agrees(name: str, stated: str, found: str) -> None:
    """Within a step of the search or a few percent: compilers round differently, methods do not."""
    expected, value = number(found), number(stated)
    if expected is None or value is None:
        assert stated == found, name
        return
    if "%" in found:
        step = 5.0
    else:
        step = 0.25 if "separation" in name else 1.0 if "SNR" in name.split()[-1] else 0.02
    assert value == pytest.approx(expected, rel=0.1, abs=step), name


def test_pictures_of_the_pages_are_drawn_by_the_script(tmp_path: Path) -> None:
    run_script("draw_method_pictures.py", tmp_path)
    drawn = {path.name for path in tmp_path.iterdir()}
    shown = {
        name
        for page in PAGES.glob("*.md")
        for name in re.findall(r"!\[[^\]]+\]\((.+?)\)", page.read_text(encoding="utf-8"))
    }
    assert drawn == shown == {path.name for path in PAGES.glob("*.png")}
    assert all(path.read_bytes().startswith(b"\x89PNG") for path in tmp_path.iterdir())


def test_accuracy_of_deconvolved_positions_is_as_stated() -> None:
    text = (PAGES / "deconvolution.md").read_text(encoding="utf-8")
    stated = table(text.partition("## Refined positions")[2].partition("## Columns")[0])
    found = table(run_script("position_accuracy.py"))
    assert found.keys() == stated.keys()
    for snr, values in found.items():
        np.testing.assert_allclose(
            [float(value) for value in values],
            [float(value) for value in stated[snr][:2]],
            rtol=0.1,
        )


def test_uncertainties_hold_as_stated() -> None:
    stated = table((PAGES / "uncertainty.md").read_text(encoding="utf-8"))
    found = table(run_script("how_sure.py"))
    assert found.keys() == stated.keys()
    for name, cells in found.items():
        for cell, expected in zip(cells, stated[name], strict=True):
            if cell == "–":
                assert expected == "–", name
                continue
            values, others = (
                [float(v.rstrip("%")) for v in c.split(", ")] for c in (cell, expected)
            )
            step = 2.0 if "%" in cell else 0.02
            np.testing.assert_allclose(values, others, atol=step, err_msg=name)


def test_table_of_all_methods_agrees_with_the_measurement(measured: Table) -> None:
    stated = table((PAGES / "README.md").read_text(encoding="utf-8"))
    timed = {name for name in measured if name.startswith("time")}
    assert len(timed) == 1
    for name in measured.keys() - timed:
        for value, found in zip(stated[name], measured[name], strict=True):
            assert_agrees(name, value, found)


@pytest.mark.parametrize("method", METHODS)
def test_limits_of_a_page_agree_with_the_measurement(method: str, measured: Table) -> None:
    text = (PAGES / f"{method}.md").read_text(encoding="utf-8").partition("## Limits")[2]
    stated = table(text)
    assert stated.keys() == measured.keys()
    for name in (name for name in measured if not name.startswith("time")):
        (value,) = stated[name]
        assert_agrees(name, value, measured[name][METHODS.index(method)])
