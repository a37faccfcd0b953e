"""The tables of docs/dependencies.md are those of the files that tools read."""

from __future__ import annotations

import re
import tomllib
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[3]
REQUIREMENT = re.compile(r"([A-Za-z0-9_.-]+(?:\[[a-z]+\])?)(.*)")


def project() -> dict[str, Any]:
    return tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))


def tables(heading: str) -> list[list[list[str]]]:
    """Rows of cells of each table below the heading, without their first rows."""
    document = (ROOT / "docs" / "dependencies.md").read_text(encoding="utf-8")
    (section,) = re.findall(rf"^## {heading}\n(.*?)(?=^## |\Z)", document, re.DOTALL | re.MULTILINE)
    found = re.findall(r"(?:^\|.*\n)+", section, re.MULTILINE)
    rows = [[line.strip("|").split("|") for line in table.splitlines()[2:]] for table in found]
    return [[[cell.strip() for cell in row] for row in table] for table in rows]


def split(requirement: str) -> tuple[str, str]:
    match = REQUIREMENT.fullmatch(requirement)
    assert match is not None
    return match[1], match[2]


def expanded(rows: list[list[str]]) -> dict[str, str]:
    """Package -> version, where a row may have several of both."""
    found = {}
    for names, versions, why in rows:
        assert why
        each = names.split(", ")
        known = versions.split(", ")
        found |= dict(
            zip(each, known if len(known) == len(each) else known * len(each), strict=True)
        )
    return found


def locked() -> dict[str, str]:
    lines = (ROOT / "requirements.lock").read_text(encoding="utf-8").splitlines()
    pins = [line.split("==") for line in lines if not line.startswith("#")]
    assert all(len(pin) == 2 for pin in pins)
    assert len({name for name, _ in pins}) == len(pins), "a package is named twice"
    return {re.sub("[-_.]+", "-", name).lower(): version for name, version in pins}


def test_runtime_packages_are_documented() -> None:
    plain, extras = tables("Python, at run time")
    assert expanded(plain) == dict(map(split, project()["project"]["dependencies"]))
    stated: dict[str, list[tuple[str, str]]] = {}
    for extra, name, version, why in extras:
        assert why
        stated.setdefault(extra, []).append((name, version))
    optional = project()["project"]["optional-dependencies"]
    assert stated == {extra: list(map(split, needs)) for extra, needs in optional.items()}


def test_build_and_test_packages_are_documented() -> None:
    (rows,) = tables("Python, to build and to test")
    groups = project()["dependency-groups"]
    build = dict(map(split, project()["build-system"]["requires"]))
    bench = dict(map(split, groups["bench"]))
    dev = {name: "locked" for name in groups["dev"]}
    assert expanded(rows) == {**dev, **bench, **build}


def test_every_package_is_locked_once() -> None:
    versions = locked()
    groups = project()["dependency-groups"]
    needed = [*project()["project"]["dependencies"], *groups["dev"]]
    names = {split(one)[0].partition("[")[0] for one in needed} | {"lazrs"}
    assert names <= set(versions)
    for name, version in map(split, project()["build-system"]["requires"]):
        assert version == f"=={versions[name]}"


def test_debian_packages_are_documented() -> None:
    (rows,) = tables(r"C\+\+")
    lines = (ROOT / "packages.debian").read_text(encoding="utf-8").splitlines()
    stated = [name for names, _, why in rows for name in names.split(", ") if why]
    assert sorted(stated) == sorted(line for line in lines if not line.startswith("#"))
