"""map_coordinates and affine_transform with the calling conventions of
scipy.ndimage, computed by the library's pipelines.

The pieces that turn a scipy-style call into library calls are public to the
package (underscore-prefixed) so that other layers form the same volumes and
coordinates, bit for bit:

* ``_prepare_input(input)``: the 3-D volume the library reads and which input
  axis each of its dimensions reads (``_Prepared``).
* ``_library_coordinates(prepared, coordinates, mode)``: scipy's 0-based
  coordinates to the library's 1-based ones.
* ``_affine_map(prepared, matrix, offset, output_ndim)``: a scipy matrix and
  offset to the 3 x 3 matrix and offset over library dimensions that
  ``_core._affine_resample`` and ``_core._affine_coordinates`` take.
"""

import numbers
import operator

import numpy as np

from . import _core

_SAMPLE_DTYPES = tuple(
    np.dtype(t)
    for t in (np.float32, np.float64, np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32)
)

# Input dtypes the library has no pipeline for, and what they are converted
# to (exactly, except int64 and uint64 beyond 2^53).
_CONVERTED_DTYPES = {
    np.dtype(np.int64): np.dtype(np.float64),
    np.dtype(np.uint64): np.dtype(np.float64),
    np.dtype(np.float16): np.dtype(np.float32),
    np.dtype(np.bool_): np.dtype(np.uint8),
}

# Output dtypes (native byte order) that results can be stored into.
_OUTPUT_KINDS = "fiub"

_SCIPY_ONLY_MODES = ("reflect", "grid-constant", "grid-mirror", "mirror", "grid-wrap", "wrap")


class _Prepared:
    """An input ready for the library.

    volume: a 3-D array of one of the eight sample dtypes, shaped
        (n of dimension 2, n of dimension 1, n of dimension 0), whose last
        axis has unit stride: ``interp3``'s (nz, ny, nx).
    axes: for library dimensions 0, 1, 2, the input axis each one reads, or
        None for an axis of size 1 added in front of a 1-D or 2-D input.
    ndim: the input's number of dimensions.
    dtype: the input's dtype (the default output dtype).
    copied: whether the input had to be copied.
    """

    def __init__(self, volume, axes, ndim, dtype, copied):
        self.volume = volume
        self.axes = axes
        self.ndim = ndim
        self.dtype = dtype
        self.copied = copied

    @property
    def coord_dtype(self):
        return np.dtype(np.float64 if self.volume.dtype == np.float64 else np.float32)

    @property
    def extents(self):
        """n along library dimensions 0, 1, 2."""
        return tuple(int(n) for n in self.volume.shape[::-1])


def _unit_axis(shape, strides, itemsize):
    """The axis to read as the library's dimension 0: the last one with a
    stride of one element and more than one sample; else the last one with
    a single sample (its stride is never used); else None."""
    for axis in reversed(range(len(shape))):
        if strides[axis] == itemsize and shape[axis] > 1:
            return axis
    for axis in reversed(range(len(shape))):
        if shape[axis] == 1:
            return axis
    return None


def _prepare_input(input):
    """Checks ``input`` and returns the ``_Prepared`` volume the library reads.

    1-D and 2-D inputs get leading axes of size 1. Inputs of the eight sample
    dtypes in native byte order are read in place when aligned and when one
    axis has unit stride; the others are copied once (int64 and uint64 to
    float64, float16 to float32, bool to uint8, another byte order to the
    native one, keeping the memory order; with no unit-stride axis or
    unaligned memory, to C order).

    The unit-stride axis becomes dimension 0 (x, blended first), the two
    others dimensions 1 and 2 in order of increasing absolute stride (ties:
    the later axis first); added axes come last.
    """
    array = np.asarray(input)
    dtype = array.dtype
    if dtype.kind not in "fiub" or dtype.itemsize > 8:
        raise TypeError(
            f"input has dtype {dtype}; expected a real dtype (float16/32/64, int8 to int64, "
            "uint8 to uint64 or bool)"
        )
    if array.ndim == 0:
        raise ValueError("input must have 1, 2 or 3 dimensions, got a 0-D array")
    if array.ndim > 3:
        raise NotImplementedError(
            f"input has {array.ndim} dimensions; only 1, 2 or 3 dimensions are supported"
        )
    if 0 in array.shape:
        raise ValueError(f"input has shape {array.shape}, with an empty axis")
    copied = False
    native = dtype.newbyteorder("=")
    target = _CONVERTED_DTYPES.get(native, native)
    if target != dtype:
        array = array.astype(target, order="K")
        copied = True
    itemsize = array.itemsize
    aligned = array.ctypes.data % itemsize == 0 and all(s % itemsize == 0 for s in array.strides)
    if not aligned or _unit_axis(array.shape, array.strides, itemsize) is None:
        array = np.ascontiguousarray(array) if aligned else np.array(array, order="C")
        copied = True
    ndim = array.ndim
    lead = 3 - ndim
    dim0 = _unit_axis(array.shape, array.strides, itemsize)
    others = sorted((a for a in range(ndim) if a != dim0),
                    key=lambda a: (abs(array.strides[a]), -a))
    real = [dim0] + others
    # Library dimension d reads input axis real[d]; added axes take the rest,
    # the later one first, as in C order.
    axes = tuple(real) + (None,) * lead
    # The 3-D view (nz, ny, nx) = axes (2, 1, 0): the real axes transposed
    # into place, then the added ones in front.
    volume = array.transpose(real[::-1]).reshape((1,) * lead + tuple(array.shape[a] for a in real[::-1]))
    return _Prepared(volume, axes, ndim, dtype, copied)


def _check_order_mode(order, mode):
    if isinstance(order, bool) or not isinstance(order, numbers.Integral):
        raise TypeError(f"order must be an integer, 0 or 1, got {type(order).__name__}")
    order = operator.index(order)
    if order in (2, 3, 4, 5):
        raise NotImplementedError(
            f"order={order} is not supported; order 0 (nearest) and 1 (linear) are"
        )
    if order not in (0, 1):
        raise ValueError(f"order must be 0 or 1, got {order}")
    if not isinstance(mode, str):
        raise TypeError(f"mode must be a str, 'constant' or 'nearest', got {type(mode).__name__}")
    if mode in _SCIPY_ONLY_MODES:
        raise NotImplementedError(
            f"mode={mode!r} is not supported; mode 'constant' and 'nearest' are"
        )
    if mode not in ("constant", "nearest"):
        raise ValueError(f"mode must be 'constant' or 'nearest', got {mode!r}")
    return ("nearest" if order == 0 else "linear"), mode


def _check_cval(cval):
    if isinstance(cval, (bool, np.bool_)) or not isinstance(cval, (numbers.Real, np.floating, np.integer)):
        raise TypeError(f"cval must be a real number, got {type(cval).__name__}")
    return float(cval)


def _output_array(output, shape, default_dtype, inputs=()):
    """scipy's rule: None gives an array of the input's dtype, a dtype an
    array of that dtype, an array is filled (it may not share memory with
    ``inputs``, which are read while it is written)."""
    shape = tuple(shape)
    if isinstance(output, np.ndarray):
        if output.shape != shape:
            raise ValueError(f"output has shape {output.shape}, expected {shape}")
        for name, array in inputs:
            if np.may_share_memory(output, array):
                raise ValueError(f"output shares memory with {name}; pass a separate array")
        _check_output_dtype(output.dtype)
        if not output.flags.writeable:
            raise ValueError("output is read-only")
        if output.ctypes.data % output.itemsize or any(s % output.itemsize for s in output.strides):
            raise ValueError("output is not aligned to its elements")
        return output
    if output is None:
        dtype = default_dtype
    else:
        try:
            dtype = np.dtype(output)
        except TypeError:
            raise TypeError(
                f"output must be None, a dtype or a numpy.ndarray, got {type(output).__name__}"
            ) from None
    _check_output_dtype(dtype)
    return np.empty(shape, dtype)


def _check_output_dtype(dtype):
    if dtype.kind not in _OUTPUT_KINDS or dtype.itemsize > 8 or not dtype.isnative:
        raise TypeError(
            f"output has dtype {dtype}; expected a real dtype in native byte order "
            "(float16/32/64, int8 to int64, uint8 to uint64 or bool)"
        )


def _axes_argument(prepared):
    return [-1 if axis is None else axis for axis in prepared.axes]


def _library_coordinates(prepared, coordinates, mode):
    """The library's 1-based coordinates (xq, yq, zq), each of shape
    coordinates.shape[1:], for scipy's 0-based ``coordinates`` (shape
    (ndim, ...)): per point and axis, the float64 value c (NaN stays NaN),
    clamped to [0, n - 1] for mode 'nearest', plus 1, rounded once to the
    coordinate dtype (``qzinterp3d::library_coordinate``). Added axes get 1.
    ``map_coordinates`` forms exactly these values, a tile at a time."""
    coords = _coordinate_array(coordinates)
    shape = coords.shape[1:]
    if len(shape) > 3:
        coords = coords.reshape(coords.shape[0], -1, shape[-1])
    xyz = _core._library_coordinates(coords, _axes_argument(prepared), list(prepared.extents),
                                     mode, prepared.coord_dtype == np.float64)
    return tuple(q.reshape(shape) for q in xyz)


def _coordinate_array(coordinates):
    """float32 and float64 coordinates as they are (aligned, native); other
    real dtypes converted to float64 (a copy)."""
    if coordinates.dtype in (np.dtype(np.float32), np.dtype(np.float64)):
        itemsize = coordinates.itemsize
        if coordinates.ctypes.data % itemsize == 0 and all(s % itemsize == 0 for s in coordinates.strides):
            return coordinates
    return coordinates.astype(np.float64)


def _check_coordinates(coordinates, ndim):
    array = np.asarray(coordinates)
    if array.dtype.kind not in "fiub":
        raise TypeError(f"coordinates have dtype {array.dtype}; expected a real dtype")
    if array.ndim < 1 or array.shape[0] != ndim:
        raise ValueError(
            f"coordinates must have shape (input.ndim, ...) = ({ndim}, ...), got {array.shape}"
        )
    return array


def map_coordinates(input, coordinates, output=None, order=1, mode="constant", cval=0.0,
                    prefilter=True):
    """Values of ``input`` at ``coordinates``, like scipy.ndimage.map_coordinates.

    Parameters
    ----------
    input : array_like, 1, 2 or 3 dimensions
        float32, float64, int8, uint8, int16, uint16, int32 and uint32 are read
        as they are (in place when one axis has unit stride: C order, Fortran
        order, views, reversed outer axes). int64 and uint64 are converted to
        float64, float16 to float32 and bool to uint8, and another byte order to
        the native one: a copy. An input without any unit-stride axis, or
        unaligned, is copied once to C order.
    coordinates : array_like, shape (input.ndim, ...)
        0-based positions, any real dtype. Each becomes the library's 1-based
        coordinate float64(c) + 1, rounded once to float32 (float64 when the
        volume read is float64: float64 and int64/uint64 inputs); with
        mode="nearest", c is first clamped to [0, n - 1] (NaN stays NaN).
    output : None, dtype or numpy.ndarray
        As scipy: None gives an array of the input's dtype, a dtype an array of
        that dtype, an array (of shape coordinates.shape[1:]) is filled and
        returned. Integer outputs are rounded as scipy 1.10 rounds them: half
        away from zero for signed types, half up from 0 for unsigned ones
        (negative values give 0), saturating at the type's range.
    order : 0 or 1
        0: nearest sample (exact ties go to the even index); 1: trilinear.
        Others raise NotImplementedError.
    mode : "constant" or "nearest"
        "constant": cval outside [0, n - 1] on any axis. "nearest": the edge
        value beyond the edge. Others raise NotImplementedError.
    cval : float
        Converted to float32 unless the volume read is float64.
    prefilter : bool
        Accepted; like scipy for order <= 1 it changes nothing.

    Returns
    -------
    numpy.ndarray of shape coordinates.shape[1:].

    Notes
    -----
    Each output row (the last axis of the output shape; for a 1-D output,
    runs of ``ROW_LENGTH`` points) is one row of the library's call. Values
    are computed in float32 (float64 for float64 volumes); trilinear values
    can differ in the last bit between memory orders of the same input,
    because the blend follows the memory layout (x first). See README.md.
    """
    method, mode = _check_order_mode(order, mode)
    fill = _check_cval(cval)
    prepared = _prepare_input(input)
    coords = _check_coordinates(coordinates, prepared.ndim)
    shape = coords.shape[1:]
    out = _output_array(output, shape, prepared.dtype,
                        [("input", prepared.volume), ("coordinates", coords)])
    coords = _coordinate_array(coords)
    target = out
    if len(shape) > 3:
        # Rows are the last axis at every index of the leading ones, in C
        # order, whatever the number of axes: fold the leading ones into one.
        coords = coords.reshape(coords.shape[0], -1, shape[-1])
        target = _folded(out, shape[-1])
    _core._map_resample(prepared.volume, coords, _axes_argument(prepared), method, mode, fill,
                        target)
    if target.base is not out and target is not out:  # computed into a separate array
        out[...] = target.reshape(shape)
    return out


def _folded(out, row_length):
    """``out`` as (rows, row_length): a view when its memory allows it, else
    a new array of its dtype (copied back afterwards)."""
    view = out.view()
    try:
        view.shape = (-1, row_length)
        return view
    except AttributeError:
        return np.empty((out.size // max(row_length, 1), row_length), out.dtype)


def _affine_map(prepared, matrix, offset, output_ndim):
    """The 3 x 3 matrix and offset over library dimensions, for a scipy
    matrix of shape (ndim,) or (ndim, output_ndim) and an offset of shape
    (ndim,): row d is the input axis read by dimension d (zeros for an
    added axis), columns are the output's index terms, led by zero columns
    up to three."""
    lead = 3 - output_ndim
    m3 = np.zeros((3, 3))
    o3 = np.zeros(3)
    for d, axis in enumerate(prepared.axes):
        if axis is None:
            continue
        if matrix.ndim == 1:
            m3[d, lead + axis] = matrix[axis]
        else:
            m3[d, lead:] = matrix[axis]
        o3[d] = offset[axis]
    return m3, o3


def _check_matrix(matrix, offset, ndim, output_shape):
    """scipy's matrix forms: (ndim,) diagonal, (ndim, output_ndim), and
    (ndim, ndim + 1) or (ndim + 1, ndim + 1) homogeneous, whose last column is
    the offset (the ``offset`` argument is then ignored)."""
    m = np.asarray(matrix)
    if m.dtype.kind not in "fiub":
        raise TypeError(f"matrix has dtype {m.dtype}; expected a real dtype")
    m = m.astype(np.float64)
    if m.ndim not in (1, 2) or m.shape[0] < 1:
        raise ValueError(f"matrix must be 1-D or 2-D, got shape {m.shape}")
    if m.ndim == 2 and m.shape[1] == ndim + 1 and m.shape[0] in (ndim, ndim + 1):
        if m.shape[0] == ndim + 1 and not np.all(m[ndim] == [0] * ndim + [1]):
            raise ValueError(
                f"matrix: a homogeneous matrix of shape {m.shape} must have the last row "
                f"{[0] * ndim + [1]}, got {m[ndim].tolist()}"
            )
        return m[:ndim, :ndim], m[:ndim, ndim].copy()
    if m.shape[0] != ndim:
        raise ValueError(f"matrix has {m.shape[0]} rows; the input has {ndim} dimensions")
    if m.ndim == 1 and len(output_shape) != ndim:
        raise ValueError(
            f"matrix: a diagonal matrix needs an output of {ndim} dimensions, "
            f"got output_shape {tuple(output_shape)}"
        )
    if m.ndim == 2 and m.shape[1] != len(output_shape):
        raise ValueError(
            f"matrix has {m.shape[1]} columns; the output has {len(output_shape)} dimensions"
        )
    off = np.asarray(offset)
    if off.dtype.kind not in "fiub":
        raise TypeError(f"offset has dtype {off.dtype}; expected a real dtype")
    off = off.astype(np.float64)
    if off.ndim == 0:
        off = np.full(ndim, float(off))
    if off.shape != (ndim,):
        raise ValueError(f"offset must be a number or have shape ({ndim},), got {off.shape}")
    return m, off


def _check_output_shape(output_shape, output, input_shape):
    if output_shape is None:
        output_shape = output.shape if isinstance(output, np.ndarray) else input_shape
    try:
        shape = tuple(operator.index(n) for n in output_shape)
    except TypeError:
        raise TypeError(
            f"output_shape must be a sequence of integers, got {output_shape!r}"
        ) from None
    if len(shape) < 1:
        raise ValueError("output_shape must have at least one dimension")
    if len(shape) > 3:
        raise NotImplementedError(
            f"output_shape has {len(shape)} dimensions; 1, 2 or 3 are supported"
        )
    if any(n < 0 for n in shape):
        raise ValueError(f"output_shape must not be negative, got {shape}")
    return shape


def affine_transform(input, matrix, offset=0.0, output_shape=None, output=None, order=1,
                     mode="constant", cval=0.0, prefilter=True):
    """``input`` resampled through an affine map, like scipy.ndimage.affine_transform.

    The output point with index o (o[0] outermost) takes the value of
    ``input`` at the 0-based position c with, per input axis i, in float64,
    in this order and with no fused operation:

        c_i = ((m_i0 * o_0 + m_i1 * o_1) + m_i2 * o_2) + offset_i

    (fewer terms for fewer output dimensions; c_i = m_i * o_i + offset_i for
    a diagonal matrix). Then c becomes the library coordinate exactly as in
    ``map_coordinates`` (clamped for mode="nearest", plus 1, one rounding),
    so ``affine_transform`` equals ``map_coordinates`` over coordinates formed
    by this formula, bit for bit.

    matrix : (ndim,), (ndim, output_ndim), (ndim, ndim + 1) or
        (ndim + 1, ndim + 1); for the last two the offset is the last column
        and ``offset`` is ignored, as in scipy.
    offset : float or sequence of ndim floats.
    output_shape : sequence of 1 to 3 integers; default: output's shape if
        output is an array, else input's.
    output, order, mode, cval, prefilter : as in ``map_coordinates``.

    Coordinates are never stored for the whole output: they are generated in
    tiles of whole output rows (at most 1 MiB each, at most 32 tiles at once),
    and the tiles run on the Halide runtime's thread pool, all with the GIL
    released. Rows are those of ``map_coordinates`` for the same output shape.
    """
    method, mode = _check_order_mode(order, mode)
    fill = _check_cval(cval)
    prepared = _prepare_input(input)
    shape = _check_output_shape(output_shape, output, np.shape(input))
    m, off = _check_matrix(matrix, offset, prepared.ndim, shape)
    out = _output_array(output, shape, prepared.dtype, [("input", prepared.volume)])
    m3, o3 = _affine_map(prepared, m, off, len(shape))
    _core._affine_resample(prepared.volume, m3, o3, method, mode, fill, out)
    return out
