"""Waveforms from NumPy arrays: different lengths, shots, channels.

python examples/python/own_arrays.py
"""

import numpy as np

from fullwaveform import Driver, Mode, RowState, Scanner


def main() -> None:
    """Print the echoes of five waveforms and the state of each waveform."""
    index = np.arange(100)
    echo = np.exp(
        -0.5 * ((index - np.array([[30.25], [41.0], [30.25], [30.25], [55.5]])) / 1.6) ** 2
    )
    height = np.array([[900.0], [350.0], [110.0], [0.0], [600.0]])
    samples = np.rint(12 + height * echo).astype(np.uint16)  # counts, one row per waveform
    driver = Driver(Mode.DECOMPOSITION, Scanner.default(sampling_interval=1e-9))
    result = driver.apply(
        samples,
        counts=[100, 100, 100, 100, 80],  # valid samples of each row
        shot_times=[0.0, 1e-5, 0.0, 2e-5, 3e-5],  # s; rows 0 and 2 are channels of one shot
        channel_flags=[1, 1, 0, 1, 1],  # 1 low power, 0 high power
        threshold=20,
    )
    print("row  position  amplitude  width")
    names = ("row", "idx", "amplitudeCounts", "std")
    for row, position, amplitude, width in zip(*(result.peaks[n] for n in names), strict=True):
        print(f"{row:3d}  {position:8.3f}  {amplitude:9.1f}  {width:5.2f}")
    for row, state in enumerate(result.row_states):
        print(f"row {row}: {RowState(state).name.lower().replace('_', ' ')}")


if __name__ == "__main__":
    main()
