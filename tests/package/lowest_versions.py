"""Prints requirements for the tests with the lowest version of each dependency that is allowed.

Packages that only tests and development need keep their locked versions.
"""

from __future__ import annotations

import re
import tomllib
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[2]
LOWER_BOUND = re.compile(r"([A-Za-z0-9_.-]+)(\[[a-z,]+\])?>=([0-9.]+)")


def normalised(name: str) -> str:
    """The name by which Python packages are compared."""
    return re.sub(r"[-_.]+", "-", name).lower()


def at_lower_bounds(project: dict[str, Any]) -> dict[str, str]:
    """Name -> requirement with the lowest version, for dependencies and all extras."""
    found = {}
    for requirement in [
        *project["dependencies"],
        *(one for extra in project["optional-dependencies"].values() for one in extra),
    ]:
        match = LOWER_BOUND.fullmatch(requirement)
        if match is None:
            raise SystemExit(f"pyproject.toml: {requirement!r} has no single lower bound (>=)")
        name, extra, version = match.groups(default="")
        found[normalised(name)] = f"{name}{extra}=={version}"
    return found


def at_locked_versions(names: list[str], lock: list[str]) -> dict[str, str]:
    """Name -> requirement with the locked version; a name may have an extra."""
    versions = {
        normalised(line.split("==")[0]): line.split("==")[1] for line in lock if "==" in line
    }
    plain = {normalised(name.partition("[")[0]): name for name in names}
    return {key: f"{name}=={versions[key]}" for key, name in plain.items()}


def main() -> None:
    """Print one requirement per line."""
    document = tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))
    lock = (ROOT / "requirements.lock").read_text(encoding="utf-8").splitlines()
    development = at_locked_versions(document["dependency-groups"]["dev"], lock)
    print(*(development | at_lower_bounds(document["project"])).values(), sep="\n")


if __name__ == "__main__":
    main()
