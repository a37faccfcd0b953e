"""Settings of a simulated scan: scanner, receiver, and shares of special shots."""

from __future__ import annotations

from dataclasses import dataclass

from fullwaveform.core.constants import MAX_COUNT, SPEED_OF_LIGHT_IN_AIR

RANGE_PER_SECOND = SPEED_OF_LIGHT_IN_AIR / 2.0  # m of range per s of two-way travel time


@dataclass(frozen=True, slots=True)
class ScanSettings:
    """Settings of `simulate_scan`; equal settings give equal scans, bit for bit.

    Every shot is recorded twice with the same timing: by the low-power channel, which clips at the
    digitiser limit, and by the high-power channel, which is less sensitive by `gain_ratio`.

    Raises ValueError for invalid settings.
    """

    # size and seed
    shots: int = 2000
    seed: int = 1
    # receiver
    samples: int = 160  # per waveform
    sampling_interval: float = 1e-9  # s, a whole number of ps
    pulse_width: float = 1.6  # samples, standard deviation of an echo from a hard target
    bits: int = 16  # per sample as stored, 8 or 16
    maximum: int = 4000  # counts, digitiser limit
    baseline: float = 12.0  # counts
    noise_rms: float = 1.5  # counts, white, in both channels
    gain_ratio: float = 8.0  # sensitivity of the low-power channel over the high-power one
    lead_in: float = 20.0  # minimum number of samples before the first echo
    # shares of special shots
    empty_fraction: float = 0.05  # of all shots: no echo
    saturated_fraction: float = 0.04  # of all shots: last echo clipped in the low-power channel
    close_pair_fraction: float = 0.05  # of all shots: two echoes at 1.2 to 2 pulse widths
    # platform
    start_time: float = 3.0e8  # s, GPS standard time less 1e9
    pulse_rate: float = 100_000.0  # Hz
    line_rate: float = 100.0  # Hz, scan lines
    half_scan_angle: float = 18.0  # degrees on either side of nadir
    flying_height: float = 600.0  # m above the ground at the origin
    speed: float = 60.0  # m/s
    heading: float = 65.0  # degrees clockwise from north
    easting: float = 500_000.0  # m, ground point below the first shot
    northing: float = 5_300_000.0  # m
    ground_height: float = 420.0  # m, at this point
    # discrete returns
    return_threshold: float = 40.0  # counts above the baseline of the low-power channel
    return_lead: float = 0.5  # echo widths from the trigger on the leading edge to the maximum
    return_jitter: float = 0.15  # samples, standard deviation
    points_without_packet: int = 25  # at most one after each shot that has an echo

    def __post_init__(self) -> None:
        self._check_counts()
        self._check_receiver()
        self._check_fractions()
        self._check_platform()

    @property
    def interval_ps(self) -> int:
        """Sampling interval in whole picoseconds."""
        return round(self.sampling_interval * 1e12)

    @property
    def range_per_sample(self) -> float:
        """Range between two samples, m."""
        return RANGE_PER_SECOND * self.sampling_interval

    @property
    def last_position(self) -> float:
        """Largest position of an echo, samples; its trailing edge is inside the waveform."""
        return self.samples - 1 - 5.0 * self.pulse_width

    def _check_counts(self) -> None:
        _require(self.shots >= 1, "shots", self.shots, "at least 1")
        _require(self.seed >= 0, "seed", self.seed, "0 or more")
        without = self.points_without_packet
        _require(without >= 0, "points_without_packet", without, "0 or more")
        _require(self.samples <= MAX_COUNT, "samples", self.samples, f"at most {MAX_COUNT}")

    def _check_receiver(self) -> None:
        picoseconds = self.sampling_interval * 1e12
        whole = self.interval_ps >= 1 and abs(picoseconds - self.interval_ps) < 1e-6
        _require(whole, "sampling_interval", self.sampling_interval, "a whole number of ps")
        _require(self.pulse_width > 0, "pulse_width", self.pulse_width, "above 0")
        _require(self.bits in (8, 16), "bits", self.bits, "8 or 16")
        fits = self.baseline < self.maximum < 2**self.bits
        _require(fits, "maximum", self.maximum, f"above the baseline, below 2**{self.bits}")
        _require(self.baseline >= 0, "baseline", self.baseline, "0 or more")
        _require(self.noise_rms >= 0, "noise_rms", self.noise_rms, "0 or more")
        _require(self.gain_ratio > 1, "gain_ratio", self.gain_ratio, "above 1")
        long_lead = self.lead_in >= 5.0 * self.pulse_width
        _require(long_lead, "lead_in", self.lead_in, "at least 5 pulse widths")
        is_long = self.last_position - self.lead_in - 1.0 > 2.5 * self.pulse_width
        _require(is_long, "samples", self.samples, "enough for the lead-in and 7.5 pulse widths")

    def _check_fractions(self) -> None:
        fractions = ("empty_fraction", "saturated_fraction", "close_pair_fraction")
        for name in fractions:
            value = getattr(self, name)
            _require(0.0 <= value <= 1.0, name, value, "between 0 and 1")
        total = sum(getattr(self, name) for name in fractions)
        _require(total <= 1.0, "sum of the fractions", total, "at most 1")

    def _check_platform(self) -> None:
        _require(1.0 <= self.pulse_rate <= 5e6, "pulse_rate", self.pulse_rate, "1 to 5e6 Hz")
        slow = 0.0 < self.line_rate <= self.pulse_rate
        _require(slow, "line_rate", self.line_rate, "above 0, at most the pulse rate")
        angle = self.half_scan_angle
        _require(0.0 <= angle <= 45.0, "half_scan_angle", angle, "0 to 45 degrees")
        _require(self.flying_height >= 100, "flying_height", self.flying_height, "at least 100 m")
        # Half a pulse period must exceed the resolution of a double of this size.
        _require(0.0 <= self.start_time < 1e9, "start_time", self.start_time, "0 to 1e9 s")


def _require(holds: bool, name: str, value: float, rule: str) -> None:
    if not holds:
        raise ValueError(f"invalid {name} {value}; it must be {rule}")
