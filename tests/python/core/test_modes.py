"""All modes on constructed waveforms; system wave and waveform length in the deconvolving ones."""

from __future__ import annotations

from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import numpy as np
import numpy.typing as npt
import pytest
from typer.testing import CliRunner

from fullwaveform import Driver, Mode, Result, RowState, Scanner
from fullwaveform.cli.app import app
from fullwaveform.core.driver import DRIVER_MODES
from fullwaveform.core.scanner import DEFAULT_ATTRIBUTES, NO_AFTER_PULSE
from fullwaveform.io.las.reader import LasWaveformReader
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

FloatArray = npt.NDArray[np.float64]

INTERVAL = 1e-9  # s
BASELINE = 20  # counts, also used as the threshold
WIDTH = 90  # samples
# exp(-t / 2 ns) (1 - cos(t / 1.5 ns)): rises faster than it falls and decays within 12 samples.
DECAY, TURN = 0.5e9, 1e9 / 1.5  # 1/s
SYSTEM_WAVE = {
    "a_real": [1.0, -0.5, -0.5],
    "a_imag": [0.0, 0.0, 0.0],
    "b_real": [-DECAY, -DECAY, -DECAY],
    "b_imag": [0.0, TURN, -TURN],
}


def scanner() -> Scanner:
    return Scanner.from_attributes(
        {**DEFAULT_ATTRIBUTES, **SYSTEM_WAVE, "WaveformSampleInterval": INTERVAL},
        after_pulse=NO_AFTER_PULSE,
    )


def system_wave(samples: FloatArray) -> FloatArray:
    """The scanner's pulse, normalised to maximum 1; 0 before it begins."""
    fine = np.linspace(0, 12, 1201) * INTERVAL
    top = np.max(np.exp(-DECAY * fine) * (1 - np.cos(TURN * fine)))
    t = np.maximum(samples, 0) * INTERVAL
    wave: FloatArray = np.exp(-DECAY * t) * (1 - np.cos(TURN * t)) / top
    return wave


def scene(begins: FloatArray, heights: FloatArray) -> npt.NDArray[np.uint16]:
    """Waveforms with the given pulses (rows, pulses) above the baseline."""
    x = np.arange(WIDTH)
    pulses = heights[..., np.newaxis] * system_wave(x - begins[..., np.newaxis])
    return np.rint(BASELINE + pulses.sum(axis=1)).astype(np.uint16)


def strongest(result: Result, rows: int) -> FloatArray:
    """Position of each row's strongest echo."""
    peaks = result.peaks
    order = np.lexsort((-peaks["amplitudeCounts"], peaks["row"]))
    found, first = np.unique(peaks["row"][order], return_index=True)
    assert found.tolist() == list(range(rows))  # every waveform has an echo
    positions: FloatArray = peaks["idx"][order][first]
    return positions


# The position error depends on the phase: the three-point fit uses other parts of the flanks of a
# skewed pulse, and deconvolved positions are multiples of a fifth of a sample. Decomposition is
# tested in the high-power channel, where it fits one Gaussian; in the other it adds a second one.
@pytest.mark.parametrize(
    ("mode", "channel"),
    [
        (Mode.THREE_POINT, 1),
        (Mode.DECOMPOSITION, 0),
        (Mode.DECONVOLUTION, 1),
        (Mode.HYBRID, 0),
        (Mode.HYBRID, 1),
    ],
)
def test_position_scatter_over_all_phases_is_bounded(mode: Mode, channel: int) -> None:
    begins = np.linspace(20, 50, 301)[:, np.newaxis]
    samples = scene(begins, np.full_like(begins, 900.0))
    driver = Driver(mode, scanner(), longest_waveform=WIDTH)
    flags = np.full(len(begins), channel)
    result = driver.apply(samples, channel_flags=flags, threshold=BASELINE)
    offset = strongest(result, len(begins)) - begins[:, 0]
    assert np.std(offset) < 0.12
    # From the start of the pulse, less the 2.5 samples of mode 2, to the end of its steep part.
    assert -3.0 < np.median(offset) < 5.0


def test_deconvolution_resolves_overlapping_echoes() -> None:
    """Two pulses at a distance of 3.2 samples form one maximum; deconvolution separates them."""
    begins = np.linspace(20, 50, 31)[:, np.newaxis] + np.array([0.0, 3.2])

    def extract(mode: Mode, pulses: int) -> Result:
        samples = scene(begins[:, :pulses], np.full((len(begins), pulses), 800.0))
        return Driver(mode, scanner(), longest_waveform=WIDTH).apply(samples, threshold=BASELINE)

    merged = extract(Mode.THREE_POINT, 2).peaks
    strong = merged["row"][merged["amplitudeCounts"] > 200]  # not the bump after the pulses
    assert strong.tolist() == list(range(len(begins)))
    single = extract(Mode.DECONVOLUTION, 1)
    offset = np.median(strongest(single, len(begins)) - begins[:, 0])
    peaks = extract(Mode.DECONVOLUTION, 2).peaks
    for pulse in (0, 1):
        distance = np.abs(peaks["idx"] - offset - begins[peaks["row"], pulse])
        assert np.unique(peaks["row"][distance < 0.7]).tolist() == list(range(len(begins)))


@pytest.mark.parametrize("mode", DRIVER_MODES)
def test_drivers_in_threads_equal_one_driver(mode: Mode) -> None:
    rng = np.random.default_rng(5)
    begins = rng.uniform(5, 70, (400, 3))
    samples = scene(begins, rng.uniform(50, 900, (400, 3)))

    def extract(rows: slice) -> Result:
        driver = Driver(mode, scanner(), longest_waveform=WIDTH)
        return driver.apply(samples[rows], threshold=BASELINE)

    whole = extract(slice(None))
    with ThreadPoolExecutor(4) as threads:
        parts = list(threads.map(extract, [slice(i, i + 100) for i in range(0, 400, 100)]))
    for name in ("idx", "amplitude", "std", "type"):
        together = np.concatenate([part.peaks[name] for part in parts])
        np.testing.assert_array_equal(together, whole.peaks[name], err_msg=name)


@pytest.mark.parametrize("mode", [2, 3])
def test_missing_system_wave_is_named_in_the_error(mode: int) -> None:
    with pytest.raises(ValueError, match="needs the scanner's system wave: add a_real"):
        Driver(mode, Scanner.default(INTERVAL))


def test_waveform_above_longest_waveform_is_refused() -> None:
    driver = Driver(2, scanner(), longest_waveform=50)
    with pytest.raises(ValueError, match="51 of waveform 1 exceeds longest_waveform 50"):
        driver.apply(np.zeros((2, 60), np.uint16), counts=[50, 51])
    assert driver.apply(np.zeros((1, 60), np.uint16), counts=[50]).peaks.rows == 0


@pytest.mark.parametrize(
    "wave",
    [
        {"a_real": [0.0], "a_imag": [0.0], "b_real": [-1e8], "b_imag": [0.0]},
        {"a_real": [-1.0], "a_imag": [0.0], "b_real": [-1e8], "b_imag": [0.0]},
        {"a_real": [1.0], "a_imag": [0.0], "b_real": [5e20], "b_imag": [0.0]},
    ],
)
def test_unusable_system_wave_is_refused(wave: dict[str, list[float]]) -> None:
    attributes = {**DEFAULT_ATTRIBUTES, **wave, "WaveformSampleInterval": INTERVAL}
    with pytest.raises(ValueError, match="maximum of its 12 samples at 1 ns is"):
        Driver(2, Scanner.from_attributes(attributes))


def test_segment_too_long_to_deconvolve_is_counted() -> None:
    """A signal of 8300 samples is too long to deconvolve; the other waveforms are processed."""
    driver = Driver(2, scanner(), longest_waveform=8192)
    samples = np.full((2, 8400), BASELINE, np.uint16)
    samples[0, 50:8350] = 500
    samples[1, :WIDTH] = scene(np.array([[30.0]]), np.array([[900.0]]))[0]
    result = driver.apply(samples, threshold=BASELINE + 1)
    assert result.waveforms["peakCount"].tolist()[0] == 0
    assert result.waveforms["peakCount"].tolist()[1] > 0
    assert result.statistics["tooLongToDeconvolve"] == 1
    assert result.row_states.tolist() == [RowState.TOO_LONG_TO_DECONVOLVE, RowState.KEPT]


def test_longest_waveform_above_the_limit_is_refused() -> None:
    with pytest.raises(ValueError, match="invalid longest_waveform 8193; expected 0 to 8192"):
        Driver(2, scanner(), longest_waveform=8193)


def test_missing_system_wave_ends_extract_before_reading(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The file is opened, since it may have a scanner description, but no waveform is read."""
    scan = write_scan(simulate_scan(ScanSettings(shots=20)), tmp_path / "scan.las").las
    monkeypatch.setattr(LasWaveformReader, "blocks", None)
    output = tmp_path / "echoes.las"
    call = ["extract", str(scan), "-o", str(output), "--mode", "hybrid"]
    done = CliRunner().invoke(app, call)
    assert done.exit_code == 1
    assert "needs the scanner's system wave" in done.output
    assert "fullwaveform system-wave" in done.output
    assert not output.exists()
