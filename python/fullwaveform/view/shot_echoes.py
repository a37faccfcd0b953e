"""Echoes per shot."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import AnyArray

_LARGEST = 255


def echoes_of_shots(
    waveforms: AnyArray, unknown: int, shots: AnyArray
) -> tuple[AnyArray, AnyArray]:
    """Echoes of each shot (k,), and of the shot of each echo (n,); uint8, limited to 255.

    waveforms : (n,) waveform of each echo; `unknown` has 0 echoes in its shot
    shots : (m,) shot of each waveform, from 0 to k - 1
    """
    count = int(shots[-1]) + 1 if len(shots) else 0
    known = waveforms != unknown
    of_known = shots[waveforms[known]]
    of_shots = np.minimum(np.bincount(of_known, minlength=count), _LARGEST).astype(np.uint8)
    of_echoes = np.zeros(len(waveforms), np.uint8)
    of_echoes[known] = of_shots[of_known]
    return of_shots, of_echoes
