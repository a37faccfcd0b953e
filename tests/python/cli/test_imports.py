"""Which libraries a command loads: each takes longer to load than many a run takes."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import pytest

from fullwaveform.cli.app import COMMANDS

from ..support.command_line import run

# Without these, half of the time of a short run is spent on the modules of NumPy and laspy.
NOT_FOR_EXTRACTION = (
    "pydantic",  # validation of the option parser
    "requests",  # optional library of laspy
    "rich",  # tables and progress bars
    "secrets",
    "tempfile",
)
HEAVY = ("dask", "h5py", "matplotlib", "pandas", "pyarrow", "pyproj", "rasterio", "scipy", "zarr")


def loaded(*call: str | Path) -> set[str]:
    """Modules that a successful run has loaded in a new process."""
    program = (
        "import atexit, json, sys\n"
        "atexit.register(lambda: print(json.dumps(sorted(sys.modules)), file=sys.stderr))\n"
        "from fullwaveform.cli.main import main\n"
        "main()\n"
    )
    done = subprocess.run(
        [sys.executable, "-c", program, *map(str, call)], capture_output=True, text=True, check=True
    )
    return set(json.loads(done.stderr.splitlines()[-1]))


def packages(modules: set[str]) -> set[str]:
    return {module.partition(".")[0] for module in modules}


@pytest.mark.parametrize("option", ["--help", "--version"])
def test_help_loads_no_command(option: str) -> None:
    modules = loaded(option)
    assert packages(modules).isdisjoint({*HEAVY, "numpy", "laspy", "rich", "pydantic"})
    assert not [name for name in modules if name.startswith("fullwaveform.cli.extract")]
    assert len(modules) < 300


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    assert run("simulate", path, "--shots", "50").exit_code == 0
    return path


def test_extraction_of_las_loads_neither_plots_nor_tables_nor_statistics(
    scan: Path, tmp_path: Path
) -> None:
    modules = loaded("extract", scan, "-o", tmp_path / "echoes.las")
    assert packages(modules).isdisjoint(HEAVY)
    assert "numpy" in modules
    assert "fullwaveform.io.pulsewaves.reader" not in modules


def test_quiet_extraction_of_las_loads_few_modules(scan: Path, tmp_path: Path) -> None:
    modules = loaded("extract", scan, "-o", tmp_path / "echoes.las", "-q", "--workers", "1")
    assert packages(modules).isdisjoint(NOT_FOR_EXTRACTION)
    assert modules.isdisjoint({"numpy.ma", "numpy.polynomial"})
    assert len(modules) < 500


def test_contents_of_las_load_no_tables(scan: Path) -> None:
    modules = loaded("info", scan, "--json", "-q")
    assert packages(modules).isdisjoint(set(HEAVY) - {"pyproj"})


def test_formats_load_their_library(scan: Path, tmp_path: Path) -> None:
    assert "pyarrow" in loaded("extract", scan, "-o", tmp_path / "echoes.parquet")
    assert "h5py" in loaded("extract", scan, "-o", tmp_path / "echoes.h5")
    assert "scipy" in loaded("extract", scan, "-o", tmp_path / "even.las", "--smoothing", "1")


@pytest.mark.parametrize("command", COMMANDS)
def test_summary_is_the_first_line_of_the_docstring(command: str) -> None:
    first = (COMMANDS[command].load().__doc__ or "").partition("\n")[0]
    assert f"{COMMANDS[command].summary}." == first
