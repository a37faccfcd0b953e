"""The command line with one slow step, so that a signal arrives during it.

Usage: slow_command.py loading|blocks|renaming|summary|index|saving CALL...
"""

from __future__ import annotations

import sys
import time
from importlib.abc import MetaPathFinder
from typing import Any

from fullwaveform.cli.main import main

SHORT, LONG = 0.1, 300.0  # s
SUMMARY_BEGINS = "the summary begins"
INDEX_ENDS = "the index of the viewer ends"
SAVING_BEGINS, SAVING_ENDS = "the viewer saves echoes", "the viewer has saved echoes"


class _SlowFinder(MetaPathFinder):
    """Finds no module, and takes minutes for that of the first library."""

    def find_spec(self, name: str, *_: Any) -> None:
        if name == "typer":
            time.sleep(LONG)


def slow_loading() -> None:
    """Minutes pass while libraries are loaded."""
    sys.meta_path.insert(0, _SlowFinder())


def slow_blocks() -> None:
    """The extraction of each block takes a tenth of a second."""
    from fullwaveform.extraction.extractor import Extractor

    extract = Extractor.extract

    def slowly(self: Extractor, block: Any) -> Any:
        time.sleep(SHORT)
        return extract(self, block)

    Extractor.extract = slowly  # type: ignore[method-assign]


def slow_renaming() -> None:
    """Minutes pass between the last byte of a file and its renaming, unless a signal arrives."""
    from fullwaveform.io import atomic

    raise_if_requested = atomic.raise_if_requested

    def slowly() -> None:
        for _ in range(round(LONG / SHORT)):
            raise_if_requested()
            time.sleep(SHORT)

    atomic.raise_if_requested = slowly


def slow_summary() -> None:
    """Minutes pass before the summary is printed; a line of standard error tells when."""
    from fullwaveform.cli.summary import RunSummary

    def slowly(self: RunSummary) -> None:
        print(SUMMARY_BEGINS, file=sys.stderr, flush=True)
        time.sleep(LONG)

    RunSummary.show = slowly  # type: ignore[method-assign]


def slow_index() -> None:
    """Minutes pass before an index of the viewer gets its end; a line tells when."""
    from fullwaveform.view.sections import SectionWriter

    def slowly(self: SectionWriter, described: Any) -> None:
        print(INDEX_ENDS, file=sys.stderr, flush=True)
        time.sleep(LONG)

    SectionWriter.finish = slowly  # type: ignore[method-assign]


def slow_saving() -> None:
    """Minutes pass while the viewer writes a file of echoes; lines tell when they begin and end."""
    from fullwaveform.io.echo_writers import converting, restricting, restricting_packets

    raise_if_requested = restricting.raise_if_requested

    def slowly() -> None:
        print(SAVING_BEGINS, file=sys.stderr, flush=True)
        for _ in range(round(LONG / SHORT)):
            raise_if_requested()
            time.sleep(SHORT)
        print(SAVING_ENDS, file=sys.stderr, flush=True)

    for module in (converting, restricting, restricting_packets):
        module.raise_if_requested = slowly


if __name__ == "__main__":
    {
        "loading": slow_loading,
        "blocks": slow_blocks,
        "renaming": slow_renaming,
        "summary": slow_summary,
        "index": slow_index,
        "saving": slow_saving,
    }[sys.argv.pop(1)]()
    main()
