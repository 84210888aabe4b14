"""qzinterp3d.dask over chunked volumes: each output block reads only the
input chunks its points need, and the values are the in-memory call's bits."""

import logging
import os

import dask
import dask.array as da
import numpy as np
import pytest

import exact_reference as ref
import qzinterp3d as qz
import qzinterp3d.dask as qzd
from qzinterp3d import _boxes

DTYPES = ["float32", "float64", "int8", "uint8", "int16", "uint16", "int32", "uint32"]


def volume_of(rng, dtype, shape):
    dt = np.dtype(dtype)
    if dt.kind == "f":
        v = rng.normal(0, 100, shape).astype(dt)
        v.flat[::37] = rng.integers(-3, 4, v.flat[::37].shape)  # exact small values too
        return v
    info = np.iinfo(dt)
    return rng.integers(info.min, info.max, shape, endpoint=True, dtype=dt)


def library_coordinates(rng, shape, F, count):
    """1-based coordinates around every edge that matters: whole numbers,
    ties, just inside and just outside the volume, NaN and infinities."""
    out = []
    for n in shape:
        special = np.array([1, 1.5, 2, 2.5, 3.5, n, n - 0.5, n + 1e-3, 1 - 1e-3, 0.25,
                            np.nan, np.inf, -np.inf], dtype=np.float64)
        q = rng.uniform(0.5, n + 0.5, count)
        pick = rng.random(count) < 0.3
        q[pick] = rng.choice(special, pick.sum())
        out.append(q.astype(F))
    return out


def whole_rows(q, width):
    return [a.reshape(-1, width) for a in q]


# --- the rules that make a call on a box exact ---------------------------------------


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("method", ["linear", "nearest"])
@pytest.mark.parametrize("nx", [3, 5, 9, 17, 40])
def test_calls_on_boxes_give_the_whole_calls_bits(dtype, method, nx):
    """Whole rows on one box, and points placed by the kind of their column on
    boxes of a few planes each, against one call on the whole volume; widths
    on both sides of every block width, so both paths and every kind of
    column occur."""
    rng = np.random.default_rng([nx, DTYPES.index(dtype), method == "nearest"])
    vol = volume_of(rng, dtype, (13, 11, nx))
    grid = _boxes.Grid((nx, 11, 13), (2, 1, 0), vol.dtype)
    width = 37
    q = library_coordinates(rng, (nx, 11, 13), grid.coord, 7 * width)
    whole = qz.interp3(vol, *whole_rows(q, width), method=method, fill_value=-7.25)

    lower, upper, needed = _boxes.cells(grid, q)
    box = _boxes.box_of_points(grid, lower, upper, needed)
    rows = _boxes.evaluate_rows(grid, _boxes.box_volume(grid, vol, box), box,
                                whole_rows(q, width), method, -7.25)
    ref.assert_same(rows, whole)

    column = np.tile(np.arange(width), 7)
    kinds = _boxes.point_kinds(grid, method, width, column)
    points = np.empty(q[0].shape, grid.coord)
    plane = lower[2] // 4
    for p in np.unique(plane):
        mine = np.flatnonzero(plane == p)
        b = _boxes.box_around(grid, [int(lower[k][mine].min()) for k in range(3)],
                              [int(upper[k][mine].max()) for k in range(3)])
        points[mine] = _boxes.evaluate_points(grid, _boxes.box_volume(grid, vol, b), b,
                                              [a[mine] for a in q], kinds[mine], method, -7.25)
    ref.assert_same(points.reshape(whole.shape), whole)


def naive_shift(vol, q, origin, method):
    """A call on the box starting at `origin` (x, y, z), shifted as given."""
    ox, oy, oz = origin
    box = vol[oz:, oy:, ox:]
    shifted = [a - np.float32(o) for a, o in zip(q, origin)]
    return qz.interp3(box, *shifted, method=method, fill_value=-1)


def test_an_odd_origin_would_move_a_nearest_tie():
    vol = np.arange(6 * 6 * 40, dtype=np.float32).reshape(6, 6, 40)
    q = [np.array([[3.5] * 4], np.float32), np.full((1, 4), 2, np.float32), np.full((1, 4), 2, np.float32)]
    whole = qz.interp3(vol, *q, method="nearest")
    assert whole[0, 0] == vol[1, 1, 2]  # x - 1 = 2.5 goes to the even index 2
    assert naive_shift(vol, q, (1, 0, 0), "nearest")[0, 0] == vol[1, 1, 3]  # 1.5 goes to 2: x = 3
    ref.assert_same(naive_shift(vol, q, (2, 0, 0), "nearest"), whole)
    grid = _boxes.Grid((40, 6, 6), (2, 1, 0), vol.dtype)
    for lo in range(0, 30):
        start, _ = _boxes.box_around(grid, (lo, lo % 6, 5 - lo % 6), (lo + 3, 5, 5))
        assert all(a % 2 == 0 for a in start) and start[0] <= lo


def test_a_box_narrower_than_a_block_would_change_the_rounding():
    rng = np.random.default_rng(4)
    vol = rng.normal(0, 1, (4, 4, 40)).astype(np.float32)
    q = [rng.uniform(2, 3, (1, 400)).astype(np.float32),
         rng.uniform(1, 4, (1, 400)).astype(np.float32),
         rng.uniform(1, 4, (1, 400)).astype(np.float32)]
    whole = qz.interp3(vol, *q)
    narrow = naive_shift(vol[:, :, :4], q, (0, 0, 0), "linear")  # 4 wide: the other path
    assert np.any(narrow.view(np.uint32) != whole.view(np.uint32))
    grid = _boxes.Grid((40, 4, 4), (2, 1, 0), vol.dtype)
    start, stop = _boxes.box_around(grid, (1, 0, 0), (2, 3, 3))
    assert stop[0] - start[0] == 5
    start, stop = _boxes.box_around(grid, (38, 0, 0), (39, 3, 3))
    assert (start[0], stop[0]) == (34, 40)


def test_a_nan_reads_index_0_of_the_volume_not_of_the_box():
    vol = np.arange(6 * 10 * 40, dtype=np.float32).reshape(6, 10, 40)
    q = [np.full((1, 8), 5, np.float32), np.full((1, 8), np.nan, np.float32), np.full((1, 8), 3, np.float32)]
    whole = qz.interp3(vol, *q, method="nearest")
    assert np.all(whole == vol[2, 0, 4])
    assert np.all(naive_shift(vol, [q[0], np.full_like(q[1], np.nan), q[2]], (0, 4, 0), "nearest")
                  == vol[2, 4, 4])
    grid = _boxes.Grid((40, 10, 6), (2, 1, 0), vol.dtype)
    lower, upper, needed = _boxes.cells(grid, q)
    assert np.all(needed) and np.all(lower[1] == 0) and np.all(upper[1] == 0)


def test_points_outside_the_volume_are_outside_every_box():
    vol = np.ones((6, 10, 40), np.float32)
    grid = _boxes.Grid((40, 10, 6), (2, 1, 0), vol.dtype)
    q = [np.array([[0.999, 41.0, 40.0001, 5, 5, np.inf, -np.inf, np.nan]], np.float32),
         np.array([[5, 5, 5, 0.5, 10.5, 5, 5, 11.0]], np.float32),
         np.full((1, 8), 3, np.float32)]
    lower, upper, needed = _boxes.cells(grid, q)
    assert not np.any(needed)
    for box in [((0, 0, 0), (40, 10, 6)), ((10, 4, 2), (20, 8, 4)), ((34, 8, 4), (40, 10, 6))]:
        values = _boxes.evaluate_rows(grid, _boxes.box_volume(grid, vol, box), box, q, "linear", -2)
        assert np.all(values == -2)


def test_kinds_of_columns():
    def kinds(dtype, nx, method, width):
        grid = _boxes.Grid((nx, 2, 2), (2, 1, 0), dtype)
        return _boxes.point_kinds(grid, method, width, np.arange(width)).tolist()

    F, L, G = _boxes.FULL_BLOCK, _boxes.LAST_BLOCK, _boxes.LAST_BLOCK_FIRST_GROUP
    assert kinds(np.int16, 9, "linear", 20) == [F] * 12 + [L] * 8
    assert kinds(np.uint8, 17, "linear", 17) == [F] + [G] * 4 + [L] * 12
    assert kinds(np.int8, 17, "linear", 20) == [F] * 4 + [G] * 4 + [L] * 12
    assert kinds(np.float32, 5, "linear", 8) == [F] * 8
    assert kinds(np.float32, 5, "linear", 10) == [F] * 6 + [L] * 4
    assert kinds(np.float32, 5, "linear", 3) == [L] * 3
    assert kinds(np.float64, 3, "linear", 5) == [F] * 5  # one sequence in every block
    assert kinds(np.uint8, 17, "nearest", 20) == [F] * 20  # nearest: the same in every block
    assert kinds(np.float32, 4, "nearest", 6) == [_boxes.GROUP_OF_FOUR] * 4 + [_boxes.SINGLE] * 2
    assert kinds(np.float64, 2, "nearest", 6) == [_boxes.ONE_BY_ONE] * 6
    assert kinds(np.uint8, 16, "linear", 6) == [_boxes.ONE_BY_ONE] * 6


# --- the chunked functions against the in-memory ones ----------------------------------


@pytest.fixture(params=[1, 1000], ids=["split", "box"])
def max_box_chunks(request, monkeypatch):
    """Blocks split by groups of chunks, or each on one box however large."""
    monkeypatch.setattr(qzd, "MAX_BOX_CHUNKS", request.param)
    return request.param


@pytest.fixture(autouse=True)
def synchronous():
    with dask.config.set(scheduler="synchronous"):
        yield


def scipy_coordinates(rng, shape, chunks, count):
    """0-based coordinates on and around chunk borders, the last sample,
    just outside the volume, NaN and infinities."""
    out = []
    for n, c in zip(shape, chunks):
        borders = np.arange(0, n, c, dtype=np.float64)
        special = np.concatenate([borders, borders - 1e-3, borders + 0.25, borders + 0.5,
                                  [n - 1, n - 1 + 1e-4, -1e-4, 0, np.nan, np.inf, -np.inf]])
        q = rng.uniform(-1, n, count)
        pick = rng.random(count) < 0.5
        q[pick] = rng.choice(special, pick.sum())
        out.append(q)
    return np.stack(out)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("order", [0, 1])
@pytest.mark.parametrize("mode", ["constant", "nearest"])
def test_map_coordinates_at_chunk_borders(dtype, order, mode, max_box_chunks):
    rng = np.random.default_rng([DTYPES.index(dtype), order, mode == "nearest", max_box_chunks])
    shape, chunks = (11, 13, 23), (4, 5, 6)
    vol = volume_of(rng, dtype, shape)
    coords = scipy_coordinates(rng, shape, chunks, 3 * 500).reshape(3, 3, 500)
    expected = qz.map_coordinates(vol, coords, order=order, mode=mode, cval=-9.5)
    lazy = qzd.map_coordinates(da.from_array(vol, chunks=chunks), da.from_array(coords, chunks=(3, 1, 250)),
                               order=order, mode=mode, cval=-9.5)
    assert lazy.chunks == ((1, 1, 1), (500,))
    split = any(str(key).startswith("('_partition") or "_partition-" in str(key) for key in lazy.dask)
    assert split == (max_box_chunks == 1)
    got = lazy.compute()
    assert got.dtype == expected.dtype == vol.dtype
    ref.assert_same(got.astype(np.float64), expected.astype(np.float64))


@pytest.mark.parametrize("dtype", ["float32", "uint8", "int16"])
@pytest.mark.parametrize("order", [0, 1])
def test_map_coordinates_of_a_point_list_and_of_smaller_inputs(dtype, order, max_box_chunks):
    rng = np.random.default_rng([DTYPES.index(dtype), order])
    for shape, chunks in [((40,), (7,)), ((9, 30), (4, 8)), ((20, 25, 30), (6, 7, 8))]:
        vol = volume_of(rng, dtype, shape)
        coords = scipy_coordinates(rng, shape, chunks, 3 * qz.ROW_LENGTH + 77)
        expected = qz.map_coordinates(vol, coords, output=np.float32, order=order)
        lazy = qzd.map_coordinates(da.from_array(vol, chunks=chunks),
                                   da.from_array(coords, chunks=(len(shape), 1000)),
                                   output=np.float32, order=order)
        assert all(c % qz.ROW_LENGTH == 0 for c in lazy.chunks[0][:-1])
        ref.assert_same(lazy.compute(), expected)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("order", [0, 1])
def test_affine_transform_matches_in_memory(dtype, order, max_box_chunks):
    rng = np.random.default_rng([DTYPES.index(dtype), order, max_box_chunks, 7])
    shape, chunks = (17, 19, 29), (5, 6, 7)
    vol = volume_of(rng, dtype, shape)
    dvol = da.from_array(vol, chunks=chunks)
    rot = np.linalg.qr(rng.normal(size=(3, 3)))[0] * 0.9
    cases = [
        (rot, rng.uniform(-3, 8, 3), (12, 15, 33), (5, 4, 33)),
        (np.hstack([rot, [[2.0], [-1.5], [4.25]]]), 0.0, (9, 21, 17), (4, 21, 17)),
        (np.array([0.5, 1.25, 0.75]), [1.0, -2.0, 0.5], (30, 14, 38), (7, 5, 38)),  # diagonal
        (np.diag([1.0, 1.0, 1.0, 1.0]), 0.0, (17, 19, 29), None),  # homogeneous identity
        (np.array([[0, 0.6, 0.2], [0, 1.0, 0.0], [0, -0.3, 0.95]]), [8.0, 0.5, 2.0], (1, 40, 45), (1, 9, 45)),
    ]
    for matrix, offset, out_shape, out_chunks in cases:
        for mode in ("constant", "nearest"):
            expected = qz.affine_transform(vol, matrix, offset, output_shape=out_shape, order=order,
                                           mode=mode, cval=3.5)
            lazy = qzd.affine_transform(dvol, matrix, offset, output_shape=out_shape, order=order,
                                        mode=mode, cval=3.5, output_chunks=out_chunks)
            assert lazy.chunks[-1] == (out_shape[-1],)
            ref.assert_same(lazy.compute().astype(np.float64), expected.astype(np.float64))


def test_affine_transform_of_1d_and_2d_inputs_and_converted_dtypes(max_box_chunks):
    rng = np.random.default_rng(11)
    line = rng.integers(-1000, 1000, 500).astype(np.int64)  # read as float64
    expected = qz.affine_transform(line, [0.37], 3.0, output_shape=(3000,), order=1)
    lazy = qzd.affine_transform(da.from_array(line, chunks=64), [0.37], 3.0, output_shape=(3000,),
                                order=1, output_chunks=1000)
    assert lazy.chunks == ((1024, 1024, 952),)
    ref.assert_same(lazy.compute().astype(np.float64), expected.astype(np.float64))
    image = rng.random((50, 70)).astype(np.float16)  # read as float32
    m = np.array([[0.8, -0.3], [0.3, 0.8]])
    expected = qz.affine_transform(image, m, [5, -4], output_shape=(60, 61), order=1, mode="nearest")
    lazy = qzd.affine_transform(da.from_array(image, chunks=(9, 11)), m, [5, -4], output_shape=(60, 61),
                                order=1, mode="nearest", output_chunks=(13, 20))
    assert lazy.chunks == ((13, 13, 13, 13, 8), (61,))
    ref.assert_same(lazy.compute().astype(np.float64), expected.astype(np.float64))


def test_an_affine_map_that_makes_nan_coordinates():
    rng = np.random.default_rng(12)
    vol = volume_of(rng, "float32", (10, 12, 30))
    m = np.array([[1.0, 0, 0], [0, np.inf, 0], [0, 0, 1.0]])  # inf * 0 = NaN in the first row
    for order in (0, 1):
        expected = qz.affine_transform(vol, m, 0.5, order=order)
        got = qzd.affine_transform(da.from_array(vol, chunks=4), m, 0.5, order=order,
                                   output_chunks=(3, 5, 30)).compute()
        ref.assert_same(got, expected)


@pytest.mark.parametrize("method", ["linear", "nearest"])
@pytest.mark.parametrize("dtype", ["float64", "uint16", "int8"])
def test_interp3_reads_a_chunked_volume_by_boxes(method, dtype, max_box_chunks):
    rng = np.random.default_rng([DTYPES.index(dtype), method == "linear"])
    shape = (14, 15, 41)
    vol = volume_of(rng, dtype, shape)
    F = np.float64 if dtype == "float64" else np.float32
    q = [a.reshape(40, 33) for a in library_coordinates(rng, shape[::-1], F, 40 * 33)]
    expected = qz.interp3(vol, *q, method=method, fill_value=0.5)
    lazy = qzd.interp3(da.from_array(vol, chunks=(5, 4, 9)), *(da.from_array(a, chunks=(10, 11)) for a in q),
                       method=method, fill_value=0.5)
    ref.assert_same(lazy.compute(), expected)


def test_interp3_with_coordinates_of_three_dimensions(max_box_chunks):
    rng = np.random.default_rng(17)
    vol = volume_of(rng, "int16", (9, 10, 30))
    q = [a.reshape(4, 10, 33) for a in library_coordinates(rng, (30, 10, 9), np.float32, 4 * 10 * 33)]
    expected = qz.interp3(vol, *q, fill_value=-1)
    lazy = qzd.interp3(da.from_array(vol, chunks=4), *(da.from_array(a, chunks=(2, 3, 10)) for a in q),
                       fill_value=-1)
    assert lazy.chunks == ((2, 2), (3, 3, 3, 1), (33,))
    ref.assert_same(lazy.compute(), expected)


def test_fortran_and_reversed_numpy_inputs_keep_their_axes():
    rng = np.random.default_rng(13)
    vol = np.asfortranarray(volume_of(rng, "float32", (12, 14, 16)))
    coords = scipy_coordinates(rng, vol.shape, (4, 4, 4), 900).reshape(3, 30, 30)
    for array in (vol, vol[::-1, :, ::2]):
        expected = qz.map_coordinates(array, coords, order=1)
        ref.assert_same(qzd.map_coordinates(array, coords, order=1).compute(), expected)


def test_bad_arguments_are_named():
    vol = da.zeros((4, 5, 6), chunks=2, dtype=np.float32)
    coords = np.zeros((3, 10))
    with pytest.raises(TypeError, match="^input must be a dask array or a numpy.ndarray"):
        qzd.map_coordinates(vol.compute().tolist(), coords)
    with pytest.raises(TypeError, match="^output must be None or a dtype"):
        qzd.map_coordinates(vol, coords, output=np.zeros(10, np.float32))
    with pytest.raises(ValueError, match=r"^coordinates must have shape \(input.ndim, \.\.\.\)"):
        qzd.map_coordinates(vol, coords[:2])
    with pytest.raises(TypeError, match="^coordinates have dtype complex128"):
        qzd.map_coordinates(vol, coords.astype(complex))
    with pytest.raises(NotImplementedError, match="^order=3"):
        qzd.map_coordinates(vol, coords, order=3)
    with pytest.raises(NotImplementedError, match="^mode='wrap'"):
        qzd.affine_transform(vol, np.eye(3), mode="wrap")
    with pytest.raises(ValueError, match="^output_chunks"):
        qzd.affine_transform(vol, np.eye(3), output_chunks=(3, 3))
    with pytest.raises(NotImplementedError, match="4 dimensions"):
        qzd.map_coordinates(da.zeros((2, 2, 2, 2), chunks=1), np.zeros((4, 3)))
    with pytest.raises(TypeError, match="^input has dtype complex64"):
        qzd.map_coordinates(da.zeros((2, 3, 4), dtype=np.complex64, chunks=2), coords)


def test_coordinates_chunked_across_one_point_are_rechunked():
    rng = np.random.default_rng(14)
    vol = volume_of(rng, "float32", (8, 9, 10))
    coords = scipy_coordinates(rng, vol.shape, (3, 3, 3), 2000).reshape(3, 40, 50)
    lazy = qzd.map_coordinates(da.from_array(vol, chunks=3), da.from_array(coords, chunks=(1, 7, 9)))
    assert lazy.chunks == ((7, 7, 7, 7, 7, 5), (50,))
    ref.assert_same(lazy.compute(), qz.map_coordinates(vol, coords))


# --- a Zarr store larger than a worker's memory, on a two-process cluster --------------

zarr = pytest.importorskip("zarr")
distributed = pytest.importorskip("distributed")


class CountingStore(zarr.storage.DirectoryStore):
    """A directory store that appends the key of every chunk it hands out to
    a log file, from whichever process reads it."""

    def __init__(self, path, log):
        super().__init__(path)
        self.log = log

    def __getitem__(self, key):
        if not os.path.basename(key).startswith("."):
            with open(self.log, "a") as f:
                f.write(key + "\n")
        return super().__getitem__(key)

    def __getstate__(self):
        return self.path, self.log

    def __setstate__(self, state):
        self.__init__(*state)


def reads(log):
    if not os.path.exists(log):
        return []
    with open(log) as f:
        keys = [tuple(int(v) for v in line.split(".")) for line in f.read().split()]
    os.remove(log)
    return keys


def chunks_of_cells(q, grid, box_margin):
    """The chunks (z, y, x numbers) holding the needed points' cells, and those
    of the bounding box of the cells widened by box_margin samples."""
    lower, upper, needed = _boxes.cells(grid, [a.ravel() for a in q])
    holding = set()
    for corner in np.ndindex(2, 2, 2):
        idx = [(upper if c else lower)[k][needed] for k, c in zip(range(3), corner)]
        ids = np.stack([_boxes.chunk_of(grid, idx[k], k) for k in (2, 1, 0)], -1)
        holding |= {tuple(int(v) for v in r) for r in np.unique(ids, axis=0)}
    lo = [max(int(lower[k][needed].min()) - box_margin, 0) for k in range(3)]
    hi = [min(int(upper[k][needed].max()) + box_margin, grid.extents[k] - 1) for k in range(3)]
    ranges = [range(_boxes.chunk_of(grid, lo[k], k), _boxes.chunk_of(grid, hi[k], k) + 1) for k in (2, 1, 0)]
    return holding, {(a, b, c) for a in ranges[0] for b in ranges[1] for c in ranges[2]}


@pytest.mark.filterwarnings("ignore:make_current is deprecated:DeprecationWarning")
def test_a_volume_larger_than_each_worker_read_by_blocks(tmp_path):
    shape, chunk, limit = (512, 512, 800), 64, 300 * 2**20
    k, j, i = np.ogrid[: shape[0], : shape[1], : shape[2]]
    noise = np.random.default_rng(15).integers(0, 4096, shape[2]).astype(np.uint16)
    vol = ((k * 131 + j * 37 + i * 7) % 60000).astype(np.uint16) ^ noise
    assert vol.nbytes > limit
    store_path, log = str(tmp_path / "volume.zarr"), str(tmp_path / "reads.log")
    zarr.open_array(store_path, mode="w", shape=shape, chunks=(chunk,) * 3, dtype=np.uint16)[...] = vol
    dvol = da.from_zarr(zarr.open_array(store=CountingStore(store_path, log), mode="r"))
    grid = _boxes.Grid(shape[::-1], (2, 1, 0), vol.dtype, [dvol.chunks[a] for a in (2, 1, 0)])

    # An oblique plane through the whole volume.
    m = np.array([[0, 0.6, 0.2], [0, 1.0, 0.0], [0, -0.3, 0.95]])
    offset = [150.0, 0.0, 20.0]
    expected = qz.affine_transform(vol, m, offset, output_shape=(1, 512, 800), output=np.float32)
    with dask.config.set(scheduler="distributed"), distributed.LocalCluster(
        n_workers=2, threads_per_worker=1, processes=True, memory_limit=limit,
        dashboard_address=None, silence_logs=logging.ERROR,
    ) as cluster, distributed.Client(cluster) as client:
        lazy = qzd.affine_transform(dvol, m, offset, output_shape=(1, 512, 800), output=np.float32,
                                    output_chunks=(1, 64, 800))
        ref.assert_same(client.compute(lazy).result(), expected)
        reads(log)
        for b in range(lazy.numblocks[1]):
            block = client.compute(lazy.blocks[0, b]).result()
            ref.assert_same(block, expected[:, 64 * b: 64 * (b + 1)])
            got = set(reads(log))
            q = qz._core._affine_coordinates(list(grid.extents), *qzd._ndimage._affine_map(
                qzd._prepare_volume(dvol)[2], m, np.asarray(offset), 3), "constant",
                [0, 64 * b, 0], [1, 64 * (b + 1), 800], False)
            holding, bounding = chunks_of_cells(q, grid, 4)
            assert holding <= got <= bounding, (b, len(holding), len(got), len(bounding))

        # Points spread over the whole volume, in four blocks: split by groups
        # of chunks, each group one task for all four blocks.
        rng = np.random.default_rng(16)
        points = np.stack([rng.uniform(-1, n, 40_000) for n in shape])
        expected = qz.map_coordinates(vol, points, output=np.float32)
        lazy = qzd.map_coordinates(dvol, da.from_array(points, chunks=(3, 10_240)), output=np.float32)
        assert lazy.numblocks == (4,)
        ref.assert_same(client.compute(lazy).result(), expected)
        holding, _ = chunks_of_cells(qz._core._library_coordinates(
            points, [2, 1, 0], list(grid.extents), "constant", False), grid, 0)
        assert holding <= set(reads(log))
        memory = client.run(lambda: __import__("psutil").Process().memory_info().rss)
        assert max(memory.values()) < limit
