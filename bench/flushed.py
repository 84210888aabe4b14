#!/usr/bin/python3
"""Ours against the widest plain schedule this CPU runs (avx512, avx2 or
sse41) in a numpy process, with the caches flushed before each run of
calls, as a caller's other work flushes them between its calls.

For each case, every implementation (ours under each kernel set asked for,
then that plain schedule) is run in turn: a sweep over --flush-mib of memory, then
--calls back-to-back calls, whose median rate is that run's figure
("flushed"). Right after, without a sweep, 3 more calls and then
--calls timed ones give the "warm" figure. The table shows the median
over --reps such rounds, in million points per second.

    HL_NUM_THREADS=1 /usr/bin/python3 bench/flushed.py oblique_45:256:float32:nearest deformed:256:uint8:nearest
    HL_NUM_THREADS=1 /usr/bin/python3 bench/flushed.py --kernels auto,avx512_loads,avx2 axis_z:512:float32:nearest

Cases are workload:n:type:method, with the workloads, types and methods of
compare.py. Needs build-bench (qz_bench_all) for the plain schedule.
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
import peers  # noqa: E402
import suite  # noqa: E402


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("cases", nargs="+", help="workload:n:type:method")
    ap.add_argument("--build", default=str(compare.REPO / "build-bench"))
    ap.add_argument("--kernels", default="auto,avx512_loads", help="kernel sets of ours (comma list)")
    ap.add_argument("--flush-mib", type=int, default=64)
    ap.add_argument("--calls", type=int, default=6)
    ap.add_argument("--reps", type=int, default=3)
    args = ap.parse_args()

    build = Path(args.build).resolve()
    ctypes.CDLL(str(build / "libqzhalideRuntime.so"))  # one pool for every copy
    peers.load(build)
    tmp = tempfile.mkdtemp()
    kernels = args.kernels.split(",")
    libs = {k: compare.Library(str(build / "libqzinterp3d_halide.so"), k, tmp) for k in kernels}
    sweep = np.ones(args.flush_mib << 20, np.uint8)

    def rate(f):
        t0 = time.perf_counter()
        f()
        return compare.POINTS / 1e6 / (time.perf_counter() - t0)

    plain_target = peers.runnable_targets()[-1]
    plain_name = f"plain_{plain_target}"
    names = [f"ours:{k}" for k in kernels] + [plain_name]
    cpu = suite.cpu_identity()
    print(f"CPU: {cpu['vendor']} family {cpu['family']} model {cpu['model']} ({cpu['model_name']}); "
          f"git {compare.git_state()}; million points per second, median of {args.reps} rounds of "
          f"{args.calls} calls; flushed: after a {args.flush_mib} MiB sweep.\n")
    print("| case | " + " | ".join(f"{n} flushed" for n in names) + " | " +
          " | ".join(f"{n} warm" for n in names) + " |")
    print("|---|" + "--:|" * (2 * len(names)))
    for case_text in args.cases:
        case, V, X, Y, Z = compare.case_inputs(case_text)
        method, type_name = case.method, case.type
        ct = compare.TYPES[type_name][1]
        calls = {f"ours:{k}": lib.caller(case, V, X, Y, Z) for k, lib in libs.items()}
        plain_out = np.empty((compare.ROWS, compare.COLS), ct)
        calls[plain_name] = peers.plain_caller(plain_target, method, type_name, V, X, Y, Z,
                                               compare.FILL, plain_out)
        for f in calls.values():
            for _ in range(3):
                f()
        flushed = {k: [] for k in calls}
        warm = {k: [] for k in calls}
        for _ in range(args.reps):
            for name, f in calls.items():
                sweep += 1
                flushed[name].append(statistics.median(rate(f) for _ in range(args.calls)))
                for _ in range(3):
                    f()
                warm[name].append(statistics.median(rate(f) for _ in range(args.calls)))
        row = [f"{statistics.median(flushed[k]):.0f}" for k in names]
        row += [f"{statistics.median(warm[k]):.0f}" for k in names]
        print(f"| {case.name} | " + " | ".join(row) + " |", flush=True)


if __name__ == "__main__":
    main()
