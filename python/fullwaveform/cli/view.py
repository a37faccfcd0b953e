"""``fullwaveform view``: echoes and waveforms in the browser."""

from __future__ import annotations

import hashlib
import webbrowser
from dataclasses import replace
from functools import partial
from importlib import import_module
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.extract_file import FileRun
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.option_values import integer_from, local_path
from fullwaveform.cli.options import (
    ChannelOption,
    CrsOption,
    IntervalOption,
    KeepDegraded,
    MaxSamples,
    ModeOption,
    ScannerFile,
    SourceFile,
    require_suffix,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.progress import print_line, progress_bar
from fullwaveform.core.driver import Mode
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.atomic import protected_inputs
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.remote import location

if TYPE_CHECKING:
    from fullwaveform.view.session import ViewSession

_MISSING = (
    "fullwaveform view needs the package {}; install the extra: pip install 'fullwaveform[view]'"
)

_PAGE_BLOCK = 5_000  # waveforms; a page needs little memory with many threads, too


def view(
    source: SourceFile,
    echoes: Annotated[
        list[Path] | None,
        typer.Option(
            metavar="FILE",
            parser=location,
            help="Echoes of IN for the map, as extract writes them; repeat for several. Default: "
            "extracted with mode three-point, once",
        ),
    ] = None,
    scanner: ScannerFile = None,
    channel: ChannelOption = None,
    interval: IntervalOption = None,
    max_samples: MaxSamples = DEFAULT_MAX_SAMPLES,
    keep_degraded: KeepDegraded = False,
    crs: CrsOption = None,
    html: Annotated[
        Path | None,
        typer.Option(
            metavar="FILE",
            parser=local_path,
            help="Write one page for a browser that needs neither this program nor a network, "
            "instead of serving",
        ),
    ] = None,
    mode: ModeOption = Mode.THREE_POINT,
    workers: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(1),
            metavar="N",
            help="Number of threads for --html. Default: all processors",
        ),
    ] = None,
    overwrite: OverwriteOption = False,
    browser: Annotated[
        bool,
        typer.Option(
            "--browser/--no-browser",
            show_default=False,
            help="Open the page in the browser. Default: browser",
        ),
    ] = True,
) -> None:
    """Show the echoes on a map in the browser, and the waveform of each.

    The page is served to this machine only, until Ctrl-C. Needs the packages of the extra view.
    With --html, which needs none, a file with summary, statistics, map and examples of waveforms is
    written instead; --mode, --workers and --overwrite are for it.

    Examples:

        fullwaveform view scan.las

        fullwaveform view scan.las --echoes echoes.las --no-browser

        fullwaveform view scan.las --html page.html --mode decomposition --overwrite
    """
    _check_options_of_page(html, echoes, mode, workers, overwrite=overwrite, browser=browser)
    options = ExtractOptions(
        mode=mode,
        scanner=scanner,
        channel=channel,
        interval=interval,
        max_samples=max_samples,
        keep_degraded=keep_degraded,
        crs=crs,
        skip_unreadable=True,
        allow_empty=True,
    )
    if html is not None:
        _write_page(source, html, options, echoes, workers, overwrite=overwrite)
        return
    with (
        report_errors(lambda: "the viewer has ended"),
        protected_inputs(source, *(echoes or ())),
        _session(source, echoes, options) as session,
    ):
        _serve(session, browser=browser)


def _check_options_of_page(
    html: Path | None,
    echoes: list[Path] | None,
    mode: Mode,
    workers: int | None,
    *,
    overwrite: bool,
    browser: bool,
) -> None:
    """BadParameter for options that do not belong together."""
    if html is not None:
        require_suffix(html, (".html", ".htm"), "--html")
        if len(echoes or ()) > 1:
            raise typer.BadParameter("give one file with --html", param_hint="--echoes")
        if not browser:
            raise typer.BadParameter("does not apply with --html", param_hint="--no-browser")
        return
    given = {
        "--mode": mode is not Mode.THREE_POINT,
        "--workers": workers is not None,
        "--overwrite": overwrite,
    }
    for name in (name for name, is_given in given.items() if is_given):
        raise typer.BadParameter("applies only with --html", param_hint=name)


def _write_page(
    source: Path,
    target: Path,
    options: ExtractOptions,
    echoes: list[Path] | None,
    workers: int | None,
    *,
    overwrite: bool,
) -> None:
    # On demand: drawing needs more packages than most commands load.
    from fullwaveform.cli.view_page import write_page
    from fullwaveform.view.static_page import PAGE_KIND

    file = echoes[0] if echoes else None
    scanner = [] if options.scanner is None else ["--scanner", str(options.scanner)]
    with (
        checked_outputs(
            Output(target, PAGE_KIND, "--html"),
            overwrite=overwrite,
            inputs=(source, file, options.scanner),
        ),
        report_errors(),
    ):
        write_page(
            source,
            target,
            replace(options, block=_PAGE_BLOCK),
            file,
            plot_options=[*scanner, *_plot_options(options)],
            workers=workers or available_workers(),
            overwrite=overwrite,
        )


def _serve(session: ViewSession, *, browser: bool) -> None:
    server = import_module("fullwaveform.view.server").ViewServer(session)

    def announce(address: str) -> None:
        typer.echo(f"{address}\nPress Ctrl-C to stop.")
        if browser and not webbrowser.open(address):
            print_line("no browser was found; open the address above")

    server.run(announce)


def _session(source: Path, echoes: list[Path] | None, options: ExtractOptions) -> ViewSession:
    """The opened and indexed files."""
    module = _imported("fullwaveform.view.session")
    files = [(path.name, path) for path in echoes or ()]
    as_las = None
    if not files:
        files = [("three-point", _extracted(source, options))]
        as_las = partial(_extracted_points, source, options)
    directory = import_module("fullwaveform.view.directory")
    reader = replace(options, block=directory.BLOCK).open([source])
    session: ViewSession = module.ViewSession(
        reader,
        _identified(options),
        files,
        [] if options.scanner is None else [options.scanner],
        _plot_options(options),
        print_line,
        as_las,
    )
    return session


def _extracted_points(source: Path, options: ExtractOptions, with_waveforms: bool) -> Path:
    """The echoes of the file as LAS, see `_extracted`."""
    return _extracted(source, replace(options, with_waveforms=with_waveforms), ".las")


def _extracted(source: Path, options: ExtractOptions, ending: str = ".parquet") -> Path:
    """The echoes of the file in the cache folder, extracted unless they are there."""
    cache = import_module("fullwaveform.view.cache")
    content = b"" if options.scanner is None else options.scanner.read_bytes()
    described = hashlib.sha256(content).hexdigest()
    identified = cache.identity(source, scanner=described, **_identified(options))
    purpose = "extracted-waveforms" if options.with_waveforms else "extracted"
    name = cache.cached_name(purpose, source, identified)
    path: Path = name.with_name(f"{name.name}{ending}")
    found = [path, path.with_suffix(".wdp")] if options.with_waveforms else [path]
    if all(file.is_file() for file in found):
        for file in found:
            cache.mark_used(file)
        return path
    with cache.written_to_cache(path), progress_bar(False) as progress:
        run = FileRun(options, available_workers(), True, progress, False, None)
        summary = run.extract([source], path)
    cache.remove_former(path, is_reopened=True)
    print_line(f"{source.name}: {summary.written:,} echoes extracted in {summary.seconds:.1f} s")
    return path


def _identified(options: ExtractOptions) -> dict[str, Any]:
    """Options of the reader, as JSON data."""
    return {
        "channel": options.channel or [],
        "interval": options.interval,
        "max_samples": options.max_samples,
        "keep_degraded": options.keep_degraded,
        "crs": options.crs,
    }


def _plot_options(options: ExtractOptions) -> list[str]:
    """The options of the reader for the command plot."""
    words = [word for channel in options.channel or () for word in ("--channel", channel)]
    if options.interval is not None:
        words += ["--interval", repr(options.interval * 1e9)]
    if options.max_samples != DEFAULT_MAX_SAMPLES:
        words += ["--max-samples", str(options.max_samples)]
    if options.keep_degraded:
        words.append("--keep-degraded")
    return words


def _imported(name: str) -> Any:
    try:
        return import_module(name)
    except ModuleNotFoundError as error:
        if str(error.name).startswith("fullwaveform"):
            raise
        raise ValueError(_MISSING.format(error.name)) from error
