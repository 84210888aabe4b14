"""Exact interpolation of 3-D grids at query points.

``map_coordinates`` and ``affine_transform`` take scipy.ndimage's arguments
(0-based coordinates, inputs of 1 to 3 dimensions in any memory order);
``interp3(volume, xq, yq, zq, method="linear", fill_value=nan)`` samples a
3-D numpy array of shape (nz, ny, nx) at 1-based query coordinates. See the
docstrings and README.md next to this package's sources.
``qzinterp3d.dask`` computes all three over chunked dask arrays, reading
only the chunks of the volume each output block needs.
"""

from ._core import ROW_LENGTH, interp3
from ._ndimage import affine_transform, map_coordinates

__all__ = ["interp3", "map_coordinates", "affine_transform", "ROW_LENGTH"]
