"""The pulse models of the receivers of a scanner, and their tables in a scanner description."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import asdict, dataclass, fields, replace
from typing import Any, Literal, get_args

import numpy as np

from fullwaveform.core.pulse_fit import PulseModel
from fullwaveform.core.scanner_attributes import plain_value

#: What a pulse model was made of: isolated echoes, or the outgoing pulses of a file.
PulseOrigin = Literal["returned", "outgoing"]

_MAX_FLAG = 255
_MAX_DESCRIPTOR = 255


@dataclass(frozen=True)
class ReceiverModel:
    """The pulse model of one channel flag and descriptor."""

    channel_flag: int
    descriptor: int  # as in `WaveformBlock`
    origin: PulseOrigin
    pulses: int  # of which the model was made
    model: PulseModel

    def __post_init__(self) -> None:
        for name, largest in (("channel_flag", _MAX_FLAG), ("descriptor", _MAX_DESCRIPTOR)):
            value = getattr(self, name)
            if not 0 <= value <= largest:
                raise ValueError(f"invalid {name} {value}; expected 0 to {largest}")
        if self.pulses < 1:
            raise ValueError(f"invalid pulses {self.pulses}; expected at least 1")


def model_of(models: Sequence[ReceiverModel], channel_flag: int, descriptor: int) -> PulseModel:
    """The model of a receiver.

    A receiver without one has that of the most pulses, if possible among those of its channel flag.
    Raises ValueError without models.
    """
    if not models:
        raise ValueError(
            "no pulse model; make one with fullwaveform pulse-model, or use --mode decomposition"
        )
    alike = [entry for entry in models if entry.channel_flag == channel_flag]
    same = [entry for entry in alike if entry.descriptor == descriptor]
    return max(same or alike or models, key=lambda entry: entry.pulses).model


def at_interval(model: PulseModel, sampling_interval: float) -> PulseModel:
    """The model for another sampling interval, in s; the noise of a sample stays."""
    ratio = model.sampling_interval / sampling_interval
    if ratio == 1.0:
        return model
    return replace(
        model,
        first_lag=model.first_lag * ratio,
        lag_step=model.lag_step * ratio,
        variance_spread=model.variance_spread * ratio**2,
        widening=model.widening * ratio**2,
        sampling_interval=sampling_interval,
    )


def full_width(model: PulseModel) -> float:
    """Full width of the pulse at half of its maximum, in samples of the model."""
    values = np.array(model.pulse)
    half, top = 0.5 * values.max(), int(np.argmax(values))
    before = top - int(np.argmax(values[top::-1] < half))
    after = top + int(np.argmax(values[top:] < half))
    left = before + (half - values[before]) / (values[before + 1] - values[before])
    right = after - (half - values[after]) / (values[after - 1] - values[after])
    return float(model.lag_step * (right - left))


def model_table(entry: ReceiverModel) -> dict[str, Any]:
    """The table of a model in a scanner description; `models_of_tables` reads it."""
    table = asdict(entry)
    model = table.pop("model")
    return {**table, **model, "pulse": list(model["pulse"])}


def models_of_tables(tables: Any, origin: str) -> tuple[ReceiverModel, ...]:
    """The models of the tables ``[[pulse_model]]`` of a scanner description.

    Raises ValueError with `origin`, the key, its value and the rule.
    """
    if not isinstance(tables, list) or not all(isinstance(table, dict) for table in tables):
        raise ValueError(f"{origin}: pulse_model must be tables, [[pulse_model]]")
    models = [_model_of_table(table, f"{origin}: pulse_model") for table in tables]
    receivers = [(entry.channel_flag, entry.descriptor) for entry in models]
    for receiver in receivers:
        if receivers.count(receiver) > 1:
            raise ValueError(
                f"{origin}: pulse_model of channel_flag {receiver[0]}, descriptor {receiver[1]} "
                "is there twice"
            )
    return tuple(models)


def _model_of_table(table: Mapping[str, Any], name: str) -> ReceiverModel:
    own = [field.name for field in fields(ReceiverModel) if field.name != "model"]
    of_model = [field.name for field in fields(PulseModel)]
    if missing := [key for key in (*own, *of_model) if key not in table]:
        raise ValueError(f"{name}: missing: {', '.join(missing)}")
    if unknown := [key for key in table if key not in (*own, *of_model)]:
        raise ValueError(f"{name}: unknown: {', '.join(unknown)}")
    for key in ("channel_flag", "descriptor", "pulses"):
        if isinstance(table[key], bool) or not isinstance(table[key], int):
            raise ValueError(f"{name}: {key} is {table[key]!r}; expected an integer")
    if table["origin"] not in get_args(PulseOrigin):
        raise ValueError(f"{name}: origin is {table['origin']!r}; expected returned or outgoing")
    values = {key: _number(table, key, name) for key in of_model if key != "pulse"}
    try:
        model = PulseModel(pulse=_numbers(table, name), **values)
        return ReceiverModel(**{key: table[key] for key in own}, model=model)
    except ValueError as error:
        raise ValueError(f"{name}: {error}") from error


def _number(table: Mapping[str, Any], key: str, name: str) -> float:
    value = plain_value(table[key], "double")
    if not isinstance(value, float):
        raise ValueError(f"{name}: {key} is {table[key]!r}; expected a finite number")
    return value


def _numbers(table: Mapping[str, Any], name: str) -> tuple[float, ...]:
    values = table["pulse"]
    if not isinstance(values, list):
        raise ValueError(f"{name}: pulse is {values!r}; expected a list of finite numbers")
    for index, value in enumerate(values):
        if plain_value(value, "double") is None:
            raise ValueError(
                f"{name}: value {index} of pulse is {value!r}; expected a finite number"
            )
    return tuple(float(value) for value in values)
