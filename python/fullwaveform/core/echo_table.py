"""The table of the echoes of a block: their places, numbers, discrete returns and all columns."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass

import numpy as np

from fullwaveform import _core
from fullwaveform.core.scanner import Scanner
from fullwaveform.core.uncertainty import FittedRows
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import (
    EXTRA_BYTES,
    EchoTable,
    echo_columns,
    shot_columns_of,
    shot_values_of,
)
from fullwaveform.data.returns import DiscreteReturns


@dataclass(frozen=True, slots=True)
class FoundEchoes:
    """Echoes as a method found them, of which the table of a block is made."""

    #: (m,), row of the block in which each echo was found; those of a waveform are consecutive.
    rows: IntArray
    #: Columns (m,) as in `Result.peaks` with NaN for unknown values, ``height``, counts above the
    #: baseline, ``library_idx``, samples; with ``sigma_position`` and ``sigma_fwhm``, samples, and
    #: ``sigma_height``, counts, if the standard deviations of the values are known; with
    #: ``significance``, ``fit_flags`` and ``reduced_chi_square`` of the pulse fit.
    peaks: Mapping[str, AnyArray]
    #: (n,), factor of the samples of each waveform, which amplitudes are divided by.
    scale: IntArray
    #: (n,), samples by which the outgoing pulse of each waveform left later than its times say;
    #: echoes are placed, and their times counted, from the pulse.
    phase: FloatArray
    position_offset: float = 0.0  # samples, to subtract from positions of deconvolved echoes
    #: (n,), s: reach of echoes of unknown width, at least one sample; that of others is half their
    #: width at half maximum. None: echoes are not compared with discrete returns.
    half_width: FloatArray | None = None
    #: Of all waveforms, for the uncertainties of three-point echoes; None: not computed.
    fitted: FittedRows | None = None


def echo_table(
    block: WaveformBlock, found: FoundEchoes, scanner: Scanner, *, keep_empty: bool = False
) -> tuple[EchoTable, IntArray]:
    """The echoes of a block, shot by shot along the flight of light.

    An echo takes class, number and extra bytes of the discrete return of its shot that is nearest
    along the pulse, and in reach; of two equally near ones of the earlier one.

    Parameters
    ----------
    block : the waveforms
    found : their echoes
    scanner : its amplitude unit and group velocity
    keep_empty : whether waveforms without echoes have a row. It follows the echoes of its shot, and
        has the echo number, type and quality 0, NaN in every floating-point column of echoes, and
        the number of echoes of its shot as `echo_count`.

    Returns
    -------
    The table, and the number (n,) of echoes of each waveform.

    Raises
    ------
    ValueError
        If arrays differ in length, or a row is not in the block.
    """
    returns = None if found.half_width is None else block.returns
    filled, counts = _core.echo_table(
        _waveform_arrays(block, found),
        {**found.peaks, "row": found.rows},
        {} if returns is None else _return_arrays(returns),
        None if found.fitted is None else found.fitted.compiled(),
        np.nan if scanner.amplitude_unit is None else scanner.amplitude_unit,
        scanner.range_per_second,
        found.position_offset,
        keep_empty,
    )
    columns: dict[str, AnyArray] = {**filled}  # type: ignore[dict-item]
    for name, values in shot_values_of(block).items():
        columns[name] = values[filled["row"]]
    table = {
        column.name: columns[column.name].astype(column.dtype, copy=False)
        for column in echo_columns(shot_columns_of(block))
    }
    if returns is not None and returns.extra is not None:
        table[EXTRA_BYTES] = _taken(returns.extra, filled["return_index"])
    return EchoTable(table), counts


def _waveform_arrays(block: WaveformBlock, found: FoundEchoes) -> dict[str, AnyArray]:
    geometry, attributes = block.geometry, block.attributes
    return {
        "shot_times": block.shot_times,
        "sampling_intervals": block.sampling_intervals,
        "anchor": geometry.anchor,
        "location": geometry.location,
        "direction": geometry.direction,
        "phase": found.phase,
        "scale": found.scale,
        "half_width": np.zeros(len(block)) if found.half_width is None else found.half_width,
        "gps_time": attributes.gps_time,
        "scan_angle": attributes.scan_angle,
        "scan_direction_flag": attributes.scan_direction_flag,
        "edge_of_flight_line": attributes.edge_of_flight_line,
        "user_data": attributes.user_data,
        "point_source_id": attributes.point_source_id,
        "waveform_numbers": block.waveform_numbers,
        "channel_flags": block.channel_flags,
        "descriptors": block.descriptors,
    }


def _return_arrays(returns: DiscreteReturns) -> dict[str, AnyArray]:
    return {
        "rows": returns.rows,
        "times": returns.times,
        "classification": returns.classification,
        "return_number": returns.return_number,
    }


def _taken(values: AnyArray, index: IntArray) -> AnyArray:
    """The values at the index; zero at -1."""
    taken = np.zeros(len(index), values.dtype)
    taken[index >= 0] = values[index[index >= 0]]
    return taken
