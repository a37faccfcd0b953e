"""Scan containers (HDF5)."""
