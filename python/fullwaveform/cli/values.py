"""Values of options and arguments, converted by their own parsers.

The option parser checks values with a validation library that takes longer to load than a short run
takes. A parameter with a parser of its own needs no other check.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable, Mapping
from typing import Any

from typer.utils import get_params_from_function

Parser = Callable[[Any], Any]


def parsers_of(function: Callable[..., Any]) -> dict[str, Parser]:
    """The parsers of the parameters of a command, for those that have one."""
    declared = get_params_from_function(function)
    parsers = {name: getattr(one.default, "parser", None) for name, one in declared.items()}
    return {name: parser for name, parser in parsers.items() if parser is not None}


def use_parsers(parameters: Iterable[Any], parsers: Mapping[str, Parser]) -> None:
    """Let parameters of a command convert their values with their parsers, if they have one.

    Everything else, error messages included, remains as it is.
    """
    for parameter in parameters:
        if "process_value" not in vars(parameter):  # not replaced before
            parameter.process_value = _converter(parameter, parsers.get(parameter.name))


def _converter(parameter: Any, parser: Parser | None) -> Callable[[Any, Any], Any]:
    checked: Callable[[Any, Any], Any] = parameter.process_value
    callback = parameter.callback
    repeated = parameter.nargs != 1 or getattr(parameter, "multiple", False)

    def convert(context: Any, value: Any) -> Any:
        if value is None and not parameter.required:
            missing = () if repeated else None
            return missing if callback is None else callback(context, parameter, missing)
        is_missing = value is None or (repeated and not value)
        if parser is None or callback is not None or is_missing:
            return checked(context, value)
        try:
            return [parser(one) for one in value] if repeated else parser(value)
        except ValueError:
            return checked(context, value)  # which reports it

    return convert
