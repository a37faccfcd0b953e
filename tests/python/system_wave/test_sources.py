"""Pulses and echoes read from files."""

from __future__ import annotations

import importlib.util
import sys
from pathlib import Path
from types import ModuleType

import numpy as np
import pytest

from fullwaveform import Scanner
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan
from fullwaveform.system_wave import AveragePulse
from fullwaveform.system_wave.sources import NOT_RECORDED, Input, Source

from .scenes import INTERVAL, echo_samples, recorded, shape


def averaged(source: Input) -> AveragePulse:
    return source.averaged_pulse(Scanner.default())


def is_the_pulse(found: AveragePulse, tolerance: float = 1e-2) -> bool:
    near = np.abs(found.position) < 12.0
    return bool(np.abs(found.value - shape(found.position))[near].max() < tolerance)


@pytest.fixture
def arrays(tmp_path: Path) -> Path:
    path = tmp_path / "arrays.npz"
    rows, _ = recorded(300, 0.3)
    np.savez(
        path,
        out_samples=np.maximum(rows, 0).astype(np.uint16),
        out_count=np.full(300, 55),
        samples=echo_samples(200),
        count=np.full(200, 60, np.uint16),
        single=shape(np.arange(60) - 20.0),
        sampling_interval_s=INTERVAL,
        name="a scan",
    )
    return path


def test_outgoing_pulses_of_arrays(arrays: Path) -> None:
    found = averaged(Input(arrays))
    assert (found.used, found.sampling_interval) == (300, INTERVAL)
    assert found.origin == "out_samples of arrays.npz"
    assert found.position[-1] == pytest.approx(34.0, abs=0.6)  # 55 samples, maximum at 20
    assert is_the_pulse(found)


def test_echoes_of_arrays(arrays: Path) -> None:
    found = averaged(Input(arrays, Source.ECHOES, threshold=12))
    assert found.used > 90
    assert is_the_pulse(found, 2e-2)


def test_array_is_selected_by_name(tmp_path: Path) -> None:
    path = tmp_path / "one.npz"
    np.savez(path, wave=np.rint(1000 * shape(np.arange(60) - 20.0)), sampling_interval_s=2e-9)
    found = averaged(Input(path, array="wave"))
    assert (found.used, found.sampling_interval) == (1, 2e-9)
    assert list(Input(path, array="wave").waveforms()) == []


def test_given_interval_has_precedence(arrays: Path) -> None:
    assert averaged(Input(arrays, interval=3e-9)).sampling_interval == 3e-9
    (waveforms,) = Input(arrays, interval=3e-9).waveforms()
    assert waveforms.sampling_interval == 3e-9


def test_text_of_two_columns_is_read(tmp_path: Path) -> None:
    path = tmp_path / "pulse.csv"
    time = np.arange(0.0, 50.0, 0.25)
    lines = [
        f"{t:.2f}; {a:.6f}  # a value" for t, a in zip(time, shape(time / 2 - 10), strict=True)
    ]
    path.write_text("\n".join(["# ns; volts", "", *lines]), encoding="utf-8")
    found = averaged(Input(path, interval=2e-9))
    assert is_the_pulse(found, 2e-3)
    assert list(Input(path, interval=2e-9).waveforms()) == []


def test_header_line_of_a_text_file_is_skipped(tmp_path: Path) -> None:
    """As spreadsheets write them: a byte order mark, names, comma-separated values."""
    path = tmp_path / "pulse.csv"
    time = np.arange(0.0, 50.0, 0.25)
    lines = [f"{t:.2f},{a:.6f}" for t, a in zip(time, shape(time / 2 - 10), strict=True)]
    path.write_text("\n".join(["time_ns,amplitude", *lines]), encoding="utf-8-sig")
    assert is_the_pulse(averaged(Input(path, interval=2e-9)), 2e-3)


@pytest.mark.parametrize(
    ("content", "rule"),
    [
        ("time amplitude\nns volts\n1 2\n", "not a table of numbers"),
        ("1 2\n3 four\n", "not a table of numbers"),
        ("1 2\n3\n", "not a table of numbers"),
        ("1 2 3\n4 5 6\n", "expected two columns"),
        ("", "expected two columns"),
        ("1 2\n2 3\n", "at least 8 times"),
    ],
)
def test_invalid_text_files_are_refused(tmp_path: Path, content: str, rule: str) -> None:
    path = tmp_path / "pulse.txt"
    path.write_text(content, encoding="utf-8")
    with pytest.raises(ValueError, match=rf"pulse\.txt: .*{rule}"):
        averaged(Input(path, interval=1e-9))


def test_text_without_an_interval_is_refused(tmp_path: Path) -> None:
    path = tmp_path / "pulse.txt"
    path.write_text("1 2\n", encoding="utf-8")
    with pytest.raises(ValueError, match="in ns with --interval"):
        averaged(Input(path))


def test_missing_or_nonnumeric_array_is_refused(arrays: Path) -> None:
    with pytest.raises(ValueError, match="has no array other; it has count, name, out_count"):
        averaged(Input(arrays, array="other"))
    with pytest.raises(ValueError, match="name must be numbers"):
        averaged(Input(arrays, array="name"))


def test_arrays_without_an_interval_are_refused(tmp_path: Path) -> None:
    path = tmp_path / "a.npz"
    np.savez(path, out_samples=np.ones((3, 9)))
    with pytest.raises(ValueError, match="has no sampling_interval"):
        averaged(Input(path))


def test_invalid_npz_is_refused(tmp_path: Path) -> None:
    path = tmp_path / "a.npz"
    path.write_bytes(b"PK\x03\x04 and no archive")
    with pytest.raises(ValueError, match=r"corrupt \.npz"):
        averaged(Input(path))
    with pytest.raises(FileNotFoundError):
        averaged(Input(tmp_path / "missing.npz"))


@pytest.mark.parametrize(
    ("samples", "count"),
    [
        (np.full((3, 40), -1), None),
        (np.full((3, 40), 0.5), None),
        (np.ones(40, np.int64), None),
        (np.ones((3, 40), np.int64), [40, 41, 40]),
        (np.ones((3, 40), np.int64), [40, 40]),
    ],
)
def test_invalid_samples_are_refused(
    tmp_path: Path, samples: np.ndarray, count: list[int] | None
) -> None:
    path = tmp_path / "a.npz"
    more = {} if count is None else {"count": np.array(count)}
    np.savez(path, samples=samples, sampling_interval_s=1e-9, **more)
    message = (
        r"value (-1|0\.5) at \(0, 0\) is not a whole number|"
        r"invalid samples of|count (41 of waveform 1|has shape \(2,\))"
    )
    with pytest.raises(ValueError, match=message):
        averaged(Input(path, Source.ECHOES))


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    return write_scan(simulate_scan(ScanSettings(shots=400)), path).las


def test_echoes_of_a_las_file(scan: Path) -> None:
    found = averaged(Input(scan, threshold=25))
    assert found.origin == "isolated echoes of scan.las"
    assert found.used > 100
    # Echoes of the simulation are Gaussians, half of them 1.63 to 1.76 samples wide (deviation).
    deviation = np.ptp(found.position[found.value >= 0.5]) / np.sqrt(8.0 * np.log(2.0))
    assert 1.6 < deviation < 1.8
    gauss = np.exp(-0.5 * (found.position / deviation) ** 2)
    assert np.abs(found.value - gauss)[np.abs(found.position) < 8].max() < 2e-2


def test_las_file_has_no_outgoing_pulses(scan: Path) -> None:
    with pytest.raises(ValueError, match="has no outgoing pulses; use --source echoes"):
        averaged(Input(scan, Source.OUTGOING))


def pulsewaves_file(path: Path, outgoing: bool) -> Path:
    """A pulse per shot: 50 outgoing samples, 60 returning ones."""
    layout = pulsewaves_scenes()
    sent, returned = np.maximum(recorded(150, 0.3)[0], 0.0).astype(int), echo_samples(150, 9)
    kinds = [layout.Sampling(kind=1, samples=50)] if outgoing else []
    kinds.append(layout.Sampling(kind=2, samples=60, duration_bits=32))
    waves = [
        [*([[(0, row[:50].tolist())]] if outgoing else []), [(900, back.tolist())]]
        for row, back in zip(sent, returned, strict=True)
    ]
    pulses = [layout.Pulse(wave, time=number) for number, wave in enumerate(waves)]
    written: Path = layout.Scene([layout.Descriptor(1, kinds)], pulses).write(path)
    return written


def pulsewaves_scenes() -> ModuleType:
    """The writer of small PulseWaves files, from the tests of their reader."""
    path = Path(__file__).resolve().parents[1] / "support" / "pulsewaves_scenes.py"
    spec = importlib.util.spec_from_file_location("pulsewaves_scenes_for_pulses", path)
    assert spec is not None
    assert spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = module  # dataclasses look up their module
    spec.loader.exec_module(module)
    return module


def test_outgoing_pulses_of_a_pulsewaves_file(tmp_path: Path) -> None:
    path = pulsewaves_file(tmp_path / "scan.pls", outgoing=True)
    found = averaged(Input(path))
    assert (found.used, found.sampling_interval) == (150, 1e-9)
    assert found.origin == "outgoing pulses of scan.pls"
    assert is_the_pulse(found)
    (waveforms,) = Input(path).waveforms()
    np.testing.assert_array_equal(waveforms.samples, echo_samples(150, 9))


def test_echoes_of_a_pulsewaves_file(tmp_path: Path) -> None:
    path = pulsewaves_file(tmp_path / "scan.pls", outgoing=True)
    found = averaged(Input(path, Source.ECHOES, threshold=12))
    assert found.origin == "isolated echoes of scan.pls"
    assert is_the_pulse(found, 2e-2)


def test_pulsewaves_file_without_outgoing_pulses(tmp_path: Path) -> None:
    path = pulsewaves_file(tmp_path / "scan.pls", outgoing=False)
    assert averaged(Input(path, threshold=12)).origin == "isolated echoes of scan.pls"
    with pytest.raises(ValueError, match="has no outgoing pulses; use --source echoes"):
        averaged(Input(path, Source.OUTGOING))


def test_used_and_rejected_pulses_add_up(tmp_path: Path) -> None:
    path = pulsewaves_file(tmp_path / "scan.pls", outgoing=True)
    waves = path.with_suffix(".wvs")
    # Each pulse has 50 outgoing samples, 4 bytes and 60 returning samples; 60 bytes precede.
    waves.write_bytes(waves.read_bytes()[: 60 + 120 * 114 + 80])
    found = averaged(Input(path))
    assert found.used == 120
    assert list(found.rejected.values()) == [30]
    waves.write_bytes(waves.read_bytes()[:60])
    with pytest.raises(ValueError, match=r"no readable waveform \(150 x samples"):
        averaged(Input(path))


def test_pulses_without_outgoing_samples_are_counted(tmp_path: Path) -> None:
    layout = pulsewaves_scenes()
    both = [layout.Sampling(kind=1, samples=50), layout.Sampling()]
    sent = np.maximum(recorded(40, 0.3)[0], 0.0).astype(int)
    back = (0, [1, 2, 3, 4])
    pulses = [layout.Pulse([[(0, row[:50].tolist())], [back]]) for row in sent]
    pulses += [layout.Pulse([[back]], descriptor=2) for _ in range(7)]
    kinds = [layout.Descriptor(1, both), layout.Descriptor(2, [layout.Sampling()])]
    found = averaged(Input(layout.Scene(kinds, pulses).write(tmp_path / "scan.pls")))
    assert found.rejected[NOT_RECORDED] == 7
    assert found.used + found.rejected.total() == 47


def test_arrays_with_echoes_only(tmp_path: Path) -> None:
    path = tmp_path / "a.npz"
    np.savez(path, samples=echo_samples(200), sampling_interval_s=INTERVAL)
    found = averaged(Input(path, threshold=12))
    assert found.origin == "isolated echoes of a.npz"
    assert is_the_pulse(found, 2e-2)
    assert len(list(Input(path).waveforms())) == 1
    with pytest.raises(ValueError, match=r"has no array out_samples; use --source echoes"):
        averaged(Input(path, Source.OUTGOING))


def test_echoes_of_an_archive_under_its_documented_keys(tmp_path: Path, arrays: Path) -> None:
    """Rows are longer than their counts, and the archive is recognised by its content."""
    path = tmp_path / "scan.txt"
    after = np.full((200, 20), 900, np.uint16)
    samples, times = np.hstack([echo_samples(200), after]), np.arange(200.0)
    with path.open("wb") as stream:
        np.savez(stream, samples=samples, counts=np.full(200, 60), sampling_interval=INTERVAL,
                 shot_times=times)  # fmt: skip
    found, known = (
        averaged(Input(path, threshold=12)),
        averaged(Input(arrays, Source.ECHOES, threshold=12)),
    )
    assert (found.used, found.sampling_interval) == (known.used, INTERVAL)
    np.testing.assert_array_equal(found.value, known.value)


def test_text_of_another_encoding_is_refused(tmp_path: Path) -> None:
    path = tmp_path / "pulse.txt"
    path.write_bytes("# 5 µs\n1 2\n".encode("latin-1"))
    with pytest.raises(WaveformFileError, match=r"pulse\.txt: not UTF-8 text"):
        averaged(Input(path, interval=1e-9))


@pytest.mark.parametrize("interval", [1e-6, 1e-3, 4.2e-9])
def test_curve_shorter_than_the_window_is_refused(tmp_path: Path, interval: float) -> None:
    path = tmp_path / "pulse.txt"
    time = np.arange(0.0, 50.25, 0.25)
    np.savetxt(path, np.column_stack([time, shape(time / 2 - 10)]))
    with pytest.raises(ValueError, match=r"pulse\.txt: .* spans 50 ns, .* both be in ns"):
        averaged(Input(path, interval=interval))
