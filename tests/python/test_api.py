"""The short way from a file to tables, on constructed scans."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import replace
from pathlib import Path
from typing import Any

import laspy
import numpy as np
import pyarrow as pa
import pytest

import fullwaveform
from fullwaveform import Extraction, Mode, Scanner, WaveformState
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from .extraction.test_extraction import Packet, block_of
from .extraction.test_extraction import triples as samples_of
from .support.command_line import run
from .support.echo_tables import assert_same_rows
from .support.row_scenes import as_container


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("scan")
    return write_scan(simulate_scan(ScanSettings(shots=300)), folder / "scan.las").las


def of_blocks(**options: Any) -> Extraction:
    """Two blocks: a waveform with echoes at samples 10 and 30, a silent one, one with one echo."""
    first = block_of(
        [Packet(samples_of({10: 80, 30: 90}), shot=1.0), Packet(samples_of({}), shot=2.0)]
    )
    second = block_of([Packet(samples_of({20: 70}), shot=3.0)])
    return fullwaveform.extract([first, second], threshold=10, **options)


def test_tables_of_constructed_blocks() -> None:
    result = of_blocks()
    assert repr(result) == "Extraction(3 echoes of 3 waveforms)"
    peaks, waveforms = result.peaks, result.waveforms
    assert peaks["position"].tolist() == [10.0, 30.0, 20.0]
    # 0.15 m per ns below the anchor at 300 m
    np.testing.assert_allclose(peaks["z"], [298.5, 295.5, 297.0], rtol=0, atol=1e-9)
    np.testing.assert_allclose(peaks["amplitude"], [80, 90, 70], rtol=1e-6)
    assert waveforms["echo_count"].tolist() == [2, 0, 1]
    assert waveforms["state"].tolist() == [
        WaveformState.WITH_ECHOES,
        WaveformState.SIGNAL_TOO_LOW,
        WaveformState.WITH_ECHOES,
    ]
    assert waveforms["max_amplitude"].tolist()[::2] == [90.0, 70.0]
    assert waveforms["max_position"].tolist()[::2] == [30.0, 20.0]
    assert np.isnan(waveforms["max_amplitude"][1])
    assert waveforms["threshold"].tolist()[::2] == [10.0, 10.0]
    assert (result.tally.waveforms, result.tally.echoes) == (3, 3)


def test_waveforms_without_echoes_are_kept_on_request() -> None:
    peaks = of_blocks(keep_empty=True).peaks
    assert peaks["echo_number"].tolist() == [1, 2, 0, 1]
    assert peaks["waveform_number"].tolist() == [70, 70, 71, 70]
    assert np.isnan(peaks["z"]).tolist() == [False, False, True, False]


def test_tables_have_units() -> None:
    result = of_blocks()
    peaks, waveforms = result.to_arrow(), result.to_arrow("waveforms")
    assert (peaks.num_rows, waveforms.num_rows) == (3, 3)
    assert peaks.schema.field("sigma_ns").metadata[b"unit"] == b"ns"
    assert waveforms.schema.field("sampling_interval").metadata[b"unit"] == b"s"
    assert waveforms.column("sampling_interval").to_pylist() == [1e-9] * 3
    with pytest.raises(ValueError, match="unknown table 'shots'; expected 'peaks' or 'waveforms'"):
        result.to_arrow("shots")


def test_tables_convert_to_pandas() -> None:
    pandas = pytest.importorskip("pandas")
    frame = of_blocks().to_pandas()
    assert isinstance(frame, pandas.DataFrame)
    assert frame["position"].tolist() == [10.0, 30.0, 20.0]
    assert len(of_blocks().to_pandas("waveforms")) == 3


def test_extract_gives_the_tables_of_the_command_line(scan: Path, tmp_path: Path) -> None:
    result = fullwaveform.extract(scan, mode=Mode.DECOMPOSITION, threshold=20, channel_flags={2: 0})
    assert result.to_las(tmp_path / "api.las") == result.peaks.rows > 300
    call = ["extract", scan, "-o", tmp_path / "cli.las", "--mode", "1", "--threshold", "20"]
    assert run(*call, "--channel", "2=high", "-q").exit_code == 0
    assert (tmp_path / "api.las").read_bytes() == (tmp_path / "cli.las").read_bytes()
    assert result.read.waveforms == result.waveforms.rows == result.tally.waveforms


def test_reader_and_its_blocks(scan: Path) -> None:
    full = fullwaveform.extract(scan, threshold=20).to_arrow()
    with fullwaveform.open(scan, waveforms_per_block=64) as reader:
        assert_same_rows(fullwaveform.extract(reader, threshold=20, workers=2).to_arrow(), full)
        assert_same_rows(fullwaveform.extract(reader.blocks(), threshold=20).to_arrow(), full)
        first = next(iter(reader.blocks()))
    part = fullwaveform.extract(first, threshold=20).to_arrow()
    # The baseline is measured on the block alone.
    assert part["position"].equals(full["position"].slice(0, part.num_rows))
    expected = full["amplitude"].slice(0, part.num_rows).to_numpy()
    np.testing.assert_allclose(part["amplitude"].to_numpy(), expected, atol=0.5)
    assert 0 < part.num_rows < full.num_rows


def test_format_of_other_files_follows_the_ending(tmp_path: Path) -> None:
    result = of_blocks()
    assert result.write(tmp_path / "echoes.parquet") == 3
    table = pa.parquet.read_table(tmp_path / "echoes.parquet")
    assert table.column("position").to_pylist() == [10.0, 30.0, 20.0]
    assert result.to_las(tmp_path / "echoes.laz") == 3
    assert len(laspy.read(tmp_path / "echoes.laz")) == 3


def test_scanner_is_read_from_a_file(tmp_path: Path, scan: Path) -> None:
    lines = ['"Scanner Group Velocity" = 299708256.0', '"Scanner Serial Number" = "S1"']
    lines += ['"Scanner Type" = "T"', '"Wavelength[nm]" = 1064.0', "UnambiguousRange = 1000.0"]
    lines += ["reflectance_calculation_delta = 0.1", "ampl_unit = 10.0"]
    lines += ["reflectance_calculation_table = []"]
    path = tmp_path / "scanner.toml"
    path.write_text("\n".join(lines), encoding="utf-8")
    described = fullwaveform.extract(scan, scanner=path, threshold=20).peaks
    plain = fullwaveform.extract(scan, threshold=20).peaks
    expected = 20.0 * np.log10(10.0 * described["amplitude"])
    np.testing.assert_allclose(described["amplitude_db"], expected, rtol=0, atol=1e-4)
    assert np.isnan(plain["amplitude_db"]).all()
    # Counts are multiplied by ten: 20 dB more.
    np.testing.assert_allclose(
        described["amplitude_library_db"] - plain["amplitude_library_db"],
        20.0,
        rtol=0,
        atol=1e-4,
    )


def test_scanner_of_the_file_is_used(tmp_path: Path, scan: Path) -> None:
    described = replace(
        Scanner.default(), attributes={**Scanner.default().attributes, "ampl_unit": 10.0}
    )
    container = as_container(scan, tmp_path / "scan.h5", described)
    carried = fullwaveform.extract(container, threshold=20)
    # A container has no discrete returns whose class echoes could take over.
    named = fullwaveform.extract(scan, scanner=described, threshold=20, carry=False)
    default = fullwaveform.extract(container, scanner=Scanner.default(), threshold=20)
    assert_same_rows(carried.to_arrow(), named.to_arrow())
    with fullwaveform.open(container) as reader:
        assert_same_rows(fullwaveform.extract(reader, threshold=20).to_arrow(), named.to_arrow())
    # Counts are multiplied by ten: 20 dB more.
    np.testing.assert_allclose(
        carried.peaks["amplitude_library_db"] - default.peaks["amplitude_library_db"],
        20.0,
        rtol=0,
        atol=1e-4,
    )
    call = ["extract", container, "-o", tmp_path / "cli.parquet", "--threshold", "20", "-q"]
    assert run(*call).exit_code == 0
    carried.write(tmp_path / "api.parquet")
    assert (tmp_path / "api.parquet").read_bytes() == (tmp_path / "cli.parquet").read_bytes()


def test_interval_of_an_archive_is_used(tmp_path: Path) -> None:
    samples = np.full((1, 60), 5, np.uint16)
    samples[0, 30:33] = 40, 80, 40
    np.savez(tmp_path / "a.npz", samples=samples)
    result = fullwaveform.extract(tmp_path / "a.npz", threshold=10, sampling_interval=2e-9)
    assert result.waveforms["sampling_interval"].tolist() == [2e-9]
    assert result.peaks["time"].tolist() == pytest.approx([62e-9])
    with pytest.raises(ValueError, match="sampling_interval is only for paths"):
        of_blocks(sampling_interval=2e-9)


WRONG: dict[str, tuple[Callable[[Path], object], str]] = {
    "mode": (
        lambda scan: fullwaveform.extract(scan, mode=5),
        "invalid mode 5; expected 0, 1, 2, 3 or 4",
    ),
    "true": (lambda scan: fullwaveform.extract(scan, mode=True), "invalid mode True"),
    "threshold": (
        lambda scan: fullwaveform.extract(scan, threshold=70_000),
        "threshold 70000 must be 'estimate' or an integer from 0 to 65535",
    ),
    "workers": (
        lambda scan: fullwaveform.extract(scan, workers=0),
        "invalid workers 0; expected an integer",
    ),
    "half": (lambda scan: fullwaveform.extract(scan, workers=1.5), "invalid workers 1.5"),
    "wave": (lambda scan: fullwaveform.extract(scan, mode=2), "needs the scanner's system wave"),
    "array": (
        lambda scan: fullwaveform.extract(np.zeros((3, 80), np.uint16)),
        "the source is an array; use Driver",
    ),
    "number": (lambda scan: fullwaveform.extract(3), "invalid source 3; expected a path"),
    "paths": (lambda scan: fullwaveform.extract([scan]), "scan.las'\\); expected a WaveformBlock"),
    "attributes": (
        lambda scan: fullwaveform.extract(scan, scanner={}),
        "invalid scanner {}; expected",
    ),
    "no blocks": (lambda scan: fullwaveform.extract([]), "the source has no waveforms"),
    "ending": (
        lambda scan: fullwaveform.extract(scan).write(scan.with_suffix(".xls")),
        "scan.xls must end in .las",
    ),
    "no LAS": (
        lambda scan: fullwaveform.extract(scan).to_las(scan.with_suffix(".csv")),
        "scan.csv must end in .las or .laz",
    ),
}


@pytest.mark.parametrize(("call", "message"), WRONG.values(), ids=WRONG)
def test_invalid_calls_are_refused(
    scan: Path, call: Callable[[Path], object], message: str
) -> None:
    with pytest.raises(ValueError, match=message):
        call(scan)


def test_missing_file_is_an_error(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError, match="no_such"):
        fullwaveform.extract(tmp_path / "no_such.las")
    with pytest.raises(ValueError, match="table deconvolution must have"):
        bad = tmp_path / "bad.toml"
        bad.write_text("[deconvolution]\nwidth = 3", encoding="utf-8")
        fullwaveform.extract(tmp_path / "no_such.las", scanner=bad)


def test_default_scanner_is_the_documented_one() -> None:
    np.testing.assert_array_equal(
        of_blocks().peaks["amplitude_library_db"],
        of_blocks(scanner=Scanner.default()).peaks["amplitude_library_db"],
    )


def test_unreadable_waveforms_are_refused_unless_skipped(scan: Path, tmp_path: Path) -> None:
    """The file of packets ends within its last packet."""
    cut = tmp_path / "cut.las"
    cut.write_bytes(scan.read_bytes())
    packets = scan.with_suffix(".wdp").read_bytes()
    cut.with_suffix(".wdp").write_bytes(packets[:-1])
    message = r"1 unreadable waveform \(1 x samples outside the file\)"
    with pytest.raises(fullwaveform.WaveformFileError, match=message):
        fullwaveform.extract(cut)
    part = fullwaveform.extract(cut, skip_unreadable=True)
    assert part.read.rejected == {"samples outside the file": 1}
    assert part.tally.waveforms == fullwaveform.extract(scan).tally.waveforms - 1
