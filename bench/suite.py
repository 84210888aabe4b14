#!/usr/bin/python3
"""The broad benchmark suite: every workload of bench/workloads.h on 64^3,
256^3 and 512^3 volumes of all eight sample types and on a 1024^3 uint16
volume, both methods, at 1 thread and at every CPU, in one interleaved run.

Per case it times, in rotating order within every repetition (the median of
the repetitions is the figure):
  * ours:          the library's own kernel set (--kernels adds forced sets);
  * plain_sse41, plain_avx2, plain_avx512:
                   the same pipelines as plain Halide schedules compiled for
                   those targets (bench/libqzbench_plain.so via bench/peers.py),
                   each where the CPU has its instructions;
  * scipy, torch:  scipy.ndimage.map_coordinates and torch's grid_sample, as
                   in compare.py (slow: by default at 1 thread only);
  * stream:        Vq = Xq + Yq + Zq on the same pool, the traffic bound;
  * loads:         the same samples read at the same addresses with the
                   offsets precomputed and no interpolation (bench/peers.py).
Before timing, every implementation's first result is checked against a
float64 reference (compare.py's check: nearest exact on interior points away
from .5 ties, trilinear within rounding); any disagreement stops the run.

    /usr/bin/python3 bench/suite.py --json suite.json          # the full run
    /usr/bin/python3 bench/suite.py --quick                     # a few cases
    /usr/bin/python3 bench/suite.py --filter '^axis_y 512\\^3 (uint8|float32) '
    /usr/bin/python3 bench/suite.py --peers plain_avx512,stream,loads
    /usr/bin/python3 bench/suite_table.py suite.json            # the tables again
    /usr/bin/python3 bench/plot_sizes.py suite.json --out docs/images/

Each thread count runs in a child process of its own (the Halide pool is
sized once per process, see compare.py). Case names are
"<workload> <n>^3 <type> <method>", as in compare.py.
"""

import argparse
import ctypes
import datetime
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent))
import compare  # noqa: E402
import suite_table  # noqa: E402

SIZES = (64, 256, 512)
LARGE_SIZE, LARGE_TYPES = 1024, ("uint16",)  # 2 GiB; torch needs a 4 GiB float32 copy
METHODS = ("bilinear", "nearest")
PEERS = ("plain_sse41", "plain_avx2", "plain_avx512", "scipy", "torch", "stream", "loads")
SLOW_PEERS = ("scipy", "torch")
DEFAULT_PEERS = "plain_sse41,plain_avx2,plain_avx512,scipy@1,torch@1,stream,loads"
QUICK = {"workloads": ("axis_y", "oblique_steep", "deformed"), "sizes": (64, 256),
         "types": ("float32", "uint16")}


def suite_cases(quick):
    if quick:
        return [compare.Case(w, n, t, m) for n in QUICK["sizes"] for t in QUICK["types"]
                for w in QUICK["workloads"] for m in METHODS]
    cases = [compare.Case(w, n, t, m) for n in SIZES for t in compare.TYPES
             for w in compare.WORKLOADS for m in METHODS]
    cases += [compare.Case(w, LARGE_SIZE, t, m) for t in LARGE_TYPES
              for w in compare.WORKLOADS for m in METHODS]
    return cases


def parse_peers(peer_list):
    """'name[@t[+t...]]' comma list -> {peer: thread counts or None for all}."""
    peers = {}
    for item in filter(None, peer_list.split(",")):
        name, _, threads = item.partition("@")
        if name not in PEERS:
            sys.exit(f"suite.py: unknown peer {name!r}; peers are {', '.join(PEERS)}")
        peers[name] = {int(t) for t in threads.split("+")} if threads else None
    return peers


def peers_at(peers, threads):
    return [p for p in PEERS if p in peers and (peers[p] is None or threads in peers[p])]


def cpu_identity():
    """Vendor, family, model number and model name, as lscpu shows them."""
    info = {}
    try:
        for line in open("/proc/cpuinfo"):
            key, _, value = line.partition(":")
            key = key.strip()
            if key in ("vendor_id", "cpu family", "model", "model name") and key not in info:
                info[key] = value.strip()
            if not line.strip() and info:
                break
    except OSError:
        pass
    return {"vendor": info.get("vendor_id", "?"), "family": info.get("cpu family", "?"),
            "model": info.get("model", "?"), "model_name": info.get("model name", "?")}


class PlainPeers:
    """The plain Halide schedules and the loads bound through bench/peers.py,
    when they are built (module None and why_not saying why otherwise)."""

    LIBRARIES = ("libqzbench_plain.so", "libqzbench_loads.so")

    def __init__(self, build):
        self.module, self.why_not = None, None
        missing = [name for name in self.LIBRARIES if not (Path(build) / "bench" / name).exists()]
        try:
            import peers
        except ImportError as e:
            self.why_not = f"bench/peers.py unavailable ({e})"
            return
        if missing:
            self.why_not = f"{', '.join(missing)} not built in {build}"
            return
        self.module = peers.Peers(build)
        self.cpu_runs = peers.cpu_runs

    def calls(self, names, case, V, X, Y, Z):
        """Callables returning their output, one per name of names."""
        ct = compare.TYPES[case.type][1]
        fns = {}
        for name in names:
            out = np.empty((compare.ROWS, compare.COLS), ct)
            if name == "loads":
                run = self.module.loads_caller(case.method, case.type, V, X, Y, Z, out)
            else:
                run = self.module.plain_caller(name.split("_", 1)[1], case.method, case.type, V, X, Y, Z,
                                               compare.FILL, out)
            fns[name] = returning(run, out)
        return fns


def returning(run, out):
    def call():
        run()
        return out
    return call


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=str(compare.REPO / "build-bench"),
                    help="build directory (default build-bench)")
    ap.add_argument("--kernels", default="auto",
                    help="ours: 'auto' (default), or a comma list of kernel sets after auto, or 'all'")
    ap.add_argument("--threads", default=None, help="comma list of thread counts (default 1,<cpus>)")
    ap.add_argument("--peers", default=DEFAULT_PEERS,
                    help="comma list of peers, each optionally @threads ('scipy@1': at 1 thread only; "
                         f"'@1+2' several); peers: {', '.join(PEERS)} (default {DEFAULT_PEERS})")
    ap.add_argument("--slow-filter", default=None,
                    help="regex on case names: scipy and torch run only on matching cases")
    ap.add_argument("--reps", type=int, default=5, help="interleaved repetitions (default 5)")
    ap.add_argument("--sample-time", type=float, default=0.02,
                    help="seconds per timed sample, calls repeated to reach it (default 0.02)")
    ap.add_argument("--quick", action="store_true",
                    help="a few cases: " + ", ".join(f"{k} {' '.join(map(str, v))}" for k, v in QUICK.items()))
    ap.add_argument("--filter", default=None, help="regex on case names ('<workload> <n>^3 <type> <method>')")
    ap.add_argument("--json", default=None, help="write the results here")
    ap.add_argument("--list", action="store_true", help="print the selected case names and stop")
    ap.add_argument("--child", default=None, help=argparse.SUPPRESS)
    return ap.parse_args()


def run_child(args):
    """Every selected case at this process's HL_NUM_THREADS; results, checks
    and ours' output digests go to args.child as JSON."""
    threads = int(os.environ["HL_NUM_THREADS"])
    p = compare.paths(args)
    ctypes.CDLL(str(p["runtime"]))  # one pool for every copy below
    import scipy.ndimage as ndi
    peers = parse_peers(args.peers)
    active = peers_at(peers, threads)
    F = None
    if "torch" in active:
        import torch
        import torch.nn.functional as F
        torch.set_num_threads(threads)
    plain = PlainPeers(args.build)
    if plain.module is not None:  # a target this CPU lacks would fault
        active = [n for n in active if not n.startswith("plain_") or plain.cpu_runs(n[len("plain_"):])]
    plain_names = [n for n in active if n.startswith("plain_") or n == "loads"]
    if plain.module is None:
        active = [n for n in active if n not in plain_names]
        plain_names = []
    kernels, labels, _ = compare.kernel_sets(args, p["probe"])
    tmpdir = tempfile.mkdtemp(prefix="qzsuite-")
    try:
        libs = {k: compare.Library(p["lib"], k, tmpdir) for k in kernels}
    finally:
        shutil.rmtree(tmpdir, ignore_errors=True)  # the loaded copies stay mapped
    stream = ctypes.CDLL(str(p["stream"]))
    for name in ("qzbench_stream_float32", "qzbench_stream_float64"):
        getattr(stream, name).argtypes = [ctypes.c_void_p] * 4 + [ctypes.c_int, ctypes.c_int]
    ours = ours_names(kernels, labels)
    cases = compare.selected_cases(args, suite_cases)

    results, checks, digests = [], [], {}
    order = sorted(range(len(cases)), key=lambda i: (cases[i].n, cases[i].type))  # one volume at a time
    volume_key = V = Vt = None
    for idx in order:
        case = cases[idx]
        slow = [s for s in SLOW_PEERS if s in active
                and (args.slow_filter is None or re.search(args.slow_filter, case.name))]
        if volume_key != (case.type, case.n):
            V = Vt = None
            t0 = time.perf_counter()
            V = compare.make_volume(case.type, case.n)
            volume_key = (case.type, case.n)
            print(f"# volume {case.n}^3 {case.type} built in {time.perf_counter() - t0:.1f}s",
                  file=sys.stderr, flush=True)
        if "torch" in slow and Vt is None:
            import torch
            vf = V if np.issubdtype(V.dtype, np.floating) else V.astype(np.float32)
            Vt = torch.from_numpy(vf).view(1, 1, *V.shape)
        X, Y, Z = compare.make_coords(case.workload, case.n, compare.TYPES[case.type][1])
        base = compare.make_calls(case, V, Vt, X, Y, Z, libs, kernels, ours, stream,
                                  F if "torch" in slow else None, ndi if "scipy" in slow else None)
        base.update(plain.calls(plain_names, case, V, X, Y, Z))
        names = ours + [n for n in PEERS if n in base and (n in active or n in slow)]
        fns = {n: base[n] for n in names}

        outputs = {n: np.array(fn()).reshape(compare.ROWS, compare.COLS) for n, fn in fns.items()
                   if n not in ("stream", "loads")}
        digests[idx], npts, res = compare.verify_case(case, V, X, Y, Z, outputs, ours, ndi, "suite.py")
        checks.append({"case": idx, "name": case.name, "threads": threads, "points": npts,
                       "impls": {impl: {"diff": diff, "tol": tol} for impl, diff, tol, _ in res}})
        del outputs

        med, util = compare.time_interleaved(fns, args.reps, args.sample_time)
        results.append({"case": idx, "name": case.name, "workload": case.workload, "n": case.n,
                        "type": case.type, "method": case.method, "threads": threads,
                        "mpts": {n: compare.POINTS / med[n] / 1e6 for n in fns},
                        "cpu_per_wall": util})
        print(f"# done {case.name} threads={threads}", file=sys.stderr, flush=True)
        del fns, base
    with open(args.child, "w") as f:
        json.dump({"results": results, "checks": checks, "digests": digests,
                   "plain_missing": plain.why_not}, f)
    return 0


def ours_names(kernels, labels):
    """'ours' for the first (normally auto) set, 'ours[<set>]' for the others."""
    return ["ours"] + [f"ours[{labels[k]}]" for k in kernels[1:]]


def main():
    args = parse_args()
    if args.child:
        return run_child(args)
    cases = compare.selected_cases(args, suite_cases)
    if args.list:
        print("\n".join(c.name for c in cases))
        return 0
    p = compare.paths(args)
    cpus = len(os.sched_getaffinity(0))
    threads = sorted({int(t) for t in args.threads.split(",")} if args.threads else {1, cpus})
    kernels, labels, supported = compare.kernel_sets(args, p["probe"])
    cpu = cpu_identity()
    _, simd = compare.machine_info()
    import scipy
    versions = f"python {platform.python_version()}, numpy {np.__version__}, scipy {scipy.__version__}"
    if "torch" in parse_peers(args.peers):
        import torch
        versions += f", torch {torch.__version__}"
    started = time.time()
    load_before = open("/proc/loadavg").read().split()[:3]
    meta = {"date": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
            "git": compare.git_state(), "library": str(p["lib"]), "cpu": cpu, "simd": simd,
            "cpus": cpus, "threads": threads, "kernels": [labels[k] for k in kernels],
            "supported_kernels": supported, "ours": ours_names(kernels, labels), "peers": args.peers,
            "slow_filter": args.slow_filter, "reps": args.reps, "sample_time": args.sample_time,
            "versions": versions, "cases": len(cases), "load_before": load_before}
    print(f"# suite.py  {meta['date']}  git {meta['git']}")
    print(f"# cpu {cpu['vendor']} family {cpu['family']} model {cpu['model']} ({cpu['model_name']}); "
          f"simd {' '.join(simd)}; cpus usable {cpus}; threads {threads}")
    print(f"# ours: kernel sets {', '.join(meta['kernels'])}; peers {args.peers}"
          + (f" (scipy, torch only on /{args.slow_filter}/)" if args.slow_filter else ""))
    print(f"# {versions}")
    print(f"# {len(cases)} cases, reps {args.reps}, sample >= {args.sample_time}s; "
          f"loadavg before {' '.join(load_before)}", flush=True)

    results, checks, digests, plain_missing = [], [], None, None
    with tempfile.TemporaryDirectory(prefix="qzsuite-") as tmp:
        for t in sorted(threads, reverse=True):
            out = Path(tmp) / f"threads{t}.json"
            child = [sys.executable, str(Path(__file__).resolve()), "--build", args.build,
                     "--kernels", args.kernels, "--peers", args.peers, "--reps", str(args.reps),
                     "--sample-time", str(args.sample_time), "--child", str(out)]
            child += ["--quick"] * args.quick + (["--filter", args.filter] if args.filter else [])
            child += ["--slow-filter", args.slow_filter] if args.slow_filter else []
            rc = subprocess.run(child, env=dict(os.environ, HL_NUM_THREADS=str(t))).returncode
            if rc != 0:
                sys.exit(f"suite.py: the run on {t} threads failed (exit status {rc})")
            data = json.loads(out.read_text())
            results += data["results"]
            checks += data["checks"]
            plain_missing = plain_missing or data["plain_missing"]
            if digests is None:
                digests = data["digests"]
            elif data["digests"] != digests:
                bad = [cases[int(i)].name for i in digests if data["digests"].get(i) != digests[i]]
                sys.exit(f"suite.py: ours gives different bits at {t} threads: {', '.join(bad)}")
    meta["load_after"] = open("/proc/loadavg").read().split()[:3]
    meta["seconds"] = round(time.time() - started, 1)
    meta["plain_missing"] = plain_missing
    print(f"# loadavg after {' '.join(meta['load_after'])}; {meta['seconds']:.0f} s")
    if plain_missing:
        print(f"# plain schedules and loads bound not measured: {plain_missing}")
    report = {"meta": meta, "results": results, "checks": checks}
    if args.json:
        with open(args.json, "w") as f:
            json.dump(report, f, indent=1)
    print()
    suite_table.print_report(report)
    return 0


if __name__ == "__main__":
    sys.exit(main())
