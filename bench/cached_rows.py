#!/usr/bin/python3
"""Ours against a plain Halide schedule on the first R output rows of a
workload: with few rows the points' coordinates and the output stay in the
caches between calls, so the rates show what the kernels cost in compute
alone; with all 1024 rows they pay for the traffic too.

Each row count is timed in one process, ours and the plain schedule in
turn within every repetition (medians of --reps), at HL_NUM_THREADS.

    HL_NUM_THREADS=1 /usr/bin/python3 bench/cached_rows.py axis_x:64:float32:nearest \\
        [--rows 16,64,1024] [--plain avx2] [--build build-bench]
"""

import argparse
import ctypes
import statistics
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent))
import compare  # noqa: E402
import peers as peers_module  # noqa: E402


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("cases", nargs="+", help="workload:n:type:method")
    ap.add_argument("--rows", default="16,64,1024", help="comma list of row counts (at most 1024)")
    ap.add_argument("--plain", default=None,
                    help="plain target (default: the widest this CPU runs)")
    ap.add_argument("--kernel", default="auto", help="ours' kernel set (default auto)")
    ap.add_argument("--reps", type=int, default=7)
    ap.add_argument("--build", default=str(compare.REPO / "build-bench"))
    args = ap.parse_args()
    build = Path(args.build)
    ctypes.CDLL(str(build / "libqzhalideRuntime.so"), mode=ctypes.RTLD_GLOBAL)
    lib = compare.Library(str(build / "libqzinterp3d_halide.so"), args.kernel, tempfile.mkdtemp())
    peers = peers_module.Peers(build)
    target = args.plain or peers_module.runnable_targets()[-1]
    print(f"| case | rows | ours | plain_{target} | ours/plain |")
    print("|---|--:|--:|--:|--:|")
    for case_text in args.cases:
        case, V, X, Y, Z = compare.case_inputs(case_text)
        ct = compare.TYPES[case.type][1]
        for rows in (int(r) for r in args.rows.split(",")):
            # Library.caller sizes its output by compare.ROWS.
            compare.ROWS = rows
            xs, ys, zs = (np.ascontiguousarray(a[:rows]) for a in (X, Y, Z))
            plain_out = np.empty((rows, compare.COLS), ct)
            calls = {"ours": lib.caller(case, V, xs, ys, zs),
                     "plain": peers.plain_caller(target, case.method, case.type, V, xs, ys, zs,
                                                 compare.FILL, plain_out)}
            calls_per_sample = max(1, 200000 // rows)
            rates = {k: [] for k in calls}
            for f in calls.values():
                for _ in range(3):
                    f()
            for _ in range(args.reps):
                for name, f in calls.items():
                    t0 = time.perf_counter()
                    for _ in range(calls_per_sample):
                        f()
                    seconds = time.perf_counter() - t0
                    rates[name].append(rows * compare.COLS * calls_per_sample / seconds / 1e6)
            ours, plain = (statistics.median(rates[k]) for k in ("ours", "plain"))
            print(f"| {case_text} | {rows} | {ours:.0f} | {plain:.0f} | {ours / plain:.2f} |")


if __name__ == "__main__":
    main()
