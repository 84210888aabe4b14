#!/usr/bin/python3
"""Interleaved speed comparison of libqzinterp3d_halide with its peers.

Runs the same workloads through
  * ours:  the built libqzinterp3d_halide.so, called through ctypes with
           halide_buffer_t descriptors (one column per kernel set asked for);
  * torch: torch.nn.functional.grid_sample (align_corners=True, padding
           'zeros', input (1, 1, nz, ny, nx), grid (1, 1, H, W, 3));
  * scipy: scipy.ndimage.map_coordinates (order 0 / 1, mode='constant',
           prefilter=False; single-threaded whatever the setting);
  * stream: the streaming bound Vq = Xq + Yq + Zq on the same points, on the
           same Halide thread pool as ours (libqzbench_stream.so);
interleaved: every repetition runs each implementation once, in turn (the
order rotating from one repetition to the next), and each implementation's
speed is the median over repetitions. Before timing, each workload's results
are checked against a float64 reference (map_coordinates computing in double),
on strictly interior points (and, for nearest, away from .5 ties); the run
fails loudly when any implementation disagrees beyond rounding.

Inputs are prepared once, untimed, in each peer's natural form: 0-based
float64 coordinates stacked [z, y, x] for scipy, a normalized grid for torch,
and for torch a float32 copy of integer volumes (grid_sample takes floating
point input only). Ours and the stream take the 1-based coordinates as they
are. Run with Debian's interpreter:

    /usr/bin/python3 bench/compare.py [--kernels all] [--quick]

With --api it compares instead the scipy-style calls of the Python package,
qzinterp3d.map_coordinates and affine_transform, with scipy.ndimage's and
with torch's affine_grid + grid_sample, speed and peak memory, each call in
a process of its own (see bench/README.md):

    /usr/bin/python3 bench/compare.py --api --build build-bench [--quick]
"""

import argparse
import ctypes
import datetime
import hashlib
import json
import math
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

REPO = Path(__file__).resolve().parent.parent
COLS = ROWS = 1024
POINTS = COLS * ROWS
FILL = 0.0  # grid_sample pads with zeros, so every implementation fills with 0

# type name -> (sample dtype, coordinate dtype, halide type code, bits)
from peers import TYPES  # noqa: E402


class Case:
    def __init__(self, workload, n, type_name, method):
        self.workload, self.n, self.type, self.method = workload, n, type_name, method

    @property
    def name(self):
        return f"{self.workload} {self.n}^3 {self.type} {self.method}"


def default_cases(quick):
    if quick:
        return [Case("oblique", 64, "float32", "bilinear"), Case("oblique", 64, "float32", "nearest"),
                Case("random", 256, "float32", "bilinear"), Case("oblique", 256, "uint8", "bilinear")]
    cases = [Case("oblique", 64, t, m) for t in TYPES for m in ("bilinear", "nearest")]
    cases += [
        Case("oblique", 256, "uint8", "bilinear"),
        Case("oblique", 256, "uint8", "nearest"),
        Case("oblique", 256, "float32", "bilinear"),
        Case("upsample", 128, "float32", "bilinear"),
        Case("upsample", 128, "float32", "nearest"),
        Case("random", 256, "float32", "bilinear"),
        Case("random", 256, "float32", "nearest"),
        Case("random", 256, "float64", "bilinear"),
        Case("oblique", 512, "float32", "bilinear"),
        Case("random", 512, "float32", "bilinear"),
        Case("random", 512, "float32", "nearest"),
    ]
    return cases


# --------------------------------------------------------------------------
# Workloads (the same points as bench/workloads.h)


def splitmix64_uniform(seed, count):
    """count uniforms in [0, 1) from splitmix64 draws 1..count of seed."""
    with np.errstate(over="ignore"):
        k = np.arange(1, count + 1, dtype=np.uint64)
        z = np.uint64(seed) + k * np.uint64(0x9E3779B97F4A7C15)
        z = (z ^ (z >> np.uint64(30))) * np.uint64(0xBF58476D1CE4E5B9)
        z = (z ^ (z >> np.uint64(27))) * np.uint64(0x94D049BB133111EB)
        z = z ^ (z >> np.uint64(31))
    return (z >> np.uint64(11)).astype(np.float64) * 2.0**-53


WORKLOADS = ("axis_x", "axis_y", "axis_z", "oblique", "oblique_45", "oblique_steep", "upsample",
             "deformed", "random")

# The oblique planes: the direction of their rows and a second direction in
# the plane (both normalized, the second made orthogonal, by plane()).
PLANES = {"oblique": ((1.0, 0.5, 0.25), (-0.4, 1.0, 0.6)),
          "oblique_45": ((0.7, 0.1, 0.7), (0.2, 1.0, -0.3)),
          "oblique_steep": ((0.17, 0.08, 0.98), (-0.3, 1.0, 0.1))}

# The deformed grid: extents (x, y, z) and per grid axis b the amplitude and
# cycles of its displacement term, per output axis a and grid axis b the phase.
DEFORM_GRID = (128, 128, 64)
DEFORM_AMPLITUDE = (2.0, 1.5, 1.0)
DEFORM_CYCLES = (1.0, 2.0, 1.0)
DEFORM_PHASE = ((0.0, 1.0, 2.0), (0.5, 1.5, 2.5), (1.2, 0.2, 2.2))


def dot3(a, b):
    # Summed left to right, as workloads.h does (a BLAS dot may not).
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]


def plane(n, u, v):
    """The square of side 0.7 (n - 1) centred on the plane spanned by u and
    v (Gram-Schmidt), rows along u: x, y, z as (ROWS, COLS) float64 arrays."""
    nu = math.sqrt(dot3(u, u))
    u = [e / nu for e in u]
    d = dot3(u, v)
    v = [v[k] - d * u[k] for k in range(3)]
    nv = math.sqrt(dot3(v, v))
    v = [e / nv for e in v]
    centre = (n + 1) / 2.0
    side = 0.7 * (n - 1)
    a = ((np.arange(COLS) + 0.5) / COLS - 0.5) * side
    b = ((np.arange(ROWS) + 0.5) / ROWS - 0.5) * side
    return [centre + a[None, :] * u[k] + b[:, None] * v[k] for k in range(3)]


def axis_slice(n, col_axis, row_axis):
    """A slice through the whole extent along volume axes col_axis (columns)
    and row_axis (rows), the third axis at centre + 0.3."""
    along_col = 1.0 + (n - 1) * ((np.arange(COLS) + 0.5) / COLS)
    along_row = 1.0 + (n - 1) * ((np.arange(ROWS) + 0.5) / ROWS)
    fixed = (n + 1) / 2.0 + 0.3
    shape = (ROWS, COLS)
    return [np.broadcast_to(along_col[None, :], shape) if a == col_axis else
            np.broadcast_to(along_row[:, None], shape) if a == row_axis else np.full(shape, fixed)
            for a in range(3)]


def deformed(n):
    """A regular grid around the centre moved by a smooth displacement."""
    g = DEFORM_GRID
    centre = (n + 1) / 2.0
    spacing = 0.8 * (n - 1) / g[0]
    shape = (g[2], g[1], g[0])
    xyz = []
    for a in range(3):
        terms = []
        for b in range(3):
            # math.sin is the C library's sine, as in workloads.h.
            shift = np.array([DEFORM_AMPLITUDE[b] * math.sin(
                2.0 * math.pi * DEFORM_CYCLES[b] * ((i + 0.5) / g[b]) + DEFORM_PHASE[a][b])
                for i in range(g[b])])
            if a == b:
                shift = (centre + (np.arange(g[b]) + 0.5 - g[b] // 2) * spacing) + shift
            terms.append(shift.reshape([-1 if k == 2 - b else 1 for k in range(3)]))
        q = terms[a]
        for b in range(3):
            if b != a:
                q = q + terms[b]
        xyz.append(np.broadcast_to(q, shape).reshape(ROWS, COLS))
    return xyz


def make_coords(workload, n, ct):
    """1-based query coordinates X, Y, Z as (ROWS, COLS) arrays of dtype ct,
    the points of bench/workloads.h bit for bit."""
    centre = (n + 1) / 2.0
    if workload == "axis_x":
        xyz = axis_slice(n, 0, 1)
    elif workload == "axis_y":
        xyz = axis_slice(n, 1, 2)
    elif workload == "axis_z":
        xyz = axis_slice(n, 2, 0)
    elif workload in PLANES:
        xyz = plane(n, *PLANES[workload])
    elif workload == "upsample":
        f, bx, by, bz = 4, 32, 32, 16
        ix = (np.arange(bx * f) + 0.5) / f
        iy = (np.arange(by * f) + 0.5) / f
        iz = (np.arange(bz * f) + 0.5) / f
        shape = (bz * f, by * f, bx * f)
        xyz = [np.broadcast_to((centre - bx // 2 + ix)[None, None, :], shape),
               np.broadcast_to((centre - by // 2 + iy)[None, :, None], shape),
               np.broadcast_to((centre - bz // 2 + iz)[:, None, None], shape)]
        xyz = [q.reshape(ROWS, COLS) for q in xyz]
    elif workload == "deformed":
        xyz = deformed(n)
    elif workload == "random":
        r = splitmix64_uniform(0x5EED0000 + n, 3 * POINTS).reshape(ROWS, COLS, 3)
        xyz = [1.0 + (n - 1) * r[:, :, k] for k in range(3)]
    else:
        raise ValueError(workload)
    return [np.ascontiguousarray(q.astype(ct)) for q in xyz]


def case_inputs(case_text):
    """'workload:n:type:method' -> (Case, V, X, Y, Z): the case and its volume
    and coordinates, as every case of this module builds them."""
    workload, n, type_name, method = case_text.split(":")
    n = int(n)
    V = make_volume(type_name, n)
    X, Y, Z = make_coords(workload, n, TYPES[type_name][1])
    return Case(workload, n, type_name, method), V, X, Y, Z


def make_volume(type_name, n, seed=12345):
    """Shape (nz, ny, nx), x fastest: floats in [0, 1), integers over the whole range."""
    dt = TYPES[type_name][0]
    rng = np.random.default_rng(seed + n)
    if np.issubdtype(dt, np.floating):
        return rng.random((n, n, n), dtype=dt)
    info = np.iinfo(dt)
    return rng.integers(info.min, info.max, size=(n, n, n), dtype=dt, endpoint=True)


# --------------------------------------------------------------------------
# Our library through ctypes


# The halide_buffer_t descriptor, shared with the other peers' callers.
from peers import HalideBuffer, HalideDimension, HalideType, halide_buffer  # noqa: E402,F401


def bind_entries(lib):
    for method in ("bilinear", "nearest"):
        for t in TYPES:
            f = getattr(lib, f"interp3_{method}_{t}")
            f.argtypes = [ctypes.POINTER(HalideBuffer)] * 4 + [ctypes.c_double,
                                                               ctypes.POINTER(HalideBuffer)]
            f.restype = ctypes.c_int
    return lib


class Library:
    """One loaded copy of the library with its kernel set fixed.

    The library reads QZINTERP3D_KERNEL once, at its first parallel call. Each
    kernel set gets its own copy of the .so (a separate file, hence a separate
    instance with its own choice), loaded with the variable set and locked in
    by a first call; all copies share the one Halide runtime and its pool.
    """

    def __init__(self, path, kernel, tmpdir):
        copy = Path(tmpdir) / f"libqzinterp3d_halide-{kernel}.so"
        shutil.copy2(path, copy)
        saved = os.environ.get("QZINTERP3D_KERNEL")
        if kernel == "auto":
            os.environ.pop("QZINTERP3D_KERNEL", None)
        else:
            os.environ["QZINTERP3D_KERNEL"] = kernel
        try:
            self.lib = bind_entries(ctypes.CDLL(str(copy)))
            v = np.zeros((8, 8, 8), np.float32)  # nx = 8 > 4: the parallel path
            q = np.full((4, 4), 2.0, np.float32)
            out = np.empty((4, 4), np.float32)
            bufs = [halide_buffer(a, 2, 32) for a in (v, q, q, q, out)]
            self.lib.interp3_nearest_float32(*map(ctypes.byref, bufs[:4]), 0.0, ctypes.byref(bufs[4]))
        finally:
            if saved is None:
                os.environ.pop("QZINTERP3D_KERNEL", None)
            else:
                os.environ["QZINTERP3D_KERNEL"] = saved
        self.kernel = kernel

    def caller(self, case, V, X, Y, Z):
        _, ct, code, bits = TYPES[case.type]
        out = np.empty((ROWS, COLS), ct)
        cbits = 64 if ct == np.float64 else 32
        bv = halide_buffer(V, code, bits)
        bx, by, bz, bo = (halide_buffer(a, 2, cbits) for a in (X, Y, Z, out))
        refs = [ctypes.byref(b) for b in (bv, bx, by, bz)]
        ro = ctypes.byref(bo)
        f = getattr(self.lib, f"interp3_{case.method}_{case.type}")

        def call():
            f(*refs, FILL, ro)
            return out

        call._keep = (bv, bx, by, bz, bo)
        return call


def resolve_kernel(probe, name):
    env = dict(os.environ)
    env.pop("QZINTERP3D_KERNEL", None)
    if name != "auto":
        env["QZINTERP3D_KERNEL"] = name
    return subprocess.run([str(probe)], env=env, check=True, capture_output=True,
                          text=True).stdout.strip()


# --------------------------------------------------------------------------
# Agreement check


def check_case(case, V, X, Y, Z, outputs, scipy_ndimage):
    """Max differences against a float64 reference on interior points.

    Returns (rows of results, list of failures). Tolerances:
      nearest   exact (the reference sample rounded to the output type), on
                points whose every coordinate is at least 1e-3 from a .5 tie;
      trilinear |d| <= 16 eps max|V| for implementations fed our coordinates
                (ours, scipy), where eps is the output type's epsilon; torch's
                normalized float32 grid moves a point by up to about 4 n eps
                voxels, so it is also allowed 3 * 4 n eps * (max V - min V).
    """
    _, ct, _, _ = TYPES[case.type]
    n = case.n
    order = 0 if case.method == "nearest" else 1
    q = [np.asarray(a, np.float64) for a in (X, Y, Z)]
    margin = 1e-3
    mask = np.ones(q[0].shape, bool)
    for a in q:
        mask &= (a > 1 + margin) & (a < n - margin)
        if order == 0:
            frac = (a - 1) - np.floor(a - 1)
            mask &= np.abs(frac - 0.5) > margin
    coords = np.stack([q[2][mask] - 1, q[1][mask] - 1, q[0][mask] - 1])
    ref = scipy_ndimage.map_coordinates(V, coords, output=np.float64, order=order,
                                        mode="constant", cval=FILL, prefilter=False)
    eps = float(np.finfo(ct).eps)
    vmax = float(np.max(np.abs(V)))
    vrange = float(V.max()) - float(V.min())
    results, failures = [], []
    for impl, out in outputs.items():
        got = np.asarray(out, np.float64).reshape(ROWS, COLS)[mask]
        if order == 0:
            diff = float(np.max(np.abs(got - ref.astype(ct).astype(np.float64)))) if got.size else 0.0
            tol = 0.0
        else:
            diff = float(np.max(np.abs(got - ref))) if got.size else 0.0
            tol = 16 * eps * vmax
            if impl == "torch":
                tol += 3 * 4 * n * eps * vrange
        ok = bool(diff <= tol and np.all(np.isfinite(got)))
        results.append((impl, diff, tol, ok))
        if not ok:
            failures.append(f"{case.name}: {impl} differs from the float64 reference by {diff:.3g} "
                            f"(tolerance {tol:.3g}) on {int(mask.sum())} interior points")
    return int(mask.sum()), results, failures


def verify_case(case, V, X, Y, Z, outputs, ours, scipy_ndimage, program):
    """Checks first outputs: every kernel set of ours (names `ours`, the first
    the reference) gives the same bits, and every implementation agrees with
    the float64 reference (check_case). Exits on any failure; returns (digest
    of ours' output, points checked, check_case's results)."""
    first = outputs[ours[0]]
    failures = [f"{case.name}: kernel sets give different bits ({name} vs {ours[0]})"
                for name in ours[1:] if outputs[name].tobytes() != first.tobytes()]
    npts, res, fails = check_case(case, V, X, Y, Z, outputs, scipy_ndimage)
    failures += fails
    if failures:
        for f in failures:
            print("DISAGREEMENT: " + f, file=sys.stderr)
        sys.exit(f"{program}: implementations disagree beyond rounding; no timings reported")
    return hashlib.sha256(first.tobytes()).hexdigest(), npts, res


# --------------------------------------------------------------------------
# Timing


def calibrate(fn, target):
    """Calls per sample so that a sample takes about `target` seconds."""
    t0 = time.perf_counter()
    fn()
    dt = time.perf_counter() - t0
    return max(1, int(round(target / max(dt, 1e-6))))


def time_sample(fn, k):
    c0, t0 = time.process_time(), time.perf_counter()
    for _ in range(k):
        fn()
    t1, c1 = time.perf_counter(), time.process_time()
    return (t1 - t0) / k, (c1 - c0) / max(t1 - t0, 1e-9)


def make_calls(case, V, Vt, X, Y, Z, libs, kernels, impl_names, stream, F, ndi):
    """One callable per implementation, each computing the case's points and
    returning its output; inputs are prepared here, untimed."""
    ct = TYPES[case.type][1]
    fns = {name: libs[k].caller(case, V, X, Y, Z) for k, name in zip(kernels, impl_names)}
    if F is not None:
        import torch
        n = case.n
        grid = np.stack([(a.astype(np.float64) - 1) / (n - 1) * 2 - 1 for a in (X, Y, Z)], axis=-1)
        gt = torch.from_numpy(grid.astype(ct)).view(1, 1, ROWS, COLS, 3)
        mode = "nearest" if case.method == "nearest" else "bilinear"

        def torch_call():
            with torch.inference_mode():
                return F.grid_sample(Vt, gt, mode=mode, padding_mode="zeros", align_corners=True)

        fns["torch"] = torch_call
    if ndi is not None:
        sc = np.stack([Z.astype(np.float64) - 1, Y.astype(np.float64) - 1, X.astype(np.float64) - 1])
        sout = np.empty((ROWS, COLS), ct)
        order = 0 if case.method == "nearest" else 1

        def scipy_call():
            ndi.map_coordinates(V, sc, output=sout, order=order, mode="constant", cval=FILL,
                                prefilter=False)
            return sout

        fns["scipy"] = scipy_call
    so = np.empty((ROWS, COLS), ct)
    sfn = stream.qzbench_stream_float64 if ct == np.float64 else stream.qzbench_stream_float32

    def stream_call():
        sfn(X.ctypes.data, Y.ctypes.data, Z.ctypes.data, so.ctypes.data, ROWS, COLS)
        return so

    fns["stream"] = stream_call
    return fns


def time_interleaved(fns, reps, sample_time):
    """Each repetition times every implementation once, the order rotating;
    returns the median seconds per call and the median CPU/wall ratio."""
    calls = {name: calibrate(fn, sample_time) for name, fn in fns.items()}
    samples = {name: [] for name in fns}
    util = {name: [] for name in fns}
    names = list(fns)
    for r in range(reps):
        for name in names[r % len(names):] + names[:r % len(names)]:
            dt, u = time_sample(fns[name], calls[name])
            samples[name].append(dt)
            util[name].append(u)
    return ({name: statistics.median(s) for name, s in samples.items()},
            {name: statistics.median(u) for name, u in util.items()})


def machine_info():
    model = "?"
    flags = set()
    try:
        for line in open("/proc/cpuinfo"):
            if line.startswith("model name") and model == "?":
                model = line.split(":", 1)[1].strip()
            if line.startswith("flags") and not flags:
                flags = set(line.split(":", 1)[1].split())
    except OSError:
        pass
    simd = [f for f in ("sse4_1", "avx", "fma", "avx2", "avx512f", "avx512bw", "avx512vl") if f in flags]
    return model, simd


def git_state():
    try:
        rev = subprocess.run(["git", "-C", str(REPO), "rev-parse", "--short", "HEAD"], check=True,
                             capture_output=True, text=True).stdout.strip()
        dirty = subprocess.run(["git", "-C", str(REPO), "status", "--porcelain", "--untracked-files=no"],
                               check=True, capture_output=True, text=True).stdout.strip()
        return rev + (" (with uncommitted changes)" if dirty else "")
    except (OSError, subprocess.CalledProcessError):
        return "?"


def fmt_rate(x):
    return f"{x:.1f}" if x < 100 else f"{x:.0f}"


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=str(REPO / "build-bench"), help="build directory (default build-bench)")
    ap.add_argument("--kernels", default="auto",
                    help="comma list of kernel sets for ours, 'auto' = the library's own choice, "
                         "'all' = auto then every other set this CPU supports (default auto)")
    ap.add_argument("--threads", default=None, help="comma list of thread counts (default 1,<cpus>)")
    ap.add_argument("--reps", type=int, default=7, help="interleaved repetitions (default 7)")
    ap.add_argument("--sample-time", type=float, default=0.04,
                    help="seconds per timed sample, calls repeated to reach it (default 0.04)")
    ap.add_argument("--quick", action="store_true", help="four workloads only")
    ap.add_argument("--filter", default=None, help="regex on the workload names")
    ap.add_argument("--no-torch", action="store_true")
    ap.add_argument("--no-scipy", action="store_true")
    ap.add_argument("--json", default=None, help="also write the raw results here")
    ap.add_argument("--child", default=None, help=argparse.SUPPRESS)  # one thread count, JSON here
    ap.add_argument("--api", action="store_true",
                    help="compare qzinterp3d.map_coordinates and affine_transform (the package from "
                         "<build>/python, else the installed one) with scipy.ndimage and torch, "
                         "speed and peak memory")
    ap.add_argument("--api-child-case", type=int, default=None, help=argparse.SUPPRESS)
    ap.add_argument("--api-child-impl", default=None, help=argparse.SUPPRESS)
    ap.add_argument("--api-check", action="store_true", help=argparse.SUPPRESS)
    return ap.parse_args()


def paths(args):
    build = Path(args.build)
    p = {"lib": build / "libqzinterp3d_halide.so", "runtime": build / "libqzhalideRuntime.so",
         "stream": build / "bench" / "libqzbench_stream.so", "probe": build / "bench" / "qz_kernel_set_name"}
    for f in p.values():
        if not f.exists():
            sys.exit(f"compare.py: {f} is missing; build it first: cmake --build {build} --target qz_bench_all")
    return p


def kernel_sets(args, probe):
    """(kernel set names as asked, their labels, the sets this CPU supports)."""
    supported = [line.split()[0] for line in
                 subprocess.run([str(probe), "--list"], check=True, capture_output=True,
                                text=True).stdout.splitlines() if line.endswith(" supported")]
    kernels = args.kernels.split(",")
    if kernels == ["all"]:
        auto = resolve_kernel(probe, "auto")
        kernels = ["auto"] + [k for k in reversed(supported) if k != auto]
    resolved = {k: resolve_kernel(probe, k) for k in kernels}
    for k in kernels:
        if k != "auto" and resolved[k] != k:
            sys.exit(f"compare.py: kernel set {k!r} is not available here (the library would use "
                     f"{resolved[k]!r}); available: {', '.join(supported)}")
    labels = {k: (f"auto={resolved[k]}" if k == "auto" else resolved[k]) for k in kernels}
    return kernels, labels, supported


def impl_names_of(args, kernels, labels):
    names = [f"ours[{labels[k]}]" for k in kernels]
    if not args.no_torch:
        names.append("torch")
    if not args.no_scipy:
        names.append("scipy")
    return names + ["stream"]


def selected_cases(args, all_cases=default_cases):
    """all_cases(args.quick), narrowed by args.filter."""
    cases = all_cases(args.quick)
    if args.filter:
        cases = [c for c in cases if re.search(args.filter, c.name)]
    return cases


def run_child(args):
    """Every case at one thread count (this process's HL_NUM_THREADS); writes
    results, agreement checks and ours' output digests to args.child."""
    threads = int(os.environ["HL_NUM_THREADS"])
    p = paths(args)
    # The runtime, with its pool, is shared by every loaded copy below.
    ctypes.CDLL(str(p["runtime"]))
    import scipy.ndimage as ndi
    torch = F = None
    if not args.no_torch:
        import torch
        import torch.nn.functional as F
        torch.set_num_threads(threads)
    kernels, labels, _ = kernel_sets(args, p["probe"])
    tmpdir = tempfile.mkdtemp(prefix="qzbench-")
    try:
        libs = {k: Library(p["lib"], k, tmpdir) for k in kernels}
    finally:
        shutil.rmtree(tmpdir, ignore_errors=True)  # the loaded copies stay mapped
    stream = ctypes.CDLL(str(p["stream"]))
    for name in ("qzbench_stream_float32", "qzbench_stream_float64"):
        getattr(stream, name).argtypes = [ctypes.c_void_p] * 4 + [ctypes.c_int, ctypes.c_int]
    impl_names = impl_names_of(args, kernels, labels)
    cases = selected_cases(args)

    results, checks, digests = [], [], {}
    # Cases that share a volume run together.
    order = sorted(range(len(cases)), key=lambda i: (cases[i].n, cases[i].type))
    volume_key, V, Vt = None, None, None
    for idx in order:
        case = cases[idx]
        if volume_key != (case.type, case.n):
            V = Vt = None
            V = make_volume(case.type, case.n)
            volume_key = (case.type, case.n)
            if torch:
                vf = V if np.issubdtype(V.dtype, np.floating) else V.astype(np.float32)
                Vt = torch.from_numpy(vf).view(1, 1, *V.shape)
        X, Y, Z = make_coords(case.workload, case.n, TYPES[case.type][1])
        fns = make_calls(case, V, Vt, X, Y, Z, libs, kernels, impl_names, stream, F,
                         None if args.no_scipy else ndi)

        # A first call of each, whose results are checked.
        outputs = {name: np.array(fn()).reshape(ROWS, COLS) for name, fn in fns.items() if name != "stream"}
        digests[idx], npts, res = verify_case(case, V, X, Y, Z, outputs, impl_names[:len(kernels)], ndi,
                                              "compare.py")
        checks.append((idx, npts, res))
        del outputs

        med, util = time_interleaved(fns, args.reps, args.sample_time)
        results.append({"case": idx, "name": case.name, "threads": threads,
                        "mpts": {name: POINTS / med[name] / 1e6 for name in fns},
                        "cpu_per_wall": util})
        print(f"# done {case.name} threads={threads}", file=sys.stderr, flush=True)
        del fns
    with open(args.child, "w") as f:
        json.dump({"results": results, "checks": checks, "digests": digests}, f)
    return 0


def print_tables(args, impl_names, cases, results, checks, kernels):
    primary = impl_names[0]
    has_torch, has_scipy = "torch" in impl_names, "scipy" in impl_names
    print("Million query points per second (median of interleaved repetitions; higher is better).")
    print(f"Ratios use {primary}. scipy is single-threaded at every setting. 'cpu/wall' is the "
          "process CPU time over wall time while ours, torch ran (threads actually busy).")
    print()
    head = (["workload", "thr"] + impl_names + (["ours/torch"] if has_torch else [])
            + (["ours/scipy"] if has_scipy else []) + ["ours/stream"]
            + ["cpu/wall ours" + (",torch" if has_torch else "")])
    print("| " + " | ".join(head) + " |")
    print("|" + "|".join(["---"] + ["--:"] * (len(head) - 1)) + "|")
    for r in sorted(results, key=lambda r: (r["case"], r["threads"])):
        m, cw = r["mpts"], r["cpu_per_wall"]
        row = [r["name"], str(r["threads"])] + [fmt_rate(m[name]) for name in impl_names]
        if has_torch:
            row.append(f"{m[primary] / m['torch']:.2f}")
        if has_scipy:
            row.append(f"{m[primary] / m['scipy']:.2f}")
        row.append(f"{m[primary] / m['stream']:.3f}")
        row.append(f"{cw[primary]:.2f}" + (f",{cw['torch']:.2f}" if has_torch else ""))
        print("| " + " | ".join(row) + " |")
    print()
    print("Agreement with a float64 reference (map_coordinates in double) on interior points, "
          "max |difference|; nearest must be exact, trilinear within the tolerance shown "
          "(16 eps max|V|, plus torch's coordinate rounding). Ours also gives the same bits at "
          "every thread count" + (" and with every kernel set." if len(kernels) > 1 else "."))
    print()
    checked = [n for n in impl_names if n != "stream"]
    print("| workload | points | " + " | ".join(checked) + " | tolerance (ours / torch) |")
    print("|---|--:|" + "--:|" * len(checked) + "--:|")
    for idx, npts, res in sorted(checks, key=lambda c: c[0]):
        d = {impl: (diff, tol) for impl, diff, tol, ok in res}
        tols = f"{d[impl_names[0]][1]:.2g}" + (f" / {d['torch'][1]:.2g}" if "torch" in d else "")
        print(f"| {cases[idx].name} | {npts} | " + " | ".join(f"{d[i][0]:.3g}" for i in checked)
              + f" | {tols} |")


# --------------------------------------------------------------------------
# The scipy-style calls: qzinterp3d.map_coordinates and affine_transform
# against scipy.ndimage and torch's affine_grid + grid_sample (--api)
#
# Every measurement is a fresh process, so that a call's peak memory can be
# read: ru_maxrss after its first call minus ru_maxrss before it, the inputs
# (volume, and coordinates or grid where the call takes them) being in place
# and the output allocated by the call. The time is that of a second call.
# Repetitions interleave: each runs every implementation once, the order
# rotating.

API_N = 256  # input volume n^3, float32
API_IMPLS = ("ours", "scipy", "torch")


class ApiCase:
    def __init__(self, call, order, out_shape):
        self.call, self.order, self.out_shape = call, order, tuple(out_shape)

    @property
    def points(self):
        return int(np.prod(self.out_shape))

    @property
    def name(self):
        method = "linear" if self.order == 1 else "nearest"
        return f"{self.call} {API_N}^3 -> {'x'.join(map(str, self.out_shape))} float32 {method}"


def api_cases(quick):
    cases = [ApiCase("map_coordinates", 1, (64, 512, 512)),
             ApiCase("map_coordinates", 0, (64, 512, 512)),
             ApiCase("affine_transform", 1, (API_N,) * 3),
             ApiCase("affine_transform", 0, (API_N,) * 3)]
    if not quick:
        cases.append(ApiCase("affine_transform", 1, (256, 1024, 1024)))
    return cases


def api_affine(out_shape):
    """Output index -> input coordinate (0-based, numpy axis order): a turn
    about two axes around the centres, scaled so the output spans 0.8 of the
    input along each axis. Returns (matrix, offset) in float64."""
    a, b = np.radians(20.0), np.radians(35.0)
    turn_a = np.array([[1, 0, 0], [0, np.cos(a), -np.sin(a)], [0, np.sin(a), np.cos(a)]])
    turn_b = np.array([[np.cos(b), -np.sin(b), 0], [np.sin(b), np.cos(b), 0], [0, 0, 1]])
    scale = np.diag([0.8 * (API_N - 1) / max(s - 1, 1) for s in out_shape])
    matrix = turn_b @ turn_a @ scale
    centre_in = np.full(3, (API_N - 1) / 2)
    centre_out = (np.array(out_shape) - 1) / 2
    return matrix, centre_in - matrix @ centre_out


def api_coordinates(case, matrix, offset, dtype=np.float64, torch_grid=False):
    """The affine's coordinates of every output point, plane by plane (no
    temporary as large as the result): scipy's (3, *shape) array, or torch's
    normalized grid (1, *shape, 3) with x (the last axis) first."""
    shape = case.out_shape
    if torch_grid:
        out = np.empty((1, *shape, 3), dtype)
    else:
        out = np.empty((3, *shape), dtype)
    o1, o2 = np.meshgrid(np.arange(shape[1], dtype=np.float64), np.arange(shape[2], dtype=np.float64),
                         indexing="ij")
    for o0 in range(shape[0]):
        for axis in range(3):
            c = (matrix[axis, 0] * o0 + matrix[axis, 1] * o1) + matrix[axis, 2] * o2 + offset[axis]
            if torch_grid:
                out[0, o0, :, :, 2 - axis] = c / (API_N - 1) * 2 - 1
            else:
                out[axis, o0] = c
    return out


def torch_theta(matrix, offset, out_shape):
    """affine_grid's theta (align_corners=True) for the same affine: both sides
    normalized to [-1, 1], axes in x, y, z order."""
    flip = np.eye(3)[::-1]
    m = flip @ matrix @ flip
    t = flip @ offset
    to_norm_in = np.diag([2.0 / (API_N - 1)] * 3)
    from_norm_out = np.diag([(s - 1) / 2.0 for s in out_shape[::-1]])
    a = to_norm_in @ m @ from_norm_out
    b = a @ np.ones(3) + to_norm_in @ t - 1
    return np.hstack([a, b[:, None]])[None].astype(np.float32)


def import_ours(build):
    package = Path(build) / "python"
    if (package / "qzinterp3d").is_dir():
        sys.path.insert(0, str(package))
    import qzinterp3d
    return qzinterp3d


def resident_mib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 2**20


def max_resident_mib():
    import resource
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024


def run_api_child(args):
    """One call of one implementation on one case; prints a JSON line."""
    case = api_cases(False)[args.api_child_case]
    impl = args.api_child_impl
    threads = int(os.environ["HL_NUM_THREADS"])
    import scipy.ndimage as ndi
    if impl == "ours":
        qz = import_ours(args.build)
    elif impl == "torch":
        import torch
        import torch.nn.functional as F
        torch.set_num_threads(threads)
    V = make_volume("float32", API_N)
    matrix, offset = api_affine(case.out_shape)
    homogeneous = np.eye(4)
    homogeneous[:3, :3], homogeneous[:3, 3] = matrix, offset

    if case.call == "map_coordinates":
        if impl == "torch":
            Vt = torch.from_numpy(V).view(1, 1, *V.shape)
            grid = torch.from_numpy(api_coordinates(case, matrix, offset, np.float32, torch_grid=True))
        else:
            coords = api_coordinates(case, matrix, offset)
    elif impl == "torch":
        Vt = torch.from_numpy(V).view(1, 1, *V.shape)
        theta = torch.from_numpy(torch_theta(matrix, offset, case.out_shape))

    def call():
        if impl == "ours":
            if case.call == "map_coordinates":
                return qz.map_coordinates(V, coords, order=case.order, mode="constant", cval=FILL)
            return qz.affine_transform(V, homogeneous, output_shape=case.out_shape, order=case.order,
                                       mode="constant", cval=FILL)
        if impl == "scipy":
            if case.call == "map_coordinates":
                return ndi.map_coordinates(V, coords, order=case.order, mode="constant", cval=FILL,
                                           prefilter=False)
            return ndi.affine_transform(V, homogeneous, output_shape=case.out_shape, order=case.order,
                                        mode="constant", cval=FILL, prefilter=False)
        mode = "nearest" if case.order == 0 else "bilinear"
        with torch.inference_mode():
            g = grid if case.call == "map_coordinates" else F.affine_grid(
                theta, (1, 1, *case.out_shape), align_corners=True)
            return F.grid_sample(Vt, g, mode=mode, padding_mode="zeros", align_corners=True)

    # Everything the call reads is in place; the high-water mark should be
    # what is resident now (preparation made no larger temporaries).
    before, resident = max_resident_mib(), resident_mib()
    t0 = time.perf_counter()
    out = call()
    first = time.perf_counter() - t0
    peak = max_resident_mib() - before
    # The time is a second call's: the first also pays for starting thread
    # pools and faulting in pages that later calls reuse.
    del out
    t0 = time.perf_counter()
    out = call()
    seconds = time.perf_counter() - t0
    result = {"seconds": seconds, "first_seconds": first, "peak_mib": peak,
              "slack_mib": before - resident}
    if args.api_check:
        out = np.asarray(out).reshape(case.out_shape)
        result["check"] = api_check(case, V, matrix, offset, out, impl, ndi)
        if impl == "ours":
            result["digest"] = hashlib.sha256(out.tobytes()).hexdigest()
    print(json.dumps(result))
    return 0


def api_check(case, V, matrix, offset, out, impl, ndi):
    """Max |difference| against a float64 reference at 200000 sampled output
    points whose coordinates lie strictly inside (and, for nearest, at least
    1e-3 from a .5 tie); (difference, tolerance, points)."""
    rng = np.random.default_rng(7)
    idx = np.stack([rng.integers(0, s, 200000) for s in case.out_shape]).astype(np.float64)
    c = matrix @ idx + offset[:, None]
    margin = 1e-3
    mask = np.all((c > margin) & (c < API_N - 1 - margin), axis=0)
    if case.order == 0:
        frac = c - np.floor(c)
        mask &= np.all(np.abs(frac - 0.5) > margin, axis=0)
    ref = ndi.map_coordinates(V, c[:, mask], output=np.float64, order=case.order, mode="constant",
                              cval=FILL, prefilter=False)
    got = out[tuple(idx[:, mask].astype(np.int64))].astype(np.float64)
    if case.order == 0:
        tol = 0.0
    else:
        eps = float(np.finfo(np.float32).eps)
        tol = 16 * eps * float(np.abs(V).max())
        # Coordinates rounded to float32 move a point by up to n eps / 2 voxels
        # per axis (ours rounds scipy's float64 coordinates once); torch's
        # normalized grid by up to about 4 n eps.
        if impl == "ours":
            tol += 3 * API_N * eps * float(V.max() - V.min())
        if impl == "torch":
            tol += 3 * 4 * API_N * eps * float(V.max() - V.min())
    diff = float(np.max(np.abs(got - ref))) if got.size else 0.0
    return [diff, tol, int(mask.sum())]


def run_api(args):
    cpus = len(os.sched_getaffinity(0))
    threads = sorted({int(t) for t in args.threads.split(",")} if args.threads else {1, cpus})
    cases = api_cases(args.quick)
    if args.filter:
        cases = [c for c in cases if re.search(args.filter, c.name)]
    impls = [i for i in API_IMPLS if not (i == "torch" and args.no_torch)
             and not (i == "scipy" and args.no_scipy)]
    model, simd = machine_info()
    # Asked of another process: this one stays small, since a child's
    # ru_maxrss starts from its parent's high-water mark.
    probe = ("import platform, sys, numpy, scipy; sys.path.insert(0, sys.argv[1]); import qzinterp3d; "
             "print(qzinterp3d.__file__); print(f'python {platform.python_version()}, numpy "
             "{numpy.__version__}, scipy {scipy.__version__}', end='')")
    if "torch" in impls:
        probe += "; import torch; print(f', torch {torch.__version__}', end='')"
    ours_from, versions = subprocess.run(
        [sys.executable, "-c", probe, str(Path(args.build) / "python")], check=True,
        capture_output=True, text=True).stdout.split("\n", 1)
    load_before = open("/proc/loadavg").read().split()[:3]
    print(f"# compare.py --api  {datetime.datetime.now().isoformat(timespec='seconds')}")
    print(f"# git {git_state()}; qzinterp3d from {ours_from}")
    print(f"# cpu {model}; simd {' '.join(simd)}; cpus usable {cpus}; threads {threads} "
          "(ours: HL_NUM_THREADS; torch: torch.set_num_threads; scipy: one thread)")
    print(f"# {versions}")
    print(f"# reps {args.reps} (the largest output: {min(args.reps, 3)}, at {max(threads)} threads only), "
          "one process per call; "
          f"loadavg before {' '.join(load_before)}", flush=True)

    rows, checks, digests = [], {}, {}
    here = str(Path(__file__).resolve())
    for t in sorted(threads, reverse=True):
        env = dict(os.environ, HL_NUM_THREADS=str(t))
        for case in cases:
            large = case.points > 10**8
            if large and t != max(threads):
                continue  # minutes per call for scipy and torch: the most threads only
            index = [c.name for c in api_cases(False)].index(case.name)
            reps = min(args.reps, 3) if large else args.reps
            samples = {i: [] for i in impls}
            for r in range(reps):
                for impl in impls[r % len(impls):] + impls[:r % len(impls)]:
                    cmd = [sys.executable, here, "--build", args.build, "--api-child-case", str(index),
                           "--api-child-impl", impl] + ["--api-check"] * (r == 0)
                    run = subprocess.run(cmd, env=env, capture_output=True, text=True)
                    if run.returncode != 0:
                        sys.exit(f"compare.py: {impl} on {case.name} failed:\n{run.stderr}")
                    data = json.loads(run.stdout.strip().splitlines()[-1])
                    samples[impl].append(data)
                    if r == 0:
                        diff, tol, npts = data["check"]
                        checks[(case.name, impl, t)] = data["check"]
                        if not diff <= tol:
                            sys.exit(f"compare.py: {impl} on {case.name} differs from the float64 "
                                     f"reference by {diff:.3g} (tolerance {tol:.3g}, {npts} points)")
                        if impl == "ours":
                            if digests.setdefault(case.name, data["digest"]) != data["digest"]:
                                sys.exit(f"compare.py: ours gives different bits at {t} threads: {case.name}")
            print(f"# done {case.name} threads={t}", file=sys.stderr, flush=True)
            rows.append((case, t, {i: (statistics.median(s["seconds"] for s in samples[i]),
                                       max(s["peak_mib"] for s in samples[i]),
                                       max(s["slack_mib"] for s in samples[i])) for i in impls}))
    load_after = open("/proc/loadavg").read().split()[:3]
    print(f"# loadavg after {' '.join(load_after)}")
    print()
    print_api_table(cases, impls, rows, checks)
    return 0


def print_api_table(cases, impls, rows, checks):
    print("Million output points per second (median over repetitions, each a fresh process timing "
          "its second call; higher is better) and peak memory of the call in MiB (ru_maxrss after "
          "the first call minus before; inputs already in place, the output allocated by the call).")
    print()
    head = ["call", "thr"] + impls + [f"ours/{i}" for i in impls if i != "ours"] + \
        [f"MiB {i}" for i in impls]
    print("| " + " | ".join(head) + " |")
    print("|" + "|".join(["---"] + ["--:"] * (len(head) - 1)) + "|")
    for case, t, m in sorted(rows, key=lambda r: (cases.index(r[0]), r[1])):
        rate = {i: case.points / m[i][0] / 1e6 for i in impls}
        row = [case.name, str(t)] + [fmt_rate(rate[i]) for i in impls]
        row += [f"{rate['ours'] / rate[i]:.1f}" for i in impls if i != "ours"]
        row += [f"{m[i][1]:.0f}" for i in impls]
        print("| " + " | ".join(row) + " |")
    print()
    slack = max(v[2] for _, _, m in rows for v in m.values())
    print(f"Largest gap between the high-water mark and the resident memory before a call: "
          f"{slack:.0f} MiB (the peak figures are exact when it is small).")
    print()
    print("Agreement with a float64 reference (scipy.ndimage.map_coordinates in double) at up to "
          "200000 sampled interior output points: max |difference| (tolerance).")
    print()
    print("| call | thr | " + " | ".join(impls) + " |")
    print("|---|--:|" + "--:|" * len(impls))
    for case, t, _ in sorted(rows, key=lambda r: (cases.index(r[0]), r[1])):
        cells = [f"{checks[(case.name, i, t)][0]:.3g} ({checks[(case.name, i, t)][1]:.2g})" for i in impls]
        print(f"| {case.name} | {t} | " + " | ".join(cells) + " |")


def main():
    args = parse_args()
    if args.child:
        return run_child(args)
    if args.api_child_case is not None:
        return run_api_child(args)
    if args.api:
        return run_api(args)

    p = paths(args)
    cpus = len(os.sched_getaffinity(0))
    threads = sorted({int(t) for t in args.threads.split(",")} if args.threads else {1, cpus})
    kernels, labels, supported = kernel_sets(args, p["probe"])
    impl_names = impl_names_of(args, kernels, labels)
    cases = selected_cases(args)
    model, simd = machine_info()
    import scipy
    versions = f"python {platform.python_version()}, numpy {np.__version__}, scipy {scipy.__version__}"
    if not args.no_torch:
        import torch
        versions += f", torch {torch.__version__}"
    load_before = open("/proc/loadavg").read().split()[:3]
    print(f"# compare.py  {datetime.datetime.now().isoformat(timespec='seconds')}")
    built = datetime.datetime.fromtimestamp(p["lib"].stat().st_mtime).isoformat(timespec="seconds")
    print(f"# git {git_state()}; library {p['lib']} (built {built})")
    print(f"# ours: kernel sets {', '.join(labels[k] for k in kernels)} "
          f"(supported here: {', '.join(supported)})")
    print(f"# cpu {model}; simd {' '.join(simd)}; cpus usable {cpus} (nproc {os.cpu_count()}); "
          f"threads {threads}, one process each (ours and stream: HL_NUM_THREADS; torch: "
          f"torch.set_num_threads)")
    print(f"# {versions}")
    print(f"# reps {args.reps}, sample >= {args.sample_time}s; loadavg before {' '.join(load_before)}",
          flush=True)

    # One process per thread count: the Halide runtime's pool is sized once.
    # Changing it later with halide_set_num_threads does not work as asked
    # here: a pool started on 2 threads keeps both at work when asked for 1,
    # and a pool grown from 1 to 2 ran these short row tasks far slower than
    # one started on 2.
    # The most threads first: that run is the one another process on the
    # machine spoils (a busy core keeps the pool's worker from its share of
    # these short calls; the cpu/wall column shows it).
    results, checks, digests = [], None, None
    with tempfile.TemporaryDirectory(prefix="qzbench-") as tmp:
        for t in sorted(threads, reverse=True):
            out = Path(tmp) / f"threads{t}.json"
            child_args = ["--build", args.build, "--kernels", args.kernels, "--reps", str(args.reps),
                          "--sample-time", str(args.sample_time)]
            child_args += ["--quick"] * args.quick + ["--no-torch"] * args.no_torch
            child_args += ["--no-scipy"] * args.no_scipy + (["--filter", args.filter] if args.filter else [])
            env = dict(os.environ, HL_NUM_THREADS=str(t))
            rc = subprocess.run([sys.executable, str(Path(__file__).resolve()), *child_args,
                                 "--child", str(out)], env=env).returncode
            if rc != 0:
                sys.exit(f"compare.py: the run on {t} threads failed (exit status {rc})")
            data = json.loads(out.read_text())
            results += data["results"]
            if checks is None:
                checks, digests = data["checks"], data["digests"]
            elif data["digests"] != digests:
                bad = [cases[int(i)].name for i in digests if data["digests"].get(i) != digests[i]]
                sys.exit(f"compare.py: ours gives different bits at {t} threads: {', '.join(bad)}")
    load_after = open("/proc/loadavg").read().split()[:3]
    print(f"# loadavg after {' '.join(load_after)}")
    print()
    print_tables(args, impl_names, cases, results, checks, kernels)
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"kernels": labels, "threads": threads, "cpu": model, "results": results,
                       "checks": checks, "load_before": load_before, "load_after": load_after}, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
