"""Files of a table in every format that has columns."""

from __future__ import annotations

from collections.abc import Mapping
from pathlib import Path

import h5py
import numpy as np
import numpy.typing as npt
import pyarrow as pa
import pyarrow.csv
import pyarrow.parquet as pq


def write_table(path: Path, columns: Mapping[str, npt.ArrayLike]) -> Path:
    """Write columns of equal length as .npz, .h5, .csv or .parquet."""
    arrays = {name: np.asarray(values) for name, values in columns.items()}
    if path.suffix == ".npz":
        np.savez_compressed(path, **arrays)
    elif path.suffix == ".h5":
        with h5py.File(path, "w") as file:
            for name, values in arrays.items():
                file[name] = values
    elif path.suffix == ".csv":
        pa.csv.write_csv(pa.table(arrays), path)
    else:
        pq.write_table(pa.table(arrays), path)
    return path
