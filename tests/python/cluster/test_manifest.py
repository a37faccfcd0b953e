"""Manifests that are none, and the plan of the parts."""

from __future__ import annotations

import json
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from fullwaveform import Scanner
from fullwaveform.cluster.inputs import FileState, InputFile
from fullwaveform.cluster.manifest import Manifest
from fullwaveform.cluster.manifest_file import ManifestFile, read_manifest
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.cluster.units import planned_parts
from fullwaveform.extraction.extractor import ExtractionSettings

OUTCOME = {
    "rows": 3,
    "waveforms": 2,
    "written": 3,
    "not_representable": 0,
    "saturated_return_numbers": 0,
    "bytes": 100,
    "read": {
        "points": 4,
        "points_without_waveform": 1,
        "points_sharing_waveform": 0,
        "waveforms": 2,
        "rejected": {"packet overlaps another packet": 1},
        "notes": ["A note."],
    },
    "extracted": {
        "waveforms": 2,
        "waveforms_with_echoes": 1,
        "echoes": 3,
        "rejected": {"no echo found": 1},
        "echoes_left_out": 0,
        "suspicious_blocks": 0,
    },
    "messages": {"… echoes": 2},
    "record": "",
}


def file(name: str, blocks: int) -> InputFile:
    return InputFile(name, [FileState(name, 1000, 5)], blocks)


def ranges(blocks: list[int], unit_blocks: int) -> list[tuple[int, int, int | None]]:
    inputs = [file(f"{number}.las", count) for number, count in enumerate(blocks)]
    parts = planned_parts(inputs, unit_blocks, ".las")
    assert [part.number for part in parts] == list(range(len(parts)))
    return [(part.input, part.first, part.stop) for part in parts]


def test_ranges_cover_every_file_and_no_more() -> None:
    assert ranges([7], 3) == [(0, 0, 3), (0, 3, 6), (0, 6, None)]
    assert ranges([6], 3) == [(0, 0, 3), (0, 3, None)]
    assert ranges([3, 0, 1], 3) == [(0, 0, None), (1, 0, None), (2, 0, None)]
    assert ranges([2, 2], 1) == [(0, 0, 1), (0, 1, None), (1, 0, 1), (1, 1, None)]


def test_names_of_parts_are_in_the_order_of_the_alphabet() -> None:
    names = [part.file for part in planned_parts([file("a.las", 11)], 1, ".csv")]
    assert names[0] == "part-00000.csv"
    assert names[10] == "part-00010.csv"
    many = [part.file for part in planned_parts([file("a.las", 100_001)], 1, ".csv")]
    assert many[0] == "part-000000.csv"
    assert many == sorted(many)


@pytest.fixture
def manifest(tmp_path: Path) -> Manifest:
    settings = JobSettings.of(
        ExtractionSettings(Scanner.default(), threshold=20),
        {2: 0, 7: 3},
        block=50,
        unit_blocks=2,
        part_format="parquet",
    )
    inputs = [file("a.las", 3), file("b.las", 1)]
    parts = planned_parts(inputs, 2, ".parquet")
    manifest = Manifest(1, "0.1.0", settings, inputs, parts)
    ManifestFile(manifest, tmp_path).save()
    return manifest


def change(folder: Path, change: Callable[[dict[str, Any]], object]) -> None:
    path = folder / "manifest.json"
    content = json.loads(path.read_text(encoding="utf-8"))
    change(content)
    path.write_text(json.dumps(content), encoding="utf-8")


def test_a_manifest_comes_back_as_it_was(manifest: Manifest, tmp_path: Path) -> None:
    found = read_manifest(tmp_path)
    assert found == manifest
    assert found.settings.extraction().scanner.attributes == Scanner.default().attributes
    flags = found.settings.flags()
    assert {number: flag for number, flag in flags.items() if flag != 1} == {2: 0, 7: 3}
    assert len(flags) == 256


def test_outcomes_are_read_and_added(manifest: Manifest, tmp_path: Path) -> None:
    change(tmp_path, lambda m: [p.update(state="done", outcome=OUTCOME) for p in m["parts"]])
    total = read_manifest(tmp_path).total()
    assert (total.rows, total.waveforms, total.bytes) == (9, 6, 300)
    assert total.read.points == 12
    assert total.read.rejected == {"packet overlaps another packet": 3}
    assert total.read.notes == ["A note."]
    assert total.extracted.rejected == {"no echo found": 3}
    assert total.messages == {"… echoes": 6}


def test_default_units_are_smaller_for_slower_methods() -> None:
    def unit(mode: int, block: int) -> int:
        settings = ExtractionSettings(Scanner.default(), mode)  # type: ignore[arg-type]
        return JobSettings.of(
            settings, 1, block=block, unit_blocks=None, part_format="las"
        ).unit_blocks

    assert unit(0, 20_000) > unit(1, 20_000) > unit(2, 20_000) > 1
    assert unit(2, 10**9) == 1


@pytest.mark.parametrize(
    ("harm", "sentence"),
    [
        (lambda m: m.update(manifest_version=2), "manifest_version is 2; this program knows 1"),
        (lambda m: m.pop("manifest_version"), "manifest_version is None"),
        (lambda m: m.pop("settings"), "manifest lacks settings"),
        (lambda m: m.update(more=1), "manifest has unknown entries: more"),
        (lambda m: m.update(inputs={}), r"manifest.inputs is \{\}, must be a list"),
        (lambda m: m.update(seconds="1"), "manifest.seconds is '1', must be a finite number"),
        (
            lambda m: m["settings"].update(threshold=1.5),
            "settings.threshold is 1.5, must be a whole",
        ),
        (
            lambda m: m["settings"].update(threshold=True),
            "settings.threshold is True, must be a whole",
        ),
        (lambda m: m["settings"].update(after_pulse=3), "settings.after_pulse is 3, must be"),
        (
            lambda m: m["settings"].update(after_pulse={"offset": "a", "width": 1}),
            "after_pulse.offset is 'a', must be a whole number",
        ),
        (lambda m: m["inputs"][0].update(blocks=None), r"inputs\[0\].blocks is None"),
        (lambda m: m["parts"][1].update(stop="x"), r"parts\[1\].stop is 'x', must be a whole"),
        (lambda m: m["parts"][1].update(state="lost"), "part 1 has the state 'lost'"),
        (lambda m: m["parts"][1].update(state="done"), "part 1 is done and has outcome None"),
        (lambda m: m["parts"][1].update(number=2), "part 1 has number 2 and input 0"),
        (lambda m: m["parts"][1].update(input=2), "part 1 has number 1 and input 2"),
        (lambda m: m["parts"][1].update(file="../a.parquet"), "part 1 has the file name '../a"),
        (lambda m: m["parts"][1].update(file="a.las"), "part 1 has the file name 'a.las'"),
        (lambda m: m["parts"][1].update(file="part-00000.parquet"), "two parts have the same"),
        (lambda m: m["parts"][0].update(stop=0), "part 0 has the blocks from 0 to 0"),
        (lambda m: m["parts"][0].update(stop=1), "part 1 begins with block 2 of input 0, where"),
        (lambda m: m["parts"].pop(), "the parts end before the inputs do"),
        (lambda m: m.update(parts=[]), "the parts end before the inputs do"),
    ],
)
def test_a_manifest_with_a_fault_is_refused(
    manifest: Manifest, tmp_path: Path, harm: Callable[[dict[str, Any]], object], sentence: str
) -> None:
    change(tmp_path, harm)
    with pytest.raises(ValueError, match=sentence):
        read_manifest(tmp_path)


@pytest.mark.parametrize("content", [b"", b"{", b"[1, 2]", b"\xff\xfe", b"[" * 100_000, b"NaN"])
def test_what_is_no_manifest_is_refused(tmp_path: Path, content: bytes) -> None:
    (tmp_path / "manifest.json").write_bytes(content)
    with pytest.raises(ValueError, match=r"manifest\.json(: manifest_version| is no JSON)"):
        read_manifest(tmp_path)


def test_the_file_is_not_written_more_often_than_needed(
    manifest: Manifest, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    now = [100.0]
    monkeypatch.setattr("time.monotonic", lambda: now[0])
    file = ManifestFile(manifest, tmp_path)
    file.save()
    manifest.parts[0].fail("A sentence.")
    file.change()
    file.save_when_due()
    assert read_manifest(tmp_path).parts[0].state == "waiting"
    now[0] = 110.0
    file.save_when_due()
    assert read_manifest(tmp_path) == manifest
    assert manifest.parts[0].state == "failed"
    assert manifest.seconds == pytest.approx(10.0, abs=1e-3)
    (tmp_path / "manifest.json").unlink()
    now[0] = 200.0
    file.save_when_due()  # nothing has changed
    assert not (tmp_path / "manifest.json").exists()
