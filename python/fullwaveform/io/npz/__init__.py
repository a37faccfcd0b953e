"""NumPy archives."""
