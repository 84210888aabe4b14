"""Exact interpolation of 3-D grids at query points.

``interp3(volume, xq, yq, zq, method="linear", fill_value=nan)`` samples a
3-D numpy array of shape (nz, ny, nx) at 1-based query coordinates; see its
docstring and README.md next to this package's sources. ``qzinterp3d.dask``
maps it over chunked dask arrays.
"""

from ._core import ROW_LENGTH, interp3

__all__ = ["interp3", "ROW_LENGTH"]
