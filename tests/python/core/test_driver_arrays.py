"""Arrays passed to the driver: views, strides, sizes at the limits, and invalid arguments."""

from __future__ import annotations

import mmap
import tracemalloc
from typing import Any

import numpy as np
import pytest

from fullwaveform import Driver, Result, RowState
from fullwaveform.core.driver import Threshold

from ..support.sample_triples import INTERVAL, Samples, driver, scanner, triples

HUGE = (1_000_000, 65_535)  # 131 GB of samples
MAP_NORESERVE = 0x4000  # Linux; not in Python 3.11


def block() -> Samples:
    """Six different waveforms."""
    return np.array([triples({10 + 3 * row: 80 + 4 * row, 45: 40}) for row in range(6)])


def assert_equal(one: Result, other: Result) -> None:
    for table in ("waveforms", "segments", "peaks"):
        columns, expected = getattr(one, table), getattr(other, table)
        assert list(columns) == list(expected)
        for name in columns:
            np.testing.assert_array_equal(columns[name], expected[name], err_msg=name)
    np.testing.assert_array_equal(one.row_states, other.row_states)
    assert one.statistics == other.statistics


def wider(samples: Samples) -> Samples:
    """The same waveforms as a slice of a wider array filled with another value."""
    array = np.full((len(samples), samples.shape[1] + 17), 999, np.uint16)
    array[:, 5 : 5 + samples.shape[1]] = samples
    return array[:, 5 : 5 + samples.shape[1]]


def every_third_row(samples: Samples) -> Samples:
    array = np.full((3 * len(samples), samples.shape[1]), 999, np.uint16)
    array[::3] = samples
    return array[::3]


def reversed_rows(samples: Samples) -> Samples:
    return samples[::-1].copy()[::-1]


def reversed_slice_of_a_wider_array(samples: Samples) -> Samples:
    return wider(samples[::-1])[::-1]


def read_only(samples: Samples) -> Samples:
    samples.flags.writeable = False
    return samples


def of_bytes(samples: Samples) -> Samples:
    return np.frombuffer(samples.tobytes(), np.uint16).reshape(samples.shape)


@pytest.mark.parametrize(
    "view",
    [wider, every_third_row, reversed_rows, reversed_slice_of_a_wider_array, read_only, of_bytes],
)
def test_view_and_copy_give_equal_results(view: Any) -> None:
    samples = view(block())
    copy = np.array(samples, order="C", copy=True)
    options: dict[str, Any] = {
        "counts": [60, 40, 60, 60, 20, 60],
        "shot_times": [2.0, 1.0, 2.0, 1.0, 3.0, 3.0],
        "channel_flags": [0, 1, 1, 0, 1, 0],
    }
    expected = driver().apply(copy, threshold=10, **options)
    assert expected.peaks.rows > 6
    assert_equal(driver().apply(samples, threshold=10, **options), expected)


def test_broadcast_row_gives_equal_echoes() -> None:
    result = driver().apply(np.broadcast_to(triples({10: 80}), (5, 60)), threshold=10)
    assert result.peaks["idx"].tolist() == [10.0] * 5


def test_single_row_may_have_any_stride() -> None:
    row = np.lib.stride_tricks.as_strided(triples({10: 80}), (1, 60), (10_001 * 2, 2))
    assert driver().apply(row, threshold=10).peaks["idx"].tolist() == [10.0]


def test_columns_of_a_structured_array_are_valid_arguments() -> None:
    table = np.zeros(6, [("count", np.int32), ("time", np.float32), ("flag", np.bool_)])
    table["count"], table["time"], table["flag"] = 60, [2, 1, 2, 1, 3, 3], True
    got = driver().apply(block(), table["count"], table["time"], None, table["flag"], threshold=10)
    same = driver().apply(block(), [60] * 6, [2.0, 1, 2, 1, 3, 3], None, [1] * 6, threshold=10)
    assert_equal(got, same)


def test_broadcast_rows_are_not_copied() -> None:
    """A copy of so many rows would not fit into memory; almost all have a count of 0."""
    counts = np.zeros(HUGE[0], np.uint16)
    counts[-1] = 60
    row = np.zeros(HUGE[1], np.uint16)
    row[:60] = triples({10: 80})
    peaks = driver().apply(np.broadcast_to(row, HUGE), counts, threshold=10).peaks
    assert peaks["row"].tolist() == [HUGE[0] - 1]


def test_contiguous_rows_are_not_copied() -> None:
    """Address space without memory except for the last row; a copy would not fit."""
    flags = mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | MAP_NORESERVE
    memory = mmap.mmap(-1, 2 * HUGE[0] * HUGE[1], flags=flags)
    samples = np.frombuffer(memory, np.uint16).reshape(HUGE)
    samples[-1, :60] = triples({10: 80})
    counts = np.zeros(HUGE[0], np.uint16)
    counts[-1] = 60
    peaks = driver().apply(samples, counts, threshold=10).peaks
    assert peaks["row"].tolist() == [HUGE[0] - 1]


def test_apply_does_not_copy_the_samples() -> None:
    samples = np.zeros((2_000, 4_000), np.uint16)  # 16 MB, no sample above the threshold
    made = driver()
    made.apply(samples[:1], threshold=10)
    tracemalloc.start()
    try:
        made.apply(samples, threshold=10)
        peak = tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()
    assert peak < 1_000_000


@pytest.mark.parametrize("shape", [(0, 0), (0, 60)])
def test_block_without_rows_gives_empty_tables(shape: tuple[int, int]) -> None:
    result = driver().apply(np.zeros(shape, np.uint16), [], [], [], [])
    assert (result.waveforms.rows, result.segments.rows, result.peaks.rows) == (0, 0, 0)
    assert result.row_states.tolist() == []
    assert result.peaks["idx"].dtype == np.float64
    assert_equal(driver().apply(np.zeros(shape, np.uint16)), result)


def test_block_without_columns_has_no_signal() -> None:
    result = driver().apply(np.zeros((3, 0), np.uint16))
    assert result.row_states.tolist() == [RowState.SIGNAL_TOO_LOW] * 3
    assert result.peaks.rows == 0


@pytest.mark.parametrize("threshold", [10, 0, "estimate"])
def test_waveforms_of_up_to_two_samples_have_no_signal(threshold: Threshold) -> None:
    # The first and last samples do not count as maximum: the signal is too low.
    samples = np.full((3, 60), 500, np.uint16)
    result = driver().apply(samples, [0, 1, 2], threshold=threshold)
    assert result.row_states.tolist() == [RowState.SIGNAL_TOO_LOW] * 3


def test_samples_after_the_count_are_not_used() -> None:
    samples = np.array([triples({10: 80, 30: 90})])
    result = driver().apply(samples, [20], threshold=10)
    assert result.peaks["idx"].tolist() == [10.0]
    assert result.waveforms["length"].tolist() == [20]
    assert result.waveforms["maxAmplitude"].tolist() == [80]


def test_largest_samples_and_longest_rows_are_accepted() -> None:
    samples = np.zeros((1, 65_535), np.uint16)
    samples[0, 65_530:65_533] = 2_000, 4_000, 2_000
    samples[0, 100] = 65_535
    result = driver().apply(samples, threshold=10)
    assert result.waveforms["maxAmplitude"].tolist() == [65_535]
    # The single 65535 would be an echo above 4096 counts, which is removed.
    assert result.peaks["idx"].tolist() == [65_531.0]


@pytest.mark.parametrize("kind", ["u1", "i2", "i4", "u8", "f4", "f8", ">u2", ">i4"])
def test_whole_numbers_of_any_type_are_samples(kind: str) -> None:
    expected = driver().apply(block(), threshold=10).peaks
    found = driver().apply(block().astype(kind), threshold=10).peaks
    assert expected.rows > 0
    for name in expected:
        np.testing.assert_array_equal(found[name], expected[name])


NAN = float("nan")
ROWS = block()
REFUSED: dict[str, tuple[dict[str, Any], str]] = {
    "one dimension": (
        {"samples": ROWS[0]},
        "samples must have 2 dimensions (waveform, sample), not 1",
    ),
    "three": (
        {"samples": ROWS[np.newaxis]},
        "samples must have 2 dimensions (waveform, sample), not 3",
    ),
    "floats": (
        {"samples": np.array([[3.0, 4.5]])},
        "samples: value 4.5 at (0, 1) is not a whole number from 0 to 65535 counts",
    ),
    "signed": (
        {"samples": np.array([[3, 4], [5, -6]], np.int16)},
        "samples: value -6 at (1, 1) is not a whole number from 0 to 65535 counts",
    ),
    "large": (
        {"samples": np.array([[3, 65_536]])},
        "samples: value 65536 at (0, 1) is not a whole number from 0 to 65535 counts",
    ),
    "NaN sample": ({"samples": np.array([[3.0, NAN]])}, "samples: value nan at (0, 1) is not"),
    "complex samples": ({"samples": ROWS + 0j}, "must be whole numbers of counts, not complex128"),
    "Boolean samples": ({"samples": ROWS > 0}, "must be whole numbers of counts, not bool"),
    "too wide": (
        {"samples": np.zeros((1, 65_536), np.uint16)},
        "samples have 65536 columns; at most 65535 are allowed",
    ),
    "every second sample": ({"samples": ROWS[:, ::2]}, "must be contiguous and aligned"),
    "columns first": ({"samples": np.asfortranarray(ROWS)}, "must be contiguous and aligned"),
    "reversed": ({"samples": ROWS[:, ::-1]}, "must be contiguous and aligned"),
    "odd address": (
        {"samples": np.frombuffer(b"\0" * 721, np.uint16, 360, offset=1).reshape(6, 60)},
        "must be contiguous and aligned",
    ),
    "count too large": (
        {"counts": [60, 60, 61, 60, 60, 60]},
        "counts: 61 of waveform 2 is not between 0 and the row length 60",
    ),
    "negative count": ({"counts": [60, -1, 60, 60, 60, 60]}, "counts: -1 of waveform 1 is not"),
    "count that would wrap": ({"counts": [65_536 + 9] * 6}, "counts: 65545 of waveform 0 is not"),
    "broken counts": ({"counts": [60.0] * 6}, "counts must be integers, not float64"),
    "few counts": ({"counts": [60] * 5}, "counts has 5 values; expected 6"),
    "counts as a table": ({"counts": [[60] * 6]}, "counts must have 1 dimension, not 2"),
    "NaN shot": (
        {"shot_times": [1, 2, 3, NAN, 5, NAN]},
        "shot_times: the time of waveform 3 is NaN",
    ),
    "NaN sbl": ({"sbl_times": [NAN] * 6}, "sbl_times: the time of waveform 0 is NaN"),
    "many shots": ({"shot_times": np.zeros(7)}, "shot_times has 7 values; expected 6"),
    "one sbl": ({"sbl_times": 0.0}, "sbl_times must have 1 dimension, not 0"),
    "text": ({"shot_times": ["a"] * 6}, "shot_times must be numbers, not <U1"),
    "complex": ({"shot_times": [1j] * 6}, "shot_times must be numbers, not complex128"),
    "nanoseconds": (
        {"shot_times": 1_700_000_000_000_000_000 + np.arange(6)},
        "shot_times: integers beyond 2**53 are not exact as float64",
    ),
    "flag": (
        {"channel_flags": [1, 1, 1, 1, 256, 1]},
        "channel_flags: 256 of waveform 4 is not between 0 and 255",
    ),
    "broken flag": ({"channel_flags": [1.0] * 6}, "channel_flags must be integers, not float64"),
    "few flags": ({"channel_flags": []}, "channel_flags has 0 values; expected 6"),
    "threshold above the limit": ({"threshold": 65_536}, "threshold 65536 must be 'estimate' or"),
    "negative threshold": (
        {"threshold": -3},
        "threshold -3 must be 'estimate' or an integer from 0 to 65535",
    ),
    "fractional threshold": ({"threshold": 10.5}, "threshold 10.5 must be"),
    "boolean threshold": ({"threshold": True}, "threshold True must be"),
    "unknown word for the threshold": ({"threshold": "auto"}, "threshold 'auto' must be"),
}


@pytest.mark.parametrize("name", REFUSED)
def test_invalid_argument_is_named_in_the_error(name: str) -> None:
    options, message = REFUSED[name]
    made = driver()
    with pytest.raises(ValueError, match=r"\w") as caught:
        made.apply(**{"samples": ROWS, "threshold": 10, **options})
    assert message in str(caught.value)
    assert made.apply(ROWS, threshold=10).peaks.rows == 12


def test_infinite_and_signed_zero_times_are_accepted() -> None:
    made = Driver(0, scanner())
    result = made.apply(ROWS[:4], shot_times=[np.inf, 0.0, -0.0, -np.inf], threshold=10)
    assert result.waveforms["row"].tolist() == [3, 1, 2, 0]
    assert result.peaks["time"][0] == 19 * INTERVAL


def test_thresholds_of_both_channels_of_a_shot() -> None:
    # A shot at 1 s: 80 counts in both channels, where the second one has a baseline of 50.
    samples = np.array([triples({20: 80}), triples({20: 80, 40: 200})])
    samples[1] = np.maximum(samples[1], 50)
    options: dict[str, Any] = {"shot_times": [1.0, 1.0], "channel_flags": [1, 0]}
    one_for_all = driver().apply(samples, threshold=10, **options)
    each = driver().apply(samples, threshold=np.array([10, 60]), **options)
    assert one_for_all.waveforms["noise"].tolist() == [10, 10]
    assert each.waveforms["noise"].tolist() == [10, 60]
    assert each.waveforms["segmentCount"].tolist() == [1, 2]
    assert len(set(each.peaks["row"][each.peaks["amplitudeCounts"] > 100].tolist())) == 1


def test_equal_thresholds_are_one_for_all() -> None:
    for one in (0, 10, "estimate"):
        each = np.full(6, -1 if one == "estimate" else one)
        assert_equal(
            driver().apply(block(), threshold=each), driver().apply(block(), threshold=one)
        )


def test_thresholds_of_single_waveforms_may_be_estimated() -> None:
    found = driver().apply(block(), threshold=[10, -1, 10, 10, 10, 10]).waveforms["noise"]
    estimated = driver().apply(block(), threshold="estimate").waveforms["noise"]
    assert found.tolist() == [10, estimated[1], 10, 10, 10, 10]
    assert estimated[1] != 10


@pytest.mark.parametrize(
    ("thresholds", "message"),
    [
        ([10] * 5, "threshold has 5 values; expected 6"),
        ([10.5] * 6, "threshold must be integers, not float64"),
        ([10, 10, -2, 10, 10, 10], "threshold: -2 of waveform 2 is neither -1 .estimate. nor from"),
        ([10, 65_536, 1, 1, 1, 1], "threshold: 65536 of waveform 1 is neither"),
        ([[10] * 6], "threshold must have 1 dimension, not 2"),
    ],
)
def test_invalid_thresholds_of_waveforms(thresholds: Any, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        driver().apply(block(), threshold=thresholds)
