"""Files of every format in the viewer: their echoes on the map, and any waveform."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from pyproj import CRS

from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.view import _session
from fullwaveform.io.remote import location
from fullwaveform.simulation import ScanSettings, simulate_scan, write_recording, write_scan
from fullwaveform.view.axes import Axes
from fullwaveform.view.echo_index import EchoIndex
from fullwaveform.view.panel import PanelSettings
from fullwaveform.view.session import ViewSession

from ..support.command_line import run
from ..support.hdf5_scenes import FIRST, STEP, lvis_scene, two_beams
from ..support.web_server import ServedFile, serving

SHOTS = 40


@contextmanager
def viewed(path: Path, **options: Any) -> Iterator[ViewSession]:
    """The session of the command on a file, whose echoes it extracts."""
    chosen = ExtractOptions(skip_unreadable=True, allow_empty=True, **options)
    with _session(path, None, chosen) as session:
        yield session


def units(session: ViewSession) -> list[str]:
    return [axis["unit"] for axis in session.described["axes"]]


def places(index: EchoIndex) -> list[tuple[float, float, float]]:
    return [index.place(number).xyz for number in range(len(index))]


@pytest.mark.parametrize("name", ["scan.las", "scan.pls", "scan.h5"])
def test_simulated_scan_in_every_format(name: str, tmp_path: Path) -> None:
    scan = simulate_scan(ScanSettings(shots=SHOTS))
    path = tmp_path / name
    if name == "scan.las":
        write_scan(scan, path)
    else:
        write_recording(scan, path)
    echoes = tmp_path / "echoes.csv"
    assert run("extract", path, "-o", echoes).exit_code == 0
    lines = echoes.read_text(encoding="ascii").splitlines()
    with viewed(path) as session:
        (layer,) = session.described["layers"]
        assert len(session.waveforms) == 2 * SHOTS  # two channels
        assert layer["echoes"] == len(lines) - 1
        assert layer["ratio"] == 1.0
        last = session.panel.data(2 * SHOTS - 1, PanelSettings())
        assert last["shot"] == SHOTS - 1
        assert len(last["waveforms"]) == 2
        found = [method for one in last["waveforms"] for method in one["methods"]]
        assert sum(len(method["positions"]) for method in found) >= 1


def test_gedi_file_has_axes_in_degrees_and_a_place_for_each_echo(tmp_path: Path) -> None:
    with viewed(two_beams().write(tmp_path / "gedi.h5")) as session:
        (layer,) = session.described["layers"]
        assert (len(session.waveforms), layer["echoes"]) == (5, 5)
        assert units(session) == ["°", "°", "m"]
        assert [axis["name"] for axis in session.described["axes"]][:2] == ["longitude", "latitude"]
        assert layer["ratio"] == pytest.approx(0.97134, abs=1e-5)  # cos 13.75 degrees
        expected = np.array(FIRST) + 20 * np.array(STEP)  # the pulses are at sample 20
        for place in places(session.layers[0].echoes):
            assert place == pytest.approx(expected, rel=0, abs=0.02)
            assert place[:2] == pytest.approx(expected[:2], rel=0, abs=1e-6)
        (waveform,) = session.panel.data(3, PanelSettings())["waveforms"]
        assert waveform["beam"] == "BEAM1011"
        assert waveform["methods"][0]["positions"] == pytest.approx([20.0], abs=0.05)


def test_gedi_file_in_another_system_has_axes_in_metres(tmp_path: Path) -> None:
    path = two_beams().write(tmp_path / "gedi.h5")
    with viewed(path, crs="EPSG:31983") as session:  # UTM zone 23 south
        assert units(session) == ["m", "m", "m"]
        assert session.described["layers"][0]["ratio"] == 1.0
        # 44.125 degrees West is 0.875 degrees from the central meridian, at 500 km, of which one
        # degree is 108.1 km at this latitude.
        for x, _, _ in places(session.layers[0].echoes):
            assert x == pytest.approx(500e3 + 0.875 * 108.1e3, abs=200)


@pytest.mark.parametrize("structure", ["1.04", "1.05", "2.0.3 facility", "2.0.4 classic"])
def test_lvis_file_of_every_structure(structure: str, tmp_path: Path) -> None:
    with viewed(lvis_scene(structure).write(tmp_path / "lvis.h5")) as session:
        (layer,) = session.described["layers"]
        assert (len(session.waveforms), layer["echoes"]) == (3, 3)
        assert layer["ratio"] == pytest.approx(0.35429, abs=1e-5)  # cos 69.25 degrees
        data = session.panel.data(2, PanelSettings())
        assert data["waveforms"][0]["methods"][0]["positions"] == pytest.approx([102.0], abs=0.05)
        assert data["outgoing"] is None or len(data["outgoing"]["samples"]) in (80, 120, 128)


def test_first_look_has_the_outgoing_pulse(tmp_path: Path) -> None:
    """Before anything is measured."""
    scan = simulate_scan(ScanSettings(shots=5))
    write_recording(scan, tmp_path / "scan.pls", overwrite=True)
    with viewed(tmp_path / "scan.pls") as session:
        data = session.panel.data(0, PanelSettings())
        assert max(data["outgoing"]["samples"]) > 50
        assert len(data["waveforms"]) == 2


def test_samples_without_coordinates_have_waveforms_and_no_map(tmp_path: Path) -> None:
    at = np.arange(64)
    pulse = 10.0 + 200.0 * np.exp(-0.5 * ((at - 30.0) / 2.0) ** 2)
    flat = np.full(64, 10.0)
    samples = np.round([pulse, flat, pulse + pulse[::-1], flat]).astype(np.uint16)
    np.savez(tmp_path / "samples.npz", samples=samples, sampling_interval=1e-9)
    with viewed(tmp_path / "samples.npz") as session:
        echoes = session.layers[0].echoes
        assert (len(session.waveforms), len(echoes)) == (4, 0)
        assert session.described["layers"][0]["nodes"]["level"] == []
        assert units(session) == ["coordinate units"] * 3
        (waveform,) = session.panel.data(0, PanelSettings())["waveforms"]
        assert waveform["methods"][0]["positions"] == pytest.approx([30.0], abs=0.02)
        # Moves count echoes without a place, too.
        assert echoes.next_waveform(0, 1, "echoes", lambda count: count == 0) == 1
        assert echoes.next_waveform(0, 1, "echoes", lambda count: count > 0) == 2
        assert echoes.echo_of_waveform(0) is None


def test_units_of_projected_systems() -> None:
    class Header:
        """Stands for a header whose system is known."""

    def axes_of(system: Any) -> Axes:
        with pytest.MonkeyPatch.context() as patch:
            patch.setattr("fullwaveform.view.axes.reference_system", lambda header: system)
            return Axes.of(Header())  # type: ignore[arg-type]

    assert [one["unit"] for one in axes_of(CRS(2229)).described] == ["US survey ft"] * 3
    # EPSG 5703: heights in metres above the geoid.
    compound = axes_of(CRS("EPSG:2229+5703"))
    assert [one["unit"] for one in compound.described] == ["US survey ft", "US survey ft", "m"]
    assert not compound.is_geographic


def test_lost_server_of_a_remote_file_is_reported(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr("fullwaveform.io.remote_store._CACHED", 0)  # the file is small
    scan = write_scan(simulate_scan(ScanSettings(shots=SHOTS)), tmp_path / "scan.las")
    with serving() as web:
        for path in (scan.las, scan.las.with_suffix(".wdp")):
            web.files[path.name] = ServedFile.of(path.read_bytes())
        with viewed(location(web.url("scan.las"))) as session:
            first = session.panel.data(0, PanelSettings())
            assert first["command"].startswith(f"fullwaveform plot {web.url('scan.las')} --shot 0")
            web.files.clear()
            with pytest.raises(OSError, match=r"scan\.las"):
                session.panel.data(2 * SHOTS - 1, PanelSettings())
