"""What object stores have in common: inputs, outputs that appear when complete, failures."""

from __future__ import annotations

import re
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io import remote_store
from fullwaveform.io.atomic import ANY_FILE, atomic_path
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import location

from ...support.command_line import assert_error, run
from ...support.row_scenes import same
from .stores import Bucket

failing = pytest.mark.parametrize("fault", ["503", "cut"])
#: The only request of a small object, and that of the first part of a large one.
in_some_request = pytest.mark.parametrize(("size", "requests_before"), [("small", 0), ("large", 1)])


@pytest.fixture
def contents(bucket: Bucket, monkeypatch: pytest.MonkeyPatch) -> dict[str, bytes]:
    """What is stored by one request, and in three parts."""
    monkeypatch.setattr(remote_store, "_PIECE", bucket.piece)
    content = np.random.default_rng(1).bytes(2 * bucket.piece + 5)
    return {"small": content[:1000], "large": content}


@pytest.mark.parametrize("name", ["las", "laz", "compressed pulsewaves", "gedi"])
def test_blocks_are_those_of_the_local_file(
    bucket: Bucket, formats: dict[str, Path], name: str
) -> None:
    url = bucket.store(formats[name])
    with open_waveforms(formats[name]) as local, open_waveforms(url) as remote:
        ours, theirs = list(local.blocks()), list(remote.blocks())
    assert len(ours) > 0
    assert all(same(one, other) for one, other in zip(ours, theirs, strict=True))


@pytest.mark.parametrize("error", [ValueError("invalid"), KeyboardInterrupt()])
def test_failed_run_stores_nothing(bucket: Bucket, error: BaseException) -> None:
    with (
        pytest.raises(type(error)),
        atomic_path(bucket.url("out"), ANY_FILE) as temporary,
    ):
        temporary.write_bytes(b"half")
        raise error
    assert bucket.names() == []
    assert not temporary.exists()


@pytest.mark.parametrize(
    ("size", "parts_before"), [("small", 0), ("large", 0), ("large", 1), ("large", 3)]
)
def test_interrupted_upload_stores_nothing(
    bucket: Bucket,
    contents: dict[str, bytes],
    monkeypatch: pytest.MonkeyPatch,
    size: str,
    parts_before: int,
) -> None:
    checks = iter([False] * parts_before + [True])

    def interrupt() -> None:
        if next(checks):
            raise KeyboardInterrupt

    with (
        pytest.raises(KeyboardInterrupt),
        atomic_path(bucket.url("out"), ANY_FILE) as temporary,
    ):
        temporary.write_bytes(contents[size])
        monkeypatch.setattr(remote_store, "raise_if_requested", interrupt)
    assert bucket.names() == []
    assert bucket.unfinished_uploads() == 0


@in_some_request
@failing
def test_sending_that_fails_is_repeated(
    bucket: Bucket,
    contents: dict[str, bytes],
    monkeypatch: pytest.MonkeyPatch,
    size: str,
    requests_before: int,
    fault: str,
) -> None:
    monkeypatch.setenv("AWS_MAX_ATTEMPTS", "4")
    with atomic_path(bucket.url("new"), ANY_FILE) as temporary:
        temporary.write_bytes(contents[size])
        bucket.faults.sending += [*[""] * requests_before, fault, fault]
    assert bucket.faults.sending == []
    assert bucket.get("new") == contents[size]
    assert bucket.unfinished_uploads() == 0


@pytest.mark.parametrize("fault", ["503", "cut", "half"])
def test_reading_that_fails_is_repeated(
    bucket: Bucket, monkeypatch: pytest.MonkeyPatch, fault: str
) -> None:
    monkeypatch.setenv("AWS_MAX_ATTEMPTS", "4")
    content = np.random.default_rng(1).bytes(1_000_000)
    bucket.put("new", content)
    path = location(bucket.url("new"))
    assert path.stat().st_size == len(content)
    bucket.faults.asking += [fault, fault]
    assert path.read_bytes() == content
    assert bucket.faults.asking == []


@in_some_request
@failing
def test_upload_that_keeps_failing_leaves_nothing(
    bucket: Bucket,
    contents: dict[str, bytes],
    monkeypatch: pytest.MonkeyPatch,
    size: str,
    requests_before: int,
    fault: str,
) -> None:
    monkeypatch.setattr("s3fs.core.S3FileSystem.retries", 2)
    url = bucket.url("new")
    with (
        pytest.raises(OSError, match=f"cannot write {re.escape(url)}: "),
        atomic_path(url, ANY_FILE) as temporary,
    ):
        temporary.write_bytes(contents[size])
        bucket.faults.sending += [*[""] * requests_before, *[fault] * 1000]
    bucket.faults.sending.clear()
    assert bucket.names() == []
    assert bucket.unfinished_uploads() == 0


def test_reading_that_keeps_failing_is_reported(
    bucket: Bucket, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr("s3fs.core.S3FileSystem.retries", 2)
    bucket.put("new", bytes(1000))
    path = location(bucket.url("new"))
    path_text = str(path)
    assert path.stat().st_size == 1000
    bucket.faults.asking += ["503"] * 1000
    with pytest.raises(OSError, match=f"cannot read {re.escape(path_text)}: .*(503|Service Unav)"):
        path.read_bytes()
    bucket.faults.asking.clear()


def test_missing_object(bucket: Bucket) -> None:
    with pytest.raises(FileNotFoundError) as caught:
        open_waveforms(bucket.url("missing.las"))
    assert caught.value.filename == bucket.url("missing.las")


def test_missing_bucket_is_reported_before_the_work(
    bucket: Bucket, formats: dict[str, Path]
) -> None:
    url = f"{bucket.scheme}://nowhere/echoes.csv"
    result = run("extract", formats["gedi"], "-o", url, "--quiet")
    assert_error(result, f"cannot write {url}", "does not exist")
