"""The waveform panel of a scan with all that it may have, in a real browser."""

from __future__ import annotations

from pathlib import Path

import pytest
from playwright.sync_api import Browser, expect

from fullwaveform.io.scanner_file import scanner_text
from fullwaveform.simulation import ScanSettings, simulate_scan, write_recording

from ..core.test_modes import scanner as scanner_with_system_wave
from ..support.command_line import run
from .pages import opened
from .serving import served_files

pytestmark = pytest.mark.slow


def test_panel_shows_all_of_a_shot_with_any_scanner(browser: Browser, tmp_path: Path) -> None:
    """Waveforms of two channels and the outgoing pulse; the deconvolution needs a system wave."""
    write_recording(simulate_scan(ScanSettings(shots=30)), tmp_path / "scan.pls", overwrite=True)
    scan, echoes, description = (tmp_path / name for name in ("scan.pls", "a.csv", "scanner.toml"))
    description.write_text(scanner_text(scanner_with_system_wave()), encoding="utf-8")
    assert run("extract", scan, "-o", echoes).exit_code == 0
    with served_files(scan, echoes, scanners=[description]) as served:
        page = opened(served, browser)
        page.select_option("#scanner", label="scanner.toml")
        page.locator("#map").press("Enter")
        headings = page.locator("#panel h2")
        expect(headings).to_have_count(3)
        texts = headings.all_text_contents()
        numbers = [int(text.split(",")[0].removeprefix("Waveform ")) for text in texts[:2]]
        assert numbers == [numbers[0], numbers[0] + 1]
        assert texts[0].split("GPS time")[1] == texts[1].split("GPS time")[1]
        assert texts[2] == "Outgoing pulse"
        for kind in ("segment", "uncertainty", "threshold", "fitted"):
            assert page.locator(f"#panel .{kind}").count() > 0, kind
        deconvolved = page.locator('#panel .echo[data-mode="deconvolution"]')
        assert deconvolved.count() == 0
        page.locator("#modes input[value=deconvolution]").check()
        expect(deconvolved).not_to_have_count(0)
        assert "--scanner" in (page.locator("#command").text_content() or "")
        other = next(
            label
            for label in page.locator("#scanner option").all_text_contents()
            if label != "scanner.toml"
        )
        page.select_option("#scanner", label=other)
        expect(page.locator("#status")).to_contain_text("needs the scanner's system wave")
        page.close()
