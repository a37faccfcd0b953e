"""Which commands read and write files at URLs, as docs/remote.md lists them."""

from __future__ import annotations

import re
from collections.abc import Iterator
from pathlib import Path

import fsspec
import numpy as np
import pytest

from fullwaveform.cli.app import COMMANDS
from fullwaveform.io.companions import with_companions
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import location
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ...support.command_line import assert_usage, run, words
from ...view import scenes

DOCUMENT = Path(__file__).resolve().parents[4] / "docs" / "remote.md"
STORE = "memory://commands"

#: A call of each command that reads files of waveforms or echoes; {in} is their folder, {out} that
#: of the output.
READING = {
    "extract": "extract {in}/scan.las -o {out}/a.parquet --threshold 20 -q",
    "info": "info {in}/scan.las --all",
    "plot": "plot {in}/scan.las --waveform 3 -o {out}/a.png",
    "report": "report {in}/scan.las --waveform 3 --threshold 20",
    "compare": "compare {in}/scan.las {in}/echoes.parquet --json --details {out}/a.csv",
    "metrics": "metrics {in}/scan.las -o {out}/a.csv -q",
    "pulses": "pulses {in}/scan.las -o {out}/a.parquet -q",
    "voxels": "voxels {in}/scan.las -o {out}/a.tif --size 5 -q",
    "convert": "convert {in}/scan.las {out}/a.h5 -q",
    "pulse-model": "pulse-model {in}/scan.las -o {out}/a.toml",
    "system-wave": "system-wave {in}/scan.las -o {out}/a.toml",
    "cluster": "cluster {in}/scan.las -o {out}/job --scheduler local --workers 1 --threshold 20 -q",
    "plan": "plan {in}/scan.las -o {out}/job --threshold 20 -q",
}
#: Commands whose outputs may be at URLs, too.
WRITING = ("extract", "compare", "metrics", "pulses", "convert", "cluster", "plan")
#: Commands with outputs of this machine only.
ONLY_LOCAL = ("plot", "voxels", "pulse-model", "system-wave")
#: Commands that read and write the folder of a run, or read with a viewer; tested elsewhere.
OTHERS = {"run": (True, True), "join": (True, True), "view": (True, False)}


@pytest.fixture(scope="module")
def files(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Path]:
    """A folder with a scan and its echoes; the store has them, too."""
    folder = tmp_path_factory.mktemp("files")
    scan = write_scan(simulate_scan(ScanSettings(shots=250, seed=5)), folder / "scan.las").las
    for ending in ("parquet", "las", "csv", "h5"):
        call = ("extract", scan, "-o", folder / f"echoes.{ending}", "--threshold", "20", "-q")
        assert run(*call).exit_code == 0
    np.savez(folder / "echoes.npz", x=[1.0], y=[2.0], z=[3.0])
    store = fsspec.filesystem("memory")
    for path in folder.iterdir():
        store.pipe_file(f"/commands/{path.name}", path.read_bytes())
    yield folder
    store.rm("/commands", recursive=True)


def call_of(name: str, inputs: str | Path, output: str | Path) -> list[str]:
    filled = READING[name].replace("{in}", str(inputs)).replace("{out}", str(output))
    return filled.split()


def contents(folder: Path) -> dict[str, bytes]:
    """The outputs but for the manifest of a run, which has the paths of its inputs."""
    found = [path for path in folder.rglob("*") if path.is_file() and path.name != "manifest.json"]
    return {path.name: path.read_bytes() for path in found}


@pytest.mark.parametrize("name", [name for name in READING if name != "cluster"])
def test_command_makes_the_same_of_a_url(name: str, files: Path, tmp_path: Path) -> None:
    results = []
    for source, folder in ((files, tmp_path / "local"), (STORE, tmp_path / "remote")):
        folder.mkdir()
        result = run(*call_of(name, source, folder))
        assert result.exit_code == 0, result.output
        shown = words(result.stdout).replace(str(source), "IN").replace(str(folder), "OUT")
        results.append((re.sub(r"[0-9.]+ s\b", "", shown), contents(folder)))
    local, remote = results
    assert remote == local
    assert local[0] or local[1] or name == "plan"


@pytest.mark.parametrize("name", [name for name in WRITING if name not in ("cluster", "plan")])
def test_command_stores_what_it_writes_locally(name: str, files: Path, tmp_path: Path) -> None:
    store = fsspec.filesystem("memory")
    try:
        for folder in (tmp_path, f"{STORE}/out"):
            result = run(*call_of(name, files, folder))
            assert result.exit_code == 0, result.output
        stored = {Path(key).name: store.cat_file(key) for key in store.find("/commands/out")}
        assert stored == contents(tmp_path) != {}
        again = run(*call_of(name, files, f"{STORE}/out"))
        assert again.exit_code == 2
        assert "already exists; use --overwrite" in words(again.stderr)
    finally:
        store.rm("/commands/out", recursive=True)


@pytest.mark.parametrize(
    "call",
    [
        *(" ".join(call_of(name, "IN", STORE)) for name in ONLY_LOCAL),
        f"voxels IN/scan.las -o {STORE}/a.zarr --size 5",
        f"simulate {STORE}/a.las",
        f"compare IN/scan.las IN/echoes.las --plot {STORE}/a.png",
        f"extract IN/scan.las -o a.csv --scanner {STORE}/a.toml",
        f"system-wave IN/scan.las -o a.toml --plot {STORE}/a.png",
        f"pulse-model IN/scan.las -o a.toml --plot {STORE}/a.png",
    ],
)
def test_outputs_of_this_machine_only(call: str, files: Path, tmp_path: Path) -> None:
    result = run(*call.replace("IN/", f"{files}/").split())
    assert_usage(result, " is a URL; give a file or folder of this machine")


@pytest.mark.parametrize("ending", ["parquet", "las", "csv", "h5", "npz"])
def test_files_of_echoes_of_every_format_are_read(files: Path, ending: str) -> None:
    shown = []
    for folder in (files, STORE):
        path = f"{folder}/echoes.{ending}"
        result = run("compare", path, path, "--json")
        assert result.exit_code == 0, result.output
        shown.append(result.stdout.replace(str(folder), ""))
    assert shown[0] == shown[1]


def test_viewer_shows_the_waveforms_of_a_url(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path / "cache"))
    from fullwaveform.view.session import ViewSession

    scan, echoes = scenes.write_scan(tmp_path / "a.las"), scenes.write_echoes(tmp_path / "a.csv")
    store = fsspec.filesystem("memory")
    for path in (*with_companions(scan), echoes):
        if path.is_file():
            store.pipe_file(f"/viewed/{path.name}", path.read_bytes())
    source = location("memory://viewed/a.las")
    with ViewSession(
        open_waveforms(source, waveforms_per_block=2),
        {},
        [("a.csv", location("memory://viewed/a.csv"))],
    ) as session:
        assert len(session.waveforms) == len(scenes.SHOTS)
        for number, echoes_of_shot in enumerate(scenes.SHOTS):
            block = session.waveforms.shot(number).block
            assert block.samples[0].tolist() == scenes.waveform(echoes_of_shot)


def test_document_lists_every_command() -> None:
    """The table says of each command whether its inputs and outputs may be at URLs."""
    text = DOCUMENT.read_text(encoding="utf-8")
    rows = re.findall(r"^\| (`[^|]+`) \| (yes|no|–)[^|]* \| (yes|no|–)[^|]* \|$", text, re.M)
    found = {
        name: (reads == "yes", writes == "yes")
        for names, reads, writes in rows
        for name in re.findall("`([a-z-]+)`", names)
    }
    expected = {name: (True, name in WRITING) for name in READING} | OTHERS
    assert found == expected | {"simulate": (False, False)}
    assert found.keys() == COMMANDS.keys()
