"""The index of a file of echoes: nodes, places and moves."""

from __future__ import annotations

import json
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_index import EchoIndex

from ..support.command_line import run
from . import scenes

#: Rows of the echoes in the CSV file of the scene, and their waveforms.
WAVEFORMS = [0, 1, 1, 2, 2, 2, 4]


def in_file_order(index: EchoIndex) -> list[int]:
    """Numbers in the order of the index of all echoes, from the first of the file on."""
    (first,) = [at for at in range(len(index)) if index.place(at).row == 0]
    found = [first]
    while (following := index.next_echo(found[-1], 1)) is not None:
        assert index.next_echo(following, -1) == found[-1]
        found.append(following)
    return found


def test_places_rows_and_waveforms(index: EchoIndex) -> None:
    places = [index.place(at) for at in in_file_order(index)]
    assert [place.row for place in places] == [0, 1, 2, 3, 4, 5, 6]
    assert [place.waveform for place in places] == WAVEFORMS
    # 130 m less 0.15 m per sample, at samples 20, 20, 40, 12, 30, 48 and 24.
    heights = [127.0, 127.0, 124.0, 128.2, 125.5, 122.8, 126.4]
    assert [place.xyz[2] for place in places] == pytest.approx(heights, abs=1e-4)
    assert places[6].xyz[:2] == pytest.approx((90.0, 90.0))


def test_moves_between_echoes_end_with_the_file(index: EchoIndex) -> None:
    order = in_file_order(index)
    assert index.next_echo(order[0], -1) is None
    assert index.next_echo(order[-1], 1) is None


def test_moves_between_waveforms(index: EchoIndex) -> None:
    def empty(count: np.ndarray) -> np.ndarray:
        return count == 0

    assert index.next_waveform(0, 1, "echoes", empty) == 3
    assert index.next_waveform(4, -1, "echoes", empty) == 3
    assert index.next_waveform(3, 1, "echoes", empty) is None
    assert index.next_waveform(0, 1, "echoes", lambda count: count > 2) == 2
    assert index.next_waveform(0, 1, "chi_square", lambda chi: chi > 2.0) == 2
    assert index.next_waveform(2, 1, "chi_square", lambda chi: chi > 2.0) == 4
    assert index.next_waveform(2, -1, "chi_square", lambda chi: chi > 2.0) is None


def test_waveform_has_the_largest_chi_square_of_its_echoes(
    waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = tmp_path / "echoes.csv"
    lines = ["1,2,3,1,0.5", "1,2,3,1,4.5", "1,2,3,1,nan", "1,2,3,2,nan"]
    text = "\n".join(["x,y,z,waveform_number,reduced_chi_square", *lines])
    path.write_text(text, encoding="ascii")
    echoes = EchoIndex.of(path, waveforms)
    assert echoes.next_waveform(0, 1, "chi_square", lambda chi: chi > 4.4) == 1
    assert echoes.next_waveform(1, 1, "chi_square", lambda chi: chi > 0.0) is None
    echoes.close()


def test_first_echo_of_a_waveform(index: EchoIndex) -> None:
    first = index.echo_of_waveform(2)
    assert first is not None
    assert index.place(first).row == 3
    assert index.echo_of_waveform(3) is None
    assert index.echo_of_waveform(5) is None


def test_values_ranges_and_histograms(index: EchoIndex) -> None:
    values = {value["name"]: value for value in index.described["values"]}
    names = ["amplitude", "width", "echo_number", "shot_echoes", "class", "chi_square"]
    assert list(values) == names
    assert values["echo_number"]["histogram"]["counts"] == [0, 4, 2, 1]
    # Shots of 1, 2, 3, 0 and 1 echoes, and their echoes.
    assert index.described["shots"]["counts"] == [1, 2, 1, 1]
    assert values["shot_echoes"]["histogram"]["counts"] == [0, 2, 2, 3]
    assert sum(values["amplitude"]["histogram"]["counts"]) == 7
    assert values["width"]["range"] == pytest.approx([4.7, 4.7])
    assert values["class"]["category"]
    assert index.described["origin"] == [10.0, 10.0, 127.0]


def test_points_of_nodes_are_columns(index: EchoIndex) -> None:
    assert index.nodes() == {"level": [0], "column": [0], "row": [0], "count": [7]}
    content = index.points([0])
    assert len(content) == 7 * (3 * 4 + 3 * 4 + 3 * 1 + 2 * 4)
    x = np.frombuffer(content, "<f4", 7)
    assert sorted(x.tolist()) == [0.0, 0.0, 0.0, 0.0, 80.0, 80.0, 80.0]
    waveforms = np.frombuffer(content[-28:], "<u4")
    assert sorted(waveforms.tolist()) == WAVEFORMS


@pytest.mark.parametrize("nodes", [[1], [-1], [0, 7]])
def test_unknown_node_is_refused(index: EchoIndex, nodes: list[int]) -> None:
    with pytest.raises(ValueError, match="nodes are numbered 0 to 0"):
        index.points(nodes)


def test_more_points_than_a_screen_shows_are_refused(
    index: EchoIndex, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr("fullwaveform.view.echo_index.MAX_POINTS", 6)
    with pytest.raises(ValueError, match="7 points exceed the limit of 6"):
        index.points([0])


@pytest.mark.parametrize("name", ["echoes.las", "echoes.laz", "echoes.parquet", "echoes.h5"])
def test_files_of_every_format_have_the_same_echoes(
    name: str, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    scan = scenes.write_scan(tmp_path / "scan.las")
    call = run("extract", scan, "-o", tmp_path / name, "--threshold", "20")
    assert call.exit_code == 0, call.output
    echoes = EchoIndex.of(tmp_path / name, waveforms)
    places = [echoes.place(at) for at in in_file_order(echoes)]
    assert [place.waveform for place in places] == WAVEFORMS
    assert places[6].xyz == pytest.approx((90.0, 90.0, 126.4), abs=2e-3)
    names = [value["name"] for value in echoes.described["values"]]
    quantities = ["amplitude", "width", "echo_number", "shot_echoes", "class", "chi_square"]
    assert names == [*quantities, "sigma"]
    echoes.close()


def test_returns_of_the_scan_belong_to_waveforms_by_time(
    waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    echoes = EchoIndex.of(scenes.write_scan(tmp_path / "scan.las"), waveforms)
    assert [echoes.place(at).waveform for at in in_file_order(echoes)] == [0, 1, 2, 3, 4]
    echoes.close()


def test_echoes_without_a_place_are_counted(waveforms: WaveformDirectory, tmp_path: Path) -> None:
    path = tmp_path / "echoes.csv"
    path.write_text("x,y,z,echo_number\n1,2,3,1\nnan,2,3,2\n4,5,6,0\n", encoding="ascii")
    echoes = EchoIndex.of(path, waveforms)
    assert len(echoes) == 1
    assert echoes.described["without_place"] == 1
    assert echoes.place(0).waveform is None
    echoes.close()


def test_echoes_without_a_place_count_in_their_shots(
    waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = tmp_path / "echoes.csv"
    lines = ["x,y,z,waveform_number", "1,2,3,1", "nan,2,3,1", "nan,2,3,1", "nan,2,3,4", "4,5,6,2"]
    path.write_text("\n".join(lines), encoding="ascii")
    echoes = EchoIndex.of(path, waveforms)
    assert echoes.read("shot_counts").tolist() == [0, 3, 1, 0, 1]
    assert echoes.described["shots"]["counts"] == [2, 2, 0, 1]
    order = in_file_order(echoes)
    assert [int(echoes.read("shot_echoes")[at]) for at in order] == [3, 1]
    echoes.close()


@pytest.mark.parametrize("far", ["1e300,2,3", "1,-1e39,3", "1,2,2e9"])
def test_coordinates_beyond_the_earth_are_no_place(
    far: str, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = tmp_path / "echoes.csv"
    path.write_text(f"x,y,z,echo_number\n{far},1\n10,20,30,1\n11,22,30,1\n", encoding="ascii")
    echoes = EchoIndex.of(path, waveforms)
    assert (len(echoes), echoes.described["without_place"]) == (2, 1)
    assert echoes.described["origin"] == [10.0, 20.0, 30.0]
    assert echoes.described["size"] == pytest.approx(2.0, abs=1e-5)
    json.dumps(echoes.described, allow_nan=False)
    echoes.close()
