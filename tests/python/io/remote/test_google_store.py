"""Files at gs://, in an emulator of the store on the loopback interface."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from fsspec.registry import _registry
from gcp_storage_emulator.server import Router, create_server
from gcsfs.core import GCSFileSystem

from fullwaveform.io import remote_store
from fullwaveform.io.atomic import ANY_FILE, atomic_path
from fullwaveform.io.companions import with_companions
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import location

from ...support.command_line import assert_error, run
from ...support.row_scenes import same

MEBIBYTE = 1 << 20


@pytest.fixture(scope="module")
def store_address() -> Iterator[str]:
    server = create_server("127.0.0.1", 0, in_memory=True, default_bucket="scans")
    server.start()
    yield f"http://127.0.0.1:{server._api._httpd.server_address[1]}"
    server.stop()


@pytest.fixture
def bucket(store_address: str, monkeypatch: pytest.MonkeyPatch) -> Iterator[Any]:
    """The store with the empty bucket "scans", found by the environment."""
    monkeypatch.setenv("STORAGE_EMULATOR_HOST", store_address)
    monkeypatch.setattr("fsspec.config.conf", {"gs": {"token": "anon"}})
    # The class that gcsfs registers asks for the kind of a bucket by gRPC, which the emulator does
    # not speak, for a minute; it then does the same.
    monkeypatch.setitem(_registry, "gs", GCSFileSystem)
    GCSFileSystem.clear_instance_cache()
    system = GCSFileSystem(token="anon", endpoint_url=store_address)
    yield system
    for name in system.find("scans"):
        system.rm_file(name)
    GCSFileSystem.clear_instance_cache()


def store(bucket: Any, path: Path) -> str:
    """Stores a file and its companions; returns the URL."""
    for file in {one for one in with_companions(path) if one.is_file()}:
        bucket.pipe_file(f"scans/in/{file.name}", file.read_bytes())
    return f"gs://scans/in/{path.name}"


@pytest.mark.parametrize("name", ["las", "laz", "compressed pulsewaves", "gedi"])
def test_blocks_are_those_of_the_local_file(
    bucket: Any, formats: dict[str, Path], name: str
) -> None:
    url = store(bucket, formats[name])
    with open_waveforms(formats[name]) as local, open_waveforms(url) as remote:
        ours, theirs = list(local.blocks()), list(remote.blocks())
    assert len(ours) > 0
    assert all(same(one, other) for one, other in zip(ours, theirs, strict=True))


def test_ranges_are_read(bucket: Any) -> None:
    content = np.random.default_rng(1).bytes(1_000_000)
    bucket.pipe_file("scans/f", content)
    path = location("gs://scans/f")
    with path.open("rb") as stream:
        stream.seek(900_000)
        assert stream.read(1000) == content[900_000:901_000]
    kept = path.source._blocks  # type: ignore[attr-defined]
    assert 0 < sum(map(len, kept.values())) < MEBIBYTE // 2
    assert path.stat().st_mtime > 1e9


def test_run_in_a_bucket(bucket: Any, formats: dict[str, Path], tmp_path: Path) -> None:
    url, job = store(bucket, formats["gedi"]), "gs://scans/job"
    for call in (
        ("plan", url, "-o", job, "--blocks-per-part", "1", "--block", "1", "--quiet"),
        ("run", job, "--units", "0-4"),
        ("join", job, "-o", "gs://scans/joined.parquet", "--verify-remote"),
        ("extract", formats["gedi"], "-o", tmp_path / "extracted.parquet", "--quiet"),
    ):
        result = run(*call)
        assert result.exit_code == 0, result.output
    joined = bucket.cat_file("scans/joined.parquet")
    assert joined == (tmp_path / "extracted.parquet").read_bytes()
    again = run("extract", url, "-o", "gs://scans/joined.parquet", "--quiet")
    assert again.exit_code == 2
    assert "already exists; use --overwrite" in " ".join(again.stderr.split())
    replaced = run("extract", url, "-o", "gs://scans/joined.parquet", "--overwrite", "--quiet")
    assert replaced.exit_code == 0, replaced.output


def test_large_output_appears_when_it_is_complete(
    bucket: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(remote_store, "_PIECE", MEBIBYTE)
    content = np.random.default_rng(1).bytes(3 * MEBIBYTE + 5)
    with atomic_path("gs://scans/large", ANY_FILE) as temporary:
        temporary.write_bytes(content)
        assert not bucket.exists("scans/large")
    assert bucket.cat_file("scans/large") == content


@pytest.mark.parametrize("size", [1000, 3 * MEBIBYTE])
def test_failed_upload_stores_nothing(
    bucket: Any, monkeypatch: pytest.MonkeyPatch, size: int
) -> None:
    monkeypatch.setattr(remote_store, "_PIECE", MEBIBYTE)
    monkeypatch.setattr(remote_store, "raise_if_requested", raise_interrupt)
    with (
        pytest.raises(KeyboardInterrupt),
        atomic_path("gs://scans/out", ANY_FILE) as temporary,
    ):
        temporary.write_bytes(bytes(size))
    assert bucket.find("scans") == []


def raise_interrupt() -> None:
    raise KeyboardInterrupt


def test_missing_objects_and_buckets(bucket: Any, formats: dict[str, Path]) -> None:
    with pytest.raises(FileNotFoundError) as caught:
        open_waveforms("gs://scans/missing.las")
    assert caught.value.filename == "gs://scans/missing.las"
    result = run("extract", formats["gedi"], "-o", "gs://nowhere/echoes.csv", "--quiet")
    assert_error(result, "cannot write gs://nowhere/echoes.csv", "does not exist")


@pytest.mark.parametrize("size", [1000, 3 * MEBIBYTE])
def test_object_that_appears_during_the_run_is_kept(
    bucket: Any, monkeypatch: pytest.MonkeyPatch, size: int
) -> None:
    handle = Router.handle

    def with_conditions(self: Any, method: str) -> None:
        """Refuses to create an object that exists, which the emulator leaves out."""
        connection = self._request_handler
        if "ifGenerationMatch=0" in connection.path and bucket_has_new(connection.storage):
            connection.close_connection = True
            connection.send_response(412)
            connection.send_header("Content-Length", "0")
            connection.end_headers()
        else:
            handle(self, method)

    def bucket_has_new(storage: Any) -> bool:
        return "new" in storage.objects.get("scans", {})

    monkeypatch.setattr(Router, "handle", with_conditions)
    monkeypatch.setattr(remote_store, "_PIECE", MEBIBYTE)
    with (
        pytest.raises(FileExistsError, match="gs://scans/new already exists"),
        atomic_path("gs://scans/new", ANY_FILE) as temporary,
    ):
        temporary.write_bytes(bytes(size))
        bucket.pipe_file("scans/new", b"first")
    assert bucket.cat_file("scans/new") == b"first"
