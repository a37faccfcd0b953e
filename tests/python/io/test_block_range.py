"""Reads of block ranges: the same blocks, and tallies that add up."""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable, Iterator
from itertools import pairwise, zip_longest
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import BlockRange, BlockStart, PendingBlock, last_cut
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.pulsewaves.pulses import PulseData, Pulses

from ..support.compressed_scenes import Compression, write_compressed
from ..support.las_scenes import FOUR, Point, Scene, four_shots, rows
from ..support.pulsewaves_scenes import Descriptor, Pulse, Sampling, two_channels
from ..support.pulsewaves_scenes import Scene as PulseScene
from ..support.row_scenes import as_container, same


def las_file(folder: Path) -> Path:
    """Six usable waveforms of four shots, between points of every rejected kind.

    The packet of number 3 has no place, that of number 7 is cut off; three points share number 2.
    """
    points = [
        Point(None, 1.0),
        Point(None, 1.5),
        Point(0, 2.0),
        Point(1, 2.0),
        Point(2, 3.0),
        Point(2, 3.0),
        Point(2, 3.0),
        Point(3, 4.0, location=float("nan")),
        Point(4, 5.0),
        Point(5, 5.0),
        Point(7, 6.0),
        Point(6, 7.0),
        Point(None, 8.0),
    ]
    packets = [(1, [number, 1, 2, 3]) for number in range(8)]
    path = Scene([(1, 8, 4, 1000)], packets, points).write(folder / "a.las")
    companion = path.with_suffix(".wdp")
    companion.write_bytes(companion.read_bytes()[:-4])  # the packet of number 7
    return path


def pulsewaves_file(folder: Path) -> Path:
    return two_channels().write(folder / "a.pls")


def compressed_pulsewaves_file(folder: Path) -> Path:
    return write_compressed(two_channels(), folder / "a.plz", Compression(sizes=2))


def uneven_pulsewaves_file(folder: Path) -> Path:
    """Pulses of none to two waveforms, one without a direction: blocks end before what was read."""
    pulses = [
        Pulse([[(0, [1, 2, 3])] * waveforms], time=number)
        for number, waveforms in enumerate([2, 2, 0, 2, 1, 0, 1, 2, 2, 0, 0])
    ]
    pulses[4].target = pulses[4].anchor
    layout = Descriptor(1, [Sampling(segment_bits=8, count_bits=8)])
    return PulseScene([layout], pulses).write(folder / "a.pls")


def container_file(folder: Path) -> Path:
    return as_container(pulsewaves_file(folder), folder / "a.h5")


def npz_file(folder: Path) -> Path:
    """Two shots of two waveforms, one without a time, one without samples, one at the end."""
    times = [1.0, 1.0, np.nan, 2.0, 2.0, 2.0, 3.0, np.nan]
    np.savez(
        folder / "a.npz",
        samples=np.arange(24, dtype=np.uint16).reshape(8, 3),
        counts=[3, 2, 3, 3, 0, 1, 3, 3],
        shot_times=times,
        sampling_interval=1e-9,
    )
    return folder / "a.npz"


FILES: list[Callable[[Path], Path]] = [
    las_file,
    pulsewaves_file,
    compressed_pulsewaves_file,
    uneven_pulsewaves_file,
    container_file,
    npz_file,
]


def test_blocks_of_the_scene_and_their_counts(tmp_path: Path) -> None:
    with open_waveforms(las_file(tmp_path), waveforms_per_block=2) as reader:
        blocks = list(reader.blocks())
        assert [[row[0] for row in rows([block])] for block in blocks] == [[0, 1], [2], [4, 5], [6]]
        rejected = Counter(
            {
                "samples outside the file": 1,
                "direction or return location not finite": 1,
            }
        )
        assert reader.tally == ReadTally(13, 3, 2, 6, rejected, [])
        (last,) = reader.blocks(3)
        assert last.waveform_numbers.tolist() == [5]
        assert reader.tally.waveforms == 1


@pytest.mark.parametrize("make", FILES)
@pytest.mark.parametrize("size", [1, 2, 3, 100])
@pytest.mark.parametrize("step", [1, 2])
def test_ranges_add_up_to_the_whole_read(
    tmp_path: Path, make: Callable[[Path], Path], size: int, step: int
) -> None:
    with open_waveforms(make(tmp_path), waveforms_per_block=size) as reader:
        whole = list(reader.blocks())
        tally = reader.tally
        assert reader.block_count() == len(whole) > 0
        for last_stop in (len(whole), None, len(whole) + 5):
            stops = [*range(0, len(whole), step), last_stop]
            found: list[WaveformBlock] = []
            summed = ReadTally()
            for first, stop in pairwise(stops):
                part = list(reader.blocks(first, stop))
                assert reader.tally.waveforms == sum(map(len, part))
                found += part
                summed += reader.tally
            assert len(found) == len(whole)
            assert all(map(same, found, whole))
            assert summed == tally


@pytest.mark.parametrize("make", FILES)
@pytest.mark.parametrize("size", [1, 2, 3, 4, 100])
def test_ranges_from_the_starts_of_their_blocks_add_up(
    tmp_path: Path, make: Callable[[Path], Path], size: int
) -> None:
    path = make(tmp_path)
    with open_waveforms(path, waveforms_per_block=size) as reader:
        whole = list(reader.blocks())
        tally = reader.tally
        starts = reader.block_starts()
    assert len(starts) == len(whole)
    for step in (1, 2):
        found: list[WaveformBlock] = []
        summed = ReadTally()
        for start, following in zip_longest(starts[::step], starts[step::step]):
            first = len(found)
            assert start.block in (0, first)  # 0 in formats without places
            stop = None if following is None else first + step
            with open_waveforms(path, waveforms_per_block=size) as reader:
                found += reader.blocks(first, stop, start)
                summed += reader.tally
        assert all(map(same, found, whole))
        assert (len(found), summed) == (len(whole), tally)
        assert (reader.points_done, reader.waveforms_done) == (tally.points, tally.waveforms)


@pytest.mark.parametrize("make", [pulsewaves_file, compressed_pulsewaves_file])
def test_pulses_before_the_start_of_a_block_are_not_read(
    tmp_path: Path, make: Callable[[Path], Path], monkeypatch: pytest.MonkeyPatch
) -> None:
    visited: list[int] = []
    take = PulseData.take

    def watched(pulses: PulseData, numbers: IntArray) -> Pulses:
        visited.extend(numbers.tolist())
        return take(pulses, numbers)

    path = make(tmp_path)
    with open_waveforms(path, waveforms_per_block=1) as reader:
        whole, start = list(reader.blocks()), reader.block_starts()[-1]
    with open_waveforms(path, waveforms_per_block=1) as reader:
        monkeypatch.setattr(PulseData, "take", watched)
        (last,) = reader.blocks(start.block, None, start)
    assert same(last, whole[-1])
    assert set(visited) == {reader.point_count - 1}


@pytest.mark.parametrize(
    "start",
    [BlockStart(1, 1, 9, (0, 1, 1)), BlockStart(1, 1, 0, (1, 1, 1)), BlockStart(1, 0, 0, (0,))],
)
def test_invalid_start_is_refused(tmp_path: Path, start: BlockStart) -> None:
    with open_waveforms(pulsewaves_file(tmp_path), waveforms_per_block=1) as reader:
        with pytest.raises(ValueError, match="invalid start of block 1 at pulse"):
            list(reader.blocks(1, None, start))
        with pytest.raises(ValueError, match="invalid start at block 1; must be at most 0"):
            list(reader.blocks(0, None, start))


@pytest.mark.parametrize("make", FILES)
def test_empty_ranges_have_no_blocks_and_invalid_ones_are_refused(
    tmp_path: Path, make: Callable[[Path], Path]
) -> None:
    with open_waveforms(make(tmp_path), waveforms_per_block=2) as reader:
        count = reader.block_count()
        for first, stop in [(0, 0), (1, 1), (count, None), (count, count + 3), (count + 7, None)]:
            assert list(reader.blocks(first, stop)) == []
            assert reader.tally == ReadTally(notes=reader.tally.notes)
        for first, stop in [(-1, None), (2, 1), (0, -1)]:
            with pytest.raises(ValueError, match=f"invalid block range {first} to {stop}"):
                next(reader.blocks(first, stop))
    for ask in (reader.block_count, lambda: next(reader.blocks())):
        with pytest.raises(ValueError, match="closed"):
            ask()


@pytest.mark.parametrize("make", FILES)
def test_counting_blocks_does_not_affect_an_iteration_in_progress(
    tmp_path: Path, make: Callable[[Path], Path]
) -> None:
    with open_waveforms(make(tmp_path), waveforms_per_block=1) as reader:
        whole = list(reader.blocks())
        under_way = reader.blocks()
        first = next(under_way)
        done = reader.points_done
        assert reader.block_count() == len(whole)
        assert reader.points_done == done
        again = list(reader.blocks())
        assert all(map(same, [first, *under_way], whole))
        assert all(map(same, again, whole))


def test_only_a_full_read_requires_a_readable_waveform(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "a.las")
    companion = path.with_suffix(".wdp")
    companion.write_bytes(companion.read_bytes()[:60])
    with open_waveforms(path) as reader:
        assert list(reader.blocks(0, 9)) == []
        assert reader.tally.rejected.total() == 4  # no block: all belongs to the first range
        assert list(reader.blocks(1)) == []
        assert reader.tally.rejected.total() == 0
        with pytest.raises(WaveformFileError, match="no readable waveform"):
            list(reader.blocks())


def test_points_without_times_may_be_cut_anywhere(tmp_path: Path) -> None:
    points = [Point(number, gps_time=0.0) for number in range(4)]
    path = Scene([(1, 8, 4, 1000)], FOUR, points).write(tmp_path / "a.las")
    reader: WaveformReader
    with open_waveforms(path, waveforms_per_block=3) as reader:
        assert reader.block_count() == 2
        (last,) = reader.blocks(1, 2)
    assert last.waveform_numbers.tolist() == [3]
    assert len(np.unique(last.shot_times)) == 1


def test_samples_of_skipped_blocks_are_not_read() -> None:
    read_numbers: list[list[int]] = []

    def gather(rows: slice, numbers: np.ndarray) -> WaveformBlock:
        assert rows == slice(0, len(numbers))
        read_numbers.append(numbers.tolist())
        return None  # type: ignore[return-value]

    def three(run: BlockRange) -> Iterator[PendingBlock]:
        for waveforms in (2, 3, 1):
            run.total.points += 10
            yield PendingBlock(waveforms, gather, lambda: (np.empty(0), np.empty(0)))
        run.total.points += 4

    run = BlockRange(1, 2)
    assert len(list(run.read(three(run)))) == 1
    assert read_numbers == [[2, 3, 4]]
    assert (run.tally.points, run.tally.waveforms) == (10, 3)
    run = BlockRange(2, 3)
    assert len(list(run.read(three(run)))) == 1
    assert (run.tally.points, run.tally.waveforms) == (14, 1)


@pytest.mark.parametrize(
    ("shots", "fitting", "rows_of_block"),
    [([], 3, 0), ([1, 1], 3, 2), ([1, 1, 2, 2], 3, 2), ([1, 1, 1, 1, 2], 3, 4), ([1, 1, 1], 1, 3)],
)
def test_blocks_are_cut_between_shots(shots: list[int], fitting: int, rows_of_block: int) -> None:
    assert last_cut(np.array(shots, dtype=np.int64), fitting) == rows_of_block
