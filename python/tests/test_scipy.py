"""interp3 next to scipy.ndimage.map_coordinates(order=0 or 1,
mode="constant", cval=fill, prefilter=False), which takes 0-based
coordinates in the array's axis order: [zq - 1, yq - 1, xq - 1].

Where the two agree exactly the tests compare exact values; the one
comparison with a tolerance is the trilinear value on general data, where
the two libraries legitimately round differently (see that test). The
remaining tests pin down the differences that README.md lists."""

import numpy as np
import pytest
from scipy import ndimage

import qzinterp3d as qz

FILL = -123.0


def scipy_interp3(volume, xq, yq, zq, order, fill=FILL, **kwargs):
    return ndimage.map_coordinates(
        volume, [zq - 1, yq - 1, xq - 1], order=order, mode="constant", cval=fill,
        prefilter=False, **kwargs
    )


def points(rng, shape, size, avoid_ties):
    """Coordinates per axis: inside, on the samples and edges, just and far
    outside; none exactly half-way between samples if avoid_ties."""
    nz, ny, nx = shape
    out = []
    for n in (nx, ny, nz):
        q = rng.uniform(1, n, size)
        if avoid_ties:
            frac = q - np.floor(q)
            q = np.where(np.abs(frac - 0.5) < 1e-3, q + 0.01, q)
        pick = rng.integers(0, 8, size)
        specials = np.array([1.0, n, n + 2.0**-30, 1 - 2.0**-30, n + 0.75, 0.25, -5.0, n + 7.0])
        q = np.where(pick == 0, rng.choice(specials, size), q)
        q = np.where(pick == 1, rng.integers(1, n + 1, size).astype(float), q)
        out.append(q)
    return out


@pytest.mark.parametrize("nx", [2, 9])  # one element at a time / blocks of rows
def test_nearest_agrees_without_ties(nx):
    rng = np.random.default_rng(nx)
    volume = rng.normal(size=(5, 6, nx))
    xq, yq, zq = points(rng, volume.shape, 5000, avoid_ties=True)
    ours = qz.interp3(volume, xq, yq, zq, "nearest", FILL)
    theirs = scipy_interp3(volume, xq, yq, zq, order=0)
    np.testing.assert_array_equal(ours, theirs)


@pytest.mark.parametrize("nx", [2, 9])
def test_linear_agrees_exactly_where_no_rounding_happens(nx):
    """Small integer samples and coordinates in eighths: every product and
    sum is exact in float64 in both libraries, so the values are equal."""
    rng = np.random.default_rng(100 + nx)
    volume = rng.integers(-500, 500, (5, 6, nx)).astype(np.float64)
    xq, yq, zq = (np.round(q * 8) / 8 for q in points(rng, volume.shape, 5000, avoid_ties=False))
    ours = qz.interp3(volume, xq, yq, zq, "linear", FILL)
    theirs = scipy_interp3(volume, xq, yq, zq, order=1)
    np.testing.assert_array_equal(ours, theirs)


@pytest.mark.parametrize("nx", [2, 9])
def test_linear_agrees_to_rounding_on_general_data(nx):
    """General float64 data: the same trilinear value, rounded differently.
    Ours blends along x, then y, then z, with fused multiply-adds (one
    rounding per blend); scipy sums the eight samples each times the product
    of its three weights. Both are within a few ulps of the exact value, not
    bit-identical, so this comparison (and only this one) has a tolerance."""
    rng = np.random.default_rng(200 + nx)
    volume = rng.normal(size=(5, 6, nx))
    xq, yq, zq = points(rng, volume.shape, 5000, avoid_ties=False)
    ours = qz.interp3(volume, xq, yq, zq, "linear", FILL)
    theirs = scipy_interp3(volume, xq, yq, zq, order=1)
    np.testing.assert_array_equal(ours == FILL, theirs == FILL)  # same points outside
    np.testing.assert_allclose(ours, theirs, rtol=0, atol=1e-14 * np.abs(volume).max())


def test_linear_float32_agrees_to_float32_rounding():
    """A float32 volume: ours computes in float32, scipy in float64 and
    rounds once to the float32 output, so the two legitimately differ by a
    few float32 ulps; hence the tolerance."""
    rng = np.random.default_rng(300)
    volume = rng.normal(size=(5, 6, 9)).astype(np.float32)
    xq, yq, zq = (q.astype(np.float32) for q in points(rng, volume.shape, 5000, avoid_ties=False))
    ours = qz.interp3(volume, xq, yq, zq, "linear", FILL)
    theirs = scipy_interp3(volume, xq.astype(float), yq.astype(float), zq.astype(float), order=1,
                           output=np.float32)
    np.testing.assert_array_equal(ours == FILL, theirs == FILL)
    np.testing.assert_allclose(ours, theirs, rtol=0, atol=1e-6 * np.abs(volume).max())
    assert np.any(ours != theirs)  # they do round differently


def test_ties_differ_ours_round_half_to_even():
    volume = np.arange(6.0).reshape(1, 1, 6) * 10
    xq = np.array([1.5, 2.5, 3.5, 4.5, 5.5])  # 0-based 0.5, 1.5, ...
    one = np.ones_like(xq)
    np.testing.assert_array_equal(qz.interp3(volume, xq, one, one, "nearest"), [0, 20, 20, 40, 40])
    np.testing.assert_array_equal(scipy_interp3(volume, xq, one, one, order=0), [10, 20, 30, 40, 50])


def test_nan_coordinates_differ_in_the_pooled_path():
    nan = np.array([np.nan])
    two = np.array([2.0])
    serial = np.arange(8.0).reshape(2, 2, 2)  # nx = 2: one element at a time
    pooled = np.arange(12.0).reshape(2, 2, 3)  # nx = 3: blocks of rows
    for volume in (serial, pooled):
        for order in (0, 1):
            assert scipy_interp3(volume, nan, two, two, order)[0] == FILL
    assert qz.interp3(serial, nan, two, two, "nearest", FILL)[0] == FILL
    assert qz.interp3(serial, nan, two, two, "linear", FILL)[0] == FILL
    assert qz.interp3(pooled, nan, two, two, "nearest", FILL)[0] == pooled[1, 1, 0]
    assert np.isnan(qz.interp3(pooled, nan, two, two, "linear", FILL)[0])


@pytest.mark.parametrize("order, method", [(0, "nearest"), (1, "linear")])
def test_edges_agree(order, method):
    """q = 1 and q = n are inside, anything beyond is outside, in both."""
    volume = np.arange(2 * 3 * 4, dtype=np.float64).reshape(2, 3, 4) + 1
    xq = np.array([1.0, 4.0, 4 + 2.0**-50, 1 - 2.0**-52, 4.4, 0.6, 4.0, 1.0])
    yq = np.array([1.0, 3.0, 2.0, 2.0, 2.0, 2.0, 3 + 2.0**-50, 1.0])
    zq = np.array([1.0, 2.0, 1.5, 1.5, 1.5, 1.5, 1.0, 1 - 2.0**-52])
    ours = qz.interp3(volume, xq, yq, zq, method, FILL)
    np.testing.assert_array_equal(ours, scipy_interp3(volume, xq, yq, zq, order))
    np.testing.assert_array_equal(ours[:2], [volume[0, 0, 0], volume[1, 2, 3]])
    assert np.all(ours[2:] == FILL)


def test_grid_constant_mode_would_differ_just_outside():
    """mode="grid-constant" blends towards cval within one sample outside
    the grid; interp3, like mode="constant", gives the fill value there."""
    volume = np.full((1, 1, 3), 10.0)
    xq = np.array([0.5, 3.5])
    one = np.ones_like(xq)
    assert np.all(qz.interp3(volume, xq, one, one, "linear", 0.0) == 0)
    grid_constant = ndimage.map_coordinates(volume, [one - 1, one - 1, xq - 1], order=1,
                                            mode="grid-constant", cval=0.0, prefilter=False)
    np.testing.assert_array_equal(grid_constant, [5.0, 5.0])


def test_integer_volumes_differ_ours_return_float32_and_never_cast_the_fill():
    volume = np.array([[[0, 255, 10]]], dtype=np.uint8)
    xq = np.array([1.5, 2.2, 9.0], np.float32)
    one = np.ones_like(xq)
    ours = qz.interp3(volume, xq, one, one, "linear", -1.0)
    assert ours.dtype == np.float32
    assert ours[0] == 127.5 and ours[2] == -1.0
    theirs = scipy_interp3(volume, xq, one, one, order=1, fill=-1.0)
    assert theirs.dtype == np.uint8  # rounded into the volume's dtype, cval cast too
    assert theirs[0] == 128 and theirs[2] != -1
