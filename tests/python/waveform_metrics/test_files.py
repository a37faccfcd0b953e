"""Files of metrics, and the command that writes them."""

from __future__ import annotations

import re
from pathlib import Path

import h5py
import numpy as np
import pyarrow.csv
import pyarrow.parquet
import pytest

import fullwaveform
from fullwaveform import MetricsSettings
from fullwaveform.data.columns import arrow_schema
from fullwaveform.waveform_metrics.columns import FLAG_MEANINGS, metrics_columns

from ..support.command_line import run

DOCUMENT = Path(__file__).resolve().parents[3] / "docs" / "metrics.md"


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    assert run("simulate", path, "--shots", "300").exit_code == 0
    return path


@pytest.mark.parametrize("ending", ["csv", "parquet", "h5"])
def test_workers_write_equal_bytes(scan: Path, tmp_path: Path, ending: str) -> None:
    written = []
    for workers in (1, 2, 5):
        path = tmp_path / f"{workers}" / f"metrics.{ending}"
        path.parent.mkdir()
        call = ["metrics", scan, "-o", path, "--smoothing", "2", "--block", "50"]
        result = run(*call, "--workers", workers)
        assert result.exit_code == 0, result.output
        written.append(path.read_bytes())
    assert written[0] == written[1] == written[2]


def test_formats_hold_the_same_table(scan: Path, tmp_path: Path) -> None:
    found = fullwaveform.metrics(scan, MetricsSettings(smoothing=2.0))
    for ending in ("csv", "parquet", "h5"):
        assert found.write(tmp_path / f"m.{ending}") == 600
    parquet = pyarrow.parquet.read_table(tmp_path / "m.parquet")
    csv = pyarrow.csv.read_csv(tmp_path / "m.csv")
    with h5py.File(tmp_path / "m.h5") as hdf5:
        for name, values in found.columns.items():
            np.testing.assert_array_equal(parquet[name].to_numpy(), values)
            np.testing.assert_array_equal(csv[name].to_numpy().astype(values.dtype), values)
            np.testing.assert_array_equal(hdf5[name][:], values)
        assert hdf5["rh_98"].attrs["unit"] == "m"
    assert b'"smoothing": "2.0"' in parquet.schema.metadata[b"fullwaveform"]


def test_only_files_of_metrics_are_replaced(scan: Path, tmp_path: Path) -> None:
    path = tmp_path / "table.csv"
    assert run("extract", scan, "-o", path).exit_code == 0
    echoes = path.read_bytes()
    result = run("metrics", scan, "-o", path, "--overwrite")
    assert result.exit_code == 2
    assert "is not a CSV file of metrics" in result.stderr
    assert path.read_bytes() == echoes
    other = tmp_path / "metrics.csv"
    assert run("metrics", scan, "-o", other).exit_code == 0
    assert run("metrics", scan, "-o", other).exit_code == 2
    assert run("metrics", scan, "-o", other, "--overwrite").exit_code == 0


@pytest.mark.parametrize(
    ("option", "value", "message"),
    [
        ("--smoothing", "wide", "'wide' must be a number"),
        ("--projection", "0", "--projection: 0.0 must be above 0"),
        ("--profile-step", "0.001", "at most 1000 are allowed"),
    ],
)
def test_invalid_parameters_are_usage_errors(
    scan: Path, tmp_path: Path, option: str, value: str, message: str
) -> None:
    result = run("metrics", scan, "-o", tmp_path / "m.csv", option, value)
    assert result.exit_code == 2
    assert message in result.stderr
    assert list(tmp_path.iterdir()) == []


def test_unknown_ending_is_a_usage_error(scan: Path, tmp_path: Path) -> None:
    result = run("metrics", scan, "-o", tmp_path / "m.las")
    assert result.exit_code == 2
    assert "must end in .parquet, .csv, .h5 or .hdf5" in result.stderr


def test_documented_example_runs(
    scan: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    (code,) = re.findall(r"```python\n(.*?)```", DOCUMENT.read_text(encoding="utf-8"), re.DOTALL)
    monkeypatch.chdir(scan.parent)
    exec(compile(code, "metrics.md", "exec"), {})
    assert capsys.readouterr().out.startswith("[")


def test_documented_columns_flags_and_defaults_are_those_of_the_table() -> None:
    text = DOCUMENT.read_text(encoding="utf-8")
    schema = arrow_schema(metrics_columns(MetricsSettings(), ("beam", "shot_number")))
    listed = re.findall(r"^\| `(\w+)`[^|]*\| (\w+) \| (\S+(?: ns| unit of the input|)) \| (.*) \|$",
                        text, flags=re.MULTILINE)  # fmt: skip
    described = {name: rest for name, *rest in listed}
    for field in schema:
        repeated = re.fullmatch(r"(rh|gap|pai)_(\d+)m?", field.name)
        if repeated and field.name not in ("rh_0", "gap_5m", "pai_5m"):
            assert f"`{repeated[1]}_" in text
            continue
        unit, meaning = (field.metadata[key].decode() for key in (b"unit", b"description"))
        row = f"| {field.type} | {unit} | {meaning} |"
        assert re.search(rf"^\| `{field.name}`[^|]* {re.escape(row)}$", text, re.MULTILINE), row
    assert described
    for flag, meaning in FLAG_MEANINGS.items():
        assert f"| {int(flag)} | {meaning} |" in text
    settings = MetricsSettings()
    for name in MetricsSettings.__dataclass_fields__:
        assert re.search(rf"^\| `{name}` \| {getattr(settings, name):g}\b", text, re.MULTILINE)
