#!/usr/bin/python3
"""The benchmark yardsticks, callable from Python (ctypes, numpy).

    import peers
    peers.load("build-bench")   # or p = peers.Peers("build-bench"), p.plain_caller(...)
    run = peers.plain_caller("avx512", "bilinear", "float32", V, X, Y, Z, 0.0, out)
    run()          # one call of the plain Halide pipeline; returns its status
    run = peers.loads_caller("bilinear", "float32", V, X, Y, Z, out)
    run()          # one pass of the loads-only bound

Targets: "sse41", "avx2", "avx512" (cpu_runs(target) says whether this CPU
can; runnable_targets() lists those it can);
methods: "nearest", "bilinear" (trilinear, named as the library's entries).

Volumes are C-contiguous numpy arrays indexed [z, y, x] (x fastest);
coordinates are 2-D [rows, cols] arrays, 1-based, of the coordinate type
(float32, float64 for float64 volumes). Everything a call needs (descriptors,
the loads bound's offsets) is prepared before the callable is returned, so
timing the callable times the call alone. The arrays must stay alive, and
unchanged in shape, while the callable is used.

The libraries come from a build directory (`cmake --build BUILD --target
qz_bench_all`): libqzhalideRuntime.so first, then bench/libqzbench_plain.so
and bench/libqzbench_loads.so, all with RTLD_GLOBAL, so that they and the
library share one Halide runtime and its thread pool (thread count:
HL_NUM_THREADS, read when the pool starts).

`/usr/bin/python3 bench/peers.py --build build-bench` checks every plain
pipeline against the library and the loads bound against the samples the
method reads.
"""

import argparse
import ctypes
import sys
import weakref
from pathlib import Path

import numpy as np

# type name -> (sample dtype, coordinate dtype, halide type code, bits)
TYPES = {
    "float32": (np.float32, np.float32, 2, 32),
    "float64": (np.float64, np.float64, 2, 64),
    "int8": (np.int8, np.float32, 0, 8),
    "uint8": (np.uint8, np.float32, 1, 8),
    "int16": (np.int16, np.float32, 0, 16),
    "uint16": (np.uint16, np.float32, 1, 16),
    "int32": (np.int32, np.float32, 0, 32),
    "uint32": (np.uint32, np.float32, 1, 32),
}
TARGETS = ("sse41", "avx2", "avx512")
METHODS = ("nearest", "bilinear")
LOADS_METHOD = {"nearest": 0, "bilinear": 1}  # LOADS_NEAREST, LOADS_TRILINEAR


# The halide_buffer_t descriptor (compare.py and suite.py use it too).
class HalideDimension(ctypes.Structure):
    _fields_ = [("min", ctypes.c_int32), ("extent", ctypes.c_int32),
                ("stride", ctypes.c_int32), ("flags", ctypes.c_uint32)]


class HalideType(ctypes.Structure):
    _fields_ = [("code", ctypes.c_uint8), ("bits", ctypes.c_uint8), ("lanes", ctypes.c_uint16)]


class HalideBuffer(ctypes.Structure):
    _fields_ = [("device", ctypes.c_uint64), ("device_interface", ctypes.c_void_p),
                ("host", ctypes.c_void_p), ("flags", ctypes.c_uint64), ("type", HalideType),
                ("dimensions", ctypes.c_int32), ("dim", ctypes.POINTER(HalideDimension)),
                ("padding", ctypes.c_void_p)]


def halide_buffer(array, code, bits):
    """A descriptor over a C-contiguous numpy array; dim 0 is the last numpy axis."""
    assert array.flags.c_contiguous
    dims = (HalideDimension * array.ndim)()
    stride = 1
    for d, extent in enumerate(reversed(array.shape)):
        dims[d] = HalideDimension(0, extent, stride, 0)
        stride *= extent
    buf = HalideBuffer()
    buf.host = array.ctypes.data
    buf.type = HalideType(code, bits, 1)
    buf.dimensions = array.ndim
    buf.dim = dims
    buf._keep = (array, dims)  # keep the memory alive with the descriptor
    return buf


ENTRY_ARGS = [ctypes.POINTER(HalideBuffer)] * 4 + [ctypes.c_double, ctypes.POINTER(HalideBuffer)]


def _load(path):
    if not path.exists():
        sys.exit(f"peers.py: {path} is missing; build it first: "
                 f"cmake --build {path.parent.parent} --target qz_bench_all")
    return ctypes.CDLL(str(path), mode=ctypes.RTLD_GLOBAL)


class Peers:
    """The plain Halide pipelines and the loads-only bound of one build."""

    def __init__(self, build):
        build = Path(build)
        self.runtime = _load(build / "libqzhalideRuntime.so")
        self.plain = _load(build / "bench" / "libqzbench_plain.so")
        self.loads = _load(build / "bench" / "libqzbench_loads.so")
        self.loads.loads_prepare.argtypes = [ctypes.c_int] * 3 + [ctypes.POINTER(HalideBuffer)] * 4
        self.loads.loads_prepare.restype = ctypes.c_void_p
        self.loads.loads_run.argtypes = [ctypes.c_void_p, ctypes.POINTER(HalideBuffer)]
        self.loads.loads_run.restype = ctypes.c_int
        self.loads.loads_free.argtypes = [ctypes.c_void_p]
        self.loads.loads_free.restype = None

    def plain_entry(self, target, method, type_name):
        f = getattr(self.plain, f"plain_{target}_{method}_{type_name}")
        f.argtypes = ENTRY_ARGS
        f.restype = ctypes.c_int
        return f

    def plain_caller(self, target, method, type_name, V, X, Y, Z, fill, out):
        """One call of plain_<target>_<method>_<type_name>, writing `out`."""
        f = self.plain_entry(target, method, type_name)
        _, ct, code, bits = TYPES[type_name]
        cbits = np.dtype(ct).itemsize * 8
        bufs = [halide_buffer(V, code, bits)] + [halide_buffer(a, 2, cbits) for a in (X, Y, Z, out)]
        args = [ctypes.byref(b) for b in bufs[:4]] + [ctypes.c_double(fill), ctypes.byref(bufs[4])]
        status = f(*args)  # a first call: Halide's argument checks speak now, untimed
        if status != 0:
            raise RuntimeError(f"plain_{target}_{method}_{type_name} returned {status}")

        def call():
            return f(*args)
        call.buffers = bufs
        return call

    def loads_caller(self, method, type_name, V, X, Y, Z, out):
        """One pass of the loads-only bound over the samples `method` reads.

        `out` receives one word per point of the coordinate type's size (any
        dtype of that size: the word is raw sample bits).
        """
        _, ct, code, bits = TYPES[type_name]
        cbits = np.dtype(ct).itemsize * 8
        if out.dtype.itemsize * 8 != cbits:
            raise ValueError(f"loads output must have {cbits}-bit elements, not {out.dtype}")
        bufs = [halide_buffer(V, code, bits)] + [halide_buffer(a, 2, cbits) for a in (X, Y, Z)]
        prepared = self.loads.loads_prepare(LOADS_METHOD[method], code, bits,
                                            *[ctypes.byref(b) for b in bufs])
        if not prepared:
            raise RuntimeError(f"loads_prepare refused {method} {type_name} {V.shape}")
        out_buf = halide_buffer(out, 1, cbits)
        run, out_ref = self.loads.loads_run, ctypes.byref(out_buf)

        def call():
            return run(prepared, out_ref)
        call.buffers = (bufs, out_buf)
        weakref.finalize(call, self.loads.loads_free, prepared)
        return call


_loaded = None


def load(build):
    """Loads the libraries of `build` for the module-level callers below."""
    global _loaded
    _loaded = Peers(build)
    return _loaded


def _peers():
    if _loaded is None:
        raise RuntimeError("peers.load(build_dir) first")
    return _loaded


def plain_caller(target, method, type_name, V, X, Y, Z, fill, out):
    return _peers().plain_caller(target, method, type_name, V, X, Y, Z, fill, out)


def loads_caller(method, type_name, V, X, Y, Z, out):
    return _peers().loads_caller(method, type_name, V, X, Y, Z, out)


# --------------------------------------------------------------------------
# Self-check


def bind_library(path):
    lib = ctypes.CDLL(str(path), mode=ctypes.RTLD_GLOBAL)
    for method in METHODS:
        for t in TYPES:
            f = getattr(lib, f"interp3_{method}_{t}")
            f.argtypes = ENTRY_ARGS
            f.restype = ctypes.c_int
    return lib


# The CPU features each plain target's code uses.
TARGET_FLAGS = {
    "sse41": {"sse4_1"},
    "avx2": {"sse4_1", "avx", "f16c", "fma", "avx2"},
    "avx512": {"sse4_1", "avx", "f16c", "fma", "avx2", "avx512f", "avx512bw", "avx512dq",
               "avx512vl", "avx512cd"},
}


def cpu_flags():
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("flags"):
                return set(line.split(":", 1)[1].split())
    return set()


def cpu_runs(target):
    """Whether this CPU runs the plain pipelines of `target` (they would
    fault with an illegal instruction otherwise)."""
    return TARGET_FLAGS[target] <= cpu_flags()


def runnable_targets():
    return [t for t in TARGETS if cpu_runs(t)]


def make_inputs(type_name, shape, rows, cols, seed):
    """A volume of shape [nz, ny, nx] and points mostly inside it, some
    outside, some on grid points and on .5 ties."""
    dt, ct, _, _ = TYPES[type_name]
    rng = np.random.default_rng(seed)
    if np.issubdtype(dt, np.floating):
        V = rng.standard_normal(shape).astype(dt)
    else:
        info = np.iinfo(dt)
        V = rng.integers(info.min, info.max, size=shape, dtype=dt, endpoint=True)
    coords = []
    for n in reversed(shape):  # x, y, z
        q = rng.uniform(0.5, n + 0.5, size=(rows, cols))
        q[:, ::7] = np.floor(q[:, ::7])                 # grid points
        q[:, 3::11] = np.floor(q[:, 3::11]) + 0.5       # ties
        coords.append(np.ascontiguousarray(q.astype(ct)))
    return V, coords


def inside(coords, shape):
    mask = np.ones(coords[0].shape, bool)
    for q, n in zip(coords, reversed(shape)):
        d = q - q.dtype.type(1)
        mask &= (q >= 1) & (d <= q.dtype.type(n - 1))
    return mask


def clamped(index, n):
    return np.clip(index.astype(np.int64), 0, n - 1)


def expected_loads(V, coords, method):
    """What the loads bound stores: the XOR of the raw bits of the samples
    the method reads. Nearest: the one sample. Trilinear: the x pair at the
    lower x corner (one back at the row's end) at each of the lower and
    upper y and z corners, a pair read twice where two corners coincide."""
    bits = V.view(np.dtype(f"u{V.dtype.itemsize}"))
    nx, ny, nz = reversed(V.shape)
    d = [q - q.dtype.type(1) for q in coords]
    if method == "nearest":
        return bits[clamped(np.rint(d[2]), nz), clamped(np.rint(d[1]), ny),
                    clamped(np.rint(d[0]), nx)]
    x = clamped(np.floor(d[0]), nx)
    x = np.where(x == nx - 1, x - 1, x)
    ys = [clamped(np.floor(d[1]), ny), clamped(np.ceil(d[1]), ny)]
    zs = [clamped(np.floor(d[2]), nz), clamped(np.ceil(d[2]), nz)]
    acc = np.zeros(coords[0].shape, bits.dtype)
    for z in zs:
        for y in ys:
            acc ^= bits[z, y, x] ^ bits[z, y, x + 1]
    return acc


def check_type(peers, lib, targets, type_name, shape, rows, cols, seed):
    """Every plain pipeline and the loads bound of one sample type against
    the library on one volume; returns (pipelines checked, failures)."""
    dt, ct, code, bits = TYPES[type_name]
    cbits = np.dtype(ct).itemsize * 8
    fill = -7.25
    V, coords = make_inputs(type_name, shape, rows, cols, seed)
    mask = inside(coords, shape)
    tol = 8 * float(np.finfo(ct).eps) * float(np.max(np.abs(V.astype(np.float64))))
    where = f"{type_name} {shape[2]}x{shape[1]}x{shape[0]} at {rows}x{cols}"
    failures, checked = [], 0
    for method in METHODS:
        ours = np.zeros((rows, cols), ct)
        bufs = [halide_buffer(V, code, bits)] + [halide_buffer(a, 2, cbits) for a in (*coords, ours)]
        getattr(lib, f"interp3_{method}_{type_name}")(
            *[ctypes.byref(b) for b in bufs[:4]], fill, ctypes.byref(bufs[4]))
        for target in targets:
            plain = np.full((rows, cols), np.nan, ct)
            peers.plain_caller(target, method, type_name, V, *coords, fill, plain)()
            name = f"plain_{target}_{method}_{type_name} ({where})"
            checked += 1
            if not np.array_equal(plain[~mask], np.full((~mask).sum(), fill, ct)):
                failures.append(f"{name}: points outside are not the fill value")
            if method == "nearest":
                if not np.array_equal(plain[mask], ours[mask]):
                    failures.append(f"{name}: differs from ours on "
                                    f"{int((plain[mask] != ours[mask]).sum())} points inside")
            else:
                diff = float(np.max(np.abs(plain[mask].astype(np.float64) - ours[mask])))
                if not diff <= tol:
                    failures.append(f"{name}: differs from ours by {diff:.3g} (tolerance {tol:.3g})")
        words = np.zeros((rows, cols), np.dtype(f"u{cbits // 8}"))
        peers.loads_caller(method, type_name, V, *coords, words)()
        checked += 1
        if not np.array_equal(words, expected_loads(V, coords, method)):
            failures.append(f"loads {method} ({where}): not the XOR of the samples read")
        if method == "nearest":  # the raw bits are the very sample ours returns inside
            sample = words.astype(np.dtype(f"u{V.dtype.itemsize}")).view(dt).astype(ct)
            if not np.array_equal(sample[mask], ours[mask]):
                failures.append(f"loads nearest ({where}): not the sample ours reads")
    return checked, failures


def self_check(build):
    build = Path(build)
    peers = Peers(build)
    lib = bind_library(build / "libqzinterp3d_halide.so")
    targets = runnable_targets()
    # (shape [nz, ny, nx], rows, cols): nx above every block width, so ours
    # runs its parallel path, at widths that are no multiple of a vector
    # width; then an output narrower than any vector, with nx at most every
    # block width, so ours runs its serial path (its parallel path would
    # write whole blocks, wider than this output).
    cases = [((9, 14, 37), 23, 61), ((5, 6, 2), 4, 3)]
    failures, checked = [], 0
    for shape, rows, cols in cases:
        for ti, type_name in enumerate(TYPES):
            c, f = check_type(peers, lib, targets, type_name, shape, rows, cols, seed=100 + ti)
            checked += c
            failures += f
    print(f"peers.py: {checked} checks of plain pipelines ({', '.join(targets)}) and the loads "
          f"bound against ours, all 16 variants, on {len(cases)} volumes")
    for f in failures:
        print("FAIL", f)
    return not failures


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--build", default="build-bench", help="build directory (default: build-bench)")
    args = ap.parse_args()
    ok = self_check(args.build)
    print("peers.py: ok" if ok else "peers.py: FAILED")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
