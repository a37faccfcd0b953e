"""Tests of the viewer."""
