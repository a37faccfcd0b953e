"""Columns of files from which the quantities of an echo are taken."""

from __future__ import annotations

from collections.abc import Callable, Collection

import numpy as np

from fullwaveform.data.arrays import AnyArray, RecordArray

_FWHM_PER_SIGMA = 2.0 * np.sqrt(2.0 * np.log(2.0))  # of a Gaussian

# Quantity -> columns that may hold it, the first one found is used, and the factor to its unit.
_SOURCES = {
    "amplitude": (("amplitude", 1.0),),
    "amplitude_db": (("amplitude_db", 1.0),),
    "fwhm_ns": (("fwhm_ns", 1.0), ("sigma_ns", _FWHM_PER_SIGMA)),
    "intensity": (("intensity", 1.0), ("amplitude", 1.0)),
}
#: Columns that quantities are taken from.
QUANTITY_COLUMNS = frozenset(column for sources in _SOURCES.values() for column, _ in sources)


def fill_quantities(
    records: RecordArray, columns: Collection[str], column: Callable[[str], AnyArray]
) -> None:
    """Enter the quantities that the columns of a file have; a width of 0 is unknown."""
    for quantity, sources in _SOURCES.items():
        for name, factor in sources:
            if name in columns:
                records[quantity] = np.asarray(column(name), dtype=np.float64) * factor
                break
    records["fwhm_ns"][records["fwhm_ns"] <= 0] = np.nan
