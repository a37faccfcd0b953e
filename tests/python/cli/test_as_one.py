"""The option --as-one: the parts of a flight line give one output."""

from __future__ import annotations

import json
from pathlib import Path

import pyarrow.parquet
import pytest

from ..support.command_line import assert_error, assert_usage, names, run, succeeded, words
from ..support.flight_lines import compressed, flight_line, in_parts, plain
from ..support.las_scenes import four_shots


@pytest.fixture
def parts(tmp_path: Path) -> list[Path]:
    return in_parts(flight_line(), [4, 1, 6], tmp_path / "parts", plain, compressed)


@pytest.fixture
def whole(tmp_path: Path) -> Path:
    return plain(flight_line(), tmp_path / "whole")


@pytest.mark.parametrize(
    "options", [["--workers", "1"], ["--workers", "2", "--block", "3"], ["--block", "1"]]
)
def test_echoes_of_parts_are_those_of_the_line(
    parts: list[Path], whole: Path, options: list[str], tmp_path: Path
) -> None:
    found, expected = tmp_path / "found.csv", tmp_path / "expected.csv"
    result = run("extract", *parts, "-o", found, "--as-one", "--threshold", "20", *options)
    assert result.exit_code == 0, result.output
    run("extract", whole, "-o", expected, "--threshold", "20")
    assert found.read_bytes() == expected.read_bytes()
    # 11 pulses of 1, 2 and 3 segments in turn, each with one echo, and the header line.
    assert len(found.read_text(encoding="ascii").splitlines()) == 22


def test_without_the_option_each_part_has_an_output(parts: list[Path], tmp_path: Path) -> None:
    result = run("extract", *parts, "-o", tmp_path / "out", "--format", "csv")
    assert result.exit_code == 0, result.output
    outputs = [name for name in names(tmp_path / "out") if name.endswith(".csv")]
    assert outputs == ["line_1.csv", "line_2.csv", "line_3.csv"]


def test_names_of_all_parts_are_metadata(parts: list[Path], tmp_path: Path) -> None:
    for command in ("extract", "metrics"):
        output = tmp_path / f"{command}.parquet"
        result = run(command, *parts, "-o", output, "--as-one")
        assert result.exit_code == 0, result.output
        metadata = b" ".join(pyarrow.parquet.read_schema(output).metadata.values())
        assert b'"input": "line_1.plz, line_2.pls, line_3.plz"' in metadata


@pytest.mark.parametrize(
    ("command", "output", "options"),
    [
        ("metrics", "out.csv", ["--smoothing", "2"]),
        ("pulses", "out.parquet", []),
        ("convert", "out.h5", []),
        ("voxels", "out.tif", ["--size", "5"]),
        ("plot", "out.svg", ["--waveform", "20"]),
    ],
)
def test_other_commands(
    command: str, output: str, options: list[str], parts: list[Path], whole: Path, tmp_path: Path
) -> None:
    contents = []
    for folder, sources in (("found", [*parts, "--as-one"]), ("expected", [whole])):
        (tmp_path / folder).mkdir()
        target = tmp_path / folder / output
        place = [target] if command == "convert" else ["-o", target]
        result = run(command, *sources, *place, *options)
        assert result.exit_code == 0, result.output
        contents.append(target.read_bytes())
    if command == "voxels":  # whose metadata has the names of the inputs
        contents = [_bands(tmp_path / folder / output) for folder in ("found", "expected")]
    assert contents[0] == contents[1]


def _bands(path: Path) -> bytes:
    rasterio = pytest.importorskip("rasterio")
    with rasterio.open(path) as volume:
        values: bytes = volume.read().tobytes()
    return values


@pytest.mark.parametrize("options", [[], ["--sample"], ["--channel", "1=high"]])
def test_contents_of_parts_are_those_of_the_line(
    parts: list[Path], whole: Path, options: list[str]
) -> None:
    found, expected = (
        json.loads(succeeded("info", *sources, "--json", *options))
        for sources in ([*parts, "--as-one"], [whole])
    )
    assert (found.pop("file"), expected.pop("file")) == (str(parts[0]), str(whole))
    assert (found.pop("files"), expected.pop("files")) == ([*map(str, parts)], [str(whole)])
    assert found == expected
    assert found["points"] == 11


def test_table_of_contents_has_the_number_of_parts(parts: list[Path]) -> None:
    table = words(succeeded("info", *parts, "--as-one"))
    assert "line_1.plz and 2 more: PulseWaves" in table
    assert "points 11" in table


def test_contents_of_one_file_at_a_time(parts: list[Path]) -> None:
    result = run("info", *parts)
    assert_usage(result, "3 inputs; give one, or the parts of a flight line with --as-one")


@pytest.mark.parametrize("command", ["metrics", "pulses", "voxels", "plot"])
def test_one_output_needs_one_input(command: str, parts: list[Path], tmp_path: Path) -> None:
    suffix = {"metrics": "csv", "voxels": "tif", "plot": "png"}.get(command, "parquet")
    options = {"voxels": ["--size", "1"], "plot": ["--waveform", "0"]}.get(command, [])
    result = run(command, *parts, "-o", tmp_path / f"out.{suffix}", *options)
    assert_usage(result, "3 inputs; give one, or the parts of a flight line with --as-one")


def test_a_folder_is_for_several_outputs(parts: list[Path], tmp_path: Path) -> None:
    result = run("extract", *parts, "-o", tmp_path, "--as-one")
    assert_usage(result, "does not apply to output in a folder")
    result = run("extract", *parts, "-o", tmp_path / "out", "--as-one", "--format", "csv")
    assert_usage(result, "does not apply to output in a folder")


def test_tiles_of_another_format_are_refused(tmp_path: Path) -> None:
    tiles = [four_shots().write(tmp_path / name) for name in ("a.las", "b.las")]
    result = run("extract", *tiles, "-o", tmp_path / "out.csv", "--as-one")
    assert_error(result, "a.las is not a PulseWaves pulse file; only the parts of a PulseWaves")


def test_parts_are_inputs_that_no_output_replaces(parts: list[Path]) -> None:
    # Of the second part, whose samples the output would replace.
    result = run("convert", *parts, parts[1].with_suffix(".wvs"), "--as-one")
    assert result.exit_code == 2
    linked = parts[1].with_name("out.h5")
    linked.symlink_to(parts[1])
    assert_usage(run("convert", *parts, linked, "--as-one", "--overwrite"), "line_2.pls")


def test_a_cluster_refuses_it(parts: list[Path], tmp_path: Path) -> None:
    result = run("cluster", *parts, "-o", tmp_path / "out", "--scheduler", "local", "--as-one")
    assert_usage(result, "join the files with convert --as-one and extract the result")
    assert not (tmp_path / "out").exists()
