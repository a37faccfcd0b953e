"""Writers of echo tables: CSV, Parquet, HDF5, LAS, text."""
