"""Scanner descriptions: from attributes, from TOML files, and the default."""

from __future__ import annotations

import logging
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform import Driver, Scanner
from fullwaveform.core.scanner import NO_AFTER_PULSE, AfterPulse

COMPLETE: dict[str, Any] = {
    "Scanner Group Velocity": 2.5e8,
    "Scanner Serial Number": "S123",
    "Scanner Build Number": "b7",
    "Scanner Type": "Some scanner",
    "Wavelength[nm]": 532.0,
    "UnambiguousRange": 500.0,
    "reflectance_calculation_delta": 0.25,
    "ampl_unit": 0.5,
    "reflectance_calculation_table": [-12.5, 3.0],
    "WaveformSampleInterval": 2e-9,
    "t_ref": 1e-7,
}
OPTIONAL = {"Scanner Build Number", "ampl_unit", "WaveformSampleInterval", "t_ref"}
REQUIRED = sorted(COMPLETE.keys() - OPTIONAL)
WAVE = {"a_real": [1.0, 2.0], "a_imag": [0.5, 0.25], "b_real": [3.0, 4.0], "b_imag": [4.0, 5.0]}

TOML = """
"Scanner Group Velocity" = 250000000
"Scanner Serial Number" = "S123"
"Scanner Type" = "{type}"
"Wavelength[nm]" = 532
UnambiguousRange = 500.0
reflectance_calculation_delta = 0.25
ampl_unit = 0.5
reflectance_calculation_table = [-12.5, 3]
"""


def without(*names: str) -> dict[str, Any]:
    return {name: value for name, value in COMPLETE.items() if name not in names}


def toml_file(folder: Path, *, type_id: str = "Some scanner", more: str = "") -> Path:
    path = folder / "scanner.toml"
    path.write_text(TOML.replace("{type}", type_id) + more, encoding="utf-8")
    return path


def test_byte_order_mark_is_ignored(tmp_path: Path) -> None:
    path = toml_file(tmp_path)
    plain = Scanner.from_toml(path)
    path.write_text(path.read_text(encoding="utf-8"), encoding="utf-8-sig")
    assert path.read_bytes().startswith(b"\xef\xbb\xbf")
    assert Scanner.from_toml(path) == plain


def test_every_attribute_reaches_the_library() -> None:
    device = Scanner.from_attributes(COMPLETE).device()
    assert device.complete
    assert device.group_velocity == 2.5e8
    assert (device.serial, device.build, device.type_id) == ("S123", "b7", "Some scanner")
    assert (device.wavelength, device.unambiguous_range) == (532.0, 500.0)
    assert (device.refl_delta, device.ampl_unit) == (0.25, 0.5)
    assert (device.sampling_time, device.t_ref) == (2e-9, 1e-7)
    assert device.getMTALengthAsTime() == 2e-6  # 500 m at 2.5e8 m/s
    assert not device.has_system_wave


def test_numpy_values_count_as_numbers_and_lists() -> None:
    values = {
        "ampl_unit": np.float32(0.5),
        "UnambiguousRange": np.int64(500),
        "reflectance_calculation_table": np.array([1.5, 2.5], np.float32),
    }
    scanner = Scanner.from_attributes({**COMPLETE, **values})
    assert scanner.attributes["reflectance_calculation_table"] == [1.5, 2.5]
    assert scanner.device().unambiguous_range == 500.0


def test_one_error_lists_all_missing_attributes() -> None:
    with pytest.raises(ValueError, match="scanner attributes: missing: ") as caught:
        Scanner.from_attributes({})
    missing = str(caught.value).partition("missing: ")[2].split(", ")
    assert sorted(missing) == REQUIRED


def test_one_error_lists_missing_unknown_and_invalid_attributes() -> None:
    attributes = {
        **without("Wavelength[nm]", "Scanner Type"),
        "Colour": "red",
        "UnambiguousRange": "x",
    }
    with pytest.raises(ValueError, match=r"^scanner attributes") as caught:
        Scanner.from_attributes(attributes)
    assert str(caught.value) == (
        "scanner attributes: missing: Scanner Type, Wavelength[nm]; unknown: Colour; "
        "wrong type: UnambiguousRange is 'x'; expected finite number"
    )


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("Scanner Type", 840),
        ("Scanner Serial Number", None),
        ("ampl_unit", "0.5"),
        ("ampl_unit", True),
        ("ampl_unit", float("nan")),
        ("Wavelength[nm]", float("inf")),
        ("t_ref", [0.0]),
        ("reflectance_calculation_table", 1.0),
        ("reflectance_calculation_table", "1.0"),
        ("reflectance_calculation_table", np.array(1.0)),
        ("reflectance_calculation_table", [1.0, "2"]),
        ("reflectance_calculation_table", [1.0, float("inf")]),
        ("a_real", [1.0, None]),
    ],
)
def test_value_of_a_wrong_type_is_named(name: str, value: object) -> None:
    with pytest.raises(ValueError, match="wrong type: ") as caught:
        Scanner.from_attributes({**COMPLETE, **WAVE, name: value})
    assert f"wrong type: {name} is {value!r}; expected " in str(caught.value)


def test_several_invalid_attributes_are_named_in_a_fixed_order() -> None:
    wrong = {"ampl_unit": "a", "Scanner Type": 1, "t_ref": "b", "Wavelength[nm]": "c"}
    with pytest.raises(ValueError, match="wrong type") as caught:
        Scanner.from_attributes({**COMPLETE, **wrong})
    named = [part.partition(" is ")[0] for part in str(caught.value).split("wrong type: ")[1:]]
    assert named == ["Scanner Type", "Wavelength[nm]", "ampl_unit", "t_ref"]


def test_amplitude_unit_may_be_missing() -> None:
    scanner = Scanner.from_attributes(without("ampl_unit"))
    assert scanner.amplitude_unit is None
    assert scanner.device().ampl_unit == 1.0
    assert Scanner.from_attributes(COMPLETE).amplitude_unit == 0.5


def test_build_number_may_be_missing() -> None:
    device = Scanner.from_attributes(without("Scanner Build Number")).device()
    assert device.complete
    assert device.build == ""


def test_empty_reflectance_table_is_allowed() -> None:
    scanner = Scanner.from_attributes({**COMPLETE, "reflectance_calculation_table": []})
    assert scanner.device().complete
    assert scanner.report().endswith("no refl_tableC\n")


def test_exponential_sums_give_a_system_wave() -> None:
    scanner = Scanner.from_attributes({**COMPLETE, **WAVE})
    assert scanner.has_system_wave
    assert scanner.device().has_system_wave
    assert "\nSystem-wave available [-]\n" in scanner.report()


@pytest.mark.parametrize("table", ["a", "b"])
@pytest.mark.parametrize("imaginary", [None, [1.0, 2.0, 3.0]])
def test_exponential_sum_needs_parts_of_equal_length(table: str, imaginary: object) -> None:
    attributes = {**COMPLETE, **WAVE}
    if imaginary is None:
        del attributes[f"{table}_imag"]
    else:
        attributes[f"{table}_imag"] = imaginary
    with pytest.raises(ValueError, match=f"{table}_real and {table}_imag must be given together"):
        Scanner.from_attributes(attributes)


def test_empty_exponential_sums_give_no_system_wave() -> None:
    scanner = Scanner.from_attributes({**COMPLETE, **WAVE, "b_real": [], "b_imag": []})
    assert not scanner.has_system_wave


def test_device_without_sampling_interval_is_refused() -> None:
    scanner = Scanner.from_attributes(without("WaveformSampleInterval"))
    assert scanner.sampling_interval is None
    with pytest.raises(ValueError, match="sampling interval None"):
        scanner.device()
    for interval in (0.0, -1e-9, float("nan"), float("inf")):
        with pytest.raises(ValueError, match="expected seconds above 0"):
            scanner.at_interval(interval).device()
    assert scanner.at_interval(4e-9).device().sampling_time == 4e-9


def test_library_messages_are_in_the_error_and_the_log(
    caplog: pytest.LogCaptureFixture,
) -> None:
    message = "ScannerDevice::ScannerDevice: NO Scanner Type"
    unchecked = Scanner(without("Scanner Type"))
    with (
        caplog.at_level(logging.WARNING, logger="fullwaveform"),
        pytest.raises(ValueError, match=f"incomplete scanner description: {message}$"),
    ):
        unchecked.device()
    assert [record.getMessage() for record in caplog.records] == [message]


@pytest.mark.parametrize("name", ["VQ-880-G", "VQ-840-GL"])
def test_known_types_have_the_same_constants_from_every_source(name: str, tmp_path: Path) -> None:
    from_toml = Scanner.from_toml(toml_file(tmp_path, type_id=name)).at_interval(1e-9)
    for scanner in (Scanner.from_attributes({**COMPLETE, "Scanner Type": name}), from_toml):
        device = scanner.device()
        assert (device.afterpulse_offset, device.afterpulse_width) == (5, 2)
        assert device.bin_shift == 0.65
        assert scanner.notes == ()


@pytest.mark.parametrize("name", ["VQ-840-G", "VQ-840-GL ", "vq-880-g"])
def test_similar_names_are_unknown_types(name: str) -> None:
    device = Scanner.from_attributes({**COMPLETE, "Scanner Type": name}).device()
    assert (device.afterpulse_offset, device.afterpulse_width, device.bin_shift) == (0, 0, 0.0)


def test_unknown_type_keeps_the_after_pulse_filter_only_from_attributes(
    tmp_path: Path,
) -> None:
    given = Scanner.from_attributes(COMPLETE)
    assert given.after_pulse is None
    assert given.notes == ()
    assert given.device().afterpulse_width == 0
    for scanner in (Scanner.from_toml(toml_file(tmp_path)), Scanner.default()):
        assert scanner.after_pulse == NO_AFTER_PULSE
        (note,) = scanner.notes
        assert note.startswith("after-pulse filter disabled: ")
        # Wider than any waveform: the lower bound of the window wraps.
        assert scanner.at_interval(1e-9).device().afterpulse_width > 65535


def test_after_pulse_argument_overrides_the_known_type(tmp_path: Path) -> None:
    expected = AfterPulse(offset=7, width=3)
    path = toml_file(tmp_path, more="[after_pulse]\noffset = 4\nwidth = 1\n")
    scanners = (
        Scanner.from_attributes({**COMPLETE, "Scanner Type": "VQ-880-G"}, after_pulse=expected),
        Scanner.from_toml(path, after_pulse=expected).at_interval(1e-9),
        Scanner.default(1e-9, after_pulse=expected),
    )
    for scanner in scanners:
        device = scanner.device()
        assert (device.afterpulse_offset, device.afterpulse_width) == (7, 3)
        assert scanner.notes == ()


@pytest.mark.parametrize("value", [-1, 2**32, 1.5, True, "5"])
def test_after_pulse_must_be_integers(value: Any) -> None:
    with pytest.raises(ValueError, match=r"after-pulse offset .*; expected an integer"):
        AfterPulse(offset=value, width=2)
    with pytest.raises(ValueError, match=r"after-pulse width .*; expected an integer"):
        AfterPulse(offset=5, width=value)


def test_toml_file(tmp_path: Path) -> None:
    scanner = Scanner.from_toml(toml_file(tmp_path))
    device = scanner.at_interval(1e-9).device()
    assert (device.group_velocity, device.wavelength, device.ampl_unit) == (2.5e8, 532.0, 0.5)
    assert scanner.attributes["reflectance_calculation_table"] == [-12.5, 3.0]


def test_toml_file_with_after_pulse(tmp_path: Path) -> None:
    path = toml_file(tmp_path, more="[after_pulse]\noffset = 9\nwidth = 4\n")
    scanner = Scanner.from_toml(path)
    assert scanner.after_pulse == AfterPulse(offset=9, width=4)
    assert scanner.notes == ()


@pytest.mark.parametrize(
    ("table", "message"),
    [
        ("[after_pulse]\noffset = 9\n", "must have the keys offset and width"),
        (
            "[after_pulse]\noffset = 9\nwidth = 4\nlength = 1\n",
            "must have the keys offset and width",
        ),
        ("after_pulse = 5\n", "must have the keys offset and width"),
        (
            "[after_pulse]\noffset = 9\nwidth = -4\n",
            "invalid after-pulse width -4; expected an integer",
        ),
    ],
)
def test_toml_file_with_an_invalid_after_pulse(tmp_path: Path, table: str, message: str) -> None:
    path = toml_file(tmp_path, more=table)
    with pytest.raises(ValueError, match=message) as caught:
        Scanner.from_toml(path)
    assert str(path) in str(caught.value)


@pytest.mark.parametrize("content", [b"this is = = no TOML", b"\xff\xfe\x00"])
def test_invalid_toml_is_refused(tmp_path: Path, content: bytes) -> None:
    path = tmp_path / "broken.toml"
    path.write_bytes(content)
    with pytest.raises(ValueError, match=r"broken\.toml is not a TOML file"):
        Scanner.from_toml(path)


def test_missing_attributes_of_a_toml_file_are_listed(tmp_path: Path) -> None:
    path = tmp_path / "thin.toml"
    path.write_text('ampl_unit = "1"\nColour = "red"\n', encoding="utf-8")
    with pytest.raises(ValueError, match="missing") as caught:
        Scanner.from_toml(path)
    message = str(caught.value)
    assert message.startswith(f"scanner description {path}: missing: ")
    assert all(name in message for name in [*REQUIRED, "Colour"])


def test_missing_toml_file_is_an_error(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError) as caught:
        Scanner.from_toml(tmp_path / "none.toml")
    assert caught.value.filename == str(tmp_path / "none.toml")


def test_default_scanner() -> None:
    assert Scanner.default().sampling_interval is None
    assert Scanner.default().amplitude_unit is None
    device = Scanner.default(2e-9).device()
    assert device.group_velocity == 299708256.0
    assert device.ampl_unit == 1.0
    assert device.sampling_time == 2e-9
    # The amplitude unit is one count, and the after-pulse filter is off.
    samples = np.array([[0, 0, 1000, 2000, 1000, 0, 0]], np.uint16)
    assert Driver(0, Scanner.default(2e-9)).apply(samples, threshold=10).peaks.rows == 1


def test_report_lists_every_parameter_with_its_unit() -> None:
    known = {**COMPLETE, **WAVE, "Scanner Type": "VQ-880-G"}
    assert Scanner.from_attributes(known).report() == (
        "t_ref: 100 [ns]\n"
        "group_velocity: 2.5e+08 [m/s]\n"  # shorter than 250000000
        "sampling_time: 2 [ns] or as bin-length / 2.0: 0.25[cm]\n"
        "unambiguous_range: 500 [m]\n"
        "wavelength: 532 [nm]\n"
        "serial: S123\n"
        "type_id: VQ-880-G\n"
        "build: b7\n"
        "BufferSize: 200\n"
        "NoiseLevelForMTACalculation: 8.6 [dB]\n"
        "WindowEchoRange: 1 [m]\n"
        "getMTALengthAsTime: 599.416512[m]\n"  # 500 / 2.5e8 s at 299708256 m/s
        "bin_shift: 0.65 [-]\n"
        "AfterPulse: offset: 5 width: 2 [-]\n"
        "SizeSys: 12  [-]\n"
        "UpSampling: 5 [-]\n"
        "System-wave available [-]\n"
        "ampl_unit: 0.5\n"
        "refl_delta: 0.25\n"
        "refl_tableC: -12.5...\n"
    )


def test_exponential_tables_must_have_equal_lengths() -> None:
    wave = {"a_real": [1.0], "a_imag": [0.0], "b_real": [-1e9, -2e9], "b_imag": [0.0, 0.0]}
    with pytest.raises(
        ValueError, match="a_real has 1 values and b_real 2; the numbers must be equal"
    ):
        Scanner.from_attributes({**COMPLETE, **wave})


@pytest.mark.parametrize("name", ["Scanner Group Velocity", "ampl_unit", "WaveformSampleInterval"])
@pytest.mark.parametrize("value", [0.0, -1.0])
def test_nonpositive_attributes_are_refused(name: str, value: float) -> None:
    with pytest.raises(ValueError, match=rf"{name} is {value}; it must be above 0"):
        Scanner.from_attributes({**COMPLETE, name: value})
