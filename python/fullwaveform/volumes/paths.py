"""The voxels that straight lines cross."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import FloatArray, IntArray


def crossed_voxels(begins: FloatArray, ends: FloatArray) -> tuple[IntArray, IntArray]:
    """The voxels of unit size that lines cross, each once per line.

    Walks from voxel to voxel through the nearest of the next faces along x, y and z, all lines at
    the same time (Amanatides, J. and Woo, A., 1987: A fast voxel traversal algorithm for ray
    tracing, Eurographics '87). A line through an edge or a corner goes on to the voxel on the other
    side; it does not cross those that it only touches there. First and last voxel are those of the
    ends, so the number of steps along each axis is exact.

    Parameters
    ----------
    begins, ends : (n, 3), finite, in voxels

    Returns
    -------
    (m,) number of the line, (m, 3) number of the voxel along each axis
    """
    voxel = np.floor(begins).astype(np.int64)
    last = np.floor(ends).astype(np.int64)
    step, left = np.sign(last - voxel), np.abs(last - voxel)
    line = np.arange(len(begins))
    face = (voxel + (step > 0)).astype(np.float64)
    begin, span = begins, ends - begins
    lines, voxels = [line], [voxel]
    while True:
        goes_on = left.any(axis=1)
        if not goes_on.all():
            line, voxel, step, left, face, begin, span = (
                values[goes_on] for values in (line, voxel, step, left, face, begin, span)
            )
        if len(line) == 0:
            return np.concatenate(lines), np.concatenate(voxels)
        # Share of the line up to the next face; an axis with faces left has a span.
        share = np.full(face.shape, np.inf)
        np.divide(face - begin, span, out=share, where=left > 0)
        moves = (share == share.min(axis=1, keepdims=True)) & (left > 0)
        voxel = voxel + moves * step
        face = face + moves * step
        left = left - moves
        lines.append(line)
        voxels.append(voxel)
