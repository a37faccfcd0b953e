"""Writes several_channels.laz: points of two scanner channels, compressed by LASzip.

Needs the packages laspy and laszip (0.3.0), which the tests do not.

Usage: several_channels.py
"""

from __future__ import annotations

from pathlib import Path

import laspy
import numpy as np

POINTS = 40


def main() -> None:
    header = laspy.LasHeader(version="1.4", point_format=9)
    header.scales = np.full(3, 0.001)
    header.global_encoding.waveform_data_packets_external = True
    for index in (1, 2):
        descriptor = np.zeros(1, "u1, u1, <u4, <u4, <f8, <f8")
        descriptor[0] = (8, 0, 4, 1000, 1.0, 0.0)
        header.vlrs.append(laspy.VLR("LASF_Spec", 99 + index, "", descriptor.tobytes()))
    las = laspy.LasData(header)
    las.points = laspy.ScaleAwarePointRecord.zeros(POINTS, header=header)
    number = np.arange(POINTS)
    las.gps_time = number // 2
    las.scanner_channel = number % 3 % 2
    las.wavepacket_index = 1 + number % 2
    las.wavepacket_offset = 60 + 4 * number
    las.wavepacket_size = np.full(POINTS, 4)
    las.return_point_wave_location = 1000.0 + 3.0 * number
    las.x, las.y, las.z = 1.0 * number, 2.0 * number, 100.0 - number
    las.x_t, las.y_t, las.z_t = 1e-5 * number, 2e-5 * number, 1e-4 + 0.0 * number
    path = Path(__file__).with_name("several_channels.laz")
    las.write(str(path), do_compress=True, laz_backend=laspy.LazBackend.Laszip)


if __name__ == "__main__":
    main()
