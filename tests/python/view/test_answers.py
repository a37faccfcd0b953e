"""The end of the viewer and the threads that still answer requests."""

from __future__ import annotations

import signal
import threading
from types import SimpleNamespace
from typing import Any

import pytest

from fullwaveform.io.interruption import raise_if_requested
from fullwaveform.view.server import Answers, ViewerEndedError, ended_by_signals

from ..support.child_processes import TIMEOUT_S


def test_request_to_end_lasts_until_every_answer_is_given_up(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    """The server gives an answer a second; a thread may need longer to its next check."""
    answers, begun, resumed = Answers(), threading.Event(), threading.Event()
    ends: list[str] = []

    def answer(request: Any) -> Any:
        begun.set()
        assert resumed.wait(TIMEOUT_S)
        try:
            raise_if_requested()
        except ViewerEndedError:
            ends.append("given up")
            raise
        ends.append("finished")

    def call() -> None:
        with pytest.raises(ViewerEndedError):
            answers.counted(answer)(None)  # type: ignore[arg-type]

    thread = threading.Thread(target=call)
    wait = answers.wait

    def wait_for_resumed() -> None:
        resumed.set()
        wait()

    monkeypatch.setattr(answers, "wait", wait_for_resumed)
    server: Any = SimpleNamespace(should_exit=False)
    with ended_by_signals(server, answers):
        thread.start()
        assert begun.wait(TIMEOUT_S)
        signal.raise_signal(signal.SIGINT)
    # Were the request withdrawn before, the answer would be finished now.
    resumed.set()
    thread.join(TIMEOUT_S)
    assert (server.should_exit, ends) == (True, ["given up"])
