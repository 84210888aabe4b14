"""The library over chunked dask arrays, for volumes larger than a machine.

``map_coordinates`` and ``affine_transform`` take the arguments of their
numpy namesakes in :mod:`qzinterp3d`, with ``input`` a dask array (for
example ``dask.array.from_zarr``) or a numpy array, and return a lazy dask
array. ``interp3`` does the same for :func:`qzinterp3d.interp3`.

Each output block reads only the input chunks that its points need: the
box around its points' cells (from the block's corners for an affine map,
from the block's coordinates otherwise), or, when that box would span more
than ``MAX_BOX_CHUNKS`` input chunks (points spread over the volume), one box
per input chunk that its points fall in. The library is called on each box
with the coordinates shifted by the box's origin, and the results are bit
for bit those of the in-memory call on the whole volume. Why that holds, and
what it takes, is written down in ``qzinterp3d._boxes``.

The in-memory call that a chunked call equals is the numpy function on
``numpy.asarray(input)``, a C-ordered array: its last axis is the library's
first dimension (x). A numpy ``input`` is sent to the workers whole, once,
and each block computed from it as the numpy function would.
"""

import math
import uuid

import dask
import dask.array as da
import numpy as np

from . import _boxes, _core, _ndimage

__all__ = ["interp3", "map_coordinates", "affine_transform", "MAX_BOX_CHUNKS"]

ROW_LENGTH = _core.ROW_LENGTH

# An output block whose points' box spans more input chunks than this is
# split: its points are computed per group of SPLIT_CHUNKS ** 3 input chunks
# (SPLIT_CHUNKS along each axis) they fall in, one task per group, so that
# no task reads more than a few chunks, and tasks are not too many.
MAX_BOX_CHUNKS = 8
SPLIT_CHUNKS = 2

# Default output blocks of affine_transform: about this many points, rows whole.
_BLOCK_POINTS = 1 << 22


# --- arguments ---------------------------------------------------------------


def _as_dask(name, a):
    if isinstance(a, da.Array):
        return a
    if isinstance(a, np.ndarray):
        return da.from_array(a, chunks=a.shape if a.ndim else (), name=False)
    raise TypeError(f"{name} must be a dask array or a numpy.ndarray, got {type(a).__name__}")


def _row_aligned_chunks(chunks):
    """1-D chunk sizes that are multiples of ROW_LENGTH, all but the last."""
    row = ROW_LENGTH
    if all(c % row == 0 for c in chunks[:-1]):
        return chunks
    size = max(row, round(max(chunks) / row) * row)
    total = sum(chunks)
    sizes = [size] * (total // size)
    if total % size:
        sizes.append(total % size)
    return tuple(sizes)


def _whole_row_chunks(shape, chunks):
    """Chunks of an array of points laid out as the library's rows: the last
    axis whole (2-D and more), or multiples of ROW_LENGTH (1-D)."""
    if len(shape) == 0:
        return ()
    if len(shape) == 1:
        return (_row_aligned_chunks(chunks[0]) if shape[0] else chunks[0],)
    return tuple(chunks[:-1]) + ((shape[-1],),)


def _volume_meta(volume):
    """An array with the volume's shape, dtype and a contiguous last axis,
    backed by one row of memory: enough for the argument checks."""
    row = np.zeros(volume.shape[-1] if volume.ndim else 0, dtype=volume.dtype)
    return np.broadcast_to(row, volume.shape)


def _aligned(a):
    """``a`` itself, or a C-ordered copy when its memory is not aligned to its
    elements (dask's transfers between processes can leave arrays so)."""
    return a if a.flags.aligned else np.array(a, order="C", copy=True)


class _Volume:
    """Carries a numpy volume to the workers. Unpickling builds it again
    through ``__init__``, which re-aligns the array if its transfer left it
    unaligned: at most one copy per worker, not one per task."""

    __slots__ = ("array",)

    def __init__(self, array):
        self.array = _aligned(array)

    def __reduce__(self):
        return (_Volume, (self.array,))


def _whole_volume_arg(volume, client):
    """A numpy volume as one argument of many tasks: one task of the graph,
    or a copy scattered to every worker of a distributed client."""
    if client is not None:
        return client.scatter(_Volume(volume), broadcast=True, hash=False)
    return dask.delayed(_Volume(volume), name=f"qzinterp3d-volume-{uuid.uuid4().hex}")


# --- plans: what each output block reads ---------------------------------------


class _Plan:
    """What one output block reads: nothing (every point is outside the
    volume), one box, or one box per input chunk its points fall in."""

    __slots__ = ("kind", "boxes", "groups")

    def __init__(self, kind, boxes=(), groups=()):
        self.kind = kind  # "fill", "box" or "split"
        self.boxes = tuple(boxes)
        self.groups = tuple(tuple(int(v) for v in g) for g in groups)  # split: their keys


def _chunks_in(grid, start, stop):
    """How many input chunks the box [start, stop) intersects."""
    count = 1
    for k in range(3):
        first = _boxes.chunk_of(grid, start[k], k)
        last = _boxes.chunk_of(grid, stop[k] - 1, k)
        count *= int(last - first + 1)
    return count


def _plan_from_cells(grid, lo, hi, groups):
    """The plan of a block from its needed points' cell range [lo, hi] and,
    per group of input chunks that their lower corners fall in, the group's
    key and the range of the cells there (an (m, 9) array: key, lo, hi)."""
    if lo is None:
        return _Plan("fill")
    box = _boxes.box_around(grid, lo, hi)
    if _chunks_in(grid, *box) <= MAX_BOX_CHUNKS:
        return _Plan("box", [box])
    groups = np.asarray(groups)
    keys = [tuple(g[:3]) for g in groups]
    boxes = [_boxes.box_around(grid, g[3:6], g[6:9]) for g in groups]
    return _Plan("split", boxes, keys)


def _group_keys(grid, lower):
    """The group of input chunks each cell's lower corner falls in: its
    chunk numbers divided by SPLIT_CHUNKS, an (m, 3) array."""
    return np.stack(
        [_boxes.chunk_of(grid, lower[k], k) // SPLIT_CHUNKS for k in range(3)], axis=-1)


def _group_start(grid, key):
    return _boxes.chunk_start(grid, [int(c) * SPLIT_CHUNKS for c in key])


def _group_end(grid, key):
    """The last index of a group of chunks along each axis."""
    end = []
    for k in range(3):
        starts = grid.chunk_starts[k]
        after = (int(key[k]) + 1) * SPLIT_CHUNKS
        end.append(int(starts[after]) - 1 if after < len(starts) else grid.extents[k] - 1)
    return end


def _block_cells(grid, q):
    """What planning needs of a block's library coordinates: the range of its
    needed points' cells and, per group of input chunks their lower corners
    fall in, the range of those points' cells."""
    lower, upper, needed = _boxes.cells(grid, q)
    if not np.any(needed):
        return None, None, np.zeros((0, 6), np.int64)
    lower = [a[needed].ravel() for a in lower]
    upper = [a[needed].ravel() for a in upper]
    keys, group = np.unique(_group_keys(grid, lower), axis=0, return_inverse=True)
    first = np.full(keys.shape, np.iinfo(np.int64).max, np.int64)
    last = np.full(keys.shape, -1, np.int64)
    for k in range(3):
        np.minimum.at(first[:, k], group.ravel(), lower[k])
        np.maximum.at(last[:, k], group.ravel(), upper[k])
    lo = tuple(int(a.min()) for a in lower)
    hi = tuple(int(a.max()) for a in upper)
    return lo, hi, np.concatenate([keys, first, last], axis=1)


# --- computing a block -----------------------------------------------------------


def _point_geometry(block_shape, block_start, whole_shape):
    """(width, column) of each point of a block in the library rows of the
    whole output: rows along the last axis (2-D and more), rows of
    ROW_LENGTH (1-D), one row of one point (0-D)."""
    if len(whole_shape) == 0:
        return np.ones(block_shape, np.int64), np.zeros(block_shape, np.int64)
    if len(whole_shape) >= 2:
        width = np.full(block_shape, whole_shape[-1], np.int64)
        column = np.broadcast_to(np.arange(block_shape[-1]), block_shape)
        return width, column
    n = whole_shape[0]
    g = block_start[0] + np.arange(block_shape[0])
    full_rows = n // ROW_LENGTH
    width = np.where(g // ROW_LENGTH < full_rows, ROW_LENGTH, n % ROW_LENGTH)
    return width, g % ROW_LENGTH


def _as_rows(a, whole_shape):
    """A block's points as the library's rows (the whole call's)."""
    if len(whole_shape) >= 2:
        return a.reshape(-1, a.shape[-1])
    if len(whole_shape) == 1:
        return a  # 1-D: the module makes rows of ROW_LENGTH, as for the whole
    return a.reshape(1, 1)


def _fill_block(q, geometry, grid, fill_value, out_dtype):
    """A block all of whose points are outside the volume."""
    q = [np.asarray(a, dtype=grid.coord) for a in q]
    _check_cells(grid, q, [])
    values = np.full(geometry[0], grid.coord.type(fill_value), dtype=grid.coord)
    return _convert_output(values, out_dtype)


def _box_block(q, geometry, box, samples, grid, method, fill_value, out_dtype):
    """A block computed on one box, with the whole call's rows."""
    block_shape, _, whole_shape = geometry
    q = [np.asarray(a, dtype=grid.coord) for a in q]
    _check_cells(grid, q, [box])
    rows = [_as_rows(a, whole_shape) for a in q]
    zyx = _boxes.as_zyx(grid, _aligned(np.asarray(samples)))
    values = _boxes.evaluate_rows(grid, zyx, box, rows, method, fill_value)
    return _convert_output(values.reshape(block_shape), out_dtype)


def _partition(q, geometry, plan, grid, method):
    """A block's points split by the group of input chunks their cells start
    in: {group key: (indices, coordinates, kinds of column)}, one part per
    group of the plan. The points outside the volume go with the first."""
    block_shape, block_start, whole_shape = geometry
    flat = [np.asarray(a, dtype=grid.coord).ravel() for a in q]
    width, column = _point_geometry(block_shape, block_start, whole_shape)
    kinds = _boxes.point_kinds(grid, method, width.ravel(), column.ravel())
    lower, _, needed = _boxes.cells(grid, flat)
    # Each point's place in plan.groups (the first group for points outside
    # the volume), found once for all points, then the points sorted by it.
    place_of = {key: g for g, key in enumerate(plan.groups)}
    found, inverse = np.unique(_group_keys(grid, lower)[needed], axis=0, return_inverse=True)
    places = [place_of.get(tuple(int(v) for v in key), -1) for key in found]
    if -1 in places:
        raise RuntimeError("qzinterp3d.dask: a block's points fall in chunks it did not read")
    group = np.zeros(flat[0].shape, np.int64)
    group[needed] = np.asarray(places, np.int64)[inverse.ravel()]
    order = np.argsort(group, kind="stable")
    bounds = np.searchsorted(group[order], np.arange(len(plan.groups) + 1))
    parts = {}
    for g, key in enumerate(plan.groups):
        which = order[bounds[g]: bounds[g + 1]]
        parts[key] = (which, [a[which] for a in flat], kinds[which])
    return parts


def _evaluate_group(parts, box, samples, grid, method, fill_value):
    """The values of one group's points of several blocks, on the group's
    box: [(indices, values)] in the order of ``parts``."""
    sizes = [p[0].size for p in parts]
    if sum(sizes) == 0:
        return [(p[0], np.empty(0, dtype=grid.coord)) for p in parts]
    q = [np.concatenate([p[1][k] for p in parts]) for k in range(3)]
    kinds = np.concatenate([p[2] for p in parts])
    zyx = _boxes.as_zyx(grid, _aligned(np.asarray(samples)))
    values = _boxes.evaluate_points(grid, zyx, box, q, kinds, method, fill_value)
    ends = np.cumsum(sizes)
    return [(p[0], values[end - n: end]) for p, n, end in zip(parts, sizes, ends)]


def _reassemble(block_shape, groups, grid, out_dtype):
    """A block from its points' values: groups holds, per group the block
    has points in, the group's results and the block's place among them."""
    out = np.empty(int(np.prod(block_shape, dtype=np.int64)), dtype=grid.coord)
    for results, place in groups:
        which, values = results[place]
        out[which] = values
    return _convert_output(out.reshape(block_shape), out_dtype)


def _block_array(q, geometry, plan, volume, grid, method, fill_value, out_dtype, meta=None):
    """The dask array of a block that reads nothing or one box."""
    shape = geometry[0]
    if plan.kind == "fill":
        task = dask.delayed(_fill_block, pure=True)(q, geometry, grid, fill_value, out_dtype)
    else:
        box = plan.boxes[0]
        task = dask.delayed(_box_block, pure=True)(
            q, geometry, box, _read(volume, box, grid.axes), grid, method, fill_value, out_dtype)
    return _from_delayed(task, shape, out_dtype, meta)


def _from_delayed(task, shape, dtype, meta):
    if meta is None:
        return da.from_delayed(task, shape, dtype=dtype)
    return da.from_delayed(task, shape, dtype=dtype, meta=meta)


def _result(specs, chunks, volume, grid, method, fill_value, out_dtype, meta=None, share=True):
    """The lazy result from every block's (library coordinates, geometry,
    plan). With ``share``, split blocks share their groups of chunks: each
    group is computed by one task, for the points of every block that falls
    in it, on the union of those blocks' boxes, so that each input chunk has
    one reader and is released as soon as that task is done (points spread
    over the volume reach the same chunks from every block). Without, each
    block has its own task per group, reading only its own boxes (a plane's
    blocks share only the chunks along their borders)."""
    arrays = {}
    split = {}
    for index, (q, geometry, plan) in specs.items():
        if plan.kind == "split":
            split[index] = dask.delayed(_partition, pure=True)(q, geometry, plan, grid, method)
        else:
            arrays[index] = _block_array(q, geometry, plan, volume, grid, method, fill_value,
                                         out_dtype, meta)
    members = {}
    for index, parts in split.items():
        plan = specs[index][2]
        for key, box in zip(plan.groups, plan.boxes):
            members.setdefault(key if share else (key, index), []).append((index, box))
    results, places = {}, {}
    for key, blocks in members.items():
        start = np.min([b[0] for _, b in blocks], axis=0)
        stop = np.max([b[1] for _, b in blocks], axis=0)
        box = (tuple(int(v) for v in start), tuple(int(v) for v in stop))
        group = key if share else key[0]
        results[key] = dask.delayed(_evaluate_group, pure=True)(
            [split[index][group] for index, _ in blocks], box, _read(volume, box, grid.axes),
            grid, method, fill_value)
        for place, (index, _) in enumerate(blocks):
            places[key, index] = place
    for index in split:
        geometry, plan = specs[index][1], specs[index][2]
        keys = plan.groups if share else [(key, index) for key in plan.groups]
        groups = [(results[key], places[key, index]) for key in keys]
        task = dask.delayed(_reassemble, pure=True)(geometry[0], groups, grid, out_dtype)
        arrays[index] = _from_delayed(task, geometry[0], out_dtype, meta)
    if len(chunks) == 0:
        return arrays[()]
    nested = np.empty([len(c) for c in chunks], dtype=object)
    for index, array in arrays.items():
        nested[index] = array
    return da.block(nested.tolist())


def _check_cells(grid, q, boxes):
    """Refuses to compute a block one of whose points needs samples outside
    the boxes it read: the plan was wrong, and the values would be too."""
    lower, upper, needed = _boxes.cells(grid, q)
    if not np.any(needed):
        return
    if not boxes:
        raise RuntimeError("qzinterp3d.dask: a block planned as outside the volume has points inside")
    start, stop = boxes[0]
    for k in range(3):
        if lower[k][needed].min() < start[k] or upper[k][needed].max() >= stop[k]:
            raise RuntimeError("qzinterp3d.dask: a block's points need samples outside its box")


def _read(volume, box, axes):
    """The dask array of a box's samples, in numpy axis order."""
    start, stop = box
    index = [slice(None)] * 3
    for k in range(3):
        index[axes[k]] = slice(start[k], stop[k])
    return volume[tuple(index)]


# --- the numpy functions' rules: volume, coordinates, outputs ------------------------


class _Frame:
    """What the numpy functions' coordinate rules need of a prepared input:
    which input axis each library dimension reads (None: an added axis), the
    library extents and the coordinate dtype. Small, so tasks carry it."""

    __slots__ = ("axes", "extents", "coord_dtype", "ndim", "dtype")

    def __init__(self, axes, extents, coord_dtype, ndim, dtype):
        self.axes = tuple(axes)
        self.extents = tuple(int(n) for n in extents)
        self.coord_dtype = np.dtype(coord_dtype)
        self.ndim = ndim
        self.dtype = np.dtype(dtype)

    def __reduce__(self):
        return (_Frame, (self.axes, self.extents, self.coord_dtype, self.ndim, self.dtype))


def _prepare_volume(input):
    """The input as the numpy functions prepare it, lazily: a 3-D dask array
    (z, y, x) of the sample dtype the library reads, whose last axis is the
    library's dimension 0, with its Grid and _Frame.

    A dask input is taken as the C-ordered array ``numpy.asarray(input)``
    would be; a numpy input as it is (its own memory order decides the axes).
    """
    if isinstance(input, np.ndarray):
        prepared = _ndimage._prepare_input(input)
        zyx = da.from_array(prepared.volume, chunks=prepared.volume.shape)
        ndim, dtype, axes = prepared.ndim, prepared.dtype, prepared.axes
    elif isinstance(input, da.Array):
        if input.dtype.kind not in "fiub" or input.dtype.itemsize > 8:
            _ndimage._prepare_input(np.zeros((1,) * max(min(input.ndim, 3), 1), input.dtype))
        if input.ndim == 0 or input.ndim > 3 or 0 in input.shape:
            _ndimage._prepare_input(np.broadcast_to(np.zeros((), input.dtype), input.shape))
        # The axes numpy's C-ordered copy would get, from memory-free stand-in.
        target = _ndimage._CONVERTED_DTYPES.get(input.dtype.newbyteorder("="), input.dtype.newbyteorder("="))
        stand_in = np.lib.stride_tricks.as_strided(
            np.zeros(1, target), input.shape, _c_strides(input.shape, target.itemsize))
        prepared = _ndimage._prepare_input(stand_in)
        ndim, dtype, axes = input.ndim, input.dtype, prepared.axes
        real = [a for a in axes if a is not None]
        volume = input.astype(target) if input.dtype != target else input
        zyx = da.transpose(volume, real[::-1])[(None,) * (3 - ndim)]
    else:
        raise TypeError(f"input must be a dask array or a numpy.ndarray, got {type(input).__name__}")
    grid = _boxes.Grid(zyx.shape[::-1], (2, 1, 0), zyx.dtype, zyx.chunks[::-1])
    frame = _Frame(axes, grid.extents, grid.coord, ndim, dtype)
    return zyx, grid, frame


def _c_strides(shape, itemsize):
    strides, step = [], itemsize
    for n in reversed(shape):
        strides.append(step)
        step *= max(n, 1)
    return tuple(reversed(strides))


def _output_dtype(output, frame):
    """scipy's rule for the output's dtype; an array to fill is refused,
    because the result is lazy."""
    if isinstance(output, np.ndarray):
        raise TypeError(
            "output must be None or a dtype for a lazy result, got a numpy.ndarray; "
            "store the result with dask.array.store instead"
        )
    if output is None:
        dtype = frame.dtype
    else:
        try:
            dtype = np.dtype(output)
        except TypeError:
            raise TypeError(f"output must be None or a dtype, got {type(output).__name__}") from None
    _ndimage._check_output_dtype(dtype)
    return dtype


def _convert_output(values, dtype):
    """The library's values stored as the numpy functions store them."""
    if values.dtype == dtype:
        return values
    out = np.empty(values.shape, dtype)
    _core._cast_into(np.ascontiguousarray(values), out)
    return out


def _map_block_coordinates(c, frame, mode):
    """A block of scipy coordinates (ndim, ...) as the library's (x, y, z)."""
    c = np.asarray(c)
    return list(_ndimage._library_coordinates(frame, _ndimage._coordinate_array(c), mode))


# --- assembling --------------------------------------------------------------------


def _block_grid(chunks):
    """Every block of a chunking: (index, start, shape)."""
    starts = [np.cumsum((0,) + tuple(c))[:-1] for c in chunks]
    for index in np.ndindex(*[len(c) for c in chunks]):
        start = tuple(int(starts[d][i]) for d, i in enumerate(index))
        shape = tuple(int(chunks[d][i]) for d, i in enumerate(index))
        yield index, start, shape


# --- map_coordinates -----------------------------------------------------------------


def _map_stats(c, frame, mode, grid):
    return _block_cells(grid, _map_block_coordinates(c, frame, mode))


def _objects(shape, items):
    """An object array of a shape holding the given items (tuples stay whole)."""
    a = np.empty(len(items), dtype=object)
    for i, item in enumerate(items):
        a[i] = item
    return a.reshape(shape)


def map_coordinates(input, coordinates, output=None, order=1, mode="constant", cval=0.0,
                    prefilter=True):
    """Interpolate a chunked array at given coordinates, reading only the
    chunks each output block needs.

    Arguments and values are those of :func:`qzinterp3d.map_coordinates`;
    ``input`` may be a dask array (e.g. ``dask.array.from_zarr``) and
    ``coordinates`` a dask array, of shape ``(input.ndim, ...)``. ``output``
    may be None or a dtype (an array to fill would defeat the laziness; store
    the result with ``dask.array.store`` instead).

    Returns a lazy dask array of shape ``coordinates.shape[1:]``, whose values
    are bit for bit those of ``qzinterp3d.map_coordinates(numpy.asarray(input),
    numpy.asarray(coordinates), ...)``.

    Its blocks are the coordinates' blocks, rechunked so that the coordinate
    axis is one chunk and each block holds whole rows of the library's layout
    (the last axis whole; 1-D: multiples of ``ROW_LENGTH`` points). Planning
    which chunks each block reads computes the coordinates once, eagerly,
    when this function is called; the blocks compute them again. Points
    spread over much of the volume cost one task per group of input chunks
    per block: give such point sets few, large blocks.
    """
    method, mode = _ndimage._check_order_mode(order, mode)
    cval = _ndimage._check_cval(cval)
    zyx, grid, frame = _prepare_volume(input)
    coords = _as_dask("coordinates", coordinates)
    if coords.dtype.kind not in "fiub":
        raise TypeError(f"coordinates have dtype {coords.dtype}; expected a real dtype")
    if coords.ndim < 1 or coords.shape[0] != frame.ndim:
        raise ValueError(
            f"coordinates must have shape (input.ndim, ...) = ({frame.ndim}, ...), got {coords.shape}"
        )
    out_dtype = _output_dtype(output, frame)
    whole = coords.shape[1:]
    chunks = _whole_row_chunks(whole, coords.chunks[1:])
    coords = coords.rechunk(((frame.ndim,),) + chunks)
    pieces = coords.to_delayed()
    pieces = pieces.reshape(pieces.shape[1:])
    stats = _objects(pieces.shape, dask.compute(*[
        dask.delayed(_map_stats)(p, frame, mode, grid) for p in pieces.ravel()
    ]))

    specs = {}
    for index, start, shape in _block_grid(chunks):
        q = dask.delayed(_map_block_coordinates, pure=True, nout=3)(pieces[index], frame, mode)
        specs[index] = (q, (shape, start, whole), _plan_from_cells(grid, *stats[index]))
    return _result(specs, chunks, zyx, grid, method, cval, out_dtype)


# --- affine_transform ------------------------------------------------------------------


class _Affine:
    """An affine map over library dimensions: the library's x, y, z minus 1
    (clamped for mode "nearest") are m @ o + offset for the output index o,
    padded with leading zeros to three terms."""

    __slots__ = ("matrix", "offset", "output_ndim")

    def __init__(self, matrix, offset, output_ndim):
        self.matrix = np.asarray(matrix, dtype=np.float64)
        self.offset = np.asarray(offset, dtype=np.float64)
        self.output_ndim = output_ndim

    def __reduce__(self):
        return (_Affine, (self.matrix, self.offset, self.output_ndim))

    def padded(self, index):
        """Output indices (T, output_ndim) as three terms (T, 3)."""
        index = np.asarray(index, dtype=np.float64)
        lead = np.zeros((index.shape[0], 3 - self.output_ndim))
        return np.concatenate([lead, index], axis=1)


def _affine_block_coordinates(affine, start, shape, grid, mode):
    """The library coordinates of an output box, as the numpy function forms them."""
    stop = [a + n for a, n in zip(start, shape)]
    return list(_core._affine_coordinates(list(grid.extents), affine.matrix, affine.offset, mode,
                                          list(start), stop, grid.coord == np.float64))


def _affine_is_tame(affine, shape):
    """True when no coordinate of the output can be NaN or infinite."""
    m, off = affine.matrix, affine.offset
    if not (np.all(np.isfinite(m)) and np.all(np.isfinite(off))):
        return False
    reach = affine.padded([[max(n - 1, 0) for n in shape]])[0]
    return bool(np.all(np.abs(m) @ reach + np.abs(off) < 1e300))


def _affine_cell_bounds(affine, low, high, grid, mode):
    """Bounds [lo, hi] per library dimension of the cells of the points of
    output boxes ``[low, high]`` (inclusive index bounds, arrays (T, ndim)),
    widened to cover every rounding, as int64 arrays (T, 3); and which boxes
    may hold a point inside the volume."""
    low, high = affine.padded(low), affine.padded(high)
    count = low.shape[0]
    lo = np.zeros((count, 3), np.int64)
    hi = np.zeros((count, 3), np.int64)
    inside = np.ones(count, dtype=bool)
    for k in range(3):
        n = grid.extents[k]
        row = affine.matrix[k]
        a, b = row * low, row * high  # an affine map's extremes are at corners
        c_min = np.minimum(a, b).sum(axis=1) + affine.offset[k]
        c_max = np.maximum(a, b).sum(axis=1) + affine.offset[k]
        if mode == "nearest":
            c_min = np.clip(c_min, 0.0, float(n - 1))
            c_max = np.clip(c_max, 0.0, float(n - 1))
        margin = 2.0 + float(np.spacing(np.float32(max(n, 1))))
        first = np.floor(c_min - margin)
        last = np.ceil(c_max + margin)
        inside &= (last >= 0) & (first <= n - 1)
        lo[:, k] = np.clip(first, 0, n - 1)
        hi[:, k] = np.clip(last, 0, n - 1)
    return lo, hi, inside


def _affine_plan(affine, start, shape, grid, mode):
    nd = len(shape)
    if 0 in shape:
        return _Plan("fill")
    low = np.asarray(start, dtype=np.int64)[None, :]
    high = low + np.asarray(shape, dtype=np.int64) - 1
    lo, hi, inside = _affine_cell_bounds(affine, low, high, grid, mode)
    if not inside[0]:
        return _Plan("fill")
    box = _boxes.box_around(grid, lo[0], hi[0])
    if _chunks_in(grid, *box) <= MAX_BOX_CHUNKS:
        return _Plan("box", [box])
    # Spread over many chunks: the groups of chunks that tiles of the block
    # reach, a tile spanning about one chunk along the axis it crosses fastest.
    smallest = [int(np.diff(np.append(grid.chunk_starts[k], grid.extents[k])).min()) for k in range(3)]
    tiles = []
    for j in range(nd):
        column = np.abs(affine.matrix[:, 3 - nd + j])
        rate = max(column[k] / max(smallest[k], 1) for k in range(3))
        tiles.append(int(min(max(1, math.ceil(shape[j] * rate)), shape[j])))
    while math.prod(tiles) > 4096:
        j = int(np.argmax(tiles))
        tiles[j] = (tiles[j] + 1) // 2
    edges = [start[j] + np.linspace(0, shape[j], tiles[j] + 1).astype(np.int64) for j in range(nd)]
    tile_low = np.stack(np.meshgrid(*[e[:-1] for e in edges], indexing="ij"), -1).reshape(-1, nd)
    tile_high = np.stack(np.meshgrid(*[e[1:] - 1 for e in edges], indexing="ij"), -1).reshape(-1, nd)
    keep = np.all(tile_high >= tile_low, axis=1)
    lo, hi, inside = _affine_cell_bounds(affine, tile_low[keep], tile_high[keep], grid, mode)
    lo, hi = lo[inside], hi[inside]
    if not len(lo):
        return _Plan("fill")
    # Each tile's cell range, cut to each group of chunks it reaches (a
    # cell's lower corner in the group: the range's start in it, its end
    # at most one sample beyond), and merged per group.
    first = _group_keys(grid, lo.T)
    last = _group_keys(grid, hi.T)
    ranges = {}
    for step in np.ndindex(*(np.max(last - first, axis=0) + 1)):
        key = first + np.asarray(step)
        reach = np.all(key <= last, axis=1)
        for t in np.flatnonzero(reach):
            g = tuple(int(v) for v in key[t])
            start = np.maximum(lo[t], _group_start(grid, g))
            end = np.minimum(hi[t], np.asarray(_group_end(grid, g)) + 1)
            if g in ranges:
                ranges[g] = (np.minimum(ranges[g][0], start), np.maximum(ranges[g][1], end))
            else:
                ranges[g] = (start, end)
    keys = sorted(ranges)
    boxes = [_boxes.box_around(grid, *ranges[g]) for g in keys]
    return _Plan("split", boxes, keys)


def _affine_stats(affine, start, shape, grid, mode):
    return _block_cells(grid, _affine_block_coordinates(affine, start, shape, grid, mode))


def _output_chunks(output_chunks, shape, dtype):
    """Output blocks of whole library rows, from the caller's chunks or
    about _BLOCK_POINTS points each."""
    if output_chunks is None:
        if len(shape) == 1:
            size = max(ROW_LENGTH, _BLOCK_POINTS // ROW_LENGTH * ROW_LENGTH)
            return (_row_aligned_chunks(da.core.normalize_chunks((size,), shape)[0]),)
        limit = max(_BLOCK_POINTS, shape[-1]) * np.dtype(dtype).itemsize
        auto = ("auto",) * (len(shape) - 1) + (shape[-1],)
        return da.core.normalize_chunks(auto, shape, limit=limit, dtype=dtype)
    try:
        chunks = da.core.normalize_chunks(output_chunks, shape, dtype=dtype)
    except Exception as e:
        raise ValueError(f"output_chunks {output_chunks!r} do not fit the output shape {shape}: {e}") from None
    return _whole_row_chunks(shape, chunks)


def affine_transform(input, matrix, offset=0.0, output_shape=None, output=None, order=1,
                     mode="constant", cval=0.0, prefilter=True, output_chunks=None):
    """Apply an affine transformation to a chunked array, reading only the
    chunks each output block needs.

    Arguments and values are those of :func:`qzinterp3d.affine_transform`;
    ``input`` may be a dask array (e.g. ``dask.array.from_zarr``) and
    ``output`` None or a dtype. ``output_chunks`` chooses the output blocks
    (any form ``dask.array`` accepts); the last axis is always one block
    (1-D outputs: multiples of ``ROW_LENGTH``), because the library's rows
    are whole output rows. By default blocks hold about 4 million points.

    Returns a lazy dask array of ``output_shape``, whose values are bit for
    bit those of ``qzinterp3d.affine_transform(numpy.asarray(input), ...)``.
    Which input chunks a block reads follows from the block's corners: the
    box around them, or, if that box spans more than ``MAX_BOX_CHUNKS``
    chunks, the groups of chunks that tiles of the block reach. (A matrix or
    offset that is not finite, or so large that coordinates overflow, makes
    the planning compute each block's coordinates instead.)
    """
    method, mode = _ndimage._check_order_mode(order, mode)
    cval = _ndimage._check_cval(cval)
    zyx, grid, frame = _prepare_volume(input)
    shape = _ndimage._check_output_shape(output_shape, output, tuple(input.shape))
    m, off = _ndimage._check_matrix(matrix, offset, frame.ndim, shape)
    out_dtype = _output_dtype(output, frame)
    m3, o3 = _ndimage._affine_map(frame, m, off, len(shape))
    affine = _Affine(m3, o3, len(shape))
    chunks = _output_chunks(output_chunks, shape, out_dtype)
    blocks = list(_block_grid(chunks))
    if _affine_is_tame(affine, shape):
        plans = {index: _affine_plan(affine, start, bshape, grid, mode)
                 for index, start, bshape in blocks}
    else:
        stats = dask.compute(*[dask.delayed(_affine_stats)(affine, start, bshape, grid, mode)
                               for _, start, bshape in blocks])
        plans = {index: _plan_from_cells(grid, *st) for (index, _, _), st in zip(blocks, stats)}

    specs = {}
    for index, start, bshape in blocks:
        q = dask.delayed(_affine_block_coordinates, pure=True, nout=3)(affine, start, bshape, grid, mode)
        specs[index] = (q, (bshape, start, shape), plans[index])
    return _result(specs, chunks, zyx, grid, method, cval, out_dtype, share=False)


# --- interp3 -------------------------------------------------------------------------


def _interp3_block(xq, yq, zq, volume, method, fill_value):
    xq, yq, zq = (_aligned(a) for a in (xq, yq, zq))
    return _core.interp3(volume.array, xq, yq, zq, method=method, fill_value=fill_value)


def _interp3_stats(xq, yq, zq, grid):
    return _block_cells(grid, [np.asarray(a) for a in (xq, yq, zq)])


def interp3(volume, xq, yq, zq, method="linear", fill_value=np.nan, client=None):
    """Sample a 3-D grid at the points of chunked query arrays.

    Parameters
    ----------
    volume : numpy.ndarray or dask array, shape (nz, ny, nx)
        The samples, as for :func:`qzinterp3d.interp3`. A numpy array is sent
        to the workers whole, once. A dask array is read by boxes: each
        output block reads only the chunks its points need (see the module's
        docstring).
    xq, yq, zq : dask arrays (or numpy arrays), of one shape
        1-based coordinates along the volume's last, middle and first axis,
        float32 (float64 for a float64 volume). Rechunked, if needed, so that
        each block holds whole rows: the last axis whole, or, 1-D, multiples
        of ``qzinterp3d.ROW_LENGTH`` points (all but the last).
    method : {"linear", "nearest"}
    fill_value : float
        As for :func:`qzinterp3d.interp3`.
    client : distributed.Client, optional
        When given, a numpy ``volume`` is scattered to every worker of this
        client once (``client.scatter(volume, broadcast=True)``) instead of
        travelling inside the task graph.

    Returns
    -------
    dask.array.Array, lazy, of the coordinates' shape, float32 (float64 for a
    float64 volume), bit-identical to ``qzinterp3d.interp3(volume, xq, yq,
    zq, method, fill_value)`` on the computed inputs.

    Arguments are checked at once, with the numpy function's errors. With a
    dask volume, planning which chunks each block reads computes the
    coordinates once, eagerly.
    """
    if not isinstance(volume, (np.ndarray, da.Array)):
        raise TypeError(
            f"volume must be a numpy.ndarray or a dask array, got {type(volume).__name__}"
        )
    xq, yq, zq = (_as_dask(n, a) for n, a in (("xq", xq), ("yq", yq), ("zq", zq)))
    for name, a in (("yq", yq), ("zq", zq)):
        if a.shape != xq.shape:
            raise ValueError(
                f"{name} has shape {a.shape} but xq has shape {xq.shape}; "
                "xq, yq and zq must have one shape"
            )
    # Every other check is the numpy function's, on empty queries.
    meta_volume = volume if isinstance(volume, np.ndarray) else _volume_meta(volume)
    empty = tuple(np.empty((0,) * max(a.ndim, 1), dtype=a.dtype) for a in (xq, yq, zq))
    meta = _core.interp3(meta_volume, *empty, method=method, fill_value=fill_value)
    if meta.ndim != xq.ndim:
        meta = np.empty((0,) * xq.ndim, dtype=meta.dtype)

    whole = xq.shape
    chunks = _whole_row_chunks(whole, xq.chunks)
    xq, yq, zq = (a.rechunk(chunks) for a in (xq, yq, zq))
    pieces = [a.to_delayed() for a in (xq, yq, zq)]

    if isinstance(volume, np.ndarray):
        volume_arg = _whole_volume_arg(volume, client)

        nested = np.empty([len(c) for c in chunks], dtype=object)
        for index, start, shape in _block_grid(chunks):
            task = dask.delayed(_interp3_block, pure=True)(
                *(p[index] for p in pieces), volume_arg, method, fill_value)
            nested[index] = da.from_delayed(task, shape, dtype=meta.dtype, meta=meta)
        return da.block(nested.tolist()) if chunks else nested[()]

    grid = _boxes.Grid(volume.shape[::-1], (2, 1, 0), volume.dtype, volume.chunks[::-1])
    flat = [p.ravel() for p in pieces]
    stats = _objects(pieces[0].shape, dask.compute(*[
        dask.delayed(_interp3_stats)(x, y, z, grid) for x, y, z in zip(*flat)
    ]))

    specs = {}
    for index, start, shape in _block_grid(chunks):
        q = [p[index] for p in pieces]
        specs[index] = (q, (shape, start, whole), _plan_from_cells(grid, *stats[index]))
    return _result(specs, chunks, volume, grid, method, fill_value, meta.dtype, meta=meta)
