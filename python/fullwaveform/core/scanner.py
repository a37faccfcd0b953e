"""The scanner description, from attributes, from a TOML file, or by default."""

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
from fullwaveform.core.pulse_models import ReceiverModel, models_of_tables
from fullwaveform.core.scanner_attributes import (
    ALL_ATTRIBUTES,
    SBL_ATTRIBUTES,
    SCANNER_ATTRIBUTES,
    SYSTEM_WAVE,
    VALUES_IF_OMITTED,
    AttributeValue,
    checked_attributes,
    plain_value,
)

_DECONVOLUTION_KEYS = {"position_offset", "position_offset_hybrid", "position_spread", "echoes"}

# Wider than any waveform: the lower bound of the after-pulse window wraps to a huge index, so that
# no echo is inside.
_WIDTH_WITHOUT_EFFECT = 2**31

#: Scanner of files without a description: light in air, amplitude unit unknown.
DEFAULT_ATTRIBUTES: Mapping[str, AttributeValue] = {
    "Scanner Group Velocity": _core.SPEED_OF_LIGHT_IN_AIR,
    "Scanner Serial Number": "",
    "Scanner Build Number": "",
    "Scanner Type": "",
    "Wavelength[nm]": 1064.0,
    "UnambiguousRange": 1000.0,
    "reflectance_calculation_delta": 0.1373470495519926,
    "reflectance_calculation_table": [],
}


@dataclass(frozen=True)
class AfterPulse:
    """Window of the after-pulse, relative to the largest sample."""

    offset: int  # samples
    width: int  # half-width of the window, samples

    def __post_init__(self) -> None:
        for name, value in (("offset", self.offset), ("width", self.width)):
            if isinstance(value, bool) or not isinstance(value, int) or not 0 <= value < 2**32:
                raise ValueError(
                    f"invalid after-pulse {name} {value!r}; expected an integer from 0 to "
                    f"{2**32 - 1}"
                )


NO_AFTER_PULSE = AfterPulse(offset=0, width=_WIDTH_WITHOUT_EFFECT)


@dataclass(frozen=True)
class Scanner:
    """A scanner description; create it with `from_attributes`, `from_toml` or `default`."""

    attributes: Mapping[str, AttributeValue]
    after_pulse: AfterPulse | None = None  # None: that of the scanner type, if known
    notes: tuple[str, ...] = field(default=())  # for the user
    deconvolution_offset: float = 0.0  # samples, subtracted from deconvolved positions
    deconvolution_offset_hybrid: float | None = None  # in mode 3; None: the same
    pulse_models: tuple[ReceiverModel, ...] = ()  # of the pulse fit, by channel flag and descriptor

    @classmethod
    def from_attributes(
        cls, attributes: Mapping[str, Any], *, after_pulse: AfterPulse | None = None
    ) -> Scanner:
        """A scanner from its attributes, by their names in the host's grids.

        Without ``ampl_unit`` the library takes one count as 0 dB, and echoes have no amplitude in
        dB.

        Offset and width of the after-pulse window are those of the scanner type, or 0 for unknown
        types: then, in waveforms of 800 counts and more, the strongest echo and all after it are
        after-pulses. Set `after_pulse` to change this.

        Raises
        ------
        ValueError
            Attributes are missing, unknown or of a wrong type; the message lists all of them.
        """
        return cls(checked_attributes(attributes, "scanner attributes"), after_pulse)

    @classmethod
    def from_toml(cls, path: str | Path, *, after_pulse: AfterPulse | None = None) -> Scanner:
        """A scanner from a TOML file with one key per attribute.

        Optional tables are ``[deconvolution]`` with ``position_offset`` and
        ``position_offset_hybrid`` (default: the same) in samples of ``WaveformSampleInterval``, and
        ``[after_pulse]`` with ``offset`` and ``width`` in samples; tables ``[[pulse_model]]`` have
        the fields of `ReceiverModel` and `PulseModel`. Without ``[after_pulse]`` the
        after-pulse filter is disabled for unknown scanner types, so that no echoes are lost.

        Raises
        ------
        OSError
            The file cannot be read.
        ValueError
            The file is not valid TOML, or attributes are missing, unknown or of a wrong type.
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
                f"scanner description {path}: position_offset is in samples; add "
                "WaveformSampleInterval, at which it was measured"
            )
        origin = f"scanner description {path}"
        pulse_models = models_of_tables(content.pop("pulse_model", []), origin)
        attributes = checked_attributes(content, origin)
        return _disable_unknown_after_pulse(
            cls(
                attributes,
                after_pulse,
                deconvolution_offset=offset,
                deconvolution_offset_hybrid=hybrid,
                pulse_models=pulse_models,
            )
        )

    @classmethod
    def default(
        cls, sampling_interval: float | None = None, *, after_pulse: AfterPulse | None = None
    ) -> Scanner:
        """The scanner of files without a description.

        Speed of light in air (299708256 m/s), amplitude unit unknown, no after-pulse filter unless
        `after_pulse` is given. `sampling_interval` in s.
        """
        scanner = _disable_unknown_after_pulse(cls(dict(DEFAULT_ATTRIBUTES), after_pulse))
        return scanner if sampling_interval is None else scanner.at_interval(sampling_interval)

    def at_interval(self, sampling_interval: float) -> Scanner:
        """The same scanner with another sampling interval, in s."""
        return replace(
            self, attributes={**self.attributes, "WaveformSampleInterval": float(sampling_interval)}
        )

    @property
    def sampling_interval(self) -> float | None:
        """Sampling interval in s, None if unknown."""
        value = self.attributes.get("WaveformSampleInterval")
        return float(value) if isinstance(value, Real) else None

    @property
    def has_after_pulses(self) -> bool:
        """Whether echoes are taken for after-pulses."""
        return self.after_pulse != NO_AFTER_PULSE

    @property
    def amplitude_unit(self) -> float | None:
        """Amplitude of one count, relative to that of 0 dB; None if unknown."""
        value = self.attributes.get("ampl_unit")
        return float(value) if isinstance(value, Real) else None

    @property
    def range_per_second(self) -> float:
        """Range in m per s of two-way travel time: half the group velocity."""
        value = self.attributes.get("Scanner Group Velocity")
        return float(value) / 2.0 if isinstance(value, Real) else math.nan

    @property
    def has_system_wave(self) -> bool:
        """Whether the description has a system wave."""
        # Attributes without elements count as missing, as in the library.
        return all(self.attributes.get(name) for name in SYSTEM_WAVE)

    def device(self) -> _core.ScannerDevice:
        """The compiled description, read from grids with the attributes.

        Raises ValueError if the sampling interval is missing or not above 0.
        """
        interval = self.sampling_interval
        if interval is None or not (interval > 0.0 and math.isfinite(interval)):
            raise ValueError(
                f"invalid sampling interval {interval} of the scanner; expected seconds above 0 "
                "(attribute WaveformSampleInterval)"
            )
        device = _core.ScannerDevice(*self._grids())
        messages = forward_messages()
        if not device.complete:
            raise ValueError(f"incomplete scanner description: {'; '.join(messages)}")
        if self.after_pulse is not None:
            device.set_after_pulse(self.after_pulse.offset, self.after_pulse.width)
        return device

    def report(self) -> str:
        """All parameters with their units, one per line."""
        return self.device().speak()

    def _grids(self) -> tuple[_core.Grid, _core.Grid]:
        scanner, waveforms = _core.Grid(), _core.Grid()
        values = {**VALUES_IF_OMITTED, **self.attributes}
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
            f"scanner description {path}: table after_pulse must have the keys offset and width "
            "(samples), and no others"
        )
    try:
        return AfterPulse(**table)
    except ValueError as error:
        raise ValueError(f"scanner description {path}: {error}") from error


def _offsets_from_table(table: Any, path: str | Path) -> tuple[float, float | None]:
    """The offset, and that of the hybrid mode if it has its own."""
    known = isinstance(table, dict) and not set(table) - _DECONVOLUTION_KEYS
    offset = plain_value(table.get("position_offset"), "double") if known else None
    hybrid = plain_value(table.get("position_offset_hybrid", 0.0), "double") if known else None
    if not (isinstance(offset, float) and isinstance(hybrid, float)):
        raise ValueError(
            f"scanner description {path}: table deconvolution must have position_offset (samples); "
            "other allowed keys: position_offset_hybrid (samples), position_spread, echoes"
        )
    return offset, hybrid if "position_offset_hybrid" in table else None


def _disable_unknown_after_pulse(scanner: Scanner) -> Scanner:
    """The scanner without after-pulse filter, if its after-pulse is not known."""
    if scanner.after_pulse is not None:
        return scanner
    if _core.has_known_after_pulse(str(scanner.attributes["Scanner Type"])):
        return scanner
    note = (
        "after-pulse filter disabled: unknown scanner type; enable with --after-pulse OFFSET,WIDTH"
    )
    return replace(scanner, after_pulse=NO_AFTER_PULSE, notes=(*scanner.notes, note))
