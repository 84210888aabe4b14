#!/usr/bin/python3
"""Instructions per query point, counted with valgrind's callgrind.

Runs qz_bench under callgrind, one benchmark at a time on one thread, and
divides the instructions executed inside the row tasks
(interp3_<method>_<type>_par_for_Vq_s0_y_rebased, inclusive) by the points
they computed (the calls callgrind counted, 1024 points each).
The stream bound's row function is counted the same way. Counts do not
depend on the data or the volume size (the kernels are branch-free per
block), so a 64^3 oblique slice is used unless asked otherwise.

valgrind does not run AVX-512 code and hides it from the CPU checks, so under
it the widest set is avx2; ask for sets by name with --kernels.

    /usr/bin/python3 bench/instructions.py [--kernels portable,fma128,avx2]
        [--types float32,uint8] [--methods bilinear,nearest] [--workload oblique] [--n 64]
        [--cache-sim]
"""

import argparse
import json
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
COLS = 1024  # points per row task
POINTS = COLS * 1024
ALL_TYPES = ["float32", "float64", "int8", "uint8", "int16", "uint16", "int32", "uint32"]


def run(bench, bench_filter, kernel, cache_sim, tmp):
    out = Path(tmp) / "cg.out"
    env = dict(os.environ, HL_NUM_THREADS="1")
    env.pop("QZINTERP3D_KERNEL", None)
    if kernel != "auto":
        env["QZINTERP3D_KERNEL"] = kernel
    cmd = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}"]
    if cache_sim:
        # Simulated: L1d 48 KiB 12-way, last level 32 MiB 16-way (the host's
        # own report is not trusted under virtualisation).
        cmd += ["--cache-sim=yes", "--D1=49152,12,64", "--LL=33554432,16,64"]
    cmd += [str(bench), f"--benchmark_filter={bench_filter}", "--benchmark_min_time=0.01",
            "--benchmark_format=json"]
    p = subprocess.run(cmd, env=env, capture_output=True, text=True, check=True)
    report = json.loads(p.stdout)
    runs = report["benchmarks"]
    if len(runs) != 1:
        sys.exit(f"instructions.py: filter {bench_filter!r} matched {len(runs)} benchmarks")
    ann = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--tree=caller", str(out)],
                         capture_output=True, text=True, check=True).stdout
    return ann, runs[0].get("label", "")


def counts_of(line):
    """The event counts at the start of an annotate line ('.' is 0)."""
    values = []
    for tok in re.sub(r"\([^)]*\)", " ", line).split():
        if not re.fullmatch(r"[\d,]+|\.", tok):
            break
        values.append(0 if tok == "." else int(tok.replace(",", "")))
    return values


def events_of(ann, pattern):
    """Inclusive event counts of the function matching `pattern` and the number
    of times it was called, from callgrind_annotate --inclusive=yes --tree=caller
    (caller lines '< f (Nx)' precede the function's own line '* f')."""
    header, calls = ["Ir"], 0
    for line in ann.splitlines():
        if line.startswith("Events shown:"):
            header = line.split(":", 1)[1].split()
        elif not line.strip():
            calls = 0
        elif re.search(r"\s<\s", line):
            m = re.search(r"\(([\d,]+)x\)", line)
            calls += int(m.group(1).replace(",", "")) if m else 0
        elif re.search(r"\s\*\s", line) and re.search(pattern, line):
            return dict(zip(header, counts_of(line))), calls
    return None, 0


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=str(REPO / "build-bench"))
    ap.add_argument("--kernels", default="portable,fma128,avx2")
    ap.add_argument("--types", default=",".join(ALL_TYPES))
    ap.add_argument("--methods", default="bilinear,nearest")
    ap.add_argument("--workload", default="oblique")
    ap.add_argument("--n", type=int, default=64)
    ap.add_argument("--cache-sim", action="store_true", help="also count D1 and last-level misses")
    args = ap.parse_args()
    bench = Path(args.build) / "bench" / "qz_bench"
    kernels = args.kernels.split(",")
    evs = ["Ir"] + (["D1mr", "DLmr"] if args.cache_sim else [])

    print(f"Instructions per point (callgrind, 1 thread, {args.workload} {args.n}^3)"
          + ("; D1mr/DLmr: simulated L1 (48 KiB) / last-level (32 MiB) read misses per point" if args.cache_sim else ""))
    print()
    cols = [f"{k} {e}" for k in kernels for e in evs]
    print("| entry | " + " | ".join(cols) + " |")
    print("|---|" + "--:|" * len(cols))
    with tempfile.TemporaryDirectory() as tmp:
        rows = [(m, t) for m in args.methods.split(",") for t in args.types.split(",")]
        for m, t in rows:
            cells = []
            for k in kernels:
                flt = f"^interp3_{m}_{t}/{args.workload}/n:{args.n}/threads:1/"
                ann, label = run(bench, flt, k, args.cache_sim, tmp)
                if k != "auto" and label != f"kernels={k}":
                    sys.exit(f"instructions.py: expected kernels={k}, benchmark says {label!r}")
                e, rows_run = events_of(ann, rf"interp3_{m}_{t}_par_for_Vq_s0_y_rebased")
                cells += [f"{e[x] / (rows_run * COLS):.1f}" if e and rows_run and x in e else "?"
                          for x in evs]
            print(f"| interp3_{m}_{t} | " + " | ".join(cells) + " |", flush=True)
        for ct in ("float32", "float64"):
            ann, _ = run(bench, f"^stream/{ct}/points:{POINTS}/threads:1/", "auto", args.cache_sim, tmp)
            e, rows_run = events_of(ann, r"stream_row<(float|double)>")
            cells = [f"{e[x] / (rows_run * COLS):.2f}" if e and rows_run and x in e else "?" for x in evs]
            print(f"| stream {ct} (any set) | " + " | ".join(cells * len(kernels)) + " |", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
