"""map_coordinates and affine_transform: the affine formula, the row layout,
memory orders, dtypes and the storing of integer outputs.

Exact bits are promised for: affine_transform against map_coordinates over
coordinates built by the documented formula; integer outputs against
scipy.ndimage storing the same values; the library coordinates against the
documented rule. These comparisons have no tolerance."""

import tracemalloc

import numpy as np
import pytest
from scipy import ndimage

import qzinterp3d as qz
from qzinterp3d import _core, _ndimage

DTYPES = ["float32", "float64", "int8", "uint8", "int16", "uint16", "int32", "uint32"]
ORDERS = [0, 1]
MODES = ["constant", "nearest"]


def make_input(rng, dtype, shape):
    dtype = np.dtype(dtype)
    if dtype.kind == "f":
        return rng.normal(0, 100, shape).astype(dtype)
    info = np.iinfo(dtype)
    return rng.integers(max(info.min, -50000), min(info.max, 50000), shape, endpoint=True).astype(dtype)


def formula_coordinates(matrix, offset, output_shape):
    """The documented affine formula in float64, term by term in its order:
    c_i = ((m_i0 * o_0 + m_i1 * o_1) + m_i2 * o_2) + offset_i, fewer terms for
    fewer output dimensions, c_i = m_i * o_i + offset_i for a diagonal."""
    matrix = np.asarray(matrix, np.float64)
    offset = np.broadcast_to(np.asarray(offset, np.float64), (matrix.shape[0],))
    o = np.indices(output_shape, dtype=np.float64)
    coords = []
    for i in range(matrix.shape[0]):
        if matrix.ndim == 1:
            coords.append(matrix[i] * o[i] + offset[i])
            continue
        total = matrix[i, 0] * o[0]
        for j in range(1, len(output_shape)):
            total = total + matrix[i, j] * o[j]
        coords.append(total + offset[i])
    return np.stack(coords)


def homogeneous_parts(matrix, ndim):
    return matrix[:ndim, :ndim], matrix[:ndim, ndim]


MATRICES_3D = [
    np.array([[0.9, 0.1, 0.05], [-0.1, 0.95, 0.02], [0.03, 0.01, 1.1]]),
    np.array([[0.0, 0.0, 1.0], [0.0, 1.0, 0.0], [1.0, 0.0, 0.0]]) * 0.7,  # axes swapped
    np.array([[1 / 3, 0.2, -0.25], [0.1, -1.3, 0.4], [0.0, 0.3, 0.77]]),
]


def assert_same_bits(a, b):
    assert a.dtype == b.dtype and a.shape == b.shape
    np.testing.assert_array_equal(np.ascontiguousarray(a).view(np.uint8),
                                  np.ascontiguousarray(b).view(np.uint8))


# --- affine_transform == map_coordinates over formula coordinates ----------


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("order", ORDERS)
@pytest.mark.parametrize("mode", MODES)
def test_affine_equals_map_coordinates_over_formula_coordinates(dtype, order, mode):
    rng = np.random.default_rng(1)
    volume = make_input(rng, dtype, (9, 12, 23))
    for k, matrix in enumerate(MATRICES_3D):
        offset = rng.uniform(-3, 3, 3)
        for shape in [(7, 11, 37), (3, 5, 1), (2, 3, 5)]:  # odd widths, a single column
            ours = qz.affine_transform(volume, matrix, offset, output_shape=shape, order=order,
                                       mode=mode, cval=-7.5, output=np.float64)
            coords = formula_coordinates(matrix, offset, shape)
            theirs = qz.map_coordinates(volume, coords, order=order, mode=mode, cval=-7.5,
                                        output=np.float64)
            assert_same_bits(ours, theirs)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("order", ORDERS)
@pytest.mark.parametrize("mode", MODES)
def test_affine_equals_map_coordinates_for_every_matrix_form(dtype, order, mode):
    """(ndim,), (ndim, ndim), (ndim, ndim + 1), (ndim + 1, ndim + 1), for 1-D,
    2-D and 3-D inputs, with outputs of the input's rank."""
    rng = np.random.default_rng(2)
    for shape_in, shape_out in [((40,), (1500,)), ((13, 21), (9, 31)), ((6, 7, 19), (5, 4, 21))]:
        ndim = len(shape_in)
        volume = make_input(rng, dtype, shape_in)
        full = rng.uniform(-1, 1, (ndim, ndim)) + np.eye(ndim)
        offset = rng.uniform(-2, 2, ndim)
        homogeneous = np.eye(ndim + 1)
        homogeneous[:ndim, :ndim] = full
        homogeneous[:ndim, ndim] = offset
        forms = [
            (np.diag(full).copy(), offset),
            (full, offset),
            (homogeneous[:ndim], np.full(ndim, 99.0)),  # offset ignored, as in scipy
            (homogeneous, -5.0),
        ]
        for matrix, off in forms:
            ours = qz.affine_transform(volume, matrix, off, output_shape=shape_out, order=order,
                                       mode=mode, output=np.float64)
            if matrix.shape[-1] == ndim + 1:
                matrix, off = homogeneous_parts(matrix, ndim)
            coords = formula_coordinates(matrix, off, shape_out)
            theirs = qz.map_coordinates(volume, coords, order=order, mode=mode, output=np.float64)
            assert_same_bits(ours, theirs)


@pytest.mark.parametrize("order", ORDERS)
def test_affine_output_rank_may_differ_from_input_rank(order):
    """A (ndim, output_ndim) matrix: a 2-D oblique slice through a 3-D volume."""
    rng = np.random.default_rng(3)
    volume = make_input(rng, "float32", (10, 11, 12))
    matrix = np.array([[0.3, 0.1], [0.8, -0.2], [0.1, 0.9]])
    ours = qz.affine_transform(volume, matrix, [2.0, 1.0, 0.5], output_shape=(13, 17), order=order)
    coords = formula_coordinates(matrix, [2.0, 1.0, 0.5], (13, 17))
    assert_same_bits(ours, qz.map_coordinates(volume, coords, order=order))


@pytest.mark.parametrize("dtype", ["float32", "float64", "uint8"])
@pytest.mark.parametrize("order", ORDERS)
def test_rows_longer_than_a_tile_give_the_same_bits(dtype, order):
    """Rows of 100003 points are computed in pieces; the bits are those of
    the whole row, as map_coordinates computes it."""
    rng = np.random.default_rng(4)
    volume = make_input(rng, dtype, (5, 6, 40))
    matrix = np.array([[0.0, 1e-5], [0.5, 3e-5], [0.0, 3.9e-4]])
    shape = (2, 100003)
    ours = qz.affine_transform(volume, matrix, [2.0, 0.3, -0.7], output_shape=shape, order=order,
                               output=np.float64)
    coords = formula_coordinates(matrix, [2.0, 0.3, -0.7], shape)
    assert_same_bits(ours, qz.map_coordinates(volume, coords, order=order, output=np.float64))


@pytest.mark.parametrize("nx", [3, 40])  # the one-element-at-a-time path, and blocks
@pytest.mark.parametrize("dtype", ["float32", "float64", "int16"])
@pytest.mark.parametrize("order", ORDERS)
def test_long_rows_split_into_pieces_keep_the_whole_rows_bits(nx, dtype, order):
    """Rows longer than a tile are computed in pieces of multiples of 16
    columns; interp3 computes each row in one call. Same bits, including
    the NaN rules that depend on a point's column within its row."""
    rng = np.random.default_rng(19)
    volume = make_input(rng, dtype, (4, 5, nx))
    coords = np.stack([rng.uniform(-0.5, 4, (2, 70001)), rng.uniform(-0.5, 5, (2, 70001)),
                       rng.uniform(-0.5, nx, (2, 70001))])
    coords[rng.integers(0, 3, 500), rng.integers(0, 2, 500), rng.integers(0, 70001, 500)] = np.nan
    # NaNs around every place a piece can start or end, and in the last columns
    for start in (8184, 16376, 32760, 49144, 69980):
        coords[2, 0, start:start + 21] = np.nan
    ours = qz.map_coordinates(volume, coords, order=order, cval=-2.0, output=np.float64)
    prepared = _ndimage._prepare_input(volume)
    xq, yq, zq = _ndimage._library_coordinates(prepared, coords, "constant")
    whole_rows = qz.interp3(volume, xq, yq, zq, "nearest" if order == 0 else "linear", -2.0)
    assert_same_bits(ours, whole_rows.astype(np.float64))


@pytest.mark.parametrize("order", ORDERS)
def test_one_d_outputs_are_rows_of_row_length(order):
    """A 1-D output is computed as rows of ROW_LENGTH points and one row of
    the rest, as interp3 does with a 1-D query."""
    rng = np.random.default_rng(5)
    volume = make_input(rng, "float32", (4, 5, 33))
    n = 3 * qz.ROW_LENGTH + 17
    coords = np.stack([rng.uniform(-1, 4, n), rng.uniform(-1, 5, n), rng.uniform(-1, 33, n)])
    ours = qz.map_coordinates(volume, coords, order=order, cval=3.0)
    prepared = _ndimage._prepare_input(volume)
    xq, yq, zq = _ndimage._library_coordinates(prepared, coords, "constant")
    method = "nearest" if order == 0 else "linear"
    assert_same_bits(ours, qz.interp3(volume, xq, yq, zq, method, 3.0))


def test_any_split_into_whole_rows_gives_the_same_bits():
    rng = np.random.default_rng(6)
    volume = make_input(rng, "float32", (8, 9, 31))
    coords = rng.uniform(-1, 31, (3, 6, 7, 29))
    whole = qz.map_coordinates(volume, coords)
    parts = [qz.map_coordinates(volume, coords[:, a:b]) for a, b in [(0, 1), (1, 4), (4, 6)]]
    assert_same_bits(whole, np.concatenate(parts))


# --- the coordinates other layers reuse ------------------------------------


@pytest.mark.parametrize("dtype", ["float32", "float64"])
@pytest.mark.parametrize("mode", MODES)
def test_library_coordinates_follow_the_documented_rule(dtype, mode):
    """float64(c) (clamped to [0, n - 1] for mode nearest, NaN kept) + 1,
    rounded once to the coordinate dtype; added axes get 1."""
    rng = np.random.default_rng(7)
    volume = make_input(rng, dtype, (6, 30))
    coords = rng.uniform(-3, 33, (2, 1000))
    coords[:, :6] = [[np.nan, 1e-30, -1e-30, 5.0, 5 + 2**-40, 0.1], [0.1, 2**-60, 29.5, np.inf, -np.inf, 29 + 1e-12]]
    prepared = _ndimage._prepare_input(volume)
    xq, yq, zq = _ndimage._library_coordinates(prepared, coords, mode)
    F = np.float64 if dtype == "float64" else np.float32
    expected = []
    for axis, n in [(1, 30), (0, 6)]:
        c = coords[axis]
        if mode == "nearest":
            c = np.clip(c, 0, n - 1)
        expected.append((c + 1.0).astype(F))
    assert_same_bits(xq, expected[0])
    assert_same_bits(yq, expected[1])
    assert_same_bits(zq, np.ones(1000, F))
    # the sum is rounded once: 2^-60 + 1 is 1 in float64 and float32 alike
    assert yq[1] == 1.0 and xq[1] == 1.0


@pytest.mark.parametrize("mode", MODES)
def test_affine_coordinates_of_a_box_match_the_formula(mode):
    rng = np.random.default_rng(8)
    volume = make_input(rng, "uint16", (10, 12, 14))
    matrix, offset = MATRICES_3D[2], np.array([0.5, -1.25, 3.0])
    prepared = _ndimage._prepare_input(volume)
    m3, o3 = _ndimage._affine_map(prepared, matrix, offset, 3)
    shape = (6, 9, 11)
    box = _core._affine_coordinates(list(prepared.extents), m3, o3, mode, [2, 3, 4], list(shape), False)
    coords = formula_coordinates(matrix, offset, shape)[:, 2:, 3:, 4:]
    expected = _ndimage._library_coordinates(prepared, coords, mode)
    for got, want in zip(box, expected):
        assert_same_bits(got, want)


def test_prepare_input_maps_axes_by_stride():
    c = np.zeros((4, 5, 6), np.float32)
    assert _ndimage._prepare_input(c).axes == (2, 1, 0)
    assert _ndimage._prepare_input(np.asfortranarray(c)).axes == (0, 1, 2)
    assert _ndimage._prepare_input(c.transpose(1, 2, 0)).axes == (1, 0, 2)
    assert _ndimage._prepare_input(np.zeros((5, 6))).axes == (1, 0, None)
    assert _ndimage._prepare_input(np.zeros((5, 6), order="F")).axes == (0, 1, None)
    assert _ndimage._prepare_input(np.zeros(7)).axes == (0, None, None)
    prepared = _ndimage._prepare_input(np.asfortranarray(c))
    assert prepared.volume.shape == (6, 5, 4) and prepared.extents == (4, 5, 6)


# --- memory orders ----------------------------------------------------------


def layouts(base):
    return {
        "C": base,
        "Fortran": np.asfortranarray(base),
        "reversed outer axes": base[::-1, ::-1, :],
        "view": base[1:, 2:7, 3:],
        "strided view": base[::2, :, 1:],
        "transposed": base.transpose(2, 0, 1),
    }


@pytest.mark.parametrize("order", ORDERS)
def test_memory_orders_are_read_in_place(order):
    rng = np.random.default_rng(9)
    base = make_input(rng, "float32", (9, 10, 11))
    for name, array in layouts(base).items():
        prepared = _ndimage._prepare_input(array)
        assert not prepared.copied, name
        assert np.shares_memory(prepared.volume, array), name
        coords = rng.uniform(-1, 9, (3, 300))
        ours = qz.map_coordinates(array, coords, order=order)
        reference = qz.map_coordinates(np.ascontiguousarray(array), coords, order=order)
        if order == 0:
            np.testing.assert_array_equal(ours, reference)
        else:  # the blend order follows memory; values agree to float32 rounding
            np.testing.assert_allclose(ours, reference, rtol=0, atol=1e-4)


def test_layout_changes_the_blend_order_not_the_value_beyond_rounding():
    """The blend follows the unit-stride axis: a Fortran-ordered volume
    blends axis 0 first. Here that rounding differs in the last bit for
    some points (so the Fortran array was read as it lies, not copied)."""
    rng = np.random.default_rng(10)
    base = rng.normal(size=(20, 20, 20)).astype(np.float32)
    coords = rng.uniform(0, 19, (3, 20000))
    c_order = qz.map_coordinates(base, coords)
    f_order = qz.map_coordinates(np.asfortranarray(base), coords)
    assert np.any(c_order != f_order)
    np.testing.assert_allclose(c_order, f_order, rtol=0, atol=1e-5)


def test_fortran_input_is_not_copied_tracemalloc():
    base = np.asfortranarray(np.zeros((64, 128, 128), np.float32))  # 4 MiB
    coords = np.ones((3, 10))
    tracemalloc.start()
    try:
        qz.map_coordinates(base, coords)
        qz.affine_transform(base, np.eye(3), output_shape=(2, 3, 4))
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert peak < base.nbytes // 8


def test_inputs_without_a_unit_stride_axis_are_copied_to_c_order():
    base = np.zeros((6, 8, 10), np.float32)
    for array in (base[:, :, ::2], base[::-1, ::-1, ::-1]):
        prepared = _ndimage._prepare_input(array)
        assert prepared.copied and prepared.axes == (2, 1, 0)
        assert prepared.volume.flags.c_contiguous


def test_unaligned_input_is_copied():
    raw = np.zeros(4 * 60 + 1, np.uint8)
    array = np.frombuffer(raw.data, np.float32, 60, offset=1).reshape(3, 4, 5)
    prepared = _ndimage._prepare_input(array)
    assert prepared.copied
    assert qz.map_coordinates(array, np.ones((3, 2))).tolist() == [0.0, 0.0]


# --- dtypes -----------------------------------------------------------------


@pytest.mark.parametrize("dtype, read_as", [("int64", "float64"), ("uint64", "float64"),
                                             ("float16", "float32"), ("bool", "uint8")])
def test_extra_input_dtypes_are_converted_once(dtype, read_as):
    rng = np.random.default_rng(11)
    values = rng.integers(0, 2 if dtype == "bool" else 1000, (5, 6, 7))
    array = values.astype(dtype)
    prepared = _ndimage._prepare_input(array)
    assert prepared.copied and prepared.volume.dtype == np.dtype(read_as)
    coords = rng.uniform(-0.5, 6.5, (3, 500))
    for order in ORDERS:
        ours = qz.map_coordinates(array, coords, order=order)
        assert ours.dtype == np.dtype(dtype)  # scipy's default: the input's dtype
        converted = qz.map_coordinates(values.astype(read_as), coords, order=order, output=dtype)
        assert_same_bits(ours, converted)


def test_byte_swapped_input_is_converted():
    rng = np.random.default_rng(12)
    array = rng.normal(size=(4, 5, 6))
    coords = rng.uniform(0, 4, (3, 100))
    swapped = array.astype(">f8")
    assert_same_bits(qz.map_coordinates(swapped, coords, output=np.float64),
                     qz.map_coordinates(array, coords))


@pytest.mark.parametrize("dtype", DTYPES)
def test_results_default_to_the_input_dtype(dtype):
    volume = make_input(np.random.default_rng(13), dtype, (3, 4, 5))
    assert qz.map_coordinates(volume, np.ones((3, 2))).dtype == np.dtype(dtype)
    assert qz.affine_transform(volume, np.eye(3)).dtype == np.dtype(dtype)


OUTPUT_DTYPES = ["int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64",
                 "float32", "float64", "bool"]

SPECIAL_VALUES = [
    -300.7, -129.5, -128.5, -128.4, -2.5, -1.5, -0.5, -0.49, 0.0, 0.49, 0.5, 1.5, 2.5,
    127.4, 127.5, 127.6, 255.4, 255.5, 255.6, 256.5, 300.0, 32767.5, 65535.5, 65536.5,
    2.0**31 - 0.5, 2.0**31 + 0.5, 2.0**32 - 0.6, 2.0**32 + 3, 2.0**33 + 1.5, 1e10, -1e10,
    2.0**63 - 2048, 2.0**63, 2.0**64 - 4096, 2.0**64, 2.0**65, -(2.0**63), -(2.0**64),
    np.inf, -np.inf, np.nan,
]


@pytest.mark.parametrize("dtype", OUTPUT_DTYPES)
@pytest.mark.parametrize("order", ORDERS)
@pytest.mark.parametrize("source", ["float32", "float64"])
def test_outputs_are_rounded_and_cast_as_scipy_does(dtype, order, source):
    """Values at grid points are exact in both, so what is compared is how
    each stores them: half away from zero (signed) or half up from 0
    (unsigned), saturation, NaN, 2^63 and 2^64, bool truth."""
    values = np.array(SPECIAL_VALUES, dtype=source)
    if order == 1:  # an infinite neighbour makes the blend NaN, differently in each
        values = values[np.isfinite(values)]
    volume = values.reshape(1, -1)
    coords = np.stack([np.zeros(values.size), np.arange(values.size, dtype=float)])
    ours = qz.map_coordinates(volume, coords, order=order, output=dtype)
    theirs = ndimage.map_coordinates(volume, coords, order=order, output=dtype)
    if dtype == "bool":  # scipy stores the truncated value's low byte, not 0/1
        theirs = theirs.view(np.uint8) != 0
    assert_same_bits(ours, theirs)
    # and the affine path stores them the same way
    shift = qz.affine_transform(volume, np.eye(2), output=dtype, order=order)
    assert_same_bits(shift, ours.reshape(1, -1))


def test_negative_zero_samples_keep_their_sign_unlike_scipy():
    volume = np.array([[-0.0, 1.0]])
    ours = qz.map_coordinates(volume, np.array([[0.0], [0.0]]), order=0)
    theirs = ndimage.map_coordinates(volume, np.array([[0.0], [0.0]]), order=0)
    assert np.signbit(ours[0]) and not np.signbit(theirs[0])


@pytest.mark.parametrize("dtype", ["uint8", "int8", "int32", "bool", "float32"])
def test_cval_is_stored_like_values(dtype):
    volume = np.zeros((2, 3), np.float64)
    outside = np.array([[5.0], [-3.0]])
    for cval in (-1.5, 2.5, np.nan, 300.5, -0.5):
        ours = qz.map_coordinates(volume, outside, output=dtype, cval=cval)
        theirs = ndimage.map_coordinates(volume, outside, output=dtype, cval=cval)
        if dtype == "bool":
            theirs = theirs.view(np.uint8) != 0
        assert_same_bits(ours, theirs)


def test_float16_outputs_round_to_nearest_even():
    values = np.array([1.0, 1 + 2**-11, 1 + 3 * 2**-11, 65504.0, 65519.0, 65520.0, 2**-25,
                       3 * 2**-26, 2**-14 - 2**-25, -0.0, np.nan, np.inf, 1e-8, 0.1], np.float64)
    volume = values.reshape(1, -1)
    coords = np.stack([np.zeros(values.size), np.arange(values.size, dtype=float)])
    ours = qz.map_coordinates(volume, coords, order=0, output=np.float16)
    with np.errstate(over="ignore"):  # 65520 rounds to infinity
        halves = values.astype(np.float16)
    assert_same_bits(ours, halves)
    assert_same_bits(qz.map_coordinates(halves, coords[1:], order=0), halves)


@pytest.mark.parametrize("order", ORDERS)
def test_strided_outputs_are_filled_in_place(order):
    rng = np.random.default_rng(14)
    volume = make_input(rng, "float32", (5, 6, 7))
    coords = rng.uniform(0, 5, (3, 4, 9))
    expected = qz.map_coordinates(volume, coords, order=order)
    for output in (np.zeros((9, 4), np.float32).T, np.zeros((4, 18), np.float32)[:, ::2]):
        result = qz.map_coordinates(volume, coords, order=order, output=output)
        assert result is output
        assert_same_bits(np.ascontiguousarray(output), expected)
        affine = np.zeros((9, 4), np.float64).T
        assert qz.affine_transform(volume, np.eye(3)[:, :2] * 0.5, output=affine, order=order) is affine
        assert_same_bits(affine, qz.affine_transform(volume, np.eye(3)[:, :2] * 0.5, output_shape=(4, 9),
                                                     order=order, output=np.float64))


def test_outputs_of_more_than_three_dimensions_are_filled_in_place():
    rng = np.random.default_rng(18)
    volume = make_input(rng, "float32", (5, 6, 7))
    coords = rng.uniform(0, 5, (3, 2, 3, 4, 5))
    expected = qz.map_coordinates(volume, coords, output=np.uint8)
    for output in (np.zeros((2, 3, 4, 5), np.uint8), np.zeros((5, 4, 3, 2), np.uint8).T):
        assert qz.map_coordinates(volume, coords, output=output) is output
        assert_same_bits(output, expected)


def test_coordinates_of_any_shape():
    rng = np.random.default_rng(15)
    volume = make_input(rng, "float64", (5, 6, 7))
    coords = rng.uniform(0, 5, (3, 2, 3, 4, 5))
    flat = qz.map_coordinates(volume, coords.reshape(3, -1, 5))
    assert_same_bits(qz.map_coordinates(volume, coords), flat.reshape(2, 3, 4, 5))
    point = qz.map_coordinates(volume, np.array([1.0, 2.0, 3.0]))
    assert point.shape == () and point == volume[1, 2, 3]
    assert qz.map_coordinates(volume, np.zeros((3, 0, 4))).shape == (0, 4)


@pytest.mark.parametrize("dtype", ["float32", "float64"])
def test_interp3_takes_coordinates_of_any_shape(dtype):
    rng = np.random.default_rng(16)
    volume = make_input(rng, dtype, (5, 6, 7))
    q = [rng.uniform(1, 5, (2, 3, 4, 9)).astype(dtype) for _ in range(3)]
    rows = qz.interp3(volume, *(a.reshape(-1, 9) for a in q))
    assert_same_bits(qz.interp3(volume, *q), rows.reshape(2, 3, 4, 9))
    # a non-contiguous leading axis: rows grouped per leading index
    strided = [np.repeat(a, 2, axis=0)[::2] for a in q]
    assert_same_bits(qz.interp3(volume, *strided), rows.reshape(2, 3, 4, 9))
    scalar = qz.interp3(volume, *(np.array(v, dtype) for v in (2.0, 3.0, 4.0)))
    assert scalar.shape == () and scalar == volume[3, 2, 1]


def test_prefilter_changes_nothing():
    rng = np.random.default_rng(17)
    volume = make_input(rng, "float32", (4, 5, 6))
    coords = rng.uniform(0, 4, (3, 50))
    for order in ORDERS:
        assert_same_bits(qz.map_coordinates(volume, coords, order=order, prefilter=False),
                         qz.map_coordinates(volume, coords, order=order, prefilter=True))


def test_mode_nearest_gives_the_edge_value_beyond_the_edge():
    volume = np.arange(24, dtype=np.float32).reshape(2, 3, 4)
    coords = np.array([[-5.0, 7.0, 0.5], [-1.0, 9.0, 1.0], [-0.25, 40.0, 3.0]])
    for order in ORDERS:
        got = qz.map_coordinates(volume, coords, order=order, mode="nearest")
        assert got[0] == volume[0, 0, 0] and got[1] == volume[1, 2, 3]
