"""What a simulated scan is made of: scanner, receiver and share of difficult shots."""

from __future__ import annotations

from dataclasses import dataclass

LIGHT_SPEED_IN_AIR = 299_708_256.0  # m/s
RANGE_PER_SECOND = LIGHT_SPEED_IN_AIR / 2.0  # m of range per s of two-way travel time
LARGEST_ROW = 65_535  # samples; the sample count of a waveform is a 16-bit number


@dataclass(frozen=True, slots=True)
class ScanSettings:
    """Settings of `simulate_scan`; equal settings give equal scans, bit for bit.

    Every shot is recorded twice on one time axis: by the sensitive low-power channel, which clips
    at the digitiser's limit, and by a second channel `gain_ratio` times less sensitive.

    Raises ValueError with the name, the value and the rule when a setting makes no sense.
    """

    # amount and chance
    shots: int = 2000
    seed: int = 1
    # receiver
    samples: int = 160  # per waveform
    sampling_interval: float = 1e-9  # s, a whole number of ps
    pulse_width: float = 1.6  # samples, standard deviation of an echo from a hard target
    bits: int = 16  # per sample as stored, 8 or 16
    maximum: int = 4000  # counts, where the digitiser clips
    baseline: float = 12.0  # counts
    noise_rms: float = 1.5  # counts, white, in both channels
    gain_ratio: float = 8.0  # low-power channel over the other
    lead_in: float = 20.0  # samples before the first echo, at least
    # shares of special shots
    empty_fraction: float = 0.05  # of all shots: noise only
    saturated_fraction: float = 0.04  # of all shots: last echo beyond the low-power channel
    close_pair_fraction: float = 0.05  # of all shots: two echoes 1.2 to 2 pulse widths apart
    # platform
    start_time: float = 3.0e8  # s, GPS standard time less 1e9
    pulse_rate: float = 100_000.0  # Hz
    line_rate: float = 100.0  # Hz, sweeps from one side to the other
    half_scan_angle: float = 18.0  # degrees on either side of nadir
    flying_height: float = 600.0  # m above the ground at the origin
    speed: float = 60.0  # m/s
    heading: float = 65.0  # degrees clockwise from north
    easting: float = 500_000.0  # m, ground point below the first shot
    northing: float = 5_300_000.0  # m
    ground_height: float = 420.0  # m, there
    # discrete returns of the scanner's own electronics
    return_threshold: float = 40.0  # counts of the low-power channel above its baseline
    return_lead: float = 0.5  # echo widths by which the leading edge triggers before the maximum
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
        """Metres of range from one sample to the next."""
        return RANGE_PER_SECOND * self.sampling_interval

    @property
    def last_position(self) -> float:
        """Largest position of an echo, samples; its trailing flank still fits into the record."""
        return self.samples - 1 - 5.0 * self.pulse_width

    def _check_counts(self) -> None:
        _require(self.shots >= 1, "shots", self.shots, "at least 1")
        _require(self.seed >= 0, "seed", self.seed, "not negative")
        without = self.points_without_packet
        _require(without >= 0, "points_without_packet", without, "not negative")
        _require(self.samples <= LARGEST_ROW, "samples", self.samples, f"at most {LARGEST_ROW}")

    def _check_receiver(self) -> None:
        picoseconds = self.sampling_interval * 1e12
        whole = self.interval_ps >= 1 and abs(picoseconds - self.interval_ps) < 1e-6
        _require(whole, "sampling_interval", self.sampling_interval, "a whole number of ps")
        _require(self.pulse_width > 0, "pulse_width", self.pulse_width, "above 0")
        _require(self.bits in (8, 16), "bits", self.bits, "8 or 16")
        fits = self.baseline < self.maximum < 2**self.bits
        _require(fits, "maximum", self.maximum, f"above the baseline, below 2**{self.bits}")
        _require(self.baseline >= 0, "baseline", self.baseline, "not negative")
        _require(self.noise_rms >= 0, "noise_rms", self.noise_rms, "not negative")
        _require(self.gain_ratio > 1, "gain_ratio", self.gain_ratio, "above 1")
        long_lead = self.lead_in >= 5.0 * self.pulse_width
        _require(long_lead, "lead_in", self.lead_in, "at least 5 pulse widths")
        room = self.last_position - self.lead_in - 1.0 > 2.5 * self.pulse_width
        _require(room, "samples", self.samples, "enough for the lead-in and 7.5 pulse widths more")

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
        # Half a pulse period must still move a double of this size.
        _require(0.0 <= self.start_time < 1e9, "start_time", self.start_time, "0 to 1e9 s")


def _require(holds: bool, name: str, value: float, rule: str) -> None:
    if not holds:
        raise ValueError(f"{name} is {value}, but must be {rule}")
