"""Types of the compiled module; the arrays it takes must have exactly the types given here."""

from collections.abc import Sequence
from enum import IntEnum
from typing import Any

import numpy as np
import numpy.typing as npt

SPEED_OF_LIGHT_IN_AIR: float
MAX_COUNT: int  # largest sample in counts, and largest number of samples of a waveform
SYSTEM_WAVE_SAMPLES: int
UP_SAMPLING: int  # steps per sample in the deconvolution

class Mode(IntEnum):
    THREE_POINT = 0
    DECOMPOSITION = 1
    DECONVOLUTION = 2
    HYBRID = 3
    @property
    def title(self) -> str: ...

class RowState(IntEnum):
    KEPT = 0  # in the result, with the echoes that were found
    SIGNAL_TOO_LOW = 1  # largest sample not above the threshold
    DUPLICATE = 2  # same signature as an earlier waveform of its shot
    INVALID_ROW = 3  # no samples, no shot time, or a value missing in one of the arrays
    TOO_LONG_TO_DECONVOLVE = 4  # in the result, without echoes
    MERGED_INTO_OTHER_CHANNEL = 5  # in the result; its echoes are in the other channel of the shot

class EchoType(IntEnum):
    UNBORN = 0
    RAW = 1
    GAUSS_3POINTS = 2
    GAUSS_DECOMPOSITION_1 = 3
    GAUSS_DECOMPOSITION_2 = 4
    RICHARDSON_LUCY = 5
    ONLINE_OWP = 6
    FLAW = 7
    @property
    def description(self) -> str: ...

class Quality(IntEnum):
    GOOD = 0
    AFTERPULS = 1
    EXCEEDS_RANGE = 2

def take_messages() -> list[str]: ...
def chunk_memory_total() -> int: ...
def after_pulse_class() -> int: ...
def has_known_after_pulse(scanner_type: str) -> bool: ...
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
