"""A web server, and files of every format."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from fullwaveform.io import remote_store

from ...support import compressed_scenes, las_scenes, pulsewaves_scenes, row_scenes
from ...support.hdf5_scenes import five_shots, two_beams
from ...support.web_server import WebServer, serving
from .stores import (
    Bucket,
    GoogleBucket,
    S3Bucket,
    address_of,
    google_bucket,
    google_server,
    s3_bucket,
    s3_server,
)


@pytest.fixture
def server(monkeypatch: pytest.MonkeyPatch) -> Iterator[WebServer]:
    """A web server; failed requests are repeated without delay."""
    monkeypatch.setattr(remote_store, "WAITS", (0.0, 0.0))
    with serving() as started:
        yield started


@pytest.fixture(scope="session")
def server_of_s3() -> Iterator[Any]:
    with s3_server() as started:
        yield started


@pytest.fixture(scope="session")
def server_of_gs() -> Iterator[Any]:
    with google_server() as started:
        yield started


@pytest.fixture
def s3(server_of_s3: Any, monkeypatch: pytest.MonkeyPatch) -> Iterator[S3Bucket]:
    with s3_bucket(f"http://{address_of(server_of_s3)}", monkeypatch) as bucket:
        yield bucket


@pytest.fixture
def gs(server_of_gs: Any, monkeypatch: pytest.MonkeyPatch) -> Iterator[GoogleBucket]:
    with google_bucket(server_of_gs, monkeypatch) as bucket:
        yield bucket


@pytest.fixture(params=["s3", "gs"])
def bucket(request: pytest.FixtureRequest) -> Bucket:
    """The bucket of each store."""
    found: Bucket = request.getfixturevalue(request.param)
    return found


@pytest.fixture(scope="session")
def formats(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """A small file of each format by its name, with its companion next to it."""
    folder = tmp_path_factory.mktemp("formats")
    las = las_scenes.four_shots().write(folder / "scan.las")
    files = {
        "las": las,
        "las with packets": las_scenes.four_shots(inside=True).write(folder / "inside.las"),
        "laz": las_scenes.compressed(las, folder / "scan.laz"),
        "pulsewaves": pulsewaves_scenes.three_pulses().write(folder / "pulses.pls"),
        "compressed pulsewaves": compressed_scenes.write_compressed(
            pulsewaves_scenes.three_pulses(), folder / "compressed.plz"
        ),
        "gedi": two_beams().write(folder / "gedi.h5"),
        "lvis": five_shots().write(folder / "lvis.h5"),
        "container": row_scenes.as_container(las, folder / "container.h5"),
        "npz": row_scenes.as_npz(las, folder / "scan.npz"),
    }
    return files
