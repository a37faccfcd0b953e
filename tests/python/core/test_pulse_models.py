"""Pulse models in scanner descriptions: round trip, and values that are refused."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import replace
from pathlib import Path

import pytest
import tomli_w

from fullwaveform import Scanner
from fullwaveform.core.pulse_models import ReceiverModel, full_width, model_table
from fullwaveform.io.scanner_file import scanner_text

from ..support.pulse_models import FWHM, gaussian_model

# Numbers whose decimal forms need all digits.
MODEL = replace(gaussian_model(), baseline=1.0 / 3.0, noise_rms=0.1 + 0.2, widening=0.0)
ENTRY = ReceiverModel(1, 3, "returned", 1234, MODEL)
OTHER = ReceiverModel(0, 4, "outgoing", 100, gaussian_model(2e-9))


def description(folder: Path, text: str) -> Path:
    path = folder / "scanner.toml"
    path.write_text(text, encoding="utf-8")
    return path


def text_with(key: str, value: object) -> str:
    """A description whose only model has another value."""
    table = {**model_table(ENTRY), key: value}
    return scanner_text(Scanner.default()) + tomli_w.dumps({"pulse_model": [table]})


def test_round_trip(tmp_path: Path) -> None:
    scanner = replace(Scanner.default(), pulse_models=(ENTRY, OTHER))

    read = Scanner.from_toml(description(tmp_path, scanner_text(scanner, ["Two\nreceivers."])))

    assert read.pulse_models == (ENTRY, OTHER)
    assert read.pulse_models[0].model.pulse == MODEL.pulse
    assert read.attributes == scanner.attributes
    assert read.at_interval(1e-9).pulse_models == (ENTRY, OTHER)


def test_offsets_of_the_deconvolution_are_kept(tmp_path: Path) -> None:
    scanner = replace(
        Scanner.default(1e-9),
        deconvolution_offset=-1.5,
        deconvolution_offset_hybrid=-1.25,
        pulse_models=(ENTRY,),
    )

    read = Scanner.from_toml(description(tmp_path, scanner_text(scanner)))

    assert (read.deconvolution_offset, read.deconvolution_offset_hybrid) == (-1.5, -1.25)


def test_full_width() -> None:
    assert full_width(gaussian_model()) == pytest.approx(FWHM, abs=1e-3)


@pytest.mark.parametrize(
    ("key", "value", "message"),
    [
        ("noise_rms", float("nan"), "noise_rms is nan; expected a finite number"),
        ("noise_rms", 0.0, "invalid noise rms 0 of the pulse model; expected 0.000001"),
        ("noise_rms", "1", "noise_rms is '1'; expected a finite number"),
        ("scatter", float("inf"), "scatter is inf; expected a finite number"),
        ("scatter", -0.1, "invalid scatter -0.1"),
        ("widening", True, "widening is True; expected a finite number"),
        ("lag_step", 0.75, "invalid lag step 0.75 of the pulse model; expected above 0"),
        ("first_lag", 1.0, "invalid first lag 1"),
        ("sampling_interval", 0.0, "invalid sampling interval 0.0"),
        ("pulse", 3, "pulse is 3; expected a list of finite numbers"),
        ("pulse", [0.0, 1.0, 0.0], "the pulse of the model has 3 values; expected 8"),
        ("pulse", [0.0, 0.5, float("nan")], "value 2 of pulse is nan; expected a finite number"),
        ("pulse", [0.0, "a"], "value 1 of pulse is 'a'; expected a finite number"),
        ("pulse", [0.0] * 20, "must be finite, with a maximum above 0"),
        ("channel_flag", 256, "invalid channel_flag 256; expected 0 to 255"),
        ("descriptor", 256, "invalid descriptor 256; expected 0 to 255"),
        ("descriptor", 1.0, "descriptor is 1.0; expected an integer"),
        ("pulses", 0, "invalid pulses 0; expected at least 1"),
        ("pulses", True, "pulses is True; expected an integer"),
        ("origin", "both", "origin is 'both'; expected returned or outgoing"),
        ("colour", 1.0, "unknown: colour"),
    ],
)
def test_invalid_value(key: str, value: object, message: str, tmp_path: Path) -> None:
    path = description(tmp_path, text_with(key, value))

    with pytest.raises(ValueError, match="pulse_model") as error:
        Scanner.from_toml(path)

    assert str(error.value).startswith(f"scanner description {path}: pulse_model: ")
    assert message in str(error.value)


@pytest.mark.parametrize(
    ("change", "message"),
    [
        (lambda text: text.replace("baseline = ", "level = "), "pulse_model: missing: baseline"),
        (lambda text: "pulse_model = 3\n" + scanner_text(Scanner.default()), "must be tables"),
        (lambda text: text + text[text.index("[[") :], "is there twice"),
    ],
    ids=["missing", "no table", "twice"],
)
def test_invalid_table(change: Callable[[str], str], message: str, tmp_path: Path) -> None:
    scanner = replace(Scanner.default(), pulse_models=(ENTRY,))
    path = description(tmp_path, change(scanner_text(scanner)))

    with pytest.raises(ValueError, match=message):
        Scanner.from_toml(path)
