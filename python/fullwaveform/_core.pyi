"""Types of the compiled module; the arrays it takes must have exactly the types given here."""

from collections.abc import Sequence
from typing import Any

import numpy as np
import numpy.typing as npt

SPEED_OF_LIGHT_IN_AIR: float

def take_messages() -> list[str]: ...
def chunk_memory_total() -> int: ...
def after_pulse_class() -> int: ...
def type_text(type: int) -> str: ...
def estimate_noise(samples: npt.NDArray[np.uint16]) -> int: ...
def ascii_lines(
    labels: npt.NDArray[np.int64],
    amplitudes: npt.NDArray[np.float32],
    positions: npt.NDArray[np.float64],
    widths: npt.NDArray[np.float64],
    values: npt.NDArray[np.float64],
) -> bytes: ...
def deconvolved_signal(
    samples: npt.NDArray[np.uint16], scanner: ScannerDevice, noise: int
) -> tuple[npt.NDArray[np.float64], float, float]: ...
def mode_name(mode: int) -> str: ...

class Grid:
    def __init__(self) -> None: ...
    def set_double(self, field: str, name: str, values: Sequence[float]) -> None: ...
    def set_float(self, field: str, name: str, values: Sequence[float]) -> None: ...
    def set_text(self, field: str, name: str, values: Sequence[str]) -> None: ...

class ScannerDevice:
    def __init__(self, scanner_grid: Grid, waveform_grid: Grid | None) -> None: ...
    def speak(self) -> str: ...
    def getMTALengthAsTime(self) -> float: ...
    def set_after_pulse(self, offset: int, width: int) -> None: ...
    has_system_wave: bool
    complete: bool
    sampling_time: float
    t_ref: float
    group_velocity: float
    unambiguous_range: float
    wavelength: float
    serial: str
    type_id: str
    build: str
    ampl_unit: float
    refl_delta: float
    bin_shift: float
    scan_kind: int
    afterpulse_offset: int
    afterpulse_width: int

class WavePoints:
    def __init__(self) -> None: ...
    isLowPower: bool
    shotTime: float
    sblTime: float
    damping: float
    idxOfMaxAmplitude: int
    maxAmplitude: int
    binShift: float
    length: int
    noise: int
    maxAmplitudeDB: float
    timeOfMaxAmplitude: float
    online: bool
    globalStart: int
    globalEnd: int
    lengthCropped: int
    def add_after_pulse(self, start: float, end: float) -> None: ...
    def add_segment(self, start: int, end: int) -> None: ...
    def add_peak(
        self,
        amplitude: float,
        idx: float,
        time: float,
        type: int,
        quality: int,
        std: float,
        classification: int,
        reflectance: float,
    ) -> None: ...
    def print(self) -> str: ...
    def printLengthAtMaxAmplitude(self, speed: float) -> str: ...

class PeakDetectionFamily:
    def __init__(
        self,
        mode: int,
        scanner: ScannerDevice,
        output_directory: str,
        input_file: str,
        longest_waveform: int,
    ) -> None: ...
    message: str
    def apply(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.NDArray[np.uint16],
        shot_times: npt.NDArray[np.float64],
        sbl_times: npt.NDArray[np.float64],
        channel_flags: npt.NDArray[np.uint8],
        noise: int,
        text: str,
    ) -> dict[str, Any]: ...

def evaluate_online(
    scanner: ScannerDevice,
    shot_times: npt.NDArray[np.float64],
    ranges: npt.NDArray[np.float64],
    amplitudes: npt.NDArray[np.float32],
    flags: npt.NDArray[np.uint8],
    reflectances: npt.NDArray[np.float32],
) -> dict[str, Any]: ...
