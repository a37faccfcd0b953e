"""What the readers of all HDF5 formats share."""
