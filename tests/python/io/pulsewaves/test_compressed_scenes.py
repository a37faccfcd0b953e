"""Constructed compressed files: mixtures of files, chunks, the chunk table, and truncation."""

from __future__ import annotations

import os
from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.pulsewaves.reader import PulseWavesReader

from ...support.compressed_scenes import EXTRA, PULSE_ITEM, SOURCE16, Compression, write_compressed
from ...support.pulsewaves_scenes import (
    APPENDED,
    PULSE_COUNT,
    Descriptor,
    Pulse,
    Sampling,
    Scene,
    end_of_appended,
    read,
)
from ...support.row_scenes import same

NARROW = Descriptor(
    3,
    [
        Sampling(kind=1, channel=2, count_bits=8),
        Sampling(duration_bits=32, scale=0.5, segment_bits=8, count_bits=8),
    ],
)
WIDE = Descriptor(
    9,
    [Sampling(channel=4, duration_bits=16, segments=2, samples=6, bits=16, offset=7.0)],
    extra=b"1234",
)


def scene(count: int = 40) -> Scene:
    """Pulses of two descriptors with 0 to 3 returning segments of 8 or 16 bits."""
    chance = np.random.default_rng(11)
    pulses = []
    for number in range(count):
        fields = {"time": 1000 * number, "flags": number % 4, "intensity": number * 7 % 256}
        if number % 3 == 2:
            wide = [(number - 9 * k, chance.integers(0, 65536, 6).tolist()) for k in (0, 1)]
            pulses.append(Pulse([wide], descriptor=9, **fields))  # type: ignore[arg-type]
        else:
            runs = [
                (100 * k - number, chance.integers(0, 256, 5 + k).tolist())
                for k in range(number % 4)
            ]
            sent = [(0, [1, 90, number])]
            pulses.append(Pulse([sent, runs], descriptor=3, **fields))  # type: ignore[arg-type]
    return Scene([NARROW, WIDE], pulses)


@pytest.mark.parametrize("samples", [False, True])
@pytest.mark.parametrize("pulses", [False, True])
def test_any_mixture_of_files_gives_the_same_blocks(
    tmp_path: Path, pulses: bool, samples: bool
) -> None:
    """With both sample files in the folder, too, since offsets differ between them."""
    plain, expected = read(scene().write(tmp_path / "plain.pls"), waveforms_per_block=13)
    how = Compression(sizes=7, pulses=pulses, samples=samples)
    path = write_compressed(scene(), tmp_path / "scan.pls", how)
    blocks, tally = read(path, waveforms_per_block=13)
    assert len(blocks) == len(plain) > 4
    assert all(same(one, other) for one, other in zip(plain, blocks, strict=True))
    assert tally == expected


def test_files_of_both_kinds_in_one_folder_are_not_mixed_up(tmp_path: Path) -> None:
    plain = scene().write(tmp_path / "scan.pls")
    kept = plain.with_suffix(".wvs").read_bytes()
    compressed = write_compressed(scene(), tmp_path / "scan.plz", Compression())
    plain.with_suffix(".wvs").write_bytes(kept)
    (one,), (other,) = read(plain)[0], read(compressed)[0]
    assert same(one, other)


@pytest.mark.parametrize(
    "how",
    [
        Compression(sizes=1),
        Compression(sizes=39),
        Compression(sizes=40),
        Compression(sizes=50_000),
        Compression(sizes=[1, 20, 3, 16]),
        Compression(sizes=6, table="end"),
        Compression(sizes=6, items=[(PULSE_ITEM, 48), (EXTRA, 2), (SOURCE16, 2)]),
    ],
    ids=str,
)
def test_chunks_and_items_do_not_change_the_blocks(tmp_path: Path, how: Compression) -> None:
    content = scene()
    if len(how.items) > 1:
        extra = [bytes([number, 255 - number, number % 3, 0]) for number in range(40)]
        pulses = [replace(one, extra=e) for one, e in zip(content.pulses, extra, strict=True)]
        content = replace(content, pulses=pulses)
    plain, _ = read(scene().write(tmp_path / "plain.pls"), waveforms_per_block=9)
    blocks, tally = read(
        write_compressed(content, tmp_path / "scan.plz", how), waveforms_per_block=9
    )
    assert all(same(one, other) for one, other in zip(plain, blocks, strict=True))
    assert not tally.rejected


def test_ranges_of_blocks_are_those_of_the_whole_file(tmp_path: Path) -> None:
    path = write_compressed(scene(), tmp_path / "scan.plz", Compression(sizes=5))
    whole, _ = read(path, waveforms_per_block=4)
    with open_waveforms(path, waveforms_per_block=4) as reader:
        assert reader.block_count() == len(whole) > 10
        for number in (9, 0, 10, 3):
            (block,) = reader.blocks(number, number + 1)
            assert same(block, whole[number])


def test_records_appended_after_the_chunk_table_are_read(tmp_path: Path) -> None:
    content = scene()
    projection = (b"PulseWaves_Proj", 2112, b'GEOGCS["WGS 84"]')
    appended = [end_of_appended(), projection]
    with_records = replace(content, appended=appended, patches={APPENDED: ("<i", -1)})
    path = write_compressed(with_records, tmp_path / "scan.plz", Compression(sizes=7))
    with PulseWavesReader(path) as reader:
        assert [record.record_id for record in reader.header.vlrs] == [2112]
        (block,) = reader.blocks()
    assert same(block, read(content.write(tmp_path / "plain.pls"))[0][0])


def test_file_without_pulses_has_no_blocks(tmp_path: Path) -> None:
    path = write_compressed(scene(0), tmp_path / "scan.plz")
    blocks, tally = read(path)
    assert (blocks, tally.points, tally.waveforms) == ([], 0, 0)


def returning(pulses: int) -> int:
    """Returning segments of the first pulses of the scene."""
    return sum(2 if number % 3 == 2 else number % 4 for number in range(pulses))


@pytest.mark.parametrize("declared", [40, 0])
@pytest.mark.parametrize("table", ["start", "end", ""])
def test_truncated_file_is_read_up_to_the_cut(tmp_path: Path, table: str, declared: int) -> None:
    how = Compression(sizes=7, table=table)
    patches = {PULSE_COUNT: ("<q", declared)} if table == "" else {}
    content = replace(scene(), patches=patches)
    path = write_compressed(content, tmp_path / "scan.plz", how)
    (whole,), _ = read(scene().write(tmp_path / "plain.pls"))
    size = path.stat().st_size
    os.truncate(path, size - 250)
    (block,), tally = read(path)
    held = tally.points
    assert 20 < held < 40
    assert len(block) == returning(held)
    assert np.array_equal(block.samples, whole.samples[: len(block), : block.samples.shape[1]])
    missing = 40 - held if declared or table else 1
    assert tally.rejected == {"pulse missing in the truncated file": missing}
    message = "pulse missing in the truncated file"
    reader = open_waveforms(path, skip_unreadable=False)
    with reader, pytest.raises(WaveformFileError, match=message):
        next(reader.blocks())


def test_complete_file_without_a_chunk_table_has_nothing_missing(tmp_path: Path) -> None:
    path = write_compressed(scene(), tmp_path / "scan.plz", Compression(sizes=7, table=""))
    (block,), tally = read(path)
    assert (len(block), tally.points, dict(tally.rejected)) == (returning(40), 40, {})
    assert tally.notes[0] == "The chunk table is missing; the pulses were read from the start."


@pytest.mark.parametrize("missing", [1, 10])
def test_file_cut_in_the_chunk_table_has_nothing_missing(tmp_path: Path, missing: int) -> None:
    path = write_compressed(scene(), tmp_path / "scan.plz", Compression(sizes=1))
    os.truncate(path, path.stat().st_size - missing)
    (block,), tally = read(path)
    assert (len(block), tally.points, dict(tally.rejected)) == (returning(40), 40, {})


def chunk_bytes(path: Path, number: int) -> int:
    """First byte of a chunk."""
    with PulseWavesReader(path) as reader:
        return int(reader._pulses.source._index.first_bytes[number])  # type: ignore[attr-defined]


def test_damaged_chunk_costs_its_pulses_only(tmp_path: Path) -> None:
    path = write_compressed(scene(), tmp_path / "scan.plz", Compression(sizes=10))
    (whole,), _ = read(path)
    content = bytearray(path.read_bytes())
    begin, end = chunk_bytes(path, 1), chunk_bytes(path, 2)
    content[begin + 48 : end] = b"\xff" * (end - begin - 48)
    path.write_bytes(content)
    (block,), tally = read(path)
    assert tally.rejected == {"pulse in a damaged chunk": 10}
    assert len(block) == returning(40) - (returning(20) - returning(10))
    before = returning(10)
    assert np.array_equal(block.samples[:before], whole.samples[:before])
    assert np.array_equal(block.samples[before:], whole.samples[returning(20) :])
    messages: list[str] = []
    with open_waveforms(path) as reader:
        reader.on_unreadable = messages.append
        list(reader.blocks())
    assert messages == [f"pulse {number}: pulse in a damaged chunk" for number in range(10, 20)]


def test_damaged_samples_cost_their_pulse_only(tmp_path: Path) -> None:
    path = write_compressed(scene(), tmp_path / "scan.plz", Compression(sizes=10))
    waves = path.with_suffix(".wvz")
    (whole,), _ = read(path)
    with PulseWavesReader(path) as reader:
        offsets = reader._pulses[:]["offset"]
    content = bytearray(waves.read_bytes())
    content[offsets[7] : offsets[8]] = b"\xff" * int(offsets[8] - offsets[7])
    waves.write_bytes(content)
    (block,), tally = read(path)
    assert tally.rejected == {"compressed samples damaged": 1}
    first, end = returning(7), returning(8)
    assert np.array_equal(block.samples, np.delete(whole.samples, np.s_[first:end], axis=0))


def test_pulses_share_samples_and_come_in_any_order(tmp_path: Path) -> None:
    content = scene(6)
    (whole,), _ = read(content.write(tmp_path / "plain.pls"))
    path = write_compressed(content, tmp_path / "first.plz", Compression())
    with PulseWavesReader(path) as reader:
        offsets = reader._pulses[:]["offset"].tolist()
    order = [4, 1, 3, 1, 0, 5, 2, 1]
    pulses = [replace(content.pulses[n], offset=offsets[n]) for n in order]
    moved = write_compressed(replace(content, pulses=pulses), tmp_path / "moved.plz", Compression())
    moved.with_suffix(".wvz").write_bytes(path.with_suffix(".wvz").read_bytes())
    (block,), tally = read(moved)
    rows = [row for n in order for row in range(returning(n), returning(n + 1))]
    assert np.array_equal(block.samples, whole.samples[rows])
    assert not tally.rejected
