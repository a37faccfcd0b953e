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
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner_attributes import (
    ALL_ATTRIBUTES,
    SBL_ATTRIBUTES,
    SCANNER_ATTRIBUTES,
    SYSTEM_WAVE,
    AttributeValue,
    checked_attributes,
    plain_value,
)

_DECONVOLUTION_KEYS = {"position_offset", "position_offset_hybrid", "position_spread", "echoes"}

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
        return cls(checked_attributes(attributes, "scanner attributes"), after_pulse)

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
            content = tomllib.loads(Path(path).read_text(encoding="utf-8-sig"))
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
        attributes = checked_attributes(content, f"scanner description {path}")
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
        return all(self.attributes.get(name) for name in SYSTEM_WAVE)

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
            if name in SCANNER_ATTRIBUTES:
                _store(scanner, "", name, value)
            else:
                _store(
                    waveforms, "SBL_Time" if name in SBL_ATTRIBUTES else "Waveforms", name, value
                )
        return scanner, waveforms


def _store(grid: _core.Grid, field_name: str, name: str, value: AttributeValue) -> None:
    values: list[Any] = list(value) if isinstance(value, list) else [value]
    kind = ALL_ATTRIBUTES[name]
    if kind == "text":
        grid.set_text(field_name, name, values)
    elif kind.startswith("float"):
        grid.set_float(field_name, name, values)
    else:
        grid.set_double(field_name, name, values)


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
    offset = plain_value(table.get("position_offset"), "double") if known else None
    hybrid = plain_value(table.get("position_offset_hybrid", 0.0), "double") if known else None
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
