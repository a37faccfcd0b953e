"""The page without a server, against a scene of which every number is known."""

from __future__ import annotations

import json
import re
import shlex
import shutil
from itertools import pairwise
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform.core.driver import Mode
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.scanner_file import scanner_text
from fullwaveform.simulation import ScanSettings, simulate_scan
from fullwaveform.simulation import write_scan as write_simulated
from fullwaveform.view.static_page import MAX_BYTES

from ..core.test_modes import scanner as scanner_with_system_wave
from ..support.command_line import assert_error, assert_usage, run
from ..support.hdf5_scenes import as_gedi, as_lvis
from ..support.pulsewaves_scenes import of_waveforms
from ..support.row_scenes import as_container
from . import page_scenes as scenes
from .page_scenes import Page, written_page

SHOTS = 150  # of the simulated scan
KINDS = ("typical", "weakest", "most", "saturated", "worst")


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return scenes.write_scan(tmp_path_factory.mktemp("scan") / "scan.las")


@pytest.fixture(scope="module")
def page(scan: Path) -> Page:
    return written_page(scan, scan.with_name("page.html"))


def test_examples_are_those_of_the_scene(page: Page) -> None:
    assert page.waveforms("saturated") == list(scenes.SATURATED)
    assert page.waveforms("worst")[0] == scenes.WORST
    assert page.waveforms("weakest")[0] == scenes.WEAKEST
    assert page.waveforms("most")[:5] == list(scenes.MOST)
    for kind in ("typical", "weakest", "most", "worst"):
        assert len(page.figures[kind]) == 30
        assert len(set(page.waveforms(kind)) - set(scenes.EMPTY)) == 30


def test_kinds_with_few_examples_say_so(page: Page) -> None:
    assert "The file has only 7 waveforms of this kind, shown here." in page.texts["saturated"]
    assert "30 of 57 waveforms." in page.texts["typical"]


def test_examples_have_shot_time_values_and_command(page: Page) -> None:
    first = page.figures["most"][0]
    assert "Waveform 20, low-power channel, GPS time 120.000000 s" in first.text
    assert "shot 20, 3 echoes" in first.text
    rows = re.findall(
        r"([\d.]+)(?: ± [\d.]+)?  ?([\d.]+)(?: ± [\d.]+)?  ?(?:1\.99|2\.00)\d", first.text
    )
    assert [float(position) for position, _ in rows] == pytest.approx([15.0, 32.0, 48.0], abs=0.01)
    assert [float(height) for _, height in rows] == pytest.approx([300.0, 200.0, 100.0], abs=1.5)
    assert "--waveform 20 --mode decomposition -o waveform-20.png" in first.text
    assert {"samples", "threshold", "baseline", "fitted", "echoes", "residuals"} <= set(first.paths)
    # A step to each sample that is shown: from 15 before the first echo to 15 after the last one.
    assert first.paths["samples"].count("m") == 64


def test_scores_are_known(page: Page) -> None:
    assert {figure.score for figure in page.figures["saturated"]} == {3.0}
    assert page.figures["most"][0].score == 3.0
    weakest, second = page.figures["weakest"][:2]
    # Rounding to counts is the only noise.
    assert -weakest.score == pytest.approx(12.0 / np.sqrt(1.0 / 12.0), rel=0.03)
    assert -second.score == pytest.approx(100.0 / np.sqrt(1.0 / 12.0), rel=0.03)


@pytest.fixture(scope="module")
def extracted(scan: Path) -> tuple[dict[str, Any], np.ndarray]:
    """Summary and rows of the command extract."""
    path = scan.with_name("echoes.csv")
    call = ["extract", scan, "-o", path, "--mode", "decomposition", "--json"]
    summary = json.loads(run(*call).stdout)
    return summary, np.genfromtxt(path, delimiter=",", names=True)


def test_summary_has_the_numbers_of_extract(
    page: Page, extracted: tuple[dict[str, Any], np.ndarray]
) -> None:
    summary, _ = extracted
    text = page.texts["summary"]
    for row in (
        "points read 60 ",
        "waveforms 60 ",
        f"with echoes {summary['waveforms_with_echoes']} ",
        f"threshold {summary['levels'][0]['threshold']} counts",
        f"echoes written {summary['written']} ",
        *(
            f"without echoes {count} {reason}"
            for reason, count in summary["without_echoes"].items()
        ),
        *summary["notes"],
    ):
        assert row in text
    assert summary["waveforms_with_echoes"] == scenes.COUNT - len(scenes.EMPTY)


def test_histograms_count_everything_with_units(
    page: Page, extracted: tuple[dict[str, Any], np.ndarray]
) -> None:
    _, rows = extracted
    text = " ".join(page.texts["statistics"].split())
    assert f"Amplitude of {len(rows)} echoes: median" in text
    assert f"Width (full, at half maximum) of {len(rows)} echoes: median 4.7" in text
    assert "Noise rms of 60 waveforms spread over the file" in text
    of_shots = np.bincount(np.unique(rows["waveform_number"], return_counts=True)[1])
    of_shots[0] = len(scenes.EMPTY)
    table = " ".join(f"{number} {count}" for number, count in enumerate(of_shots))
    assert f"echoes per shot shots {table}" in text
    for label in ("amplitude, counts", "width (full, at half maximum), ns", "noise rms, counts"):
        assert label in text


def test_map_names_extent_and_system(
    page: Page, extracted: tuple[dict[str, Any], np.ndarray]
) -> None:
    maps = [attrs for tag, attrs in page.elements if tag == "svg" and attrs.get("class") == "map"]
    assert len(maps) == 1
    label = maps[0]["aria-label"]
    assert label.startswith(f"Map of {len(extracted[1])} echoes from above, x 0 to 70")
    assert "The file does not name its coordinate system." in page.texts["map"]
    assert "20 coordinate units" in page.texts["map"]


def test_command_draws_the_waveform(
    scan: Path, page: Page, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(tmp_path)
    command = page.figures["worst"][0].text.split("fullwaveform ")[-1].strip()
    result = run(*shlex.split(command))
    assert result.exit_code == 0, result.output
    assert f"waveform {scenes.WORST}, decomposition: " in result.stdout
    assert (tmp_path / f"waveform-{scenes.WORST}.png").stat().st_size > 1000


def test_nothing_is_loaded_and_nothing_runs(scan: Path, page: Page) -> None:
    tags = {tag for tag, _ in page.elements}
    assert not tags & {"script", "link", "iframe", "object", "embed", "img", "base", "form"}
    for tag, attributes in page.elements:
        for name, value in attributes.items():
            assert not name.startswith("on")
            if name in ("href", "src", "srcset", "action", "xlink:href"):
                assert value.startswith("#" if tag == "a" else "data:image/png;base64,")
            assert name != "style"
    text = scan.with_name("page.html").read_text(encoding="utf-8")
    assert "://" not in text
    policies = [
        attributes["content"]
        for tag, attributes in page.elements
        if attributes.get("http-equiv") == "Content-Security-Policy"
    ]
    assert len(policies) == 1
    assert policies[0].startswith("default-src 'none'; style-src 'sha256-")
    assert "unsafe" not in policies[0]


def test_page_can_be_read_aloud_and_used_with_keys(page: Page) -> None:
    ids = [attributes["id"] for _, attributes in page.elements if "id" in attributes]
    assert len(ids) == len(set(ids))
    for tag, attributes in page.elements:
        if tag == "svg":
            assert attributes["role"] == "img"
            assert len(attributes["aria-label"]) > 20
        if tag == "a":
            assert attributes["href"][1:] in ids
        if attributes.get("class") == "scroll":
            assert attributes["tabindex"] == "0"
        if tag == "section":
            assert attributes["aria-labelledby"] in ids
    levels = [int(tag[1]) for tag, _ in page.elements if re.fullmatch("h[1-6]", tag)]
    assert levels[0] == 1
    assert levels.count(1) == 1
    assert all(after <= before + 1 for before, after in pairwise(levels))


@pytest.mark.parametrize("mode", [Mode.THREE_POINT, Mode.HYBRID, Mode.PULSE_FIT])
def test_same_bytes_for_any_workers_and_blocks(
    formats: dict[str, Path], scanner: Path, tmp_path: Path, mode: Mode
) -> None:
    scan, pages = formats["container"], set()
    for number, (workers, block) in enumerate([(1, 20_000), (1, 20_000), (2, 7), (5, 30)]):
        target = tmp_path / f"{number}.html"
        written_page(scan, target, mode, workers=workers, block=block, scanner=scanner)
        pages.add(target.read_bytes())
    assert len(pages) == 1


@pytest.fixture(scope="module")
def formats(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """A simulated scan in every format."""
    folder = tmp_path_factory.mktemp("formats")
    las = write_simulated(
        simulate_scan(ScanSettings(shots=SHOTS, seed=3)), folder / "scan.las", point_format=4
    ).las
    with open_waveforms(las) as reader:
        (block,) = reader.blocks()
    return {
        "LAS": las,
        "PulseWaves": of_waveforms(block).write(folder / "scan.pls"),
        "container": as_container(las, folder / "scan.h5"),
        "GEDI": as_gedi([block], folder / "gedi.h5", ["BEAM0000"]),
        "LVIS": as_lvis([block], folder / "lvis.h5"),
    }


@pytest.fixture(scope="module")
def scanner(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A description with a system wave."""
    path = tmp_path_factory.mktemp("scanner") / "scanner.toml"
    path.write_text(scanner_text(scanner_with_system_wave()), encoding="utf-8")
    return path


@pytest.mark.parametrize("name", ["LAS", "PulseWaves", "container", "GEDI", "LVIS"])
def test_any_format(formats: dict[str, Path], tmp_path: Path, name: str) -> None:
    page = written_page(formats[name], tmp_path / "page.html")
    for kind in ("typical", "weakest", "most", "worst"):
        assert len(page.figures[kind]) == 30
    if name in ("GEDI", "LVIS"):
        assert "WGS 84" in page.texts["map"]
        assert "longitude, °" in page.texts["map"]


@pytest.mark.parametrize("mode", list(Mode))
def test_any_mode(formats: dict[str, Path], scanner: Path, tmp_path: Path, mode: Mode) -> None:
    page = written_page(formats["container"], tmp_path / "page.html", mode, scanner=scanner)
    assert len(page.figures["worst"]) == 30
    scores = [figure.score for figure in page.figures["worst"]]
    assert scores == sorted(scores, reverse=True)
    assert scores[-1] > 0.0
    deconvolves = mode in (Mode.DECONVOLUTION, Mode.HYBRID)
    drawn = set().union(*(figure.paths for kind in KINDS for figure in page.figures[kind]))
    assert ("deconvolved" in drawn) == deconvolves
    assert ("residuals" in drawn) == (mode in (Mode.DECOMPOSITION, Mode.PULSE_FIT))


def test_echoes_of_a_file_make_the_map(scan: Path, tmp_path: Path) -> None:
    echoes = tmp_path / "two.csv"
    echoes.write_text("x,y,z,amplitude\n0,0,1,50\n30,40,2,60\n", encoding="ascii")
    page = written_page(scan, tmp_path / "page.html", echoes=echoes)
    assert "2 echoes of two.csv from above" in page.texts["map"]
    assert "Amplitudes and widths are those of two.csv." in page.texts["statistics"]
    assert "Amplitude of 2 echoes" in page.texts["statistics"]
    assert "width (full, at half maximum), ns: no values" in page.texts["statistics"]
    assert page.waveforms("saturated") == list(scenes.SATURATED)


def test_echoes_of_all_channels_of_a_shot_count_together(
    formats: dict[str, Path], tmp_path: Path
) -> None:
    table = tmp_path / "echoes.csv"
    assert run("extract", formats["LAS"], "-o", table).exit_code == 0
    rows = np.genfromtxt(table, delimiter=",", names=True)
    shots, counts = np.unique(rows["gps_time"], return_counts=True)
    of_shots = np.bincount(counts)
    of_shots[0] = SHOTS - len(shots)
    assert len(np.unique(rows["waveform_number"])) > len(shots)  # some shots have two waveforms
    page = written_page(formats["LAS"], tmp_path / "page.html", Mode.THREE_POINT)
    listed = " ".join(f"{number} {count}" for number, count in enumerate(of_shots))
    text = " ".join(page.texts["statistics"].split())
    assert f"echoes per shot shots {listed}" in text


def test_system_of_the_map_is_that_of_its_echoes(formats: dict[str, Path], tmp_path: Path) -> None:
    scan, echoes, table = formats["GEDI"], tmp_path / "echoes.las", tmp_path / "echoes.csv"
    assert run("extract", scan, "-o", echoes, "--crs", "EPSG:32723").exit_code == 0
    assert run("extract", scan, "-o", table).exit_code == 0
    page = written_page(scan, tmp_path / "page.html", echoes=echoes)
    assert "UTM zone 23S (EPSG:32723)" in page.texts["map"]
    assert "x, m" in page.texts["map"]
    # Tables do not name their system; it is that of the input.
    page = written_page(scan, tmp_path / "degrees.html", echoes=table)
    assert "longitude, °" in page.texts["map"]


def test_file_without_echoes(tmp_path: Path) -> None:
    scan = scenes.write_scan(tmp_path / "scan.las", scenes.EMPTY)
    page = written_page(scan, tmp_path / "page.html")
    assert all(page.figures[kind] == [] for kind in KINDS)
    for kind in KINDS:
        assert "The file has no such waveform." in page.texts[kind]
    assert "No echo has a place in space." in page.texts["map"]
    assert "amplitude, counts: no values" in page.texts["statistics"]


def test_one_waveform(tmp_path: Path) -> None:
    page = written_page(scenes.write_scan(tmp_path / "one.las", [33]), tmp_path / "page.html")
    for kind in ("typical", "weakest", "most", "worst"):
        assert page.waveforms(kind) == [0]
        assert "The file has only 1 waveform of this kind" in page.texts[kind]
    assert page.waveforms("saturated") == []


def test_all_saturated(tmp_path: Path) -> None:
    scan = scenes.write_scan(tmp_path / "scan.las", scenes.SATURATED * 6)
    page = written_page(scan, tmp_path / "page.html")
    assert page.waveforms("saturated") == list(range(30))
    assert "30 of 42 waveforms." in page.texts["saturated"]


def test_long_waveforms_stay_small(tmp_path: Path) -> None:
    """Thirty waveforms of 10,000 samples with an echo every 25 samples, in noise, one clipped."""
    random = np.random.default_rng(5)
    echoes = [(at, 60.0 + at % 700) for at in np.arange(30.0, 9970.0, 25.0)]
    clean = scenes.gaussians(echoes, 10_000)
    waveforms = [
        np.clip(np.rint(clean + random.normal(0.0, 2.0, 10_000)), 0, scenes.LIMIT).astype(int)
        for _ in range(30)
    ]
    for samples in waveforms:
        samples[5004:5007] = scenes.LIMIT
    scan = scenes.write_waveforms(tmp_path / "long.las", waveforms)
    page = written_page(
        scan, tmp_path / "page.html", Mode.DECOMPOSITION, max_samples=10_000, workers=2
    )
    assert (tmp_path / "page.html").stat().st_size < MAX_BYTES == 5_000_000
    assert [len(page.figures[kind]) for kind in KINDS] == [30] * 5
    # With all details the page would be too large.
    text = page.figures["most"][0].text
    assert re.search(r"decomposition: [34]\d\d echoes; the 100 strongest are drawn", text)
    assert "; the 50 strongest are listed" in text


def test_name_of_a_file_is_text(tmp_path: Path) -> None:
    name = "<img src=x onerror=alert(1)>\"'&<script>.las"
    scan = scenes.write_scan(tmp_path / name, range(10))
    page = written_page(scan, tmp_path / "page.html")
    assert not {"img", "script"} & {tag for tag, _ in page.elements}
    assert name in page.texts[""]
    assert shlex.quote(str(scan)) in page.figures["typical"][0].text


@pytest.mark.usefixtures("page")
def test_command_writes_and_replaces_pages_only(scan: Path, tmp_path: Path) -> None:
    target = tmp_path / "page.html"
    call = ["view", scan, "--html", target]
    result = run(*call, "--mode", "decomposition")
    assert result.exit_code == 0, result.output
    assert result.stdout == f"result: {target}\n"
    assert [path.name for path in tmp_path.iterdir()] == ["page.html"]
    content = target.read_bytes()
    assert content == scan.with_name("page.html").read_bytes()
    assert_usage(run(*call), "already exists")
    assert target.read_bytes() == content
    assert run(*call, "--overwrite", "--workers", "2").exit_code == 0
    assert target.read_bytes() != content  # of mode three-point
    target.write_text("<p>my own page", encoding="ascii")
    assert_usage(run(*call, "--overwrite"), "is not a page of fullwaveform view")
    assert target.read_text(encoding="ascii") == "<p>my own page"
    with pytest.raises(FileExistsError):  # also of a file that appeared during the run
        written_page(scan, scan.with_name("page.html"))


def test_invalid_calls_are_explained(scan: Path, tmp_path: Path) -> None:
    target = tmp_path / "page.html"
    assert_usage(run("view", scan, "--html", tmp_path / "a.pdf"), "must end in .html or .htm")
    assert_usage(run("view", scan, "--mode", "1"), "applies only with --html")
    assert_usage(run("view", scan, "--workers", "2"), "applies only with --html")
    assert_usage(run("view", scan, "--overwrite"), "applies only with --html")
    unseen = run("view", scan, "--html", target, "--no-browser")
    assert_usage(unseen, "--no-browser: does not apply with --html")
    two = ["--echoes", scan, "--echoes", scan]
    assert_usage(run("view", scan, "--html", target, *two), "give one file with --html")
    assert_error(run("view", tmp_path / "none.las", "--html", target), "none.las", "No such file")
    missing = ["view", scan, "--html", tmp_path / "no" / "page.html"]
    assert_error(run(*missing), "the folder", "does not exist")
    assert_error(run("view", scan, "--html", target, "--mode", "2"), "system wave")
    assert not target.exists()


def test_damaged_file_leaves_no_page(scan: Path, tmp_path: Path) -> None:
    shutil.copy(scan, tmp_path / "scan.las")
    (tmp_path / "scan.wdp").write_bytes(scan.with_suffix(".wdp").read_bytes()[:100])
    result = run("view", tmp_path / "scan.las", "--html", tmp_path / "page.html")
    assert_error(result, "no readable waveform")
    assert sorted(path.name for path in tmp_path.iterdir()) == ["scan.las", "scan.wdp"]
