"""Types of the compiled module; arrays must have exactly the element types given here."""

from collections.abc import Mapping, Sequence
from enum import IntEnum
from typing import Any, TypedDict

import numpy as np
import numpy.typing as npt

SPEED_OF_LIGHT_IN_AIR: float
MAX_COUNT: int  # largest sample in counts, and largest number of samples of a waveform
SYSTEM_WAVE_SAMPLES: int
UP_SAMPLING: int  # steps per sample in the deconvolution

# Columns of every table of a result and the names of their NumPy types.
RESULT_COLUMNS: dict[str, dict[str, str]]

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
    TOO_COMPLEX = 6  # in the result, without echoes: its work would exceed the limit

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

class PulseEchoFlag(IntEnum):
    FREE_WIDTH = 1  # the width was fitted without prior
    CLIPPED = 2  # samples of its pulse are at the digitiser's limit
    AT_EDGE = 4  # less than half of its width lies inside the waveform on one side
    NOT_CONVERGED = 8  # the last fit ended after its maximum number of iterations

class EchoState(IntEnum):
    KEPT = 0
    AFTER_PULSE = 1
    IN_OTHER_CHANNEL = 2  # the copy of the other channel of the shot is kept

class PulseState(IntEnum):
    COMPLETE = 0
    TRUNCATED = 1
    DAMAGED = 2
    TOO_LONG = 3  # more samples or segments than are decoded

class PacketFault(IntEnum):
    OUTSIDE = 0  # packet not completely inside the packet data
    OVERLAPPING = 1  # packet overlaps another packet
    WRONG_SIZE = 2  # packet size differs from descriptor
    TOO_LONG = 3  # more samples than allowed
    NO_TIME = 4  # GPS time not finite
    NOT_GEOREFERENCED = 5  # direction or return location not finite

def keep_freed_memory() -> None: ...
def take_messages() -> list[str]: ...
def chunk_memory_total() -> int: ...
def after_pulse_class() -> int: ...
def has_known_after_pulse(scanner_type: str) -> bool: ...
def estimate_noise(samples: npt.NDArray[np.uint16]) -> int: ...
def decode_chunk_table(
    coded: npt.NDArray[np.uint8], chunks: int, with_pulses: bool
) -> dict[str, Any]: ...
def decode_pulse_chunk(
    chunk: npt.NDArray[np.uint8], items: npt.NDArray[np.int64], pulses: int
) -> dict[str, Any]: ...
def decode_waveforms(
    data: npt.NDArray[np.uint8],
    offsets: npt.NDArray[np.int64],
    ends: npt.NDArray[np.int64],
    extra_bytes: int,
    samplings: npt.NDArray[np.int64],
) -> dict[str, Any]: ...

class SampleStatistics:
    """Counts of samples by value, and of waveforms by their largest sample."""

    def __init__(self) -> None: ...
    def add(
        self, samples: npt.NDArray[np.uint16], counts: npt.NDArray[np.uint16]
    ) -> None: ...  # (n, width), (n,) valid samples
    @property
    def value_counts(self) -> npt.NDArray[np.int64]: ...  # (65536,), samples
    @property
    def maximum_counts(self) -> npt.NDArray[np.int64]: ...  # (65536,), waveforms
    @property
    def plateaus(self) -> int: ...  # waveforms with two consecutive samples of the largest value

class PlaceBounds:
    """The box around the first and last samples of waveforms; infinite without any."""

    def __init__(self) -> None: ...
    def add(
        self,
        anchors: npt.NDArray[np.float64],  # (n, 3)
        locations: npt.NDArray[np.float64],  # (n,) ps
        directions: npt.NDArray[np.float64],  # (n, 3) per ps
        intervals: npt.NDArray[np.float64],  # (n,) s
        counts: npt.NDArray[np.uint16],  # (n,)
    ) -> None: ...
    @property
    def lower(self) -> list[float]: ...  # 3
    @property
    def upper(self) -> list[float]: ...  # 3

class PointSurvey:
    def __init__(self, format: int, size: int) -> None: ...
    def add(self, points: npt.NDArray[np.uint8]) -> None: ...
    @property
    def ascending(self) -> bool: ...
    @property
    def without_times(self) -> bool: ...
    @property
    def descriptors(self) -> list[int]: ...
    @property
    def pairs_of_shots(self) -> list[tuple[int, int]]: ...

class PacketSelector:
    def __init__(
        self,
        format: int,
        size: int,
        data_bytes: int,
        header_bytes: int,
        packet_bytes: npt.NDArray[np.int64],
        sample_counts: npt.NDArray[np.int64],
        max_samples: int,
        without_times: bool,
    ) -> None: ...
    def select(self, points: npt.NDArray[np.uint8]) -> dict[str, Any]: ...

def las_waveform_columns(
    runs: list[tuple[npt.NDArray[np.uint8], npt.NDArray[np.int64]]],
    format: int,
    size: int,
    scales: npt.NDArray[np.float64],
    offsets: npt.NDArray[np.float64],
) -> dict[str, Any]: ...
def las_return_columns(
    runs: list[tuple[npt.NDArray[np.uint8], npt.NDArray[np.int64]]],
    owners: npt.NDArray[np.int64],
    format: int,
    size: int,
    scales: npt.NDArray[np.float64],
    offsets: npt.NDArray[np.float64],
) -> dict[str, Any]: ...
def copy_rows(
    source: npt.NDArray[np.uint8],
    starts: npt.NDArray[np.int64],
    rows: npt.NDArray[np.int64],
    target: npt.NDArray[np.uint8],
) -> None: ...
def ascii_lines(
    labels: npt.NDArray[np.int64],
    amplitudes: npt.NDArray[np.float32],
    positions: npt.NDArray[np.float64],
    widths: npt.NDArray[np.float64],
    values: npt.NDArray[np.float64],
) -> bytes: ...
def csv_lines(columns: list[npt.NDArray[Any]], first: int, count: int) -> bytes: ...
def refine_gaussians(
    samples: npt.NDArray[np.uint16],
    counts: npt.NDArray[np.uint16],
    baselines: npt.NDArray[np.float64],
    rows: npt.NDArray[np.int64],
    positions: npt.NDArray[np.float64],
    heights: npt.NDArray[np.float64],
    sigmas: npt.NDArray[np.float64],
) -> tuple[npt.NDArray[np.float64], npt.NDArray[np.float64]]: ...
def refine_echoes(
    samples: npt.NDArray[np.uint16],
    counts: npt.NDArray[np.uint16],
    baselines: npt.NDArray[np.float64],
    rows: npt.NDArray[np.int64],
    positions: npt.NDArray[np.float64],
    scanner: ScannerDevice,
) -> tuple[npt.NDArray[np.float64], npt.NDArray[np.float64]]: ...

MAX_NOISE_LAG: int

class FittedRows:
    def __init__(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.NDArray[np.uint16],
        thresholds: npt.NDArray[np.float64],
        noise_of_rows: npt.NDArray[np.int64],
        limits: npt.NDArray[np.float64],
        covariances: npt.NDArray[np.float64],
        baseline_deviations: npt.NDArray[np.float64],
        removed: npt.NDArray[np.int64],
        scales: npt.NDArray[np.int64],
    ) -> None: ...

def gaussian_uncertainties(
    waveforms: FittedRows,
    rows: npt.NDArray[np.int64],
    positions: npt.NDArray[np.float64],
    heights: npt.NDArray[np.float64],
    sigmas: npt.NDArray[np.float64],
    position_sigmas: npt.NDArray[np.float64],
    reaches: npt.NDArray[np.float64],
) -> tuple[npt.NDArray[np.float64], npt.NDArray[np.float64], npt.NDArray[np.float64]]: ...
def system_wave_uncertainties(
    waveforms: FittedRows,
    rows: npt.NDArray[np.int64],
    positions: npt.NDArray[np.float64],
    heights: npt.NDArray[np.float64],
    scanner: ScannerDevice,
) -> tuple[npt.NDArray[np.float64], npt.NDArray[np.float64], npt.NDArray[np.float64]]: ...
def echo_table(
    waveforms: Mapping[str, npt.NDArray[Any]],
    echoes: Mapping[str, npt.NDArray[Any]],
    returns: Mapping[str, npt.NDArray[Any]],
    fitted: FittedRows | None,
    amplitude_unit: float,
    range_per_second: float,
    position_offset: float,
    keep_empty: bool,
) -> tuple[_EchoTableColumns, npt.NDArray[np.int64]]: ...
def deconvolved_signal(
    samples: npt.NDArray[np.uint16], scanner: ScannerDevice, noise: int
) -> tuple[npt.NDArray[np.float64], float, float]: ...
def report_of_rows(
    samples: npt.NDArray[np.uint16],
    counts: npt.NDArray[np.uint16],
    shot_times: npt.NDArray[np.float64],
) -> tuple[npt.NDArray[np.uint8], str]: ...
def apply_echo_rules(
    samples: npt.NDArray[np.uint16],
    counts: npt.NDArray[np.uint16],
    shot_times: npt.NDArray[np.float64],
    sbl_times: npt.NDArray[np.float64],
    channel_flags: npt.NDArray[np.uint8],
    rows: npt.NDArray[np.int64],
    positions: npt.NDArray[np.float64],
    amplitudes: npt.NDArray[np.float64],
    scanner: ScannerDevice,
    monitor: RunMonitor | None = None,
) -> tuple[npt.NDArray[np.float64], npt.NDArray[np.uint8]]: ...

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

class _WaveformColumns(TypedDict):
    row: npt.NDArray[np.int64]
    isLowPower: npt.NDArray[np.bool_]
    shotTime: npt.NDArray[np.float64]
    sblTime: npt.NDArray[np.float64]
    damping: npt.NDArray[np.float32]
    idxOfMaxAmplitude: npt.NDArray[np.uint32]
    maxAmplitude: npt.NDArray[np.uint16]
    binShift: npt.NDArray[np.float64]
    length: npt.NDArray[np.uint32]
    noise: npt.NDArray[np.uint16]
    maxAmplitudeDB: npt.NDArray[np.float32]
    timeOfMaxAmplitude: npt.NDArray[np.float64]
    online: npt.NDArray[np.bool_]
    globalStart: npt.NDArray[np.uint32]
    globalEnd: npt.NDArray[np.uint32]
    lengthCropped: npt.NDArray[np.uint32]
    afterPulseFrom: npt.NDArray[np.float64]
    afterPulseTo: npt.NDArray[np.float64]
    segmentCount: npt.NDArray[np.int64]
    peakCount: npt.NDArray[np.int64]

class _SegmentColumns(TypedDict):
    waveform: npt.NDArray[np.int64]
    start: npt.NDArray[np.uint32]
    end: npt.NDArray[np.uint32]

class _EchoColumns(TypedDict):
    waveform: npt.NDArray[np.int64]
    row: npt.NDArray[np.int64]
    amplitude: npt.NDArray[np.float32]
    amplitudeCounts: npt.NDArray[np.float32]
    idx: npt.NDArray[np.float64]
    time: npt.NDArray[np.float64]
    quality: npt.NDArray[np.uint8]
    type: npt.NDArray[np.uint8]
    std: npt.NDArray[np.float64]
    classification: npt.NDArray[np.uint8]
    reflectance: npt.NDArray[np.float32]

class _OnBoardColumns(TypedDict):
    shotTime: npt.NDArray[np.float64]
    isLowPower: npt.NDArray[np.bool_]
    amplitude: npt.NDArray[np.float32]
    time: npt.NDArray[np.float64]
    type: npt.NDArray[np.uint8]
    reflectance: npt.NDArray[np.float32]

class _EchoTableColumns(TypedDict):
    row: npt.NDArray[np.int64]
    return_index: npt.NDArray[np.int64]
    x: npt.NDArray[np.float64]
    y: npt.NDArray[np.float64]
    z: npt.NDArray[np.float64]
    gps_time: npt.NDArray[np.float64]
    echo_number: npt.NDArray[np.int64]
    echo_count: npt.NDArray[np.int64]
    amplitude: npt.NDArray[np.float32]
    amplitude_db: npt.NDArray[np.float32]
    amplitude_library_db: npt.NDArray[np.float32]
    sigma_ns: npt.NDArray[np.float64]
    fwhm_ns: npt.NDArray[np.float64]
    sigma_samples: npt.NDArray[np.float64]
    position: npt.NDArray[np.float64]
    position_library: npt.NDArray[np.float64]
    sigma_position_ns: npt.NDArray[np.float32]
    sigma_amplitude: npt.NDArray[np.float32]
    sigma_width_ns: npt.NDArray[np.float32]
    sigma_range: npt.NDArray[np.float32]
    significance: npt.NDArray[np.float32]
    fit_flags: npt.NDArray[np.uint8]
    reduced_chi_square: npt.NDArray[np.float32]
    echo_type: npt.NDArray[np.uint8]
    quality: npt.NDArray[np.uint8]
    reflectance: npt.NDArray[np.float32]
    time: npt.NDArray[np.float64]
    waveform_number: npt.NDArray[np.int64]
    channel_flag: npt.NDArray[np.uint8]
    descriptor: npt.NDArray[np.uint8]
    classification: npt.NDArray[np.uint8]
    original_return_number: npt.NDArray[np.uint8]
    scan_angle: npt.NDArray[np.float32]
    scan_direction_flag: npt.NDArray[np.uint8]
    edge_of_flight_line: npt.NDArray[np.uint8]
    user_data: npt.NDArray[np.uint8]
    point_source_id: npt.NDArray[np.uint16]

class _BlockResult(TypedDict):
    statistics: dict[str, Any]
    record: str
    row_states: npt.NDArray[np.uint8]
    waveforms: _WaveformColumns
    segments: _SegmentColumns
    peaks: _EchoColumns

UNLIMITED_WORK: int

class Cancelled(Exception): ...

class RunMonitor:
    def __init__(self) -> None: ...
    def cancel(self) -> None: ...
    cancelled: bool
    waveforms_done: int

class PeakDetectionFamily:
    def __init__(
        self,
        mode: int,
        scanner: ScannerDevice,
        output_directory: str,
        input_file: str,
        longest_waveform: int,
        work_limit: int = ...,
        monitor: RunMonitor | None = None,
    ) -> None: ...
    message: str
    def apply(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.NDArray[np.uint16],
        shot_times: npt.NDArray[np.float64],
        sbl_times: npt.NDArray[np.float64],
        channel_flags: npt.NDArray[np.uint8],
        noise: npt.NDArray[np.int32],
        text: str,
    ) -> _BlockResult: ...
    def reports(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.NDArray[np.uint16],
        shot_times: npt.NDArray[np.float64],
        sbl_times: npt.NDArray[np.float64],
        channel_flags: npt.NDArray[np.uint8],
        noise: npt.NDArray[np.int32],
        extent: bool,
    ) -> tuple[npt.NDArray[np.uint8], list[str | None]]: ...

class PulseModel:
    def __init__(self) -> None: ...
    error: str
    pulse: Sequence[float]
    first_lag: float
    lag_step: float
    baseline: float
    baseline_spread: float
    noise_rms: float
    noise_correlation: float
    scatter: float
    variance_spread: float
    widening: float

class PulseFitSettings:
    def __init__(self) -> None: ...
    error: str
    false_alarms: float
    min_echo_cost: float
    digitiser_limit: float
    max_variance: float

class _PulseFitResult(TypedDict):
    echoes: dict[str, Any]
    waveforms: dict[str, Any]

class PulseFit:
    def __init__(
        self, model: PulseModel, settings: PulseFitSettings, monitor: RunMonitor | None = None
    ) -> None: ...
    def apply(
        self,
        samples: npt.NDArray[np.uint16],
        counts: npt.NDArray[np.uint16],
        rows: npt.NDArray[np.int64],
    ) -> _PulseFitResult: ...
    def pulses(
        self,
        positions: npt.NDArray[np.float64],
        amplitudes: npt.NDArray[np.float64],
        fwhms: npt.NDArray[np.float64],
        places: npt.NDArray[np.float64],
    ) -> npt.NDArray[np.float64]: ...

def evaluate_online(
    scanner: ScannerDevice,
    shot_times: npt.NDArray[np.float64],
    ranges: npt.NDArray[np.float64],
    amplitudes: npt.NDArray[np.float32],
    flags: npt.NDArray[np.uint8],
    reflectances: npt.NDArray[np.float32],
) -> _OnBoardColumns: ...
