"""``fullwaveform convert``: scan containers that give the same echoes."""

from __future__ import annotations

import re
from pathlib import Path

import h5py
import laspy
import numpy as np
import pytest

from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.command_line import assert_error, assert_usage, names, run
from ..support.las_scenes import data_folder

ROOT = Path(__file__).resolve().parents[3]
DESCRIPTION = """
"Scanner Group Velocity" = 299708256.0
"Scanner Serial Number" = "S 17"
"Scanner Type" = "tester"
"Wavelength[nm]" = 1064.0
"UnambiguousRange" = 1000.0
reflectance_calculation_delta = 0.125
ampl_unit = 0.5
reflectance_calculation_table = []
t_ref = 1e-9

[after_pulse]
offset = 3
width = 1
"""


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    write_scan(simulate_scan(ScanSettings(shots=150, seed=5)), path)
    return path


def echoes_in(path: Path) -> bytes:
    """The echoes of a file without its header, which names the input."""
    if path.suffix == ".csv":
        return path.read_bytes()
    with laspy.open(path) as reader:
        header = reader.header
        assert header.point_count > 0
        start, size = header.offset_to_point_data, header.point_format.size * header.point_count
    return path.read_bytes()[start : start + size]


def test_container_gives_the_same_echoes(scan: Path, tmp_path: Path) -> None:
    converted = tmp_path / "scan.h5"
    done = run("convert", scan, converted, "--channel", "2=high", "--block", "40")
    assert done.exit_code == 0, done.output
    with open_waveforms(scan) as reader:
        waveforms = sum(map(len, reader.blocks()))
    assert done.stdout.splitlines()[0] == f"{waveforms:,} waveforms: {converted}"
    for ending in ("csv", "las"):
        one, other = tmp_path / f"one.{ending}", tmp_path / f"other.{ending}"
        # A container does not hold the scanner's returns, whose class echoes carry.
        call = ("--mode", "decomposition", "--threshold", "20", "--no-carry", "-q")
        assert run("extract", scan, "-o", one, "--channel", "2=high", *call).exit_code == 0
        assert run("extract", converted, "-o", other, *call).exit_code == 0
        assert one.stat().st_size > 5_000
        assert echoes_in(one) == echoes_in(other)


@pytest.mark.parametrize(
    "name", ["las/topo_2ns.las", "pulsewaves/topo_1ns.pls", "pulsewaves/saturated_1ns.pls"]
)
def test_real_waveforms_give_the_same_echoes(name: str, tmp_path: Path) -> None:
    source = data_folder() / name
    if not source.exists():
        pytest.skip(f"no {name} in the folder of real waveforms")
    assert run("convert", source, tmp_path / "scan.h5", "-q").exit_code == 0
    one, other = tmp_path / "one.las", tmp_path / "other.las"
    for scan, echoes in ((source, one), (tmp_path / "scan.h5", other)):
        options = ("--threshold", "8", "--no-carry", "--outgoing-phase", "off", "-q")
        done = run("extract", scan, "-o", echoes, *options)
        assert done.exit_code == 0, done.output
    first, second = laspy.read(one), laspy.read(other)
    assert len(first.points) > 100
    for name in first.point_format.dimension_names:
        # The baseline is measured on waveforms spread over the points of a file, and a container
        # has one of them for each waveform.
        tolerance = {"amplitude": 0.01, "intensity": 1.0}.get(name, 0.0)  # counts
        # So is the noise, to which standard deviations are proportional.
        relative = 0.003 if name.startswith("sigma_") and name != "sigma_ns" else 0.0
        values = (np.asarray(points[name], np.float64) for points in (second, first))
        np.testing.assert_allclose(*values, rtol=relative, atol=tolerance)


def test_scanner_description_is_copied(scan: Path, tmp_path: Path) -> None:
    toml, first, second = tmp_path / "s.toml", tmp_path / "first.h5", tmp_path / "second.hdf5"
    toml.write_text(DESCRIPTION, encoding="utf-8")
    assert run("convert", scan, first, "--scanner", toml, "-q").exit_code == 0
    assert run("convert", first, second, "-q").exit_code == 0
    for path in (first, second):
        with open_waveforms(path) as reader:
            scanner = reader.scanner()
        assert scanner is not None
        assert scanner.attributes["ampl_unit"] == 0.5
        assert scanner.attributes["t_ref"] == 1e-9
        assert scanner.after_pulse is not None
        assert (scanner.after_pulse.offset, scanner.after_pulse.width) == (3, 1)
    with open_waveforms(scan) as reader:
        assert (reader.scanner(), reader.scanner_attributes()) == (None, None)


def test_archive_with_an_unreadable_waveform(tmp_path: Path) -> None:
    samples = np.arange(6, dtype=np.uint16).reshape(2, 3)
    np.savez(tmp_path / "a.npz", samples=samples, shot_times=[1.0, np.nan])
    source, target = tmp_path / "a.npz", tmp_path / "a.h5"
    assert_error(run("convert", source, target), "sampling_interval", "--interval")
    call = ["convert", source, target, "--interval", "0.5"]
    reason = "(1 x GPS time not finite)"
    assert_error(run(*call), "1 unreadable waveform", reason, "--skip-unreadable")
    assert not target.exists()
    done = run(*call, "--skip-unreadable")
    assert done.stdout.splitlines() == [
        f"1 waveform: {target}",
        "1 skipped: GPS time not finite",
    ]
    with h5py.File(target) as file:
        fields = file["waveforms/StandardCartesianChart3D"]
        assert fields["Waveforms"][:].tolist() == [[0, 1, 2]]
        assert fields["SampleInterval"][:].tolist() == [0.5e-9]
        assert "las" not in file
    assert run("convert", source, target, "--interval", "0.5", "-q", "--overwrite").stdout == ""


def test_invalid_calls(scan: Path, tmp_path: Path) -> None:
    assert_usage(run("convert", scan, tmp_path / "a.las"), "must end in .h5 or .hdf5")
    container = tmp_path / "a.h5"
    assert run("convert", scan, container, "-q").exit_code == 0
    assert_usage(run("convert", container, container, "--overwrite"), "is the input file")
    container = tmp_path / "b.h5"
    for interval in ("0", "-1", "nan", "inf"):
        call = ("convert", scan, container, "--interval", interval)
        assert_usage(run(*call), "must be a finite number above 0, in ns")
    assert_usage(run("convert", scan, container, "--channel", "up"), "'up' must be low, high")
    assert_error(run("convert", scan, container, "--interval", "1"), "stores its sampling interval")


def test_failed_run_leaves_no_file(scan: Path, tmp_path: Path) -> None:
    (tmp_path / "a.txt").write_text("x", encoding="utf-8")
    assert_error(run("convert", tmp_path / "a.txt", tmp_path / "a.h5"), "not a waveform file")
    assert_error(run("convert", tmp_path / "none", tmp_path / "a.h5"), "No such file")
    lonely = tmp_path / "lonely.las"
    lonely.write_bytes(scan.read_bytes())
    assert_error(run("convert", lonely, tmp_path / "a.h5"), "lonely.wdp does not exist")
    lonely.with_suffix(".wdp").write_bytes(scan.with_suffix(".wdp").read_bytes()[:60])
    assert_error(run("convert", lonely, tmp_path / "a.h5"), "no readable waveform")
    assert names(tmp_path) == ["a.txt", "lonely.las", "lonely.wdp"]


def test_code_of_the_document_reads_a_container(
    scan: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    document = (ROOT / "docs" / "file-formats.md").read_text(encoding="utf-8")
    (code,) = re.findall(r"```python\n(import h5py\n.*?)```", document, flags=re.DOTALL)
    assert len(list(filter(None, code.splitlines()))) == 10
    assert run("convert", scan, tmp_path / "scan.h5", "-q").exit_code == 0
    monkeypatch.chdir(tmp_path)
    found: dict[str, np.ndarray] = {}
    exec(compile(code, "file-formats.md", "exec"), found)
    with open_waveforms(scan) as reader:
        (block,) = reader.blocks()
    assert np.array_equal(found["samples"], block.samples)
    assert np.array_equal(found["counts"], block.counts)
    assert np.array_equal(found["anchor"], block.geometry.anchor)
    row = 7
    peak = int(np.argmax(block.samples[row]))
    lead = block.geometry.location[row] - peak * block.sampling_intervals[row] * 1e12
    point = block.geometry.anchor[row] + lead * block.geometry.direction[row]
    np.testing.assert_allclose(found["points"][row], point, rtol=0, atol=1e-9)
