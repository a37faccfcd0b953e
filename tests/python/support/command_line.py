"""Calls of the command line, and checks of its error messages."""

from __future__ import annotations

from pathlib import Path

from typer.testing import CliRunner, Result

from fullwaveform.cli.app import app


def run(*call: str | Path) -> Result:
    return CliRunner().invoke(app, [str(word) for word in call], env={"COLUMNS": "200"})


def succeeded(*call: str | Path) -> str:
    """What a successful call prints."""
    result = run(*call)
    assert result.exit_code == 0, result.output
    return result.stdout


def words(text: str) -> str:
    """The text without frames and line breaks."""
    return " ".join(text.replace("│", " ").split())


def assert_usage(result: Result, message: str) -> None:
    assert result.exit_code == 2, result.output
    assert message in words(result.stderr)
    assert "Traceback" not in result.stderr


def assert_error(result: Result, *phrases: str) -> None:
    """Exit code 1 and a message of one line."""
    assert result.exit_code == 1, result.output
    assert result.stdout == ""
    (line,) = result.stderr.splitlines()
    assert line.startswith("fullwaveform: ")
    for phrase in phrases:
        assert phrase in line


def names(folder: Path) -> list[str]:
    return sorted(path.name for path in folder.iterdir())
