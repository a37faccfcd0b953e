"""What makes the package short to use: names, lengths, notebooks, arrays of any type, plots."""

from __future__ import annotations

from pathlib import Path

import h5py
import numpy as np
import pytest
from matplotlib.figure import Figure

import fullwaveform
from fullwaveform import Mode
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from .extraction.test_extraction import Packet, block_of
from .extraction.test_extraction import triples as samples_of
from .support.row_scenes import as_container
from .test_api import of_blocks


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("scan")
    return write_scan(simulate_scan(ScanSettings(shots=60)), folder / "scan.las").las


def test_mode_by_name_equals_mode_by_number(scan: Path) -> None:
    named = fullwaveform.extract(scan, mode="decomposition", threshold=20).peaks
    numbered = fullwaveform.extract(scan, mode=Mode.DECOMPOSITION, threshold=20).peaks
    assert named.rows > 60
    for name in numbered:
        np.testing.assert_array_equal(named[name], numbered[name])
    with pytest.raises(
        ValueError,
        match="invalid mode 'gauss'; expected one of three-point, decomposition, deconvolution, "
        "hybrid",
    ):
        fullwaveform.extract(scan, mode="gauss")


def test_length_is_the_number_of_echoes() -> None:
    assert len(of_blocks()) == 3


def test_notebooks_show_the_first_rows() -> None:
    html = of_blocks()._repr_html_()
    assert html.startswith("<p>Extraction(3 echoes of 3 waveforms)</p><table>")
    assert "<th>amplitude</th>" in html
    assert html.count("<tr>") == 1 + 3
    assert html.endswith("<p>3 of 3 rows</p>")
    many = fullwaveform.Columns({"number": np.arange(25), "share": np.full(25, 1 / 3)})
    shown = many._repr_html_()
    assert "<tr><td>9</td><td>0.333333</td></tr></tbody>" in shown
    assert shown.endswith("<p>10 of 25 rows</p>")


def test_points_without_places_are_refused(tmp_path: Path) -> None:
    nowhere = (float("nan"),) * 3
    result = fullwaveform.extract(
        block_of([Packet(samples_of({10: 80}), anchor=nowhere)]), threshold=10
    )
    assert len(result) == 1
    for write in (result.to_las, result.write):
        with pytest.raises(ValueError, match="the echoes have no place in space; write a table"):
            write(tmp_path / "echoes.las")
    assert list(tmp_path.iterdir()) == []
    assert result.write(tmp_path / "echoes.csv") == 1


def test_array_file_is_read(tmp_path: Path) -> None:
    rows = np.stack([samples_of({10: 80}), samples_of({20: 90, 40: 50})])
    np.save(tmp_path / "rows.npy", rows.astype(np.float32))
    found = fullwaveform.extract(tmp_path / "rows.npy", threshold=10, sampling_interval=1e-9)
    assert found.peaks["position"].tolist() == [10.0, 20.0, 40.0]
    assert found.peaks["waveform_number"].tolist() == [0, 1, 1]
    with pytest.raises(fullwaveform.WaveformFileError, match="no array sampling_interval"):
        fullwaveform.extract(tmp_path / "rows.npy", threshold=10)


@pytest.mark.parametrize(
    ("content", "message"),
    [
        (lambda path: np.save(path, np.arange(5)), "must be numbers of shape"),
        (
            lambda path: np.save(path, np.full((2, 2), "a")),
            "must be whole numbers of counts",
        ),
        (lambda path: path.write_bytes(b"\x93NUMPY\x01\x00"), "corrupt .npy"),
    ],
)
def test_unusable_array_file_is_refused(tmp_path: Path, content: object, message: str) -> None:
    path = tmp_path / "rows.npy"
    content(path)  # type: ignore[operator]
    with pytest.raises(fullwaveform.WaveformFileError, match=message):
        fullwaveform.extract(path, threshold=10, sampling_interval=1e-9)


def test_cut_array_file_is_refused(tmp_path: Path) -> None:
    path = tmp_path / "rows.npy"
    np.save(path, np.ones((20, 50), np.uint16))
    path.write_bytes(path.read_bytes()[:-7])
    with pytest.raises(fullwaveform.WaveformFileError, match="truncated: array samples declares"):
        fullwaveform.extract(path, threshold=10, sampling_interval=1e-9)


def test_container_without_places_is_read_for_tables(scan: Path, tmp_path: Path) -> None:
    container = as_container(scan, tmp_path / "scan.h5")
    placed = fullwaveform.extract(container, threshold=20)
    with h5py.File(container, "a") as file:
        del file["space"]
    result = fullwaveform.extract(container, threshold=20)
    # Without places, echoes of a shot are ordered by their position in the waveforms.
    positions = (np.sort(one.peaks["position"]) for one in (result, placed))
    np.testing.assert_array_equal(*positions)
    assert np.isnan(result.peaks["x"]).all()
    assert result.write(tmp_path / "echoes.parquet") == len(placed)
    with pytest.raises(ValueError, match="no place in space"):
        result.to_las(tmp_path / "echoes.las")


def test_plot_returns_a_figure(scan: Path, tmp_path: Path) -> None:
    figure = fullwaveform.plot(scan, 2, mode=["three-point", 1], threshold=20)
    assert isinstance(figure, Figure)
    figure.savefig(tmp_path / "waveform.png")
    shot = fullwaveform.plot(scan, shot=1, threshold=20, whole=True)
    assert len(shot.get_axes()) > len(figure.get_axes())
    with pytest.raises(ValueError, match="expected one of waveform, shot and time, got none"):
        fullwaveform.plot(scan)
    with pytest.raises(ValueError, match="got waveform and shot"):
        fullwaveform.plot(scan, 1, shot=1)
