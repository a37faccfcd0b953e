"""What a volume holds for each voxel, and the sums of which it is made."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import AnyArray

#: Heights are whole numbers of 1 / 256 count, so that sums do not depend on the order of samples.
STEPS_PER_COUNT = 256
_NO_SAMPLE = np.iinfo(np.int32).min

#: The sums of one voxel while the waveforms are read.
VOXEL = np.dtype([("sum", "<i8"), ("max", "<i4"), ("samples", "<u4"), ("pulses", "<u4")])


@dataclass(frozen=True, slots=True)
class Quantity:
    """A quantity of every voxel."""

    name: str
    unit: str
    description: str
    dtype: npt.DTypeLike
    empty: float  # value of a voxel without samples and pulses

    def of(self, voxels: AnyArray) -> AnyArray:
        """The values of voxels of the type `VOXEL`."""
        if self.name in ("samples", "pulses"):
            return np.asarray(voxels[self.name])
        if self.name == "sum":
            return np.asarray(voxels["sum"] / STEPS_PER_COUNT)
        has_samples = voxels["samples"] > 0
        steps = np.where(has_samples, voxels["max"], np.nan)
        if self.name == "mean":
            np.divide(voxels["sum"], voxels["samples"], out=steps, where=has_samples)
        return (steps / STEPS_PER_COUNT).astype(self.dtype)


QUANTITIES = {
    one.name: one
    for one in (
        Quantity("sum", "counts", "Sum of the samples above the baseline", np.float64, 0.0),
        Quantity("mean", "counts", "Mean of the samples above the baseline", np.float32, np.nan),
        Quantity("max", "counts", "Largest sample above the baseline", np.float32, np.nan),
        Quantity("samples", "1", "Number of samples", np.uint32, 0),
        Quantity("pulses", "1", "Number of pulses that pass through the voxel", np.uint32, 0),
    )
}


def empty_voxels(count: int) -> AnyArray:
    """Voxels (count,) of the type `VOXEL` without samples and pulses."""
    voxels = np.zeros(count, VOXEL)
    voxels["max"] = _NO_SAMPLE
    return voxels


def checked_quantity(name: str) -> Quantity:
    """The quantity of this name; ValueError if there is none."""
    if name not in QUANTITIES:
        raise ValueError(f"invalid quantity {name!r}; expected one of {', '.join(QUANTITIES)}")
    return QUANTITIES[name]
