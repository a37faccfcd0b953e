"""Types of NumPy arrays, by what their elements are."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

AnyArray = npt.NDArray[Any]
BoolArray = npt.NDArray[np.bool_]
ComplexArray = npt.NDArray[np.complex128]
FloatArray = npt.NDArray[np.float64]
Float32Array = npt.NDArray[np.float32]
IntArray = npt.NDArray[np.int64]
UInt8Array = npt.NDArray[np.uint8]
UInt16Array = npt.NDArray[np.uint16]
UInt64Array = npt.NDArray[np.uint64]
RecordArray = npt.NDArray[np.void]  # structured
