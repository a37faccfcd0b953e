"""A server of the scene, in a thread of the test."""

from __future__ import annotations

import threading
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from fullwaveform.io.opening import open_waveforms
from fullwaveform.view.directory import BLOCK
from fullwaveform.view.server import ViewServer
from fullwaveform.view.session import ViewSession

from ..support.child_processes import TIMEOUT_S
from . import scenes


@dataclass
class Served:
    """A running server, and the files of the scene that it shows."""

    scan: Path
    server: ViewServer
    thread: threading.Thread

    @property
    def address(self) -> str:
        return self.server.address

    def stop(self) -> None:
        self.server.stop()
        self.thread.join(TIMEOUT_S)
        assert not self.thread.is_alive()


@contextmanager
def served_files(scan: Path, *echoes: Path, scanners: Sequence[Path] = ()) -> Iterator[Served]:
    """A scan and files of its echoes, served until the end of the block."""
    reader = open_waveforms(scan, waveforms_per_block=BLOCK)
    files = [(path.name, path) for path in echoes]
    with ViewSession(reader, {}, files, scanners) as session:
        server = ViewServer(session)
        started = threading.Event()
        thread = threading.Thread(target=server.run, args=(lambda address: started.set(),))
        thread.start()
        served = Served(scan, server, thread)
        try:
            assert started.wait(TIMEOUT_S)
            yield served
        finally:
            served.stop()


@contextmanager
def served_scene(
    folder: Path, name: str = "scan.las", *, echoes: str | None = None
) -> Iterator[Served]:
    """The scene under the given name, served until the end of the block.

    Its echoes are those of the scene, or the given lines of a CSV file.
    """
    scan = scenes.write_scan(folder / name)
    path = folder / "echoes.csv"
    if echoes is None:
        scenes.write_echoes(path)
    else:
        path.write_text(echoes, encoding="ascii")
    with served_files(scan, path) as served:
        yield served
