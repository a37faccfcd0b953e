"""Invalid inputs: one message and an exit code, no output, bounded time and memory."""

from __future__ import annotations

from typing import Any

import pytest

from .corpus import cases
from .messages import LIST, as_text, message, outcomes

SECONDS = 10.0  # of processor time; a case takes a few milliseconds


@pytest.fixture(scope="module")
def found(tmp_path_factory: pytest.TempPathFactory) -> dict[str, dict[str, Any]]:
    folder = tmp_path_factory.mktemp("hostile")
    return {outcome["name"]: outcome for outcome in outcomes(folder)}


def test_every_format_has_cases() -> None:
    assert len(cases()) >= 450


@pytest.mark.parametrize("name", cases())
def test_invalid_input_gives_one_message(name: str, found: dict[str, dict[str, Any]]) -> None:
    outcome = found[name]
    assert outcome["unexpected"] is None
    assert outcome["exit"] in (1, 2)
    assert outcome["stdout"] == ""
    if outcome["exit"] == 1:
        (line,) = outcome["stderr"].splitlines()
        assert line.startswith("fullwaveform: ")
        assert len(line) > len("fullwaveform: ") + 10
    else:
        assert "Usage: " in outcome["stderr"]
        assert len(message(outcome)) > len("exit 2: ") + 10
    assert "Traceback" not in outcome["stderr"]
    assert outcome["changed"] == []  # no file added, changed or removed
    assert outcome["seconds"] < SECONDS


def test_messages_agree_with_the_list(found: dict[str, dict[str, Any]]) -> None:
    listed = LIST.read_text(encoding="utf-8")
    assert as_text(list(found.values())) == listed
