"""Selections of echoes by box and bars: counts, shots, worst fits and rows."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_index import EchoIndex
from fullwaveform.view.selection import Selection, Slab, selected_rows
from fullwaveform.view.statistics import described_selection

#: West, south, east and north of the two eastern shots, from the origin at x 10 m and y 10 m.
EAST = (70.0, -10.0, 90.0, 90.0)


def rows(index: EchoIndex, selection: Selection) -> list[int]:
    return np.flatnonzero(selected_rows(index, selection)).tolist()


def described(
    index: EchoIndex, waveforms: WaveformDirectory, selection: Selection
) -> dict[str, Any]:
    return described_selection(index, waveforms, selection, 20)


def bars_of(index: EchoIndex, name: str, *values: float) -> dict[str, frozenset[int]]:
    """The bars between whose edges the values are."""
    (value,) = [one for one in index.described["values"] if one["name"] == name]
    edges = value["histogram"]["edges"]
    chosen = [min(max(np.searchsorted(edges, at, "right") - 1, 0), len(edges) - 2) for at in values]
    return {name: frozenset(int(number) for number in chosen)}


def test_without_box_and_bars_all_are_selected(
    index: EchoIndex, waveforms: WaveformDirectory
) -> None:
    found = described(index, waveforms, Selection())
    assert (found["echoes"], found["shots"]) == (7, 4)
    for value in index.described["values"]:
        assert found["values"][value["name"]] == value["histogram"]["counts"]
    assert found["shot_echoes"] == [0, 2, 1, 1]  # but for the shot without echoes


def test_box_has_the_echoes_between_its_edges(
    index: EchoIndex, waveforms: WaveformDirectory
) -> None:
    assert rows(index, Selection(EAST)) == [1, 2, 6]
    found = described(index, waveforms, Selection(EAST))
    assert (found["echoes"], found["shots"]) == (3, 2)
    assert found["values"]["echo_number"] == [0, 2, 1, 0]
    assert found["shot_echoes"] == [0, 1, 1, 0]


def test_edges_belong_to_the_box(index: EchoIndex) -> None:
    assert rows(index, Selection((80.0, 0.0, 80.0, 0.0))) == [1, 2]
    assert rows(index, Selection((80.001, -1.0, 90.0, 90.0))) == []


#: From the first shot to that in the south east; heights are from 127 m.
SOUTH = ((0.0, 0.0), (80.0, 0.0))


@pytest.mark.parametrize(
    ("slab", "expected"),
    [
        (Slab(*SOUTH, 1.0, -9.0, 9.0), [0, 1, 2]),
        (Slab((0.0, 0.0), (80.0, 80.0), 5.0, -9.0, 9.0), [0, 6]),
        (Slab((80.0, 80.0), (0.0, 0.0), 5.0, -9.0, -0.5), [6]),
        (Slab((0.0, 80.0), (80.0, 0.0), 5.0, 0.0, 9.0), [1, 3]),
        # Edges belong to the box.
        (Slab(*SOUTH, 0.0, -3.0, -3.0), [2]),
        (Slab(*SOUTH, 80.0, -9.0, 9.0), [0, 1, 2, 3, 4, 5, 6]),
        (Slab(*SOUTH, 79.9, -9.0, 9.0), [0, 1, 2]),
        (Slab((0.1, 0.0), (80.0, 0.0), 1.0, -9.0, 9.0), [1, 2]),
        (Slab((0.0, 0.0), (79.9, 0.0), 1.0, -9.0, 9.0), [0]),
        (Slab((0.0, 0.0), (0.0, 0.0), 1.0, -9.0, 9.0), []),
        (Slab((-5e3, 0.0), (-4e3, 0.0), 1.0, -9.0, 9.0), []),
    ],
)
def test_slab_has_the_echoes_near_its_line(
    index: EchoIndex, slab: Slab, expected: list[int]
) -> None:
    assert rows(index, Selection(slab=slab)) == expected


def test_slab_box_and_bars_are_combined(index: EchoIndex) -> None:
    slab = Slab(*SOUTH, 80.0, -9.0, 9.0)
    assert rows(index, Selection(EAST, slab=slab)) == [1, 2, 6]
    first = {"echo_number": frozenset({1})}
    assert rows(index, Selection(EAST, first, slab)) == [1, 6]


@pytest.mark.parametrize(
    "slab",
    ["1,2,3,4,5,6", "1,2,3,4,5,6,x", "1,2,3,4,5,nan,7", "1,2,3,4,-1,6,7", "1,2,3,4,5,7,6", "1"],
)
def test_invalid_slabs_are_refused(slab: str) -> None:
    with pytest.raises(ValueError, match=r"side view .*; expected seven numbers: x and y of both"):
        Selection.of_text("", [], slab)


def test_bars_select_the_echoes_of_their_values(index: EchoIndex) -> None:
    weak = bars_of(index, "amplitude", 60.0, 80.0)
    assert rows(index, Selection(None, weak)) == [2, 5]
    assert rows(index, Selection(None, {"echo_number": frozenset({2, 3})})) == [2, 4, 5]
    assert rows(index, Selection(None, {"shot_echoes": frozenset({3})})) == [3, 4, 5]
    # Of a waveform: 1 for shot 0, 1.5, 2.5 and 9.
    assert rows(index, Selection(None, bars_of(index, "chi_square", 9.0))) == [6]


def test_box_and_bars_of_several_values_are_combined(index: EchoIndex) -> None:
    second = {"echo_number": frozenset({1})}
    assert rows(index, Selection(EAST, second)) == [1, 6]
    both = {**second, "class": frozenset({2, 3})}
    assert rows(index, Selection(EAST, both)) == [1]
    assert rows(index, Selection(None, {"class": frozenset()})) == []


@pytest.mark.parametrize("run", [1, 2, 100])
def test_equal_fits_are_listed_by_waveform(
    run: int, waveforms: WaveformDirectory, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Also if their echoes are in another order, and read in several runs."""
    monkeypatch.setattr("fullwaveform.view.selection._CHUNK", run)
    path = tmp_path / "echoes.csv"
    lines = [f"{x},{x},1,{number},5.0" for x, number in enumerate((4, 3, 3, 1, 2, 0))]
    text = "\n".join(["x,y,z,waveform_number,reduced_chi_square", *lines])
    path.write_text(text, encoding="ascii")
    echoes = EchoIndex.of(path, waveforms)
    worst = described_selection(echoes, waveforms, Selection(), 3)["worst"]
    assert [fit["waveform"] for fit in worst] == [0, 1, 2]
    worst = described(echoes, waveforms, Selection())["worst"]
    assert [(fit["waveform"], fit["row"]) for fit in worst] == [
        (0, 5),
        (1, 3),
        (2, 4),
        (3, 1),
        (4, 0),
    ]
    echoes.close()


def test_worst_fits_are_one_echo_per_waveform(
    index: EchoIndex, waveforms: WaveformDirectory
) -> None:
    worst = described(index, waveforms, Selection())["worst"]
    assert [(fit["waveform"], fit["chi_square"]) for fit in worst] == [
        (4, 9.0),
        (2, 2.5),
        (1, 1.5),
        (0, 1.0),
    ]
    assert index.place(worst[0]["index"]).xyz == pytest.approx(worst[0]["xyz"])
    two = described_selection(index, waveforms, Selection(EAST), 1)["worst"]
    assert [fit["waveform"] for fit in two] == [4]


@pytest.mark.parametrize(
    "box", ["1,2,3", "1,2,3,x", "1,2,3,nan", "inf,0,inf,1", "3,0,2,1", "0,3,1,2", "1,2,3,4,5"]
)
def test_invalid_boxes_are_refused(box: str) -> None:
    with pytest.raises(ValueError, match="expected four numbers: west, south, east, north"):
        Selection.of_text(box, [])


def test_invalid_bars_are_refused(index: EchoIndex) -> None:
    for bars in ("amplitude:x", "amplitude:-1", "amplitude:1.5", "amplitude:99999"):
        with pytest.raises(ValueError, match="invalid bar"):
            Selection.of_text("", [bars])
    with pytest.raises(ValueError, match="no histogram of 'height'"):
        rows(index, Selection.of_text("", ["height:1"]))
    # Numbers beyond the last bar are those of no value, also not of unknown ones.
    assert rows(index, Selection.of_text("", ["amplitude:48,200"])) == []


def made(
    folder: Path, waveforms: WaveformDirectory, lines: list[str], names: str = "x,y,z"
) -> EchoIndex:
    path = folder / "made.csv"
    path.write_text("\n".join([names, *lines]) + "\n", encoding="ascii")
    return EchoIndex.of(path, waveforms)


def test_selection_of_a_file_without_echoes(waveforms: WaveformDirectory, tmp_path: Path) -> None:
    index = made(tmp_path, waveforms, [])
    found = described(index, waveforms, Selection(EAST))
    assert (found["echoes"], found["shots"], found["worst"]) == (0, 0, [])
    assert rows(index, Selection()) == []
    index.close()


def test_selection_of_one_echo_without_values(waveforms: WaveformDirectory, tmp_path: Path) -> None:
    index = made(tmp_path, waveforms, ["1,2,3,nan"], "x,y,z,fwhm_ns")
    found = described(index, waveforms, Selection())
    assert (found["echoes"], found["shots"]) == (1, 0)  # its shot is not known
    assert found["values"] == {}
    index.close()


def test_unknown_widths_are_in_no_bar(waveforms: WaveformDirectory, tmp_path: Path) -> None:
    lines = ["1,2,3,nan", "1,2,3,4", "1,2,3,5", "1,2,3,inf"]
    index = made(tmp_path, waveforms, lines, "x,y,z,fwhm_ns")
    assert sum(described(index, waveforms, Selection())["values"]["width"]) == 2
    assert rows(index, Selection(None, {"width": frozenset(range(48))})) == [1, 2]
    index.close()


def test_box_of_many_echoes_is_exact(waveforms: WaveformDirectory, tmp_path: Path) -> None:
    """Nodes of several levels, inside of the box, outside and across its edges."""
    random = np.random.default_rng(1)
    xyz = np.round(random.uniform(0.0, 1000.0, (60_000, 3)), 1)
    number = random.integers(1, 4, len(xyz))
    lines = [f"{x},{y},{z},{n}" for (x, y, z), n in zip(xyz, number, strict=True)]
    index = made(tmp_path, waveforms, lines, "x,y,z,echo_number")
    assert len(index.nodes()["level"]) > 20
    west, south, _ = index.described["origin"]
    for box in ((100.05, 200.05, 700.05, 950.05), (0.0, 0.0, 1000.0, 499.95), (3.0, 3.0, 3.0, 3.0)):
        x, y = xyz[:, 0], xyz[:, 1]
        inside = (x >= box[0]) & (x <= box[2]) & (y >= box[1]) & (y <= box[3]) & (number == 2)
        relative = (box[0] - west, box[1] - south, box[2] - west, box[3] - south)
        selection = Selection(relative, {"echo_number": frozenset({2})})
        assert rows(index, selection) == np.flatnonzero(inside).tolist()
        assert described(index, waveforms, selection)["echoes"] == int(inside.sum())
    index.close()


@pytest.mark.parametrize(("start", "angle"), [((200.0, 150.0), 0.3), ((100.0, 240.0), 0.0)])
def test_slab_of_many_echoes_is_exact(
    start: tuple[float, float], angle: float, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    """Compared with places that are turned by the angle of the line, rad.

    The second line is near the edge, at 250 m, of nodes that it does not touch.
    """
    xyz = np.round(np.random.default_rng(2).uniform(0.0, 1000.0, (60_000, 3)), 1)
    index = made(tmp_path, waveforms, [f"{x},{y},{z}" for x, y, z in xyz])
    assert len(index.nodes()["level"]) > 20
    origin = np.array(index.described["origin"])
    turn = np.array([[np.cos(angle), np.sin(angle)], [-np.sin(angle), np.cos(angle)]])
    at, aside = turn @ (xyz[:, :2] - start).T
    inside = np.array([at, 600.0 - at, 70.0 - abs(aside), xyz[:, 2] - 100.0, 800.0 - xyz[:, 2]])
    from_edge = abs(inside).min(axis=0)  # places are of 32 bits
    relative = np.array(start) - origin[:2]
    end = relative + 600.0 * turn[0]
    slab = Slab(tuple(relative), tuple(end), 70.0, 100.0 - origin[2], 800.0 - origin[2])
    found = selected_rows(index, Selection(slab=slab))
    clear = from_edge > 1e-3
    assert np.count_nonzero(~clear) < 300
    assert np.count_nonzero(found) > 3000
    expected = (inside > 0.0).all(axis=0)
    assert found[clear].tolist() == expected[clear].tolist()
    everywhere = (-1e4, -1e4, 1e4, 1e4)
    assert selected_rows(index, Selection(everywhere, slab=slab)).tolist() == found.tolist()
    index.close()


def test_parts_do_not_change_the_numbers(
    index: EchoIndex, waveforms: WaveformDirectory, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Two echoes and one waveform at a time."""
    monkeypatch.setattr("fullwaveform.view.selection._CHUNK", 2)
    monkeypatch.setattr("fullwaveform.view.statistics._CHUNK", 1)
    found = described_selection(index, waveforms, Selection(), 2)
    assert (found["echoes"], found["shots"]) == (7, 4)
    assert found["values"]["echo_number"] == [0, 4, 2, 1]
    assert found["shot_echoes"] == [0, 2, 1, 1]
    assert [(fit["waveform"], fit["chi_square"]) for fit in found["worst"]] == [(4, 9.0), (2, 2.5)]
