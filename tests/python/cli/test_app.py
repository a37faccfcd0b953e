"""Help, completion and mistyped names of the command line."""

from __future__ import annotations

import os
import subprocess
import sys

import pytest

from fullwaveform.cli.app import COMMANDS

from ..support.command_line import assert_usage, run, words


@pytest.mark.parametrize("command", [None, *COMMANDS])
def test_short_option_shows_the_help(command: str | None) -> None:
    call = [] if command is None else [command]
    short, long = run(*call, "-h"), run(*call, "--help")
    assert (short.exit_code, short.stdout) == (0, long.stdout)
    assert "-h, --help" in long.stdout


@pytest.mark.parametrize("command", COMMANDS)
def test_help_has_no_types_of_arguments_and_flags(command: str) -> None:
    text = run(command, "--help").stdout
    for noise in ("<bool>", "<path>", "<list"):
        assert noise not in text


def test_similar_names_are_suggested() -> None:
    assert_usage(run("extrct", "scan.las"), "No such command 'extrct'. Did you mean extract?")
    assert_usage(run("xyz"), "No such command 'xyz'.")
    assert "Did you mean" not in run("xyz").stderr
    mistyped = run("extract", "scan.las", "-o", "e.las", "--thresold", "20")
    assert_usage(mistyped, "No such option: --thresold")
    assert "--threshold" in words(mistyped.stderr)


def completions(*typed: str) -> list[str]:
    """What a shell is offered after the words; the last one is incomplete."""
    line = " ".join(("fullwaveform", *typed))
    done = subprocess.run(
        [sys.executable, "-m", "fullwaveform"],
        env={
            **os.environ,
            "_FULLWAVEFORM_COMPLETE": "complete_bash",
            "COMP_WORDS": line,
            "COMP_CWORD": str(len(typed)),
        },
        capture_output=True,
        text=True,
        check=False,
    )
    return done.stdout.split()


def test_shell_is_offered_commands_and_options() -> None:
    assert completions("ex") == ["extract"]
    assert completions("c") == ["cluster", "compare", "convert"]
    assert "--threshold" in completions("extract", "--thr")
    assert "--install-completion" in run("--help").stdout
