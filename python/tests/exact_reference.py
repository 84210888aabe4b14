"""A direct, slow, exact Python model of what interp3 returns, element by
element, for the tests to compare bit for bit.

Every floating-point step is carried out in the coordinate type (float32, or
float64 for a float64 volume): numpy scalar arithmetic for plain operations
(one rounding each) and exact rational arithmetic for fused multiply-adds
(one rounding of the exact a * b + c).

Which rounding sequence an element gets depends on where it is computed:

* grids no wider than one block (nx <= W, W = 16 // itemsize) run one
  element at a time ("serial");
* wider grids run each row in blocks of W columns ("full"), and a row whose
  width is not a multiple of W ends with one more block of W columns shifted
  inwards to end at the row's last column ("last"), whose values are the ones
  that remain where it overlaps the block before.

The trilinear blends differ between these (in the last bit), and so does the
treatment of NaN coordinates (see README.md, "NaN coordinates").
"""

from fractions import Fraction

import numpy as np

# precision (bits), minimum normal exponent, maximum exponent
_FORMATS = {np.float32: (24, -126, 127), np.float64: (53, -1022, 1023)}


def round_to(x, F):
    """The Fraction x rounded to the nearest F, ties to even."""
    if x == 0:
        return F(0.0)
    p, emin, emax = _FORMATS[F]
    sign = -1 if x < 0 else 1
    a = abs(x)
    e = a.numerator.bit_length() - a.denominator.bit_length()
    if a < Fraction(2) ** e:
        e -= 1
    e = max(e, emin)
    quantum = Fraction(2) ** (e - p + 1)
    m = round(a / quantum)  # Fraction rounding: half to even
    value = m * quantum
    if value >= Fraction(2) ** (emax + 1):
        return F(sign * np.inf)
    return F(sign * float(value))


def fma(a, b, c, F):
    """a * b + c with one rounding to F."""
    if not (np.isfinite(a) and np.isfinite(b) and np.isfinite(c)):
        with np.errstate(all="ignore"):
            return F(float(a) * float(b) + float(c))
    exact = Fraction(float(a)) * Fraction(float(b)) + Fraction(float(c))
    if exact == 0:
        # IEEE: an exact zero sum is +0, unless both addends are -0.
        product_negative_zero = (a == 0 or b == 0) and (np.signbit(a) != np.signbit(b))
        return F(-0.0) if product_negative_zero and c == 0 and np.signbit(c) else F(0.0)
    return round_to(exact, F)


def coord_type(volume):
    return np.float64 if volume.dtype == np.float64 else np.float32


def block_width(volume):
    return 16 // volume.dtype.itemsize


def sample(volume, F, k, j, i):
    """The sample volume[k, j, i] as a value of the coordinate type."""
    s = volume[k, j, i]
    if volume.dtype.kind in "iu":
        return round_to(Fraction(int(s)), F)  # one rounding, integer to float32
    return F(s)


def _index(v):
    """An integral float as a 32-bit index: NaN gives 0, saturating."""
    if np.isnan(v):
        return 0
    return int(min(max(float(v), -(2.0**31)), 2.0**31 - 1))


def _clamp(i, n):
    return max(min(i, n - 1), 0)


def _outside(test, qs, ds, bounds):
    if test == "block":
        return any(q < 1 or d > b for q, d, b in zip(qs, ds, bounds))
    return not all(q >= 1 and d <= b for q, d, b in zip(qs, ds, bounds))


LF, UF, SP = "lower-first", "upper-first", "split"
#            A00 A10 A01 A11  B0  B1
_PLANS = {
    "float32 full": (LF, LF, LF, LF, LF, LF),
    "float32 last": (LF, LF, SP, SP, LF, SP),
    "float32 serial": (UF, LF, LF, LF, LF, LF),
    "float64 blocks": (LF, LF, LF, LF, LF, LF),
    "float64 serial": (UF, UF, UF, LF, UF, LF),
    "16-bit last": (SP, SP, SP, SP, SP, SP),
    "8-bit last, first four lanes": (LF, SP, SP, SP, UF, SP),
    "8-bit last, other lanes": (SP, SP, SP, SP, SP, SP),
}


def blend_plan(volume, kind, lane):
    if volume.dtype == np.float64:
        return _PLANS["float64 serial" if kind == "serial" else "float64 blocks"]
    if kind != "last":
        return _PLANS["float32 " + kind]
    size = volume.dtype.itemsize
    if size == 1:
        return _PLANS["8-bit last, first four lanes" if lane < 4 else "8-bit last, other lanes"]
    if size == 2:
        return _PLANS["16-bit last"]
    return _PLANS["float32 last"]


def _blend(how, a, b, wl, wu, F):
    if how == LF:
        return fma(b, wu, a * wl, F)
    if how == UF:
        return fma(a, wl, b * wu, F)
    return a * wl + b * wu


def nearest_value(volume, q, test, fill):
    F = coord_type(volume)
    nz, ny, nx = volume.shape
    ds = [qi - F(1) for qi in q]
    ix, iy, iz = (_clamp(_index(np.rint(d)), n) for d, n in zip(ds, (nx, ny, nz)))
    value = sample(volume, F, iz, iy, ix)
    bounds = [F(n - 1) for n in (nx, ny, nz)]
    return fill if _outside(test, q, ds, bounds) else value


def trilinear_value(volume, q, test, plan, fill):
    F = coord_type(volume)
    nz, ny, nx = volume.shape
    axes = []
    for qi, n in zip(q, (nx, ny, nz)):
        p = qi - F(1)
        i0 = _clamp(_index(np.floor(p)), n)
        i1 = _clamp(_index(np.ceil(p)), n)
        t = qi - F(i0)
        axes.append((i0, i1, t, F(2) - t, t - F(1)))
    (x0, x1, _, wxl, wxu), (y0, y1, _, wyl, wyu), (z0, z1, tz, wzl, _) = axes
    v = {
        (a, b, c): sample(volume, F, (z0, z1)[c], (y0, y1)[b], (x0, x1)[a])
        for a in (0, 1)
        for b in (0, 1)
        for c in (0, 1)
    }
    a00 = _blend(plan[0], v[0, 0, 0], v[1, 0, 0], wxl, wxu, F)
    a10 = _blend(plan[1], v[0, 1, 0], v[1, 1, 0], wxl, wxu, F)
    a01 = _blend(plan[2], v[0, 0, 1], v[1, 0, 1], wxl, wxu, F)
    a11 = _blend(plan[3], v[0, 1, 1], v[1, 1, 1], wxl, wxu, F)
    b0 = _blend(plan[4], a00, a10, wyl, wyu, F)
    b1 = _blend(plan[5], a01, a11, wyl, wyu, F)
    u = fma(b1, tz, -b1, F)
    r = fma(b0, wzl, u, F)
    ds = [qi - F(1) for qi in q]
    bounds = [F(n - 1) for n in (nx, ny, nz)]
    return fill if _outside(test, q, ds, bounds) else r


def column_rules(volume, method, width):
    """Per column of a row of this width: (out-of-range test, block kind, lane)."""
    nx = volume.shape[2]
    W = block_width(volume)
    rules = []
    for col in range(width):
        if nx <= W:  # one element at a time in the calling thread
            if method == "nearest" and volume.dtype != np.float64:
                # groups of four from the row's start, then the rest singly
                test = "block" if col < 4 * (width // 4) else "element"
            else:
                test = "element"
            rules.append((test, "serial", 0))
        elif width % W and col >= width - W:
            rules.append(("block", "last", col - (width - W)))
        else:
            rules.append(("block", "full", col % W))
    return rules


def interp3_rows(volume, xq, yq, zq, method, fill_value):
    """The model of interp3 on 2-D (rows, width) coordinate arrays."""
    F = coord_type(volume)
    fill = F(fill_value)
    rows, width = xq.shape
    out = np.empty((rows, width), dtype=F)
    rules = column_rules(volume, method, width)
    with np.errstate(all="ignore"):
        for r in range(rows):
            for c, (test, kind, lane) in enumerate(rules):
                q = (F(xq[r, c]), F(yq[r, c]), F(zq[r, c]))
                if method == "nearest":
                    out[r, c] = nearest_value(volume, q, test, fill)
                else:
                    out[r, c] = trilinear_value(volume, q, test, blend_plan(volume, kind, lane), fill)
    return out


def interp3(volume, xq, yq, zq, method, fill_value, row_length):
    """The model of interp3 for 1-D or 2-D coordinates; a 1-D query of n
    points is rows of row_length points and one row of the rest."""
    if xq.ndim == 2:
        return interp3_rows(volume, xq, yq, zq, method, fill_value)
    n = xq.shape[0]
    pieces = []
    for start in range(0, n, row_length):
        stop = min(start + row_length, n)
        row = [a[None, start:stop] for a in (xq, yq, zq)]
        pieces.append(interp3_rows(volume, *row, method, fill_value)[0])
    return np.concatenate(pieces) if pieces else np.empty(0, dtype=coord_type(volume))


def assert_same(actual, expected):
    """Equal bits everywhere, NaN payloads aside: a NaN matches any NaN."""
    assert actual.dtype == expected.dtype, (actual.dtype, expected.dtype)
    assert actual.shape == expected.shape, (actual.shape, expected.shape)
    nan_a, nan_e = np.isnan(actual), np.isnan(expected)
    mismatch_nan = np.argwhere(nan_a != nan_e)
    assert mismatch_nan.size == 0, f"NaN where not expected (or missing) at {mismatch_nan[:5].tolist()}"
    ints = {4: np.uint32, 8: np.uint64}[actual.dtype.itemsize]
    a, e = actual.view(ints)[~nan_a], expected.view(ints)[~nan_e]
    bad = np.flatnonzero(a != e)
    assert bad.size == 0, (
        f"{bad.size} elements differ, first at flat index {bad[0]}: "
        f"{actual[~nan_a][bad[0]]!r} != {expected[~nan_e][bad[0]]!r}"
    )
