"""Volumes: the light of the waveforms, and the paths of the pulses, per voxel."""
