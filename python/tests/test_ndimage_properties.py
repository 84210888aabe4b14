"""Property tests against scipy.ndimage: random shapes, dtypes, coordinates,
matrices, orders, modes and output forms.

What is expected (python/README.md's table says why):
* where both are exact, equal: nearest away from exact .5 ties, and linear
  at coordinates on grid points;
* otherwise, linear values agree to the rounding of the arithmetic
  (float32 unless the volume read is float64);
* scipy is given the positions our coordinates have after their one
  rounding to the coordinate dtype (float32 for non-float64 volumes), so the
  two sample the same points; for affine_transform, whose coordinates scipy
  forms itself, points within rounding of a .5 tie or of the grid's edges
  are left out;
* outputs of any dtype hold our values stored the way scipy stores values.

Derandomized with a bounded number of examples, so CI runs the same cases."""

import warnings

import numpy as np
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from scipy import ndimage

import qzinterp3d as qz
from qzinterp3d import _ndimage

SAMPLE_DTYPES = ["float32", "float64", "int8", "uint8", "int16", "uint16", "int32", "uint32"]
EXTRA_DTYPES = ["int64", "uint64", "float16", "bool"]
OUTPUT_DTYPES = SAMPLE_DTYPES + ["int64", "uint64", "float16", "bool"]

PROPERTY_SETTINGS = settings(max_examples=400, deadline=None, derandomize=True,
                             suppress_health_check=[HealthCheck.too_slow])


def random_input(rng, dtype, shape):
    dtype = np.dtype(dtype)
    if dtype == np.bool_:
        return rng.integers(0, 2, shape).astype(bool)
    if dtype.kind == "f":
        return rng.normal(0, 100, shape).astype(dtype)
    info = np.iinfo(dtype)
    # within 2^24, where the float32 the library reads integers as is exact
    lo, hi = max(info.min, -(2**24)), min(info.max, 2**24)
    return rng.integers(lo, hi, shape, endpoint=True).astype(dtype)


def random_coordinates(rng, shape, size):
    """Per axis: inside, on grid points, on the edges, and outside."""
    coords = []
    for n in shape:
        c = rng.uniform(-1.5, n + 0.5, size)
        pick = rng.integers(0, 4, size)
        c = np.where(pick == 0, rng.integers(0, n, size), c)
        c = np.where(pick == 1, rng.choice([0.0, n - 1.0, -1.0, n + 0.0]), c)
        coords.append(c)
    return np.array(coords)


def scipy_cast(values, dtype):
    """scipy's own storing of float64 values into `dtype` (values at grid
    points are exact, so only the store is exercised)."""
    dtype = np.dtype(dtype)
    if dtype == np.float16:  # scipy has no float16 output: round to nearest
        with np.errstate(over="ignore"):
            return values.astype(np.float16)
    flat = values.reshape(1, -1)
    grid = np.stack([np.zeros(flat.shape[1]), np.arange(flat.shape[1], dtype=float)])
    stored = ndimage.map_coordinates(flat, grid, order=0, output=dtype).reshape(values.shape)
    return stored.view(np.uint8) != 0 if dtype == np.bool_ else stored


def tolerance(volume, cval, F):
    scale = max(float(np.max(np.abs(volume.astype(np.float64)))), abs(cval), 1.0)
    return 16 * np.finfo(F).eps * scale


@PROPERTY_SETTINGS
@given(
    seed=st.integers(0, 2**32 - 1),
    shape=st.lists(st.integers(1, 7), min_size=1, max_size=3),
    dtype=st.sampled_from(SAMPLE_DTYPES + EXTRA_DTYPES),
    order=st.sampled_from([0, 1]),
    mode=st.sampled_from(["constant", "nearest"]),
    coord_dtype=st.sampled_from(["float64", "float32", "int32"]),
    output_form=st.sampled_from(["none", "dtype", "array"]),
    output_dtype=st.sampled_from(OUTPUT_DTYPES),
    points=st.sampled_from([(1,), (37,), (3, 11), (2, 3, 5)]),
    cval=st.sampled_from([0.0, -7.25, 1e3, 0.1]),
)
def test_map_coordinates_agrees_with_scipy(seed, shape, dtype, order, mode, coord_dtype,
                                           output_form, output_dtype, points, cval):
    rng = np.random.default_rng(seed)
    volume = random_input(rng, dtype, tuple(shape))
    coords = random_coordinates(rng, shape, int(np.prod(points))).reshape((len(shape),) + points)
    coords = coords.astype(coord_dtype)
    prepared = _ndimage._prepare_input(volume)
    F = prepared.coord_dtype.type
    read = volume.astype(prepared.volume.dtype)  # what the library reads (the same values)

    ours = qz.map_coordinates(volume, coords, order=order, mode=mode, cval=cval, output=np.float64)

    # scipy at the positions our coordinates round to (one rounding, in F)
    library = _ndimage._library_coordinates(prepared, coords, mode)
    positions = np.stack([library[prepared.axes.index(axis)].astype(np.float64) - 1
                          for axis in range(len(shape))])
    theirs = ndimage.map_coordinates(read, positions, order=order, mode=mode,
                                     cval=float(F(cval)), output=np.float64, prefilter=False)
    if order == 0:
        ties = np.any(positions - np.floor(positions) == 0.5, axis=0)
        np.testing.assert_array_equal(ours[~ties], theirs[~ties])
    else:
        on_grid = np.all(positions == np.round(positions), axis=0)
        np.testing.assert_array_equal(ours[on_grid], theirs[on_grid])
        np.testing.assert_allclose(ours, theirs, rtol=0, atol=tolerance(read, cval, F))

    # every output form holds those values, stored as scipy stores values
    if output_form == "none":
        result = qz.map_coordinates(volume, coords, order=order, mode=mode, cval=cval)
        stored_as = volume.dtype
    elif output_form == "dtype":
        result = qz.map_coordinates(volume, coords, order=order, mode=mode, cval=cval,
                                    output=output_dtype)
        stored_as = np.dtype(output_dtype)
    else:
        given_array = np.empty(points, output_dtype)
        result = qz.map_coordinates(volume, coords, order=order, mode=mode, cval=cval,
                                    output=given_array)
        assert result is given_array
        stored_as = np.dtype(output_dtype)
    assert result.dtype == stored_as and result.shape == points
    expected = scipy_cast(ours, stored_as)
    np.testing.assert_array_equal(result, expected)


def random_matrix(rng, form, ndim, out_ndim):
    full = rng.uniform(-0.6, 0.6, (ndim, out_ndim))
    full[np.arange(min(ndim, out_ndim)), np.arange(min(ndim, out_ndim))] += rng.choice([-1, 1]) * 0.9
    offset = rng.uniform(-2, 2, ndim)
    if form == "diagonal":
        return np.diag(full).copy(), offset
    if form == "full":
        return full, offset
    homogeneous = np.eye(ndim + 1)
    homogeneous[:ndim, :ndim] = full
    homogeneous[:ndim, ndim] = offset
    return (homogeneous if form == "homogeneous" else homogeneous[:ndim]), 0.0


@PROPERTY_SETTINGS
@given(
    seed=st.integers(0, 2**32 - 1),
    shape=st.lists(st.integers(1, 7), min_size=1, max_size=3),
    dtype=st.sampled_from(SAMPLE_DTYPES),
    order=st.sampled_from([0, 1]),
    mode=st.sampled_from(["constant", "nearest"]),
    form=st.sampled_from(["diagonal", "full", "homogeneous", "augmented"]),
    out_extent=st.integers(1, 9),
)
def test_affine_transform_agrees_with_scipy(seed, shape, dtype, order, mode, form, out_extent):
    rng = np.random.default_rng(seed)
    ndim = len(shape)
    volume = random_input(rng, dtype, tuple(shape))
    output_shape = tuple(rng.integers(1, out_extent + 1, ndim))
    matrix, offset = random_matrix(rng, form, ndim, ndim)
    prepared = _ndimage._prepare_input(volume)
    F = prepared.coord_dtype.type

    ours = qz.affine_transform(volume, matrix, offset, output_shape=output_shape, order=order,
                               mode=mode, cval=-3.0, output=np.float64)
    with warnings.catch_warnings():  # scipy warns that a 1-D matrix is a diagonal
        warnings.simplefilter("ignore", UserWarning)
        theirs = ndimage.affine_transform(volume.astype(np.float64), matrix, offset,
                                          output_shape=output_shape, order=order, mode=mode,
                                          cval=-3.0, output=np.float64)

    # scipy forms the positions itself; leave out points within rounding of
    # a tie (nearest) or of the edges (constant), where either may fall on
    # either side.
    if matrix.shape[-1] == ndim + 1:
        matrix, offset = matrix[:ndim, :ndim], matrix[:ndim, ndim]
    o = np.indices(output_shape, dtype=np.float64)
    if matrix.ndim == 1:
        c = np.stack([matrix[i] * o[i] + offset[i] for i in range(ndim)])
    else:
        c = np.einsum("ij,j...->i...", matrix, o) + np.reshape(offset, (ndim,) + (1,) * ndim)
    margin = 1e-5
    keep = np.ones(output_shape, bool)
    if order == 0:
        keep &= np.all(np.abs(c - np.floor(c) - 0.5) > margin, axis=0)
    if mode == "constant":
        for i, n in enumerate(shape):
            keep &= (np.abs(c[i]) > margin) & (np.abs(c[i] - (n - 1)) > margin)
    if order == 0:
        np.testing.assert_array_equal(ours[keep], theirs[keep])
    else:
        scale = max(float(np.max(np.abs(volume.astype(np.float64)))), 3.0)
        np.testing.assert_allclose(ours[keep], theirs[keep], rtol=0,
                                   atol=scale * (4e-5 if F is np.float32 else 1e-12))
