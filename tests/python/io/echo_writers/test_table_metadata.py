"""Reference system and name of the input in the metadata of tables."""

from __future__ import annotations

import json
import struct
from pathlib import Path

import h5py
import laspy
import numpy as np
import pyarrow.parquet as pq
import pyproj
import pytest

from fullwaveform.io.echo_writers.opening import open_echo_file
from fullwaveform.io.reference_system import reference_system

from ...support.echo_tables import echo_table

RUN = {"input": "scan.las", "mode": "three-point fit"}


def header(code: int = 32632) -> laspy.LasHeader:
    """A header whose GeoTIFF keys name a system of the EPSG register."""
    keys = struct.pack("<8H", 1, 1, 0, 1, 3072, 0, 1, code)
    found = laspy.LasHeader(version="1.3", point_format=4)
    found.vlrs.append(laspy.VLR("LASF_Projection", 34735, "keys", keys))
    return found


def written(path: Path, source: laspy.LasHeader | None) -> Path:
    table = echo_table([3], xyz=np.array([[1.0, 2.0, 3.0], [4.0, 5.0, np.nan], [7.0, 8.0, 9.0]]))
    with open_echo_file(path, source, RUN) as writer:
        writer.write(table)
    return path


def stored(path: Path) -> dict[str, str]:
    """How the echoes were made, as the file has it."""
    if path.suffix == ".csv":
        text = path.with_name(f"{path.name}-metadata.json").read_text()
        (note,) = json.loads(text)["notes"]
        return dict(note["fullwaveform"])
    if path.suffix == ".parquet":
        return dict(json.loads(pq.read_metadata(path).metadata[b"fullwaveform"]))
    with h5py.File(path) as file:
        return dict(json.loads(file.attrs["fullwaveform"]))


@pytest.mark.parametrize("ending", [".csv", ".parquet", ".h5"])
def test_tables_name_input_and_reference_system(tmp_path: Path, ending: str) -> None:
    found = stored(written(tmp_path / f"e{ending}", header()))
    assert pyproj.CRS.from_wkt(found.pop("crs")).to_epsg() == 32632
    assert found == RUN


@pytest.mark.parametrize("ending", [".csv", ".parquet", ".h5"])
@pytest.mark.parametrize("source", [None, header(32767)])
def test_tables_without_a_known_reference_system_have_none(
    tmp_path: Path, ending: str, source: laspy.LasHeader | None
) -> None:
    assert stored(written(tmp_path / f"e{ending}", source)) == RUN


def test_parquet_is_a_layer_of_points(tmp_path: Path) -> None:
    path = written(tmp_path / "e.parquet", header())
    geo = json.loads(pq.read_metadata(path).metadata[b"geo"])
    assert (geo["version"], geo["primary_column"]) == ("1.1.0", "geometry")
    column = geo["columns"]["geometry"]
    assert (column["encoding"], column["geometry_types"]) == ("point", ["Point Z"])
    assert pyproj.CRS.from_json_dict(column["crs"]).to_epsg() == 32632
    points = pq.read_table(path)["geometry"].to_pylist()
    assert points == [{"x": 1.0, "y": 2.0, "z": 3.0}, None, {"x": 7.0, "y": 8.0, "z": 9.0}]


def test_parquet_without_reference_system_has_no_points(tmp_path: Path) -> None:
    table = pq.read_table(written(tmp_path / "e.parquet", None))
    assert "geometry" not in table.schema.names
    assert b"geo" not in table.schema.metadata


def test_metadata_of_csv_describes_its_columns(tmp_path: Path) -> None:
    path = written(tmp_path / "e.csv", None)
    content = json.loads((tmp_path / "e.csv-metadata.json").read_text())
    assert (content["@context"], content["url"]) == ("http://www.w3.org/ns/csvw", "e.csv")
    columns = content["tableSchema"]["columns"]
    assert [column["name"] for column in columns] == path.read_text().split("\n")[0].split(",")
    fwhm = next(column for column in columns if column["name"] == "fwhm_ns")
    assert (fwhm["schema:unitText"], fwhm["datatype"]) == ("ns", "number")


def test_failed_csv_leaves_no_metadata(tmp_path: Path) -> None:
    writer = open_echo_file(tmp_path / "e.csv", None, RUN)
    with pytest.raises(RuntimeError, match="halfway"), writer:
        raise RuntimeError("halfway")
    assert list(tmp_path.iterdir()) == []


def test_reference_system_of_records_after_the_points() -> None:
    source = laspy.LasHeader(version="1.4", point_format=9)
    wkt = pyproj.CRS.from_epsg(25832).to_wkt("WKT1_GDAL").encode() + b"\0"
    source.evlrs = laspy.vlrs.vlrlist.VLRList([laspy.VLR("LASF_Projection", 2112, "", wkt)])
    system = reference_system(source)
    assert system is not None
    assert system.to_epsg() == 25832


@pytest.mark.parametrize("text", [b"", b"LOCAL", b"\xff\xfe"])
def test_reference_system_that_is_not_understood(text: bytes) -> None:
    source = laspy.LasHeader(version="1.4", point_format=9)
    source.vlrs.append(laspy.VLR("LASF_Projection", 2112, "", text))
    assert reference_system(source) is None
