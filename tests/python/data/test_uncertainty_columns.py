"""The columns of the uncertainties of echoes have the units of their descriptions."""

from __future__ import annotations

import numpy as np
import pytest

from fullwaveform import Scanner
from fullwaveform.core.echo_table import FoundEchoes, echo_table
from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.echo_columns import EchoTable

from ..extraction.test_extraction import Packet, block_of, triples

NAMES = ("sigma_position_ns", "sigma_amplitude", "sigma_width_ns", "sigma_range")


def table(**uncertainties: list[float]) -> EchoTable:
    """Two echoes, in waveforms of 2 ns and 1 ns per sample."""
    packets = [Packet(triples({10: 80}), shot=k, interval=2e-9 / k) for k in (1.0, 2.0)]
    peaks: dict[str, AnyArray] = {
        name: np.zeros(2)
        for name in ("height", "amplitude", "std", "idx", "library_idx", "time", "reflectance")
    }
    peaks |= {name: np.zeros(2, np.uint8) for name in ("type", "quality")}
    peaks |= {name: np.array(values) for name, values in uncertainties.items()}
    attributes = {**Scanner.default().attributes, "Scanner Group Velocity": 3e8}
    scanner = Scanner.from_attributes(attributes)
    found = FoundEchoes(np.arange(2), peaks, np.ones(2, np.int64), np.zeros(2))
    return echo_table(block_of(packets), found, scanner)[0]


def test_uncertainties_have_units_of_time_counts_and_range() -> None:
    echoes = table(sigma_position=[0.125, 0.25], sigma_height=[3.0, 4.0], sigma_fwhm=[0.5, 2.0])
    assert echoes.sigma_position_ns.tolist() == [0.25, 0.25]
    assert echoes.sigma_amplitude.tolist() == [3.0, 4.0]
    assert echoes.sigma_width_ns.tolist() == [1.0, 2.0]
    # 0.25 ns there and back at 3e8 m/s
    assert echoes.sigma_range.tolist() == pytest.approx([0.0375, 0.0375], rel=1e-6)


def test_uncertainties_that_were_not_determined_are_nan() -> None:
    echoes = table()
    for name in NAMES:
        assert np.isnan(echoes[name]).tolist() == [True, True], name
