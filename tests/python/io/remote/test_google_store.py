"""Files at gs://, in an emulator of the store on the loopback interface."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from gcp_storage_emulator.server import Router

from fullwaveform.io import remote_store
from fullwaveform.io.atomic import ANY_FILE, atomic_path
from fullwaveform.io.remote import location

from ...support.child_processes import TIMEOUT_S, environment
from ...support.command_line import run
from .stores import GoogleBucket

MEBIBYTE = 1 << 20


def test_ranges_are_read(gs: GoogleBucket) -> None:
    content = np.random.default_rng(1).bytes(1_000_000)
    gs.put("f", content)
    path = location("gs://scans/f")
    with path.open("rb") as stream:
        stream.seek(900_000)
        assert stream.read(1000) == content[900_000:901_000]
    kept = path.source._blocks  # type: ignore[attr-defined]
    assert 0 < sum(map(len, kept.values())) < MEBIBYTE // 2
    assert path.stat().st_mtime > 1e9


def test_run_in_a_bucket(gs: GoogleBucket, formats: dict[str, Path], tmp_path: Path) -> None:
    url, job = gs.store(formats["gedi"]), "gs://scans/job"
    for call in (
        ("plan", url, "-o", job, "--blocks-per-part", "1", "--block", "1", "--quiet"),
        ("run", job, "--units", "0-4"),
        ("join", job, "-o", "gs://scans/joined.parquet", "--verify-remote"),
        ("extract", formats["gedi"], "-o", tmp_path / "extracted.parquet", "--quiet"),
    ):
        result = run(*call)
        assert result.exit_code == 0, result.output
    joined = gs.get("joined.parquet")
    assert joined == (tmp_path / "extracted.parquet").read_bytes()
    again = run("extract", url, "-o", "gs://scans/joined.parquet", "--quiet")
    assert again.exit_code == 2
    assert "already exists; use --overwrite" in " ".join(again.stderr.split())
    replaced = run("extract", url, "-o", "gs://scans/joined.parquet", "--overwrite", "--quiet")
    assert replaced.exit_code == 0, replaced.output


def test_large_output_appears_when_it_is_complete(
    gs: GoogleBucket, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(remote_store, "_PIECE", MEBIBYTE)
    content = np.random.default_rng(1).bytes(3 * MEBIBYTE + 5)
    with atomic_path("gs://scans/large", ANY_FILE) as temporary:
        temporary.write_bytes(content)
        assert not gs.client.exists("scans/large")
    assert gs.get("large") == content


@pytest.mark.parametrize("size", [1000, 3 * MEBIBYTE])
def test_object_that_appears_during_the_run_is_kept(
    gs: GoogleBucket, monkeypatch: pytest.MonkeyPatch, size: int
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
        gs.put("new", b"first")
    assert gs.get("new") == b"first"


def test_error_is_reported_without_a_traceback(gs: GoogleBucket, formats: dict[str, Path]) -> None:
    """gcsfs logs one; in a process of its own, because pytest handles all logs."""
    url = gs.store(formats["gedi"])
    gs.faults.asking += ["400"] * 1000
    done = subprocess.run(
        [sys.executable, "-m", "fullwaveform", "info", url],
        # Without the gRPC that the emulator does not speak.
        env=environment(FSSPEC_GS_TOKEN="anon", GCSFS_EXPERIMENTAL_ZB_HNS_SUPPORT="false"),
        capture_output=True,
        text=True,
        check=False,
        timeout=TIMEOUT_S,
    )
    assert done.returncode == 1
    assert done.stderr == f"fullwaveform: cannot read {url}: , 400\n"
