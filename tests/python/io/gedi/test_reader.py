"""GEDI L1B files: samples, places, beams, and shots that are left out or refused."""

from __future__ import annotations

from collections import Counter
from dataclasses import replace
from pathlib import Path

import h5py
import numpy as np
import pytest

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.gedi.reader import GediReader
from fullwaveform.io.opening import open_waveforms

from ...support.hdf5_scenes import FIRST, STEP, GediScene, Shot, bump, changed, two_beams

NAN = float("nan")


def blocks_of(path: Path, **options: object) -> list[WaveformBlock]:
    with open_waveforms(path, **options) as reader:  # type: ignore[arg-type]
        assert isinstance(reader, GediReader)
        return list(reader.blocks())


def one_beam(*shots: Shot, **options: object) -> GediScene:
    return GediScene({"BEAM0011": shots}, **options)  # type: ignore[arg-type]


def test_samples_are_rounded_to_whole_counts_and_padded_with_zeros(tmp_path: Path) -> None:
    scene = one_beam(Shot([230.49, 230.51, 65535.4, -0.4]), Shot([7.0, 8.0]))
    (block,) = blocks_of(scene.write(tmp_path / "a.h5"))
    assert block.samples.dtype == np.uint16
    assert block.samples.tolist() == [[230, 231, 65535, 0], [7, 8, 0, 0]]
    assert block.counts.tolist() == [4, 2]
    assert block.sampling_intervals.tolist() == [1e-9, 1e-9]
    assert block.channel_flags.tolist() == [0, 0]


def test_rounding_is_noted(tmp_path: Path) -> None:
    with open_waveforms(two_beams().write(tmp_path / "a.h5")) as reader:
        list(reader.blocks())
        assert any("rounded to whole counts" in note for note in reader.tally.notes)


@pytest.mark.parametrize("chunk", [None, 1, 16, 1000])
@pytest.mark.parametrize("gap", [0, 3, 20_000])
def test_waveforms_are_found_wherever_they_are_in_the_dataset(
    tmp_path: Path, chunk: int | None, gap: int
) -> None:
    shots = [Shot([10.0 * n + i for i in range(3 + n)], number=n) for n in range(5)]
    path = one_beam(*shots, chunk=chunk, gap=gap).write(tmp_path / "a.h5")
    (block,) = blocks_of(path)
    for row, shot in zip(block.samples, shots, strict=True):
        assert row[: len(shot.samples)].tolist() == shot.samples
        assert not row[len(shot.samples) :].any()


def test_waveforms_may_overlap_and_be_in_any_order(tmp_path: Path) -> None:
    path = one_beam(Shot([1.0, 2.0, 3.0]), Shot([4.0, 5.0, 6.0])).write(tmp_path / "a.h5")

    def swap(file: h5py.File) -> None:
        file["BEAM0011/rx_sample_start_index"][:] = [3, 1]

    (block,) = blocks_of(changed(path, swap))
    assert block.samples.tolist() == [[3, 4, 5], [1, 2, 3]]


def test_sample_lies_between_the_places_of_first_and_last_sample(tmp_path: Path) -> None:
    (block,) = blocks_of(one_beam(Shot(bump(101))).write(tmp_path / "a.h5"))
    geometry = block.geometry
    for sample in (0, 40, 100):
        lead = geometry.location[0] - sample * 1000.0
        place = geometry.anchor[0] + lead * geometry.direction[0]
        expected = np.array(FIRST) + sample * np.array(STEP)
        assert (np.abs(place - expected) < [1e-12, 1e-12, 1e-9]).all()


def test_waveform_across_180_degrees_stays_short(tmp_path: Path) -> None:
    shot = Shot(bump(101), first=(179.999995, 0.0, 100.0), step=(1e-7, 0.0, -0.15))
    path = one_beam(shot).write(tmp_path / "a.h5")

    def wrap(file: h5py.File) -> None:
        file["BEAM0011/geolocation/longitude_lastbin"][:] -= 360.0

    (block,) = blocks_of(changed(path, wrap))
    np.testing.assert_allclose(block.geometry.direction[0, 0], -1e-10, rtol=1e-4)


def test_time_is_adjusted_gps_time_since_the_epoch(tmp_path: Path) -> None:
    path = one_beam(Shot(bump(), time=40810919.7515502)).write(tmp_path / "a.h5")
    (block,) = blocks_of(path)
    assert block.attributes.gps_time[0] == 198800018.0 + 40810919.7515502
    without = one_beam(Shot(bump(), time=1.0), epoch=None).write(tmp_path / "b.h5")
    (block,) = blocks_of(without)
    assert block.attributes.gps_time[0] == 198800019.0
    with open_waveforms(path) as reader:
        assert reader.header is not None
        assert reader.header.global_encoding.gps_time_type.name == "STANDARD"


@pytest.mark.parametrize("size", [1, 2, 3, 100])
def test_no_block_holds_two_beams(tmp_path: Path, size: int) -> None:
    path = two_beams().write(tmp_path / "a.h5")
    blocks = blocks_of(path, waveforms_per_block=size)
    beams = [set(block.beams.tolist()) for block in blocks]  # type: ignore[union-attr]
    assert all(len(names) == 1 for names in beams)
    assert set().union(*beams) == {"BEAM0101", "BEAM1011"}
    assert {b.descriptors[0] for b in blocks} == {0b0101, 0b1011}
    numbers = np.concatenate([block.shot_numbers for block in blocks])  # type: ignore[misc]
    assert numbers.tolist() == [501, 502, 503, 1101, 1102]
    assert numbers.dtype == np.uint64
    running = np.concatenate([block.waveform_numbers for block in blocks])
    assert running.tolist() == [0, 1, 2, 3, 4]


def test_shots_of_two_beams_at_the_same_time_are_two_shots(tmp_path: Path) -> None:
    blocks = blocks_of(two_beams().write(tmp_path / "a.h5"))
    times = np.concatenate([block.attributes.gps_time for block in blocks])
    shots = np.concatenate([block.shot_times for block in blocks])
    assert len(np.unique(times)) == 4
    assert len(np.unique(shots)) == 5


def test_blocks_that_measure_the_levels_hold_one_beam(tmp_path: Path) -> None:
    with open_waveforms(two_beams().write(tmp_path / "a.h5")) as reader:
        found = list(reader.spread_blocks())
    assert [len(block) for block in found] == [3, 2]
    assert [set(block.descriptors.tolist()) for block in found] == [{5}, {11}]


@pytest.mark.parametrize("degrade_type", ["i1", "<i2"])
def test_degraded_and_stale_shots_are_left_out_and_counted(
    tmp_path: Path, degrade_type: str
) -> None:
    scene = one_beam(
        Shot(bump(), number=1),
        Shot(bump(), number=2, degrade=3),
        Shot(bump(), number=3, stale=1, degrade=1),
        Shot(bump(), number=4),
        degrade_type=degrade_type,
    )
    path = scene.write(tmp_path / "a.h5")
    with open_waveforms(path, waveforms_per_block=1) as reader:
        numbers = [block.shot_numbers.tolist() for block in reader.blocks()]  # type: ignore[union-attr]
        assert numbers == [[1], [4]]
        assert reader.tally.left_out == Counter(
            {"stale return": 1, "degraded pointing or orbit": 1}
        )
        assert not reader.tally.rejected
        assert (reader.tally.points, reader.tally.waveforms) == (4, 2)
    (block,) = blocks_of(path, keep_degraded=True)
    assert block.shot_numbers.tolist() == [1, 2, 3, 4]  # type: ignore[union-attr]


def test_file_of_degraded_shots_says_how_to_keep_them(tmp_path: Path) -> None:
    path = one_beam(Shot(bump(), degrade=1)).write(tmp_path / "a.h5")
    with pytest.raises(WaveformFileError, match=r"1 x degraded pointing or orbit\); use --keep-de"):
        blocks_of(path)


@pytest.mark.parametrize("value", [NAN, float("inf"), -9999.0, 65536.0, -1.0])
def test_shot_with_a_sample_that_is_no_count_is_refused_and_counted(
    tmp_path: Path, value: float
) -> None:
    good = bump(30)
    shots = [Shot(good, number=n) for n in range(5)]
    shots[2] = replace(shots[2], samples=[*good[:20], value, *good[21:]])
    path = one_beam(*shots).write(tmp_path / "a.h5")
    places: list[str] = []
    with open_waveforms(path, waveforms_per_block=2) as reader:
        reader.on_unreadable = places.append
        blocks = list(reader.blocks())
        reason = "samples that are not numbers or not from 0 to 65,535 counts"
        assert reader.tally.rejected == Counter({reason: 1})
        assert reader.tally.waveforms == 4
    assert places == [f"BEAM0011 row 2: {reason}"]
    assert [b.shot_numbers.tolist() for b in blocks] == [[0, 1], [3], [4]]  # type: ignore[union-attr]
    # The number of the refused waveform is not used again, so that it is equal for any range.
    assert [b.waveform_numbers.tolist() for b in blocks] == [[0, 1], [3], [4]]
    with pytest.raises(WaveformFileError, match=r"1 unreadable waveform .*--skip-unreadable"):
        blocks_of(path, skip_unreadable=False)


@pytest.mark.parametrize("size", [1, 2, 3, 100])
def test_ranges_with_refused_shots_add_up_to_the_whole(tmp_path: Path, size: int) -> None:
    shots = [Shot([NAN, 1.0, 2.0] if n % 3 == 1 else bump(9), number=n) for n in range(11)]
    path = one_beam(*shots).write(tmp_path / "a.h5")
    with open_waveforms(path, waveforms_per_block=size) as reader:
        whole = [block.waveform_numbers.tolist() for block in reader.blocks()]
        tally = reader.tally
        found, total = [], reader.tally.since(reader.tally)
        for number in range(reader.block_count()):
            found += [b.waveform_numbers.tolist() for b in reader.blocks(number, number + 1)]
            total += reader.tally
    assert found == whole
    assert total == tally
    assert tally.rejected.total() == 4


@pytest.mark.parametrize(
    ("name", "values", "reason"),
    [
        ("rx_sample_start_index", [0, 1], "samples outside the file"),
        ("rx_sample_start_index", [2**64 - 1, 1], "samples outside the file"),
        ("rx_sample_start_index", [58, 1], "samples outside the file"),
        ("rx_sample_start_index", [32, 1], "samples outside the file"),  # of 60, the last is 61
        ("rx_sample_count", [0, 30], "waveform of fewer than 2 samples"),
        ("rx_sample_count", [1, 30], "waveform of fewer than 2 samples"),
        ("rx_sample_count", [61, 30], "samples outside the file"),
        ("delta_time", [NAN, 1.0], "GPS time not finite"),
    ],
)
def test_unreadable_shot_is_refused_and_counted(
    tmp_path: Path, name: str, values: list[float], reason: str
) -> None:
    path = one_beam(Shot(bump(30)), Shot(bump(30), number=2)).write(tmp_path / "a.h5")

    def change(file: h5py.File) -> None:
        file[f"BEAM0011/{name}"][:] = values

    with open_waveforms(changed(path, change)) as reader:
        (block,) = reader.blocks()
        assert reader.tally.rejected == Counter({reason: 1})
    assert block.shot_numbers.tolist() == [2]  # type: ignore[union-attr]


def test_place_that_is_a_fill_value_is_unknown(tmp_path: Path) -> None:
    shots = [Shot(bump(), first=(-9999.0, -9999.0, -9999.0)), Shot(bump())]
    (block,) = blocks_of(one_beam(*shots).write(tmp_path / "a.h5"))
    assert np.isnan(block.geometry.anchor[0]).all()
    assert np.isnan(block.geometry.direction[0]).all()
    assert np.isfinite(block.geometry.anchor[1]).all()


def test_outgoing_pulses_are_read_when_they_are_asked_for(tmp_path: Path) -> None:
    scene = one_beam(
        Shot(bump(), outgoing=[240.4, 900.6, 240.0]),
        Shot(bump(), outgoing=[NAN, 1.0]),
        Shot(bump(), outgoing=[]),
        Shot(bump(), outgoing=[5.0, 6.0]),
    )
    with open_waveforms(scene.write(tmp_path / "a.h5")) as reader:
        assert next(reader.blocks()).outgoing is None
        reader.with_outgoing = True
        outgoing = next(reader.blocks()).outgoing
    assert outgoing is not None
    assert outgoing.counts.tolist() == [3, 0, 0, 2]
    assert outgoing.samples[0].tolist() == [240, 901, 240]
    assert outgoing.samples[3].tolist() == [5, 6, 0]


def test_header_has_degrees_and_the_box_of_the_shots(tmp_path: Path) -> None:
    far = Shot(bump(101), first=(-43.0, 10.0, 90.0), degrade=1)
    path = one_beam(Shot(bump(101)), far).write(tmp_path / "a.h5")
    with open_waveforms(path) as reader:
        header = reader.header
    assert header is not None
    assert header.parse_crs().to_epsg() == 4979
    assert header.scales.tolist() == [1e-7, 1e-7, 0.001]
    assert header.offsets.tolist() == [0.0, 0.0, 0.0]
    np.testing.assert_allclose(header.mins, [-44.125, -13.75002, 835.0], atol=1e-9)
    np.testing.assert_allclose(header.maxs, [-44.12499, -13.75, 850.0], atol=1e-9)


def test_coordinates_in_a_projected_system(tmp_path: Path) -> None:
    """UTM zone 23 South, whose central meridian is 45 degrees West, to first order."""
    path = one_beam(Shot(bump(101))).write(tmp_path / "a.h5")
    (block,) = blocks_of(path, crs="EPSG:32723")
    np.testing.assert_allclose(block.geometry.anchor[0, 2], 850.0, atol=1e-9)
    east, north, _ = block.geometry.anchor[0]
    # A degree is 108,200 m along this parallel and 110,600 m along the meridian, times 0.9996.
    assert east == pytest.approx(500_000 + 0.875 * 108_200 * 0.9996, abs=300)
    assert north == pytest.approx(10_000_000 - 13.75 * 110_600 * 0.9996, abs=1_500)
    step = -block.geometry.direction[0] * 1000.0
    np.testing.assert_allclose(step, [1e-7 * 108_200, -2e-7 * 110_640, -0.15], rtol=5e-3, atol=1e-4)
    with open_waveforms(path, crs="EPSG:32723") as reader:
        header = reader.header
    assert header is not None
    assert header.parse_crs().to_epsg() == 32723
    assert header.scales.tolist() == [0.001] * 3
    assert header.offsets[0] == 595_000.0


def test_invalid_reference_systems_are_refused(tmp_path: Path) -> None:
    path = two_beams().write(tmp_path / "a.h5")
    with pytest.raises(ValueError, match="unknown coordinate reference system 'EPSG:1'"):
        open_waveforms(path, crs="EPSG:1")


def test_files_of_other_products_are_named(tmp_path: Path) -> None:
    with h5py.File(tmp_path / "l2a.h5", "w") as file:
        file["BEAM0101/rh"] = [1.0]
    with pytest.raises(WaveformFileError, match="beams without waveforms"):
        open_waveforms(tmp_path / "l2a.h5")


def test_data_of_variable_length_are_refused_before_they_are_read(tmp_path: Path) -> None:
    path = two_beams().write(tmp_path / "a.h5")

    def change(file: h5py.File) -> None:
        del file["BEAM0101/rxwaveform"]
        kind = h5py.vlen_dtype(np.float32)
        file["BEAM0101"].create_dataset("rxwaveform", (3,), dtype=kind)

    with pytest.raises(WaveformFileError, match="rxwaveform has type variable length"):
        open_waveforms(changed(path, change))


def test_given_channels_are_ignored_with_a_note(tmp_path: Path) -> None:
    path = two_beams().write(tmp_path / "a.h5")
    with open_waveforms(path, channel_flags={5: 0}) as reader:
        (first, _) = reader.blocks()
        assert any("channels were ignored" in note for note in reader.tally.notes)
    assert first.channel_flags.tolist() == [0, 0, 0]
