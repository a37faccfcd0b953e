"""Files on a web server: what is read of them, and what happens when the server fails."""

from __future__ import annotations

import asyncio
import gc
import re
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

import h5py
import numpy as np
import pytest
from fsspec.asyn import get_loop
from h5py._objects import phil

import fullwaveform as fw
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io import remote_store
from fullwaveform.io.collector import collector_pause
from fullwaveform.io.companions import with_companions
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import location

from ...support.child_processes import TIMEOUT_S
from ...support.row_scenes import same
from ...support.web_server import ServedFile, WebServer

FORMATS = [
    "las",
    "las with packets",
    "laz",
    "pulsewaves",
    "compressed pulsewaves",
    "gedi",
    "lvis",
    "container",
    "npz",
]
# No two parts of it are equal.
CONTENT = np.arange(1 << 18, dtype="<u4").tobytes()


def serve(server: WebServer, path: Path) -> str:
    """Serves a file and its companions; returns the URL."""
    for file in {one for one in with_companions(path) if one.is_file()}:
        server.files[file.name] = ServedFile.of(file.read_bytes())
    return server.url(path.name)


@pytest.mark.parametrize("name", FORMATS)
def test_blocks_are_those_of_the_local_file(
    server: WebServer, formats: dict[str, Path], name: str
) -> None:
    url = serve(server, formats[name])
    with open_waveforms(formats[name]) as local, open_waveforms(url) as remote:
        local.with_outgoing = remote.with_outgoing = True
        ours, theirs = list(local.blocks()), list(remote.blocks())
    assert len(ours) == len(theirs) > 0
    assert all(same(one, other) for one, other in zip(ours, theirs, strict=True))


def test_extraction_of_a_url(server: WebServer, formats: dict[str, Path]) -> None:
    found = fw.extract(serve(server, formats["gedi"]))
    expected = fw.extract(formats["gedi"])
    assert len(found) == len(expected) > 0
    for column in expected.peaks:
        np.testing.assert_array_equal(found.peaks[column], expected.peaks[column])
    with pytest.raises(OSError, match=r"cannot write http://.*web servers take no files"):
        found.write(server.url("echoes.csv"))


@pytest.mark.parametrize("fault", ["503", "cut", "silent"])
@pytest.mark.parametrize("name", ["las", "laz", "lvis"])
def test_temporary_failures_are_repeated(
    server: WebServer,
    formats: dict[str, Path],
    monkeypatch: pytest.MonkeyPatch,
    name: str,
    fault: str,
) -> None:
    monkeypatch.setattr(remote_store, "_CACHED", 0)  # so that every read is a request
    with open_waveforms(formats[name]) as local:
        expected = list(local.blocks())
    url = serve(server, formats[name])
    if fault == "silent":
        monkeypatch.setattr(remote_store, "SILENCE", 0.5)
        # On a busy machine further answers may take longer.
        monkeypatch.setattr(remote_store, "WAITS", (0.0,) * 100)
    with open_waveforms(url) as reader:
        server.faults += [fault, fault]  # the second one for the repetition
        blocks = list(reader.blocks())
    assert server.faults == []
    assert all(same(one, other) for one, other in zip(blocks, expected, strict=True))


@pytest.mark.parametrize(
    ("fault", "reason"),
    [
        ("503", "HTTP 503"),
        ("cut", "payload is not completed"),
        ("silent", "no answer within 0.5 s|Timeout"),
    ],
)
@pytest.mark.parametrize("name", ["las", "laz", "pulsewaves", "compressed pulsewaves", "gedi"])
def test_lasting_failure_names_url_and_reason(
    server: WebServer,
    formats: dict[str, Path],
    monkeypatch: pytest.MonkeyPatch,
    name: str,
    fault: str,
    reason: str,
) -> None:
    monkeypatch.setattr(remote_store, "_CACHED", 0)
    url = serve(server, formats[name])
    if fault == "silent":
        monkeypatch.setattr(remote_store, "SILENCE", 0.5)
        # On a busy machine the answers before the failure may take longer.
        monkeypatch.setattr(remote_store, "WAITS", (0.0,) * 100)
    with open_waveforms(url) as reader:
        monkeypatch.setattr(remote_store, "WAITS", (0.0, 0.0))
        server.always = fault
        expected = rf"cannot read {re.escape(server.url(''))}.*({reason}).*gave up after 3 attempts"
        with pytest.raises(OSError, match=expected):
            list(reader.blocks())


def test_connection_refused(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(remote_store, "WAITS", (0.0, 0.0))
    with pytest.raises(OSError, match=r"cannot read http://127\.0\.0\.1:1/scan\.las: "):
        open_waveforms("http://127.0.0.1:1/scan.las")


def test_missing_file(server: WebServer) -> None:
    with pytest.raises(FileNotFoundError) as caught:
        open_waveforms(server.url("scan.las"))
    assert caught.value.filename == server.url("scan.las")


def test_missing_companion(server: WebServer, formats: dict[str, Path]) -> None:
    url = serve(server, formats["las"])
    del server.files["scan.wdp"]
    with pytest.raises(FileNotFoundError, match=re.escape(server.url("scan.wdp"))):
        open_waveforms(url)


def test_other_content_is_no_waveform_file(server: WebServer) -> None:
    server.files["page"] = ServedFile.of(b"<html>not found</html>")
    with pytest.raises(WaveformFileError, match=r"http://.*/page is not a waveform file"):
        open_waveforms(server.url("page"))


def test_server_without_ranges(server: WebServer) -> None:
    server.files["scan.las"] = ServedFile.of(CONTENT)
    server.with_ranges = False
    with (
        location(server.url("scan.las")).open("rb") as stream,
        pytest.raises(OSError, match=r"scan\.las: the server does not send parts of files"),
    ):
        stream.seek(500_000)
        stream.read(10)


def test_file_that_is_replaced_while_it_is_read(server: WebServer) -> None:
    server.files["scan.las"] = ServedFile.of(CONTENT)
    with location(server.url("scan.las")).open("rb") as stream:
        stream.read(10)
        server.files["scan.las"] = ServedFile.of(CONTENT[::-1], tag='"2"')
        stream.seek(500_000)
        with pytest.raises(OSError, match="has been replaced while it was read"):
            stream.read(10)


def test_small_reads_that_follow_each_other_are_few_requests(server: WebServer) -> None:
    server.files["f"] = ServedFile.of(CONTENT)
    with location(server.url("f")).open("rb") as stream:
        parts = [stream.read(1000) for _ in range(len(CONTENT) // 1000 + 1)]
    assert b"".join(parts) == CONTENT
    # 16 KiB at first, then twice as much each time: 32 + 64 + ... reaches 1 MiB in six requests.
    assert server.requests <= 7
    assert server.sent == len(CONTENT)


def test_nothing_is_fetched_twice(server: WebServer) -> None:
    server.files["f"] = ServedFile.of(CONTENT)
    with location(server.url("f")).open("rb") as stream:
        for begin in (600_000, 300_000, 0):
            stream.seek(begin)
            assert stream.read(400_000) == CONTENT[begin : begin + 400_000]
    assert server.requests == 3
    # Each read is rounded to blocks of 16 KiB.
    assert server.sent == -(-1_000_000 // 16_384) * 16_384


def test_reads_at_any_position(server: WebServer) -> None:
    server.files["f"] = ServedFile.of(CONTENT)
    generator = np.random.default_rng(1)
    with location(server.url("f")).open("rb") as stream:
        for begin, length in zip(
            generator.integers(0, len(CONTENT), 60), generator.integers(0, 50_000, 60), strict=True
        ):
            stream.seek(begin)
            assert stream.read(length) == CONTENT[begin : begin + length]


def test_cache_is_bounded(server: WebServer, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(remote_store, "_CACHED", 8 << 20)
    size = 20 << 20
    server.files["f"] = ServedFile(size, lambda begin, end: bytes(end - begin))
    path = location(server.url("f"))
    with path.open("rb") as stream:
        while stream.read(1 << 20):
            pass
        kept = path.source._blocks  # type: ignore[attr-defined]
        assert sum(map(len, kept.values())) <= 8 << 20


def test_credentials_are_in_no_message(server: WebServer) -> None:
    server.always = "403"
    url = f"http://someone:pass%77ord@{server.address}/scan.las?token=s3cr3t&x=1#part"
    with pytest.raises(OSError, match="HTTP 403") as caught:
        open_waveforms(url)
    text = f"{caught.value} {caught.value!r} {caught.value.__cause__!r}"
    assert f"http://{server.address}/scan.las?..." in text
    for secret in ("someone", "pass%77ord", "password", "s3cr3t", "token"):
        assert secret not in text
    assert caught.value.__suppress_context__  # also in the traceback


@pytest.mark.parametrize(
    ("url", "shown", "used"),
    [
        ("me:pass@word@host/s@1.las?token=s3cr3t", "host/s@1.las?...", "me:pass@word@host/s@1.las"),
        ("me:pa/ss@host/scan.las", "host/scan.las", "me:pa%2Fss@host/scan.las"),
        ("me:pa?s/s@host:80/s@1.las", "host:80/s@1.las", "me:pa%3Fs%2Fs@host:80/s@1.las"),
        ("me:#p@/ss@host/scan.las", "host/scan.las", "me:%23p@%2Fss@host/scan.las"),
        # Port 12 of the host "me", or a password: the former is used, and the latter not shown.
        ("me:12/34@host/scan.las", "host/scan.las", "me:12/34@host/scan.las"),
        ("me:pa@ss/word@host/scan.las", "host/scan.las", "me:pa@ss/word@host/scan.las"),
        ("host:8080/scan@1.las", "host:8080/scan@1.las", "host:8080/scan@1.las"),
        ("[::1]:8080/a/b.las", "[::1]:8080/a/b.las", "[::1]:8080/a/b.las"),
        ("localhost:9000/a@1/b.las", "localhost:9000/a@1/b.las", "localhost:9000/a@1/b.las"),
        ("u:p@a.org/d@2/b.las", "a.org/d@2/b.las", "u:p@a.org/d@2/b.las"),
        ("host/me@work/scan.las", "host/me@work/scan.las", "host/me@work/scan.las"),
    ],
)
def test_passwords_with_marks_are_not_shown(url: str, shown: str, used: str) -> None:
    path = location(f"https://{url}")
    assert str(path) == f"https://{shown}"
    assert path.url.partition("?token")[0] == f"https://{used}"  # type: ignore[attr-defined]
    beside = path.parent / "a.las"
    assert str(beside).partition("?")[0] == f"https://{shown.rpartition('/')[0]}/a.las"
    assert "pa" not in path.without_credentials(f"cannot open {url}")  # type: ignore[attr-defined]
    assert "word" not in str(beside)


def test_text_without_what_may_be_a_password_is_not_stored() -> None:
    """The manifest of a job keeps the text of a URL, which would lead to another host."""
    assert location("https://me:12/34@host/scan.las").has_credentials  # type: ignore[attr-defined]
    path = location("https://localhost:9000/a@1/scan.las")
    assert not path.has_credentials  # type: ignore[attr-defined]


def test_slash_in_a_secret_key_is_not_shown() -> None:
    assert str(location("s3://KEY:wJal/K7MD@bucket/scan.las")) == "s3://bucket/scan.las"
    bucket = location("s3://KEY:wJal/K7MD@bucket")
    assert str(bucket) == "s3://bucket"
    assert bucket.url == "s3://KEY:wJal%2FK7MD@bucket"  # type: ignore[attr-defined]
    point = "s3://arn:aws:s3:eu-west-1:123456789012:accesspoint/survey/scan.las"
    assert str(location(point)) == point
    beside = point.replace("survey/", "survey/a@1/")
    assert location(beside).url == beside  # type: ignore[attr-defined]


def test_collector_does_not_wait_for_h5py_in_the_thread_of_requests(
    server: WebServer, tmp_path: Path
) -> None:
    """h5py holds its lock between two reads, and an object of it is to be collected meanwhile."""
    server.files["f"] = ServedFile.of(CONTENT)

    async def collect() -> None:
        gc.collect()

    with (
        location(server.url("f")).open("rb") as stream,
        h5py.File(tmp_path / "a.h5", "w") as file,
    ):
        cycle: list[Any] = [file.create_dataset("values", data=[1])]
        cycle.append(cycle)
        with phil:
            del cycle
            done = asyncio.run_coroutine_threadsafe(collect(), get_loop())
            done.result(TIMEOUT_S)  # reached only if the thread waits for the lock
            assert stream.read(10) == CONTENT[:10]
    assert gc.get_freeze_count() == 0


def test_collector_pauses_while_a_library_reads(server: WebServer) -> None:
    """In the thread of the requests it could wait for a lock that the reading thread holds."""
    enabled = []

    def part(begin: int, end: int) -> bytes:
        enabled.append(gc.isenabled())
        return bytes(end - begin)

    server.files["f"] = ServedFile(100, part)
    with location(server.url("f")).open("rb") as stream:
        stream.read(10)
    assert enabled == [False]
    assert gc.isenabled()


@pytest.mark.parametrize("was_enabled", [True, False])
def test_collector_pauses_until_the_last_read_ends(was_enabled: bool) -> None:
    """Reads of several threads overlap; a collector that the caller has stopped is not started."""
    try:
        if not was_enabled:
            gc.disable()
        with ThreadPoolExecutor(1) as pool:
            with collector_pause:
                pool.submit(collector_pause.__enter__).result()
                assert not gc.isenabled()
            assert not gc.isenabled()
            pool.submit(collector_pause.__exit__).result()
        assert gc.isenabled() == was_enabled
    finally:
        gc.enable()
