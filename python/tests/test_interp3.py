"""interp3 against the exact element-by-element model, for every sample
dtype, both methods, both ways a grid is computed (one element at a time for
grids no wider than one block, blocks of rows on the thread pool otherwise)
and every shape of query the module handles."""

import zlib

import numpy as np
import pytest

import exact_reference as ref
import qzinterp3d as qz

DTYPES = ["float32", "float64", "int8", "uint8", "int16", "uint16", "int32", "uint32"]
METHODS = ["linear", "nearest"]


def make_volume(rng, dtype, shape):
    dt = np.dtype(dtype)
    if dt.kind == "f":
        v = rng.normal(0.0, 100.0, shape).astype(dt)
        v.flat[::7] = np.round(v.flat[::7])
    else:
        info = np.iinfo(dt)
        v = rng.integers(info.min, info.max, shape, endpoint=True, dtype=dt)
        v.flat[0], v.flat[-1] = info.min, info.max
    return v


def make_coordinates(rng, F, n, size, nan_share=0.02):
    """1-based coordinates along an axis of n samples: mostly inside, some
    just or far outside, exact sample positions, ties and edges."""
    kind = rng.integers(0, 6, size)
    q = rng.uniform(0.5, n + 0.5, size)
    q = np.where(kind == 1, rng.integers(1, n + 1, size), q)
    q = np.where(kind == 2, rng.integers(0, n + 1, size) + 0.5, q)
    edges = np.array([1.0, n, n + 2.0**-10, 1 - 2.0**-10, n + 1, 0.0, -3.0, n + 40])
    q = np.where(kind == 3, rng.choice(edges, size), q)
    q = q.astype(F)
    q[rng.random(size) < nan_share] = np.nan
    return q


def make_query(rng, volume, shape, nan_share=0.02):
    F = ref.coord_type(volume)
    nz, ny, nx = volume.shape
    size = int(np.prod(shape))
    return tuple(
        make_coordinates(rng, F, n, size, nan_share).reshape(shape) for n in (nx, ny, nz)
    )


def grid_width(dtype, case):
    W = 16 // np.dtype(dtype).itemsize
    return {"one block": W, "one more": W + 1, "wide": 3 * W + 2}[case]


def query_shape(dtype, layout):
    W = 16 // np.dtype(dtype).itemsize
    return {
        "rows ragged": (3, 2 * W + 3),  # full blocks and a shifted last block
        "rows whole blocks": (2, 2 * W),
        "rows narrow": (4, max(1, min(3, W - 1))),  # narrower than one block
        "1-D": (qz.ROW_LENGTH + 37,),  # one full row and a short one
    }[layout]


@pytest.mark.parametrize("layout", ["rows ragged", "rows whole blocks", "rows narrow", "1-D"])
@pytest.mark.parametrize("grid", ["one block", "one more", "wide"])
@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("dtype", DTYPES)
def test_matches_exact_model(dtype, method, grid, layout):
    rng = np.random.default_rng(zlib.crc32(f"{dtype} {method} {grid} {layout}".encode()))
    volume = make_volume(rng, dtype, (4, 3, grid_width(dtype, grid)))
    xq, yq, zq = make_query(rng, volume, query_shape(dtype, layout))
    got = qz.interp3(volume, xq, yq, zq, method=method, fill_value=-0.1)
    want = ref.interp3(volume, xq, yq, zq, method, -0.1, qz.ROW_LENGTH)
    ref.assert_same(got, want)


@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("grid", ["one block", "wide"])
def test_grid_points_address_the_documented_axes(dtype, method, grid):
    """volume[k, j, i] sits at (xq, yq, zq) = (i + 1, j + 1, k + 1)."""
    nx = grid_width(dtype, grid)
    nz, ny = 3, 2
    volume = np.arange(nz * ny * nx).reshape(nz, ny, nx).astype(dtype)
    F = ref.coord_type(volume)
    k, j, i = (a.ravel() for a in np.meshgrid(*map(np.arange, (nz, ny, nx)), indexing="ij"))
    got = qz.interp3(volume, (i + 1).astype(F), (j + 1).astype(F), (k + 1).astype(F), method)
    np.testing.assert_array_equal(got, volume[k, j, i].astype(F))
    assert got.dtype == F


@pytest.mark.parametrize("dtype", DTYPES)
def test_result_dtype_and_shape(dtype):
    volume = np.ones((2, 2, 2), dtype=dtype)
    F = np.float64 if dtype == "float64" else np.float32
    for shape in [(5,), (3, 4), (0,), (0, 4), (3, 0)]:
        q = np.ones(shape, dtype=F)
        out = qz.interp3(volume, q, q, q)
        assert out.dtype == F and out.shape == shape
        assert np.all(out == 1)


@pytest.mark.parametrize(
    "dtype, fill, expected",
    [
        ("float32", 0.1, np.float32(0.1)),
        ("float64", 0.1, 0.1),
        ("uint8", -1, np.float32(-1.0)),
        ("int16", 0.5, np.float32(0.5)),
        ("int8", 1e40, np.float32(np.inf)),
        ("uint32", -1e300, np.float32(-np.inf)),
    ],
)
def test_fill_value_is_converted_to_the_result_type_never_to_the_samples(dtype, fill, expected):
    volume = np.zeros((2, 2, 2), dtype=dtype)
    F = np.float64 if dtype == "float64" else np.float32
    q = np.array([0.5, 3.0], dtype=F)
    one = np.ones(2, dtype=F)
    for method in METHODS:
        out = qz.interp3(volume, q, one, one, method, fill)
        assert out.dtype == F
        np.testing.assert_array_equal(out.view(f"u{out.itemsize}"),
                                      np.full(2, expected, dtype=F).view(f"u{out.itemsize}"))


def test_default_fill_is_nan():
    volume = np.zeros((2, 2, 2), dtype=np.float32)
    q = np.array([3.0], np.float32)
    assert np.isnan(qz.interp3(volume, q, q, q)[0])


def test_nan_coordinates_follow_the_documented_rules():
    """README.md, "NaN coordinates"."""
    nan = np.float32(np.nan)
    row = np.array([[nan, nan, nan, nan, nan, nan]], np.float32)
    one = np.ones_like(row)
    two = np.full_like(row, 2.0)
    # float32, nx = 4: one element at a time; nearest treats a NaN as the
    # first sample in the row's groups of four, as outside in the rest.
    v4 = np.arange(2 * 2 * 4, dtype=np.float32).reshape(2, 2, 4)
    got = qz.interp3(v4, row, two, two, "nearest", -1)
    np.testing.assert_array_equal(got, [[v4[1, 1, 0]] * 4 + [-1, -1]])
    assert np.all(qz.interp3(v4, row, two, two, "linear", -1) == -1)
    # float32, nx = 5: rows run in blocks; a NaN counts as inside.
    v5 = np.arange(2 * 2 * 5, dtype=np.float32).reshape(2, 2, 5)
    np.testing.assert_array_equal(qz.interp3(v5, row, two, two, "nearest", -1), [[v5[1, 1, 0]] * 6])
    assert np.all(np.isnan(qz.interp3(v5, row, two, two, "linear", -1)))
    # ... unless another coordinate is outside.
    assert np.all(qz.interp3(v5, row, one * 9, two, "linear", -1) == -1)
    # float64 one element at a time: outside for both methods.
    v2 = np.arange(8.0).reshape(2, 2, 2)
    row64 = row.astype(np.float64)
    for method in METHODS:
        assert np.all(qz.interp3(v2, row64, two.astype(float), two.astype(float), method, -1) == -1)


def test_one_d_query_is_rows_of_row_length():
    rng = np.random.default_rng(5)
    volume = make_volume(rng, "float32", (5, 6, 7))
    n = 3 * qz.ROW_LENGTH + 100
    xq, yq, zq = make_query(rng, volume, (n,), nan_share=0)
    got = qz.interp3(volume, xq, yq, zq)
    k = 3 * qz.ROW_LENGTH
    rows = qz.interp3(volume, *(a[:k].reshape(3, qz.ROW_LENGTH) for a in (xq, yq, zq)))
    rest = qz.interp3(volume, *(a[None, k:] for a in (xq, yq, zq)))
    ref.assert_same(got, np.concatenate([rows.ravel(), rest.ravel()]))


@pytest.mark.parametrize("dtype", DTYPES)
def test_strided_views_are_read_in_place(dtype):
    """Views of bigger arrays with a contiguous last axis: reversed, skipped
    and broadcast outer axes of the volume, padded and reversed rows of the
    coordinates. Each gives the bits of its contiguous copy."""
    rng = np.random.default_rng(11)
    W = 16 // np.dtype(dtype).itemsize
    big = make_volume(rng, dtype, (9, 8, 3 * W + 5))
    views = [
        big[1::2, 2:7, 3 : 3 + 2 * W + 1],
        big[::-2, ::-1, W:],
        np.broadcast_to(big[0, 0, : W + 3], (3, 4, W + 3)),
        big[:, :, :W],
    ]
    for volume in views:
        assert volume.flags.c_contiguous is False
        F = ref.coord_type(volume)
        coords = make_query(rng, volume, (12, 3 * W + 7))
        padded = [c[::2, 2 : 2 + 2 * W + 1] for c in coords]
        reversed_rows = [c[::-1, : W - 1 or 1] for c in coords]
        for method in METHODS:
            for q in (padded, reversed_rows):
                got = qz.interp3(volume, *q, method, 7.0)
                copy = qz.interp3(np.ascontiguousarray(volume),
                                  *(np.ascontiguousarray(c) for c in q), method, 7.0)
                ref.assert_same(got, copy)
                if method == "nearest":
                    ref.assert_same(got, ref.interp3(volume, *q, method, 7.0, qz.ROW_LENGTH))
        assert F == got.dtype


@pytest.mark.parametrize("method", METHODS)
def test_narrow_rows_of_a_wide_grid_beyond_one_scratch_slab(method):
    """Rows narrower than a block of a grid wider than one go through padded
    scratch copies, a slab of rows at a time; rows are independent, so any
    split into calls gives the same bits."""
    rng = np.random.default_rng(3)
    volume = make_volume(rng, "int8", (3, 4, 40))
    xq, yq, zq = make_query(rng, volume, (10000, 3))
    whole = qz.interp3(volume, xq, yq, zq, method)
    parts = [qz.interp3(volume, xq[s], yq[s], zq[s], method)
             for s in (slice(0, 4321), slice(4321, 9000), slice(9000, None))]
    ref.assert_same(whole, np.concatenate(parts))
    if method == "nearest":
        ref.assert_same(whole, ref.interp3(volume, xq, yq, zq, method, np.nan, qz.ROW_LENGTH))
    else:
        ref.assert_same(whole[:50], ref.interp3(volume, xq[:50], yq[:50], zq[:50], method,
                                                np.nan, qz.ROW_LENGTH))


def test_read_only_inputs_are_accepted():
    volume = np.arange(27, dtype=np.uint16).reshape(3, 3, 3)
    q = np.array([1.0, 2.0, 3.0], np.float32)
    for a in (volume, q):
        a.flags.writeable = False
    np.testing.assert_array_equal(qz.interp3(volume, q, q, q, "nearest"), [0, 13, 26])


def test_inputs_are_not_modified():
    rng = np.random.default_rng(8)
    volume = make_volume(rng, "float32", (3, 4, 9))
    coords = make_query(rng, volume, (5, 2))
    before = [a.copy() for a in (volume, *coords)]
    qz.interp3(volume, *coords)
    for a, b in zip((volume, *coords), before):
        np.testing.assert_array_equal(a.view(np.uint32), b.view(np.uint32))
