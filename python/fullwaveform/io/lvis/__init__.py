"""LVIS L1B: waveforms of NASA's airborne full-waveform lidar, HDF5."""
