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


def locked(lines: list[str]) -> dict[str, str]:
    """Name -> line of the lock file."""
    return {normalised(line.split("==")[0]): line for line in lines if "==" in line}


def main() -> None:
    """Print one requirement per line."""
    document = tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))
    lowest = at_lower_bounds(document["project"])
    pins = locked((ROOT / "requirements.lock").read_text(encoding="utf-8").splitlines())
    development = {
        name: pins[name] for name in map(normalised, document["dependency-groups"]["dev"])
    }
    print(*(development | lowest).values(), sep="\n")


if __name__ == "__main__":
    main()
