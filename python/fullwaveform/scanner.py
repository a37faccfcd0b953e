"""The scanner description: from attributes, from a TOML file, or a documented default."""

from __future__ import annotations

import math
import tomllib
from collections.abc import Mapping
from dataclasses import dataclass, field, replace
from numbers import Real
from pathlib import Path
from typing import Any

from fullwaveform import _core
from fullwaveform.console import forward_messages

AttributeValue = float | str | list[float]

# Attribute name -> kind of its values, as the host's grids store them.
_SCANNER_ATTRIBUTES = {
    "Scanner Group Velocity": "double",
    "Scanner Serial Number": "text",
    "Scanner Build Number": "text",
    "Scanner Type": "text",
    "Wavelength[nm]": "float",
    "UnambiguousRange": "double",
    "reflectance_calculation_delta": "double",
    "ampl_unit": "double",
    "reflectance_calculation_table": "float list",
}
_OPTIONAL_SCANNER_ATTRIBUTES = {"Scanner Build Number"}
_WAVEFORM_ATTRIBUTES = {
    "WaveformSampleInterval": "double",
    "a_real": "double list",
    "a_imag": "double list",
    "b_real": "double list",
    "b_imag": "double list",
}
_PARTS = ("real", "imag")
_ABOVE_ZERO = ("Scanner Group Velocity", "ampl_unit", "WaveformSampleInterval")
_SBL_ATTRIBUTES = {"t_ref": "double"}
_ALL_ATTRIBUTES = _SCANNER_ATTRIBUTES | _WAVEFORM_ATTRIBUTES | _SBL_ATTRIBUTES
_DECONVOLUTION_KEYS = {"position_offset", "position_offset_hybrid", "position_spread", "echoes"}
_KIND_IN_WORDS = {
    "text": "text",
    "double": "finite number",
    "float": "finite number",
    "double list": "list of finite numbers",
    "float list": "list of finite numbers",
}

# Wider than any record is long: the lower bound of the after-pulse window wraps to a huge index and
# no echo is ever inside.
_WIDTH_THAT_MARKS_NOTHING = 2**31

_KNOWN_AFTER_PULSE_TYPES = ("VQ-880-G", "VQ-840-GL")

#: A scanner of which a file says nothing: light in air, amplitudes in dB above one count.
DEFAULT_ATTRIBUTES: Mapping[str, AttributeValue] = {
    "Scanner Group Velocity": _core.SPEED_OF_LIGHT_IN_AIR,
    "Scanner Serial Number": "",
    "Scanner Build Number": "",
    "Scanner Type": "",
    "Wavelength[nm]": 1064.0,
    "UnambiguousRange": 1000.0,
    "reflectance_calculation_delta": 0.1373470495519926,
    "ampl_unit": 1.0,
    "reflectance_calculation_table": [],
}


@dataclass(frozen=True)
class AfterPulse:
    """Where the after-pulse of the scanner's own pulse is expected behind the strongest sample."""

    offset: int  # samples
    width: int  # half-width of the window, samples

    def __post_init__(self) -> None:
        for name, value in (("offset", self.offset), ("width", self.width)):
            if isinstance(value, bool) or not isinstance(value, int) or not 0 <= value < 2**32:
                raise ValueError(
                    f"after-pulse {name} {value!r} must be a whole number from 0 to 4294967295"
                )


NO_AFTER_PULSE = AfterPulse(offset=0, width=_WIDTH_THAT_MARKS_NOTHING)


@dataclass(frozen=True)
class Scanner:
    """A complete scanner description.

    Made by `from_attributes` (values as the host's grids hold them), `from_toml` or `default`.
    """

    attributes: Mapping[str, AttributeValue]
    after_pulse: AfterPulse | None = None  # None: what the library knows of the scanner's type
    notes: tuple[str, ...] = field(default=())  # what was decided for the user, a sentence each
    deconvolution_offset: float = 0.0  # samples by which deconvolved echoes lie too far behind
    deconvolution_offset_hybrid: float | None = None  # the same in the hybrid; None: no other

    @classmethod
    def from_attributes(
        cls, attributes: Mapping[str, Any], *, after_pulse: AfterPulse | None = None
    ) -> Scanner:
        """A scanner from its attributes, by the names that the host's grids use.

        The after-pulse test is exactly the library's: for types it does not know, offset and width
        are 0, so that in records of 800 counts and more the strongest echo and all behind it count
        as after-pulse. Give `after_pulse` to change that.

        Raises
        ------
        ValueError
            Attributes are missing, unknown or of a wrong type; one sentence names all of them.
        """
        return cls(_checked(attributes, "scanner attributes"), after_pulse)

    @classmethod
    def from_toml(cls, path: str | Path, *, after_pulse: AfterPulse | None = None) -> Scanner:
        """A scanner from a TOML file whose keys are the attribute names.

        Tables ``[deconvolution]`` with ``position_offset`` (and ``position_offset_hybrid``, else
        the same) in samples of ``WaveformSampleInterval``, and ``[after_pulse]`` with
        ``offset`` and ``width`` in samples are optional. Without the latter, and for a type that
        the library does not know, the after-pulse test is switched off: a description from a file
        must not cost echoes.

        Raises
        ------
        OSError
            The file cannot be read.
        ValueError
            It is no TOML, or attributes are missing, unknown or of a wrong type.
        """
        try:
            content = tomllib.loads(Path(path).read_text(encoding="utf-8"))
        except (tomllib.TOMLDecodeError, UnicodeDecodeError) as error:
            raise ValueError(f"scanner description {path} is not a TOML file: {error}") from error
        table = content.pop("after_pulse", None)
        if table is not None and after_pulse is None:
            after_pulse = _after_pulse_from_table(table, path)
        offset, hybrid = _offsets_from_table(
            content.pop("deconvolution", {"position_offset": 0.0}), path
        )
        if (offset or hybrid) and "WaveformSampleInterval" not in content:
            raise ValueError(
                f"scanner description {path}: position_offset is in samples and needs "
                "WaveformSampleInterval, the interval it was measured at"
            )
        attributes = _checked(content, f"scanner description {path}")
        return _without_surprise(
            cls(
                attributes,
                after_pulse,
                deconvolution_offset=offset,
                deconvolution_offset_hybrid=hybrid,
            )
        )

    @classmethod
    def default(
        cls, sampling_interval: float | None = None, *, after_pulse: AfterPulse | None = None
    ) -> Scanner:
        """The scanner assumed when a file carries no description.

        Light in air (299708256 m/s), an amplitude unit of 1.0 (amplitudes are dB above one count),
        no after-pulse test unless `after_pulse` is given. `sampling_interval` is in seconds.
        """
        scanner = _without_surprise(cls(dict(DEFAULT_ATTRIBUTES), after_pulse))
        return scanner if sampling_interval is None else scanner.at_interval(sampling_interval)

    def at_interval(self, sampling_interval: float) -> Scanner:
        """The same scanner with samples `sampling_interval` seconds apart."""
        return replace(
            self, attributes={**self.attributes, "WaveformSampleInterval": float(sampling_interval)}
        )

    @property
    def sampling_interval(self) -> float | None:
        """Seconds per sample, None when it is not known."""
        value = self.attributes.get("WaveformSampleInterval")
        return float(value) if isinstance(value, Real) else None

    @property
    def has_system_wave(self) -> bool:
        """Whether the exponential sums of the system wave are there."""
        # An attribute without elements counts as missing.
        return all(self.attributes.get(f"{table}_{part}") for table in "ab" for part in _PARTS)

    def device(self) -> _core.ScannerDevice:
        """The library's own description, read from grids that carry the attributes.

        Raises ValueError when the sampling interval is missing or not above 0.
        """
        interval = self.sampling_interval
        if interval is None or not (interval > 0.0 and math.isfinite(interval)):
            raise ValueError(
                f"sampling interval {interval} of the scanner must be a number of seconds above 0 "
                "(attribute WaveformSampleInterval)"
            )
        device = _core.ScannerDevice(*self._grids())
        messages = forward_messages()
        if not device.complete:
            raise ValueError(f"the scanner description is not complete: {'; '.join(messages)}")
        if self.after_pulse is not None:
            device.set_after_pulse(self.after_pulse.offset, self.after_pulse.width)
        return device

    def report(self) -> str:
        """Every parameter with its unit, a line each."""
        return self.device().speak()

    def _grids(self) -> tuple[_core.Grid, _core.Grid]:
        scanner, waveforms = _core.Grid(), _core.Grid()
        values = {"Scanner Build Number": "", "t_ref": 0.0, **self.attributes}
        for name, value in values.items():
            if name in _SCANNER_ATTRIBUTES:
                _store(scanner, "", name, value)
            else:
                _store(
                    waveforms, "SBL_Time" if name in _SBL_ATTRIBUTES else "Waveforms", name, value
                )
        return scanner, waveforms


def _store(grid: _core.Grid, field_name: str, name: str, value: AttributeValue) -> None:
    values: list[Any] = list(value) if isinstance(value, list) else [value]
    kind = _ALL_ATTRIBUTES[name]
    if kind == "text":
        grid.set_text(field_name, name, values)
    elif kind.startswith("float"):
        grid.set_float(field_name, name, values)
    else:
        grid.set_double(field_name, name, values)


def _checked(attributes: Mapping[str, Any], origin: str) -> dict[str, AttributeValue]:
    """The attributes in plain Python types; one ValueError names everything that is wrong."""
    required = [name for name in _SCANNER_ATTRIBUTES if name not in _OPTIONAL_SCANNER_ATTRIBUTES]
    problems = []
    if missing := [name for name in required if name not in attributes]:
        problems.append("missing: " + ", ".join(missing))
    if unknown := [name for name in attributes if name not in _ALL_ATTRIBUTES]:
        problems.append("unknown: " + ", ".join(unknown))
    result: dict[str, AttributeValue] = {}
    for name, kind in _ALL_ATTRIBUTES.items():
        if name not in attributes:
            continue
        value = _plain(attributes[name], kind)
        if value is None:
            problems.append(
                f"wrong type: {name} is {attributes[name]!r}, must be a {_KIND_IN_WORDS[kind]}"
            )
        else:
            result[name] = value
    for table in ("a", "b"):
        real, imag = result.get(f"{table}_real"), result.get(f"{table}_imag")
        if (real is None) != (imag is None) or (
            isinstance(real, list) and isinstance(imag, list) and len(real) != len(imag)
        ):
            problems.append(f"{table}_real and {table}_imag must both be there and of equal length")
    a, b = result.get("a_real"), result.get("b_real")
    # Tables without elements are none, as in the library.
    if isinstance(a, list) and isinstance(b, list) and a and b and len(a) != len(b):
        problems.append(f"a_real has {len(a)} values and b_real {len(b)}, must be equally many")
    problems += [
        f"{name} is {result[name]}, must be above 0"
        for name in _ABOVE_ZERO
        if isinstance(value := result.get(name), float) and not value > 0.0
    ]
    if problems:
        raise ValueError(f"{origin}: {'; '.join(problems)}")
    return result


def _plain(value: Any, kind: str) -> AttributeValue | None:
    """The value as text, number or list of numbers; None when it is of another kind."""
    if kind == "text":
        return value if isinstance(value, str) else None
    if kind.endswith("list"):
        if isinstance(value, str | bytes):
            return None
        try:
            numbers = list(value)
        except TypeError:  # a single number, also as an array without dimensions
            return None
        return [float(n) for n in numbers] if all(map(_is_number, numbers)) else None
    return float(value) if _is_number(value) else None


def _is_number(value: Any) -> bool:
    return isinstance(value, Real) and not isinstance(value, bool) and math.isfinite(value)


def _after_pulse_from_table(table: Any, path: str | Path) -> AfterPulse:
    if not isinstance(table, dict) or set(table) != {"offset", "width"}:
        raise ValueError(
            f"scanner description {path}: the table after_pulse must hold offset "
            "and width, in samples"
        )
    try:
        return AfterPulse(**table)
    except ValueError as error:
        raise ValueError(f"scanner description {path}: {error}") from error


def _offsets_from_table(table: Any, path: str | Path) -> tuple[float, float | None]:
    """The offset, and that of the hybrid where it is stated."""
    known = isinstance(table, dict) and not set(table) - _DECONVOLUTION_KEYS
    offset = _plain(table.get("position_offset"), "double") if known else None
    hybrid = _plain(table.get("position_offset_hybrid", 0.0), "double") if known else None
    if not (isinstance(offset, float) and isinstance(hybrid, float)):
        raise ValueError(
            f"scanner description {path}: the table deconvolution must hold position_offset in "
            "samples, and nothing beside it but position_offset_hybrid in samples, "
            "position_spread and echoes"
        )
    return offset, hybrid if "position_offset_hybrid" in table else None


def _without_surprise(scanner: Scanner) -> Scanner:
    """Switches the after-pulse test off for a scanner from a file whose type is not known."""
    if scanner.after_pulse is not None:
        return scanner
    if scanner.attributes["Scanner Type"] in _KNOWN_AFTER_PULSE_TYPES:
        return scanner
    note = (
        "after-pulse test switched off: the scanner's type is not one whose after-pulse is known; "
        "set its offset and width to switch it on"
    )
    return replace(scanner, after_pulse=NO_AFTER_PULSE, notes=(*scanner.notes, note))
