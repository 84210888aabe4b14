"""Computing part of a call on a box of the volume, with the whole call's bits.

The chunked layer (``qzinterp3d.dask``) never hands the library the whole
volume: it reads a box of it, the cells its points need, and calls the library
on that box with every coordinate shifted by the box's origin. This module
holds what makes that exact, in plain numpy, so that it can be tested on its
own.

Why a shifted call gives the whole call's bits, per axis, for a box of
samples ``[o, o + m)`` of an axis of ``n`` samples (``0 <= o``, ``o + m <= n``)
and a library coordinate ``q`` of the coordinate type F (float32, or float64
for float64 samples):

* The shift is made on ``q`` itself, the value the whole call would receive,
  after it was rounded to F: ``q' = q - o`` in F. It is exact whenever
  ``q`` is below ``2**24`` (float32; ``2**53`` in float64) and ``o`` is a
  whole number: both are multiples of the spacing of F at ``q``. The library
  then forms ``d' = q' - 1 = d - o`` (also exact), so floor and ceiling move
  by exactly ``o``, and ``t = q - i0`` is the same number. Box origins are
  multiples of 2 (more for axes longer than ``2**24``, where the spacing of
  float32 is larger), because nearest rounds ties to the even index: an odd
  shift would turn ``2.5 -> 2`` into ``1.5 -> 2``, a different sample.
* The out-of-range test stays the whole volume's: a point below the volume
  (``q < 1``) is below the box too (``q - o < 1``); a point above it
  (``d > n - 1``) is above the box, whose top ``o + m - 1`` is at most
  ``n - 1``. A point inside the volume is inside the box as long as the box
  holds its cells, which is how boxes are made (``cells``). Infinite
  coordinates stay infinite and outside.
* NaN. A NaN coordinate counts as inside where the library tests blocks of
  points (grids wider than one block, and the groups of four of narrow
  nearest calls) and reads index 0 along its axis: in a box, index 0 is
  ``o``. Nearest points with a NaN are therefore given a box that starts at
  0 along that axis (``cells`` puts their cell there). Trilinear values at
  such points are NaN whatever the samples, but only where the other
  coordinates pass the test, which they must do in the box as in the volume:
  they are given the same cell as nearest ones.
* Path. The library picks its path by the grid's width along its first
  dimension: wider than one block of 16 bytes of samples (``W`` samples),
  row blocks on the thread pool; otherwise element by element. The two round
  differently, so a box is never narrower than ``W + 1`` along that axis when
  the volume is wider than ``W``.
* Position in the row. Trilinear values of one point can differ in the last
  bit with the point's column in its row: rows are computed in blocks of W,
  and a row whose width is not a multiple of W ends with a block shifted to
  end at its last column, with its own rounding sequence (8-bit samples: its
  first four lanes with yet another). Narrow nearest calls test the columns
  before the last ``w % 4`` in groups of four, where a NaN reads index 0,
  and the rest one by one, where a NaN gives the fill value. A box call
  either keeps the whole call's rows (``evaluate_rows``) or puts each point
  in a row column of the same kind as its own (``point_kinds``,
  ``evaluate_points``).
"""

import numpy as np

from . import _core

ROW_LENGTH = _core.ROW_LENGTH

# Kinds of columns, by the rounding a point gets there (see point_kinds).
FULL_BLOCK, LAST_BLOCK, LAST_BLOCK_FIRST_GROUP, ONE_BY_ONE, GROUP_OF_FOUR, SINGLE = range(6)


class Grid:
    """The whole volume as the library sees it.

    ``extents`` are the lengths along the library's dimensions 0, 1, 2 (x, y,
    z); ``axes`` the numpy axes of the 3-D volume that they are; ``sample``
    the sample dtype the library reads; ``chunks`` the volume's chunk sizes
    along each library dimension, or None.
    """

    def __init__(self, extents, axes, sample, chunks=None):
        self.extents = tuple(int(n) for n in extents)
        self.axes = tuple(int(a) for a in axes)
        self.sample = np.dtype(sample)
        self.coord = np.dtype(np.float64 if self.sample == np.float64 else np.float32)
        self.block = 16 // self.sample.itemsize
        self.pooled = self.extents[0] > self.block
        self.bounds = tuple(self.coord.type(n - 1) for n in self.extents)
        self.origin_step = tuple(_origin_step(self.coord, n) for n in self.extents)
        self.chunk_starts = None
        if chunks is not None:
            self.chunk_starts = tuple(np.cumsum((0,) + tuple(c))[:-1] for c in chunks)

    def __repr__(self):
        return f"Grid(extents={self.extents}, axes={self.axes}, sample={self.sample})"


def _origin_step(coord, n):
    """A box origin that is a multiple of this keeps the shift exact for any
    coordinate of an n-sample axis, and keeps nearest ties on even indices."""
    spacing = float(np.spacing(coord.type(max(n, 1))))
    return max(2, int(spacing))


def cells(grid, q):
    """The cell of each point: the samples around it, per library dimension.

    ``q`` holds the three library coordinate arrays (x, y, z), of dtype
    ``grid.coord``. Returns ``(lower, upper, needed)``: the floor and the
    ceiling of q - 1 along each dimension as the library clamps its indices
    (int64 arrays), and which points need their cell: those the block test
    puts inside the volume. The others are outside in every box too, and
    get the fill value whatever box they are computed on. A NaN coordinate
    passes the block test; its index, and so its cell, is 0 along its axis
    (a nearest point reads the sample there; a trilinear one is NaN, but
    only if its other coordinates are inside the box). A box holding a
    needed point's cell gives it the whole volume's value.
    """
    one = grid.coord.type(1)
    outside = np.zeros(np.shape(q[0]), dtype=bool)
    lower, upper = [], []
    for k in range(3):
        qk = np.asarray(q[k])
        d = qk - one
        with np.errstate(invalid="ignore"):
            outside |= (qk < one) | (d > grid.bounds[k])
        nan = np.isnan(qk)
        # Both methods: the floor and the ceiling. Nearest reads the sample
        # in between, but its out-of-range test, q >= 1 and q - 1 <= n - 1,
        # holds in a box only if the box spans the point's whole cell.
        lower.append(_clamped_index(np.floor(d), nan, grid.extents[k]))
        upper.append(_clamped_index(np.ceil(d), nan, grid.extents[k]))
    return lower, upper, ~outside


def _clamped_index(rounded, nan, n):
    """A rounded coordinate as the library's index: NaN to 0, then clamped to
    [0, n - 1] (clipping first keeps huge values from overflowing int64)."""
    with np.errstate(invalid="ignore"):
        i = np.where(nan, 0.0, np.clip(rounded, -1.0, float(n)))
    return np.clip(i.astype(np.int64), 0, max(n - 1, 0))


def box_around(grid, lo, hi):
    """The box [start, stop) per library dimension that holds the index
    ranges [lo, hi] (inclusive), with its origin moved down to a multiple of
    the origin step and, when the volume is wider than one block, at least
    block + 1 samples along x."""
    start, stop = [], []
    for k in range(3):
        n = grid.extents[k]
        a = max(0, min(int(lo[k]), n - 1))
        b = max(a + 1, min(int(hi[k]) + 1, n))
        a -= a % grid.origin_step[k]
        start.append(a)
        stop.append(b)
    if grid.pooled and stop[0] - start[0] <= grid.block:
        stop[0] = min(grid.extents[0], start[0] + grid.block + 1)
        if stop[0] - start[0] <= grid.block:
            start[0] = stop[0] - grid.block - 1
            start[0] -= start[0] % grid.origin_step[0]
    return tuple(start), tuple(stop)


def box_of_points(grid, lower, upper, needed):
    """The box around the cells of the needed points, or None if none is."""
    if not np.any(needed):
        return None
    lo = [int(lower[k][needed].min()) for k in range(3)]
    hi = [int(upper[k][needed].max()) for k in range(3)]
    return box_around(grid, lo, hi)


def chunk_of(grid, index, k):
    """The chunk number along library dimension k of each index."""
    return np.searchsorted(grid.chunk_starts[k], index, side="right") - 1


def chunk_start(grid, chunk):
    """The first index of a chunk (its numbers along x, y, z)."""
    return tuple(int(grid.chunk_starts[k][int(chunk[k])]) for k in range(3))


def shifted(grid, q, box):
    """The coordinates relative to a box: q - origin, in the coordinate type."""
    start = box[0]
    return [np.asarray(q[k], dtype=grid.coord) - grid.coord.type(start[k]) for k in range(3)]


def box_volume(grid, volume, box):
    """The box's samples from a 3-D numpy volume (numpy axis order) as the
    library reads them: a (z, y, x) view whose last axis is x."""
    start, stop = box
    index = [slice(None)] * 3
    for k in range(3):
        index[grid.axes[k]] = slice(start[k], stop[k])
    return as_zyx(grid, volume[tuple(index)])


def as_zyx(grid, samples):
    """Samples in numpy axis order as the library reads them: a view whose
    axes are the library's dimensions 2, 1, 0 (z, y, x)."""
    return np.transpose(samples, (grid.axes[2], grid.axes[1], grid.axes[0]))


def call(grid, zyx, q, method, fill_value):
    """One library call over 1-D or 2-D coordinates (rows as given)."""
    view = zyx
    if view.ndim == 3 and view.shape[2] > 1 and view.strides[2] != view.itemsize:
        view = np.ascontiguousarray(view)
    if not view.flags.aligned:
        view = np.array(view, copy=True)
    xq, yq, zq = (np.ascontiguousarray(a, dtype=grid.coord) for a in q)
    return _core.interp3(view, xq, yq, zq, method=method, fill_value=fill_value)


def evaluate_rows(grid, zyx, box, q, method, fill_value):
    """The values of 2-D (rows, width) or 1-D coordinates computed on a box
    with the whole call's rows: exactly the whole call's values, NaN
    coordinates of nearest points aside (their index 0 is the box's)."""
    return call(grid, zyx, shifted(grid, q, box), method, fill_value)


def point_kinds(grid, method, width, column):
    """The kind of column each point occupies in the whole call, as far as
    its value depends on it. ``width`` is its row's width and ``column`` its
    place in that row (arrays or numbers)."""
    column = np.asarray(column)
    kinds = np.full(column.shape, FULL_BLOCK, dtype=np.int8)
    nearest = method == "nearest"
    if not grid.pooled:
        if nearest and grid.sample != np.float64:
            grouped = column < 4 * (np.asarray(width) // 4)
            return np.where(grouped, GROUP_OF_FOUR, SINGLE).astype(np.int8)
        kinds[...] = ONE_BY_ONE
        return kinds
    if nearest or grid.sample == np.float64:
        return kinds  # one rounding sequence in every block
    W = grid.block
    width = np.asarray(width)
    in_last = (width % W != 0) & (column >= width - W)
    kinds[in_last] = LAST_BLOCK
    if W == 16:
        kinds[in_last & (column - (width - W) < 4)] = LAST_BLOCK_FIRST_GROUP
    return kinds


def _layout(grid, kind):
    """(row width, columns a point may take) for a kind of column."""
    W = grid.block
    if kind == FULL_BLOCK:
        return W, np.arange(W)
    if kind == LAST_BLOCK:
        # A row of W + 1: a full block over columns 0..W-1, then the last
        # block over 1..W. 8-bit samples: lanes 4.. of it only.
        return W + 1, np.arange(5 if W == 16 else 1, W + 1)
    if kind == LAST_BLOCK_FIRST_GROUP:
        return W + 1, np.arange(1, 5)
    if kind == GROUP_OF_FOUR:
        return 4, np.arange(4)
    if kind == SINGLE:
        return 1, np.arange(1)
    return ROW_LENGTH, np.arange(ROW_LENGTH)  # ONE_BY_ONE


def evaluate_points(grid, zyx, box, q, kinds, method, fill_value):
    """The values of points (1-D coordinate arrays) computed on a box, each
    placed in a row column of its own kind: exactly the whole call's values
    at those points, if the box holds their cells."""
    q = shifted(grid, q, box)
    out = np.empty(np.shape(q[0]), dtype=grid.coord)
    for kind in np.unique(kinds):
        which = np.flatnonzero(kinds == kind)
        width, columns = _layout(grid, int(kind))
        if kind == ONE_BY_ONE:
            width = columns = None
        m = which.size
        if width is None:
            rows_q = [a[which][None, :] for a in q]
            out[which] = call(grid, zyx, rows_q, method, fill_value)[0]
            continue
        per_row = columns.size
        rows = -(-m // per_row)
        place_row = np.arange(m) // per_row
        place_col = columns[np.arange(m) % per_row]
        rows_q = []
        for a in q:
            r = np.full((rows, width), a[which[0]], dtype=grid.coord)
            r[place_row, place_col] = a[which]
            rows_q.append(r)
        values = call(grid, zyx, rows_q, method, fill_value)
        out[which] = values[place_row, place_col]
    return out
