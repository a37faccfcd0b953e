"""Who is answered, and with what; over real connections."""

from __future__ import annotations

import http.client
import json
import re
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

import numpy as np
import pytest

from ..support.child_processes import TIMEOUT_S
from ..support.command_line import run
from . import scenes
from .serving import served_scene


@dataclass
class Client:
    """Asks a running server."""

    folder: Path
    address: str

    @property
    def port(self) -> int:
        return urlsplit(self.address).port or 0

    @property
    def token(self) -> str:
        return urlsplit(self.address).path.strip("/")

    def get(self, path: str, **headers: str) -> tuple[int, bytes, dict[str, str]]:
        """Status, content and headers of the answer to a request for a whole path."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=TIMEOUT_S)
        try:
            connection.putrequest("GET", path, skip_host="Host" in headers)
            for name, value in headers.items():
                connection.putheader(name, value)
            connection.endheaders()
            answer = connection.getresponse()
            return answer.status, answer.read(), {k.lower(): v for k, v in answer.getheaders()}
        finally:
            connection.close()

    def data(self, path: str) -> Any:
        status, content, _ = self.get(f"/{self.token}/{path}")
        assert status == 200, content
        return json.loads(content)

    def error(self, path: str) -> tuple[int, str]:
        status, content, _ = self.get(f"/{self.token}/{path}")
        return status, json.loads(content)["error"]


@pytest.fixture(scope="module")
def served(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Client]:
    folder = tmp_path_factory.mktemp("served")
    with served_scene(folder) as running:
        yield Client(folder, running.address)


def test_address_is_of_this_machine_and_has_a_token(served: Client) -> None:
    assert re.fullmatch(r"http://127\.0\.0\.1:\d+/[\w-]{32}/", served.address)


def test_page_and_its_files_are_served(served: Client) -> None:
    for name, kind in (
        ("", "text/html"),
        ("style.css", "text/css"),
        ("app.js", "text/javascript"),
        ("libraries/libraries.min.js", "text/javascript"),
        ("libraries/LICENSES.txt", "text/plain"),
    ):
        status, content, headers = served.get(f"/{served.token}/{name}")
        assert (status, headers["content-type"]) == (200, f"{kind}; charset=utf-8")
        assert content


def test_page_needs_nothing_from_elsewhere(served: Client) -> None:
    """No file of the page names another address, but for the namespaces of SVG."""
    page = Path(__file__).parents[3] / "python" / "fullwaveform" / "view" / "page"
    names = sorted(path.name for path in page.iterdir() if path.is_file())
    assert len(names) >= 10
    for name in names:
        _, content, _ = served.get(f"/{served.token}/{name if name != 'index.html' else ''}")
        assert content
        assert b"//" not in content.replace(b"// ", b"")


def test_answers_forbid_inline_code_and_other_sources(served: Client) -> None:
    for path in (f"/{served.token}/", f"/{served.token}/session", "/", f"/{served.token}/none"):
        _, _, headers = served.get(path)
        policy = headers["content-security-policy"]
        assert "default-src 'none'" in policy
        assert "unsafe" not in policy
        assert headers["x-content-type-options"] == "nosniff"
        assert headers["referrer-policy"] == "no-referrer"
        assert headers["cache-control"] == "no-store"


@pytest.mark.parametrize(
    "path", ["/", "/session", "/x/", "/x/session", "//session", "/{cut}/session", "/{token}"]
)
def test_requests_without_the_token_are_refused(served: Client, path: str) -> None:
    path = path.format(cut=served.token[:-1], token=served.token)
    status, content, _ = served.get(path)
    assert status == 403
    assert b"viewer that has ended" in content


@pytest.mark.parametrize("host", ["localhost", "attacker.example", "127.0.0.1", "127.0.0.1:1"])
def test_requests_under_another_name_are_refused(served: Client, host: str) -> None:
    status, _, _ = served.get(f"/{served.token}/session", Host=host)
    assert status == 421


def test_requests_of_another_origin_are_refused(served: Client) -> None:
    path = f"/{served.token}/session"
    assert served.get(path, Origin="http://attacker.example")[0] == 403
    assert served.get(path, Origin="null")[0] == 403
    assert served.get(path, Origin=f"http://127.0.0.1:{served.port}")[0] == 200


@pytest.mark.parametrize(
    "name",
    [
        "../server.py",
        "..%2fserver.py",
        "%2e%2e/server.py",
        "/etc/passwd",
        "%2Fetc%2Fpasswd",
        "libraries/../../server.py",
        "libraries/package.json",
        "page/index.html",
    ],
)
def test_no_other_file_is_served(served: Client, name: str) -> None:
    assert served.get(f"/{served.token}/{name}")[0] == 404


def test_session_describes_files_and_choices(served: Client) -> None:
    session = served.data("session")
    assert session["title"] == "scan.las"
    assert session["waveforms"] == 5
    assert [layer["echoes"] for layer in session["layers"]] == [7]
    assert [mode["name"] for mode in session["modes"]] == [
        "three-point",
        "decomposition",
        "deconvolution",
        "hybrid",
        "pulse-fit",
    ]
    assert str(served.folder) not in json.dumps(session)


def test_waveform_has_samples_levels_and_echoes(served: Client) -> None:
    panel = served.data("waveforms/1?mode=three-point&mode=decomposition&threshold=25")
    assert panel["shot"] == 1
    (waveform,) = panel["waveforms"]
    assert waveform["samples"] == scenes.waveform(scenes.SHOTS[1])
    assert waveform["threshold"] == 25
    # 10 + 200 exp(-d^2/8) > 25 for d < 4.55 and 10 + 80 exp(-d^2/8) > 25 for d < 3.66; a segment
    # ends with the samples that are not above the threshold any more.
    assert waveform["segments"] == [[15, 25], [36, 44]]
    for method in waveform["methods"]:
        assert method["positions"] == pytest.approx([20.0, 40.0], abs=0.02)
        assert method["amplitudes"] == pytest.approx([200.0, 80.0], abs=1.0)
        # Samples are rounded to counts, of 80 at the second echo.
        assert method["widths"] == pytest.approx([2.0, 2.0], abs=0.1)
    assert waveform["methods"][0]["residuals"] == [[], []]
    residuals = waveform["methods"][1]["residuals"][1]
    assert max(abs(rest) for rest in residuals if rest is not None) < 1.0


def test_threshold_decides_what_is_found(served: Client) -> None:
    def echoes(threshold: str) -> int:
        panel = served.data(f"waveforms/2?mode=three-point&threshold={threshold}")
        return len(panel["waveforms"][0]["methods"][0]["positions"])

    assert [echoes(text) for text in ("25", "100", "200", "400")] == [3, 2, 1, 0]


def test_moves_answer_the_echo_or_the_waveform(served: Client) -> None:
    assert served.data("layers/0/next/shot?waveform=1")["waveform"] == 2
    assert served.data("layers/0/next/shot?waveform=1&step=-1")["row"] == 0
    empty = served.data("layers/0/next/empty?waveform=0")
    assert empty == {"index": None, "waveform": 3, "row": None, "xyz": None}
    assert served.data("layers/0/next/many?waveform=0&limit=1")["waveform"] == 1
    assert served.data("layers/0/next/chi?waveform=0&limit=2.4")["waveform"] == 2
    assert served.data("layers/0/next/chi?waveform=4&limit=2.4") is None


@pytest.mark.parametrize(
    ("path", "message"),
    [
        ("waveforms/5", "waveforms are numbered 0 to 4"),
        ("waveforms/0?mode=nine", "nine"),
        ("waveforms/0?threshold=-3", "invalid number '-3'"),
        ("waveforms/0?scanner=1", "no scanner description 1"),
        ("waveforms/0?mode=deconvolution", "needs the scanner's system wave"),
        ("waveforms/0/picture.exe", "unknown picture format 'exe'"),
        ("layers/1/points?nodes=0", "no file of echoes 1"),
        ("layers/0/points?nodes=0,x", "invalid number 'x'"),
        ("layers/0/next/chi?waveform=0&limit=nan", "invalid limit 'nan'"),
        ("layers/0/next/up?waveform=0", "unknown move 'up'"),
        ("layers/0/next/echo?echo=7&waveform=0", "no echo 7; the index has 7"),
        ("layers/0/next/shot?waveform=5", "waveforms are numbered 0 to 4"),
        ("layers/0/next/shot?waveform=99999", "waveforms are numbered 0 to 4"),
        ("layers/0/next/empty?waveform=99999", "waveforms are numbered 0 to 4"),
        ("layers/0/echoes/7", "no echo 7"),
        ("layers/0/selection?box=1,2,3", "invalid box '1,2,3'"),
        ("layers/0/selection?slab=1,2,3", "invalid box of a side view '1,2,3'"),
        ("layers/0/selection?bars=amplitude:x", "invalid bar 'x'"),
        ("layers/0/selection?bars=up:1", "no histogram of 'up'"),
        ("layers/1/selection", "no file of echoes 1"),
        ("layers/0/selection.las", "cannot be saved as 'las'; formats"),
    ],
)
def test_invalid_requests_are_explained(served: Client, path: str, message: str) -> None:
    status, error = served.error(path)
    assert status == 400
    assert message in error


@pytest.mark.parametrize("kind", ["png", "svg", "pdf"])
def test_picture_is_that_of_its_command(
    served: Client, kind: str, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    query = "mode=three-point&mode=decomposition&threshold=25"
    path = f"/{served.token}/waveforms/2/picture.{kind}?{query}"
    _, content, headers = served.get(path)
    assert headers["content-disposition"] == f'attachment; filename="shot-2.{kind}"'
    command = served.data(f"waveforms/2?{query}")["command"].replace("shot-2.svg", f"shot-2.{kind}")
    monkeypatch.chdir(tmp_path)
    call = command.split()
    assert call[:2] == ["fullwaveform", "plot"]
    assert run(*call[1:]).exit_code == 0
    assert (tmp_path / f"shot-2.{kind}").read_bytes() == content


def test_points_are_binary(served: Client) -> None:
    _, content, headers = served.get(f"/{served.token}/layers/0/points?nodes=0")
    assert headers["content-type"] == "application/octet-stream"
    assert sorted(np.frombuffer(content, "<f4", 7).tolist()) == [0.0] * 4 + [80.0] * 3


def test_selection_is_counted(served: Client) -> None:
    found = served.data("layers/0/selection?box=70,-10,90,90&bars=echo_number:1&bars=class:2,3,4")
    assert (found["echoes"], found["shots"]) == (2, 2)
    assert found["values"]["class"] == [0, 0, 1, 0, 1]
    assert [fit["waveform"] for fit in found["worst"]] == [4, 1]


def test_selection_is_saved_as_a_file(served: Client) -> None:
    path = f"/{served.token}/layers/0/selection.csv?box=70,-10,90,90"
    status, content, headers = served.get(path)
    lines = (served.folder / "echoes.csv").read_bytes().splitlines(keepends=True)
    assert status == 200
    assert content == b"".join(lines[row] for row in (0, 2, 3, 7))
    assert headers["content-disposition"] == 'attachment; filename="selected-echoes.csv"'
    assert headers["content-length"] == str(len(content))
    assert headers["x-content-type-options"] == "nosniff"


def test_selection_is_counted_without_the_file_of_its_echoes(tmp_path: Path) -> None:
    with served_scene(tmp_path) as running:
        client = Client(tmp_path, running.address)
        (tmp_path / "echoes.csv").unlink()
        found = client.data("layers/0/selection?box=70,-10,90,90")
        assert (found["echoes"], found["formats"]) == (3, [])
        status, error = client.error("layers/0/selection.csv")
        assert status == 410
        assert error.endswith("the file was removed or renamed since the viewer was started")


def test_noise_is_measured_for_a_selection(tmp_path: Path) -> None:
    with served_scene(tmp_path) as running:
        client = Client(tmp_path, running.address)
        query = "layers/0/selection?bars=noise:" + ",".join(map(str, range(48)))
        assert client.data("layers/0/selection")["noise"] is None
        assert client.data(query)["echoes"] == 7
        assert sum(client.data("noise")["counts"]) == 5
        assert sum(client.data("layers/0/selection")["noise"]) == 4  # those with echoes
        running.scan.unlink()
        assert client.data(query)["echoes"] == 7


def test_noise_of_the_waveforms_is_described(served: Client) -> None:
    noise = served.data("session")["noise"]
    assert sum(noise["counts"]) == 5
