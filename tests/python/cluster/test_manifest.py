"""Reading and writing of manifests, and the plan of the parts."""

from __future__ import annotations

import json
from collections.abc import Callable
from dataclasses import asdict, replace
from pathlib import Path
from typing import Any

import pytest

from fullwaveform import Scanner
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.inputs import FileState, InputFile
from fullwaveform.cluster.manifest import Manifest, PartOutcome, PartRecord
from fullwaveform.cluster.settings import JobSettings, differences
from fullwaveform.cluster.units import planned_parts
from fullwaveform.core.pulse_models import ReceiverModel
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.block_range import BlockStart

from ..support.pulse_models import gaussian_model

OUTCOME = {
    "rows": 3,
    "waveforms": 2,
    "written": 3,
    "not_representable": 0,
    "saturated_return_numbers": 0,
    "files": {"a.parquet": 100},
    "seconds": 1.5,
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
    "statistics": "",
}


def file(name: str, blocks: int) -> InputFile:
    return InputFile(name, [FileState(name, 1000, 5)], blocks)


def ranges(blocks: list[int], blocks_per_part: int) -> list[tuple[int, int, int | None]]:
    inputs = [file(f"{number}.las", count) for number, count in enumerate(blocks)]
    parts = planned_parts(inputs, blocks_per_part, ".las")
    assert [part.number for part in parts] == list(range(len(parts)))
    return [(part.input, part.first, part.stop) for part in parts]


def test_parts_cover_every_block_once() -> None:
    assert ranges([7], 3) == [(0, 0, 3), (0, 3, 6), (0, 6, None)]
    assert ranges([6], 3) == [(0, 0, 3), (0, 3, None)]
    assert ranges([3, 0, 1], 3) == [(0, 0, None), (1, 0, None), (2, 0, None)]
    assert ranges([2, 2], 1) == [(0, 0, 1), (0, 1, None), (1, 0, 1), (1, 1, None)]


def test_part_names_sort_in_order() -> None:
    names = [part.file for part in planned_parts([file("a.las", 11)], 1, ".csv")]
    assert names[0] == "a.part-00000.csv"
    assert names[10] == "a.part-00010.csv"
    many = [part.file for part in planned_parts([file("a.las", 100_001)], 1, ".csv")]
    assert many[0] == "a.part-000000.csv"
    assert many == sorted(many)


def test_part_starts_at_the_last_known_start_before_it() -> None:
    starts = [BlockStart(4, 40, 30, (30, 1, 2)), BlockStart(2, 21, 20, (19, 1, 2))]
    known = replace(file("a.plz", 9), starts=starts)
    assert known.start_of(5) == known.start_of(4) == starts[0]
    assert known.start_of(3) == known.start_of(2) == starts[1]
    assert known.start_of(1) == known.start_of(0) == file("a.las", 3).start_of(2) == BlockStart()


@pytest.fixture
def manifest(tmp_path: Path) -> Manifest:
    settings = JobSettings.of(
        ExtractionSettings(Scanner.default(), threshold=20),
        {2: 0, 7: 3},
        block=50,
        blocks_per_part=2,
        part_format="parquet",
    )
    inputs = [file("a.las", 3), file("b.las", 1)]
    parts = planned_parts(inputs, 2, ".parquet")
    manifest = Manifest(3, "0.1.0", settings, inputs, parts)
    JobFolder(tmp_path).write_manifest(manifest)
    return manifest


def change(folder: Path, modify: Callable[[dict[str, Any]], object]) -> None:
    path = folder / "manifest.json"
    content = json.loads(path.read_text(encoding="utf-8"))
    modify(content)
    path.write_text(json.dumps(content), encoding="utf-8")


def test_manifest_round_trip(manifest: Manifest, tmp_path: Path) -> None:
    found = JobFolder(tmp_path).read_manifest()
    assert found == manifest
    assert found.settings.extraction().scanner.attributes == Scanner.default().attributes
    flags = found.settings.flags()
    assert {number: flag for number, flag in flags.items() if flag != 1} == {2: 0, 7: 3}
    assert len(flags) == 256


def test_pulse_models_round_trip(manifest: Manifest, tmp_path: Path) -> None:
    models = (ReceiverModel(1, 3, "returned", 120, gaussian_model()),)
    manifest.settings = replace(manifest.settings, pulse=models)
    calibration = replace(manifest.inputs[0].calibration, pulse_models=models)
    manifest.inputs[0] = replace(manifest.inputs[0], calibration=calibration)
    JobFolder(tmp_path).write_manifest(manifest)

    found = JobFolder(tmp_path).read_manifest()

    assert found.settings.pulse == models
    assert found.inputs[0].calibration.pulse_model_of(1, 3) == models[0].model
    other = replace(manifest.settings, pulse="outgoing")
    (difference,) = differences(asdict(found.settings), asdict(other), "settings")
    assert difference.startswith("settings.pulse was a list of 1 starting with ")
    assert len(difference) < 200


def test_receiver_names_round_trip(manifest: Manifest, tmp_path: Path) -> None:
    names = {5: "BEAM0101", 11: "BEAM1011"}
    calibration = replace(manifest.inputs[0].calibration, receiver_names=names)
    manifest.inputs[0] = replace(manifest.inputs[0], calibration=calibration)

    JobFolder(tmp_path).write_manifest(manifest)

    assert JobFolder(tmp_path).read_manifest().inputs[0].calibration.receiver_names == names


def test_broken_pulse_model(manifest: Manifest, tmp_path: Path) -> None:
    model = ReceiverModel(1, 3, "returned", 120, gaussian_model())
    manifest.settings = replace(manifest.settings, pulse=(model,))
    JobFolder(tmp_path).write_manifest(manifest)
    change(tmp_path, lambda m: m["settings"]["pulse"][0]["model"].update(noise_rms=-1.0))

    with pytest.raises(ValueError, match=r"settings\.pulse"):
        JobFolder(tmp_path).read_manifest()


def test_outcomes_are_read_and_added(manifest: Manifest, tmp_path: Path) -> None:
    change(tmp_path, lambda m: [p.update(state="done", outcome=OUTCOME) for p in m["parts"]])
    total = JobFolder(tmp_path).read_manifest().total()
    assert (total.rows, total.waveforms, total.seconds) == (9, 6, 4.5)
    assert total.read.points == 12
    assert total.read.rejected == {"packet overlaps another packet": 3}
    assert total.read.notes == ["A note."]
    assert total.extracted.rejected == {"no echo found": 3}
    assert total.messages == {"… echoes": 6}


def test_default_parts_are_smaller_for_slower_modes() -> None:
    def unit(mode: int, block: int) -> int:
        settings = ExtractionSettings(Scanner.default(), mode)  # type: ignore[arg-type]
        return JobSettings.of(
            settings, 1, block=block, blocks_per_part=None, part_format="las"
        ).blocks_per_part

    assert unit(0, 20_000) > unit(1, 20_000) > unit(2, 20_000) > 1
    assert unit(2, 10**9) == 1


@pytest.mark.parametrize(
    ("damage", "message"),
    [
        (lambda m: m.update(manifest_version=2), "unsupported manifest_version 2; expected 3"),
        (lambda m: m.pop("manifest_version"), "unsupported manifest_version None"),
        (lambda m: m.pop("settings"), "manifest.settings: missing"),
        (lambda m: m.update(more=1), "manifest.more: unknown entry"),
        (
            lambda m: m["settings"].update(smoothing=float("nan")),
            "settings.smoothing is nan, must be a finite number",
        ),
        (
            lambda m: m.update(inputs={}),
            r"manifest.inputs is \{\}, must be a valid array",
        ),
        (
            lambda m: m["settings"].update(smoothing="1"),
            "manifest.settings.smoothing is '1', must be a valid number",
        ),
        (
            lambda m: m["settings"].update(threshold=1.5),
            "threshold is 1.5, must be a valid integer or 'est",
        ),
        (
            lambda m: m["settings"].update(threshold=True),
            "threshold is True, must be a valid integer",
        ),
        (
            lambda m: m["settings"].update(after_pulse=3),
            "settings.after_pulse is 3, must be an object",
        ),
        (
            lambda m: m["settings"].update(after_pulse={"offset": "a", "width": 1}),
            "after_pulse.offset is 'a', must be a valid integer",
        ),
        (
            lambda m: m["inputs"][0].update(blocks=None),
            r"inputs\[0\].blocks is None, must be a valid",
        ),
        (
            lambda m: m["parts"][1].update(stop="x"),
            r"parts\[1\].stop is 'x', must be a valid",
        ),
        (lambda m: m["parts"][1].update(state="lost"), "part 1 has invalid state 'lost'"),
        (lambda m: m["parts"][1].update(state="done"), "part 1 is done, but its outcome is None"),
        (lambda m: m["parts"][1].update(number=2), "part 1 has invalid number 2 or input 0"),
        (lambda m: m["parts"][1].update(input=2), "part 1 has invalid number 1 or input 2"),
        (lambda m: m["parts"][1].update(file="../a.parquet"), "part 1 has invalid file name '../a"),
        (lambda m: m["parts"][1].update(file="a.las"), "part 1 has invalid file name 'a.las'"),
        (lambda m: m["parts"][1].update(file=m["parts"][0]["file"]), "two parts have the same"),
        (lambda m: m["parts"][0].update(stop=0), "part 0 has invalid blocks 0 to 0"),
        (
            lambda m: m["parts"][0].update(stop=1),
            "part 1 starts at block 2 of input 0",
        ),
        (lambda m: m["parts"].pop(), "the parts do not cover all inputs"),
        (lambda m: m.update(parts=[]), "the parts do not cover all inputs"),
    ],
)
def test_invalid_manifest_is_refused(
    manifest: Manifest, tmp_path: Path, damage: Callable[[dict[str, Any]], object], message: str
) -> None:
    change(tmp_path, damage)
    with pytest.raises(ValueError, match=message):
        JobFolder(tmp_path).read_manifest()


@pytest.mark.parametrize("content", [b"", b"{", b"[1, 2]", b"\xff\xfe", b"[" * 100_000, b"NaN"])
def test_file_without_a_manifest_is_refused(tmp_path: Path, content: bytes) -> None:
    (tmp_path / "manifest.json").write_bytes(content)
    with pytest.raises(
        ValueError, match=r"manifest\.json(: unsupported manifest_version| is not valid JSON)"
    ):
        JobFolder(tmp_path).read_manifest()


def test_record_round_trip(tmp_path: Path) -> None:
    folder, part = JobFolder(tmp_path), "a.part-00000.csv"
    assert folder.read_record(part) is None
    (tmp_path / part).write_bytes(b"12345")
    written = PartRecord(PartOutcome(rows=2, files={part: 5}))
    folder.write_record(part, written)
    assert folder.read_record(part) == written
    assert folder.read_record("b.part-00000.csv") is None
    folder.remove_records([part, "b.part-00000.csv"])
    assert folder.read_record(part) is None


@pytest.mark.parametrize("content", [b"", b"{", b"[]", b'{"outcome": {"rows": "2"}}', b"\xff"])
def test_damaged_record_is_none(tmp_path: Path, content: bytes) -> None:
    (tmp_path / "a.part-00000.record.json").write_bytes(content)
    assert JobFolder(tmp_path).read_record("a.part-00000.csv") is None


def test_part_is_whole_with_all_its_files_of_the_size_that_was_written(tmp_path: Path) -> None:
    outcome = PartOutcome(files={"a.part-00000.las": 3, "a.part-00000.wdp": 5})
    (tmp_path / "a.part-00000.las").write_bytes(b"123")
    assert not JobFolder(tmp_path).is_whole(outcome)
    (tmp_path / "a.part-00000.wdp").write_bytes(b"12345")
    assert JobFolder(tmp_path).is_whole(outcome)
    (tmp_path / "a.part-00000.wdp").write_bytes(b"1234")
    assert not JobFolder(tmp_path).is_whole(outcome)


def test_temporary_files_of_parts_are_removed(tmp_path: Path) -> None:
    left = [
        ".a.part-00000.csv.0123abcd.part",
        ".a.part-00000.csv-metadata.json.0123abcd.part",
        ".a.part-00000.record.json.0123abcd.part",
    ]
    kept = [".a.part-00001.csv.0123abcd.part", ".a.csv.0123abcd.part", "a.part-00000.csv"]
    for name in (*left, *kept):
        (tmp_path / name).touch()
    JobFolder(tmp_path).remove_unfinished(["a.part-00000.csv"])
    assert sorted(path.name for path in tmp_path.iterdir()) == sorted(kept)
