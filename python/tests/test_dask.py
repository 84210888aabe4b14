"""qzinterp3d.dask.interp3 on a two-process distributed cluster gives the
bits of one direct call of qzinterp3d.interp3 on the whole arrays."""

import logging

import dask
import dask.array as da
import numpy as np
import pytest

import exact_reference as ref
import qzinterp3d as qz
import qzinterp3d.dask as qzd

distributed = pytest.importorskip("distributed")

# distributed 2022.12 on Debian's tornado warns about its own event loop use.
pytestmark = pytest.mark.filterwarnings("ignore:make_current is deprecated:DeprecationWarning")


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(
        n_workers=2,
        processes=True,
        threads_per_worker=1,
        dashboard_address=None,
        silence_logs=logging.ERROR,
    ) as cluster, distributed.Client(cluster) as c:
        yield c


def make_case(seed, dtype, nx, shape):
    rng = np.random.default_rng(seed)
    dt = np.dtype(dtype)
    if dt.kind == "f":
        volume = rng.normal(0, 10, (6, 7, nx)).astype(dt)
    else:
        info = np.iinfo(dt)
        volume = rng.integers(info.min, info.max, (6, 7, nx), endpoint=True, dtype=dt)
    F = ref.coord_type(volume)
    coords = [rng.uniform(0.5, n + 0.5, shape).astype(F) for n in (nx, 7, 6)]
    for q in coords:
        q.flat[::97] = np.nan
    return volume, coords


@pytest.mark.parametrize(
    "dtype, nx, method",
    [("float32", 40, "linear"), ("int16", 30, "linear"), ("float64", 9, "linear"),
     ("uint8", 50, "nearest"), ("float32", 4, "nearest")],
)
def test_chunked_rows_match_one_direct_call(client, dtype, nx, method):
    volume, coords = make_case(1, dtype, nx, (300, 123))
    direct = qz.interp3(volume, *coords, method, -2.5)
    # chunked along both axes: rows are gathered whole again
    lazy = qzd.interp3(volume, *(da.from_array(q, chunks=(70, 50)) for q in coords), method, -2.5)
    assert lazy.chunks == ((70, 70, 70, 70, 20), (123,))
    ref.assert_same(client.compute(lazy).result(), direct)


@pytest.mark.parametrize("method", ["linear", "nearest"])
def test_chunked_points_match_one_direct_call(client, method):
    volume, coords = make_case(2, "float32", 33, (5 * qz.ROW_LENGTH + 321,))
    direct = qz.interp3(volume, *coords, method)
    lazy = qzd.interp3(volume, *(da.from_array(q, chunks=1500) for q in coords), method)
    assert all(c % qz.ROW_LENGTH == 0 for c in lazy.chunks[0][:-1])
    ref.assert_same(client.compute(lazy).result(), direct)


def test_scattered_and_dask_volumes(client):
    volume, coords = make_case(3, "int32", 21, (200, 37))
    direct = qz.interp3(volume, *coords)
    chunked = [da.from_array(q, chunks=(64, 37)) for q in coords]
    scattered = qzd.interp3(volume, *chunked, client=client)
    ref.assert_same(scattered.compute(), direct)
    from_dask = qzd.interp3(da.from_array(volume, chunks=(2, 3, 5)), *chunked)
    ref.assert_same(from_dask.compute(), direct)


def test_threaded_scheduler_without_a_cluster():
    volume, coords = make_case(4, "float64", 5, (50, 11))
    direct = qz.interp3(volume, *coords)
    lazy = qzd.interp3(volume, *(da.from_array(q, chunks=(7, 4)) for q in coords))
    with dask.config.set(scheduler="threads"):
        ref.assert_same(lazy.compute(), direct)


def test_arguments_are_checked_when_the_graph_is_built():
    volume = np.zeros((2, 3, 4), np.float32)
    q = da.ones((10, 10), chunks=5, dtype=np.float64)
    with pytest.raises(TypeError, match=r"^xq must have dtype float32"):
        qzd.interp3(volume, q, q, q)
    with pytest.raises(ValueError, match=r"^zq has shape \(10, 5\) but xq has shape \(10, 10\)"):
        qzd.interp3(volume.astype(np.float64), q, q, q[:, :5])
    with pytest.raises(ValueError, match=r"^method must be"):
        qzd.interp3(volume.astype(np.float64), q, q, q, method="cubic")
    with pytest.raises(TypeError, match=r"^volume must be a numpy\.ndarray or a dask array"):
        qzd.interp3(volume.tolist(), q, q, q)
