"""GEDI L1B: waveforms of the space station's lidar, HDF5."""
