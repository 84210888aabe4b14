#!/usr/bin/python3
"""Two threads against one, row by row length: each case's speed-up beside
the Halide pool's own speed-up on tasks of the same length.

A row task of ours computes one output row (1024 points in every workload);
its length at one thread is 1024 / (points per second). The pool alone
(qz_bench's `pool/tasks:1024/steps:<s>`: row tasks of s dependent
multiply-adds, no memory traffic) gives the speed-up that the pool allows
tasks of each length; between two measured lengths it is interpolated on a
log scale, and outside them it is the nearest measured one.

    HL_NUM_THREADS=1 build-bench/bench/qz_bench --benchmark_filter='^pool/' \\
        --benchmark_repetitions=5 --benchmark_format=json > pool1.json
    HL_NUM_THREADS=2 build-bench/bench/qz_bench --benchmark_filter='^pool/' \\
        --benchmark_repetitions=5 --benchmark_format=json > pool2.json
    /usr/bin/python3 bench/scaling.py suite.json pool1.json pool2.json [--plot out.png]

suite.json is bench/suite.py's report with both thread counts; where it has
the loads-only bound and the stream (the same samples read at the same
addresses; the least traffic), their own speed-ups are shown beside ours:
rows bound by memory cannot scale further than the memory system does. The goal
this checks: at least 0.9 of the pool's speed-up for rows shorter than a
microsecond, and 1.8x for rows of a microsecond or more.
"""

import argparse
import collections
import json
import math
import re
import statistics
import sys

POINTS_PER_ROW = 1024
LONG_ROW_US = 1.0
SHORT_ROW_SHARE = 0.9
LONG_ROW_SPEEDUP = 1.8
BINS_US = (0.0, 0.5, 1.0, 3.0, 10.0, math.inf)


def pool_task_us(paths):
    """{steps: median wall time per task in microseconds} over the reports."""
    times = collections.defaultdict(list)
    for path in paths:
        with open(path) as f:
            report = json.load(f)
        for b in report["benchmarks"]:
            if b.get("run_type") == "aggregate":
                continue
            m = re.match(r"pool/tasks:\d+/steps:(\d+)/threads:\d+", b.get("run_name", b["name"]))
            if m:
                times[int(m.group(1))].append(1e6 / b["items_per_second"])
    return {s: statistics.median(v) for s, v in times.items()}


def pool_curve(one, two):
    """[(task length at one thread in us, speed-up at two)] by length."""
    steps = sorted(set(one) & set(two))
    return sorted((one[s], one[s] / two[s]) for s in steps if s > 0)


def speedup_at(curve, us):
    if us <= curve[0][0]:
        return curve[0][1]
    if us >= curve[-1][0]:
        return curve[-1][1]
    for (a, sa), (b, sb) in zip(curve, curve[1:]):
        if a <= us <= b:
            w = (math.log(us) - math.log(a)) / (math.log(b) - math.log(a))
            return sa + w * (sb - sa)
    raise AssertionError("unreachable")


def needed(curve, us):
    """The speed-up the goal asks of a row that lasts `us` at one thread."""
    if us < LONG_ROW_US:
        return SHORT_ROW_SHARE * speedup_at(curve, us)
    return LONG_ROW_SPEEDUP


def cases(suite_path):
    """[(name, method, workload, row us at one thread, speed-up, the loads-only
    bound's speed-up or None, the stream's or None)]."""
    with open(suite_path) as f:
        suite = json.load(f)
    by_name = collections.defaultdict(dict)
    for r in suite["results"]:
        by_name[r["name"]][r["threads"]] = r
    out = []
    for name, t in by_name.items():
        if 1 not in t or 2 not in t:
            continue
        one, two = t[1]["mpts"]["ours"], t[2]["mpts"]["ours"]

        def peer(p):
            a, b = t[1]["mpts"].get(p), t[2]["mpts"].get(p)
            return b / a if a and b else None

        out.append((name, t[1]["method"], t[1]["workload"], POINTS_PER_ROW / one, two / one,
                    peer("loads"), peer("stream")))
    return suite.get("meta", {}), out


def bin_label(lo, hi):
    return f">= {lo:g} us" if math.isinf(hi) else f"{lo:g}-{hi:g} us"


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("suite")
    ap.add_argument("pool1")
    ap.add_argument("pool2")
    ap.add_argument("--plot", help="write a PNG of speed-up against row length here")
    ap.add_argument("--worst", type=int, default=10, help="list this many cases furthest below the goal")
    args = ap.parse_args()

    one, two = pool_task_us([args.pool1]), pool_task_us([args.pool2])
    curve = pool_curve(one, two)
    if len(curve) < 2:
        sys.exit("need the pool at two or more task lengths at both thread counts")
    meta, rows = cases(args.suite)
    if not rows:
        sys.exit("the suite report has no case at both 1 and 2 threads")

    print("The pool alone: wall time per row task, and two threads over one.\n")
    print("| steps | 1 thread | 2 threads | 2 threads / 1 |\n|--:|--:|--:|--:|")
    for s in sorted(set(one) & set(two)):
        print(f"| {s} | {one[s] * 1e3:.0f} ns | {two[s] * 1e3:.0f} ns | {one[s] / two[s]:.2f}x |")

    def peer_median(sel, k):
        v = [r[k] for r in sel if r[k] is not None]
        return f"{statistics.median(v):.2f}x" if v else ""

    def goal_met(us, speedup):
        return speedup >= needed(curve, us)

    print(f"\nOurs, two threads over one, by the length of a row at one thread "
          f"({meta.get('git', '')}; {len(rows)} cases). The goal: "
          f"{SHORT_ROW_SHARE:g} of the pool's speed-up below {LONG_ROW_US:g} us, "
          f"{LONG_ROW_SPEEDUP:g}x from there on.\n")
    print("| row at 1 thread | cases | ours: median | min | pool at the median length | "
          "ours / pool, median | loads-only bound, median | stream, median | goal met |\n"
          "|---|--:|--:|--:|--:|--:|--:|--:|--:|")
    for lo, hi in zip(BINS_US, BINS_US[1:]):
        sel = [r for r in rows if lo <= r[3] < hi]
        if not sel:
            continue
        speedups = [r[4] for r in sel]
        median_us = statistics.median(r[3] for r in sel)
        shares = [r[4] / speedup_at(curve, r[3]) for r in sel]
        met = sum(goal_met(r[3], r[4]) for r in sel)
        print(f"| {bin_label(lo, hi)} | {len(sel)} | {statistics.median(speedups):.2f}x | "
              f"{min(speedups):.2f}x | {speedup_at(curve, median_us):.2f}x | "
              f"{statistics.median(shares):.2f} | {peer_median(sel, 5)} | {peer_median(sel, 6)} | "
              f"{met} of {len(sel)} |")

    print("\nBy method and workload (median row length at 1 thread, median speed-up, "
          "goal met):\n")
    print("| method | workload | row | ours | loads-only bound | goal met |\n|---|---|--:|--:|--:|--:|")
    groups = collections.defaultdict(list)
    for r in rows:
        groups[(r[1], r[2])].append(r)
    for (method, workload), sel in sorted(groups.items()):
        met = sum(goal_met(r[3], r[4]) for r in sel)
        print(f"| {method} | {workload} | {statistics.median(r[3] for r in sel):.2f} us | "
              f"{statistics.median(r[4] for r in sel):.2f}x | {peer_median(sel, 5)} | "
              f"{met} of {len(sel)} |")

    def shortfall(r):
        return r[4] / needed(curve, r[3])

    worst = sorted(rows, key=shortfall)[: args.worst]
    print(f"\nFurthest below the goal ({args.worst}):\n")
    print("| case | row | ours | loads-only bound | needed |\n|---|--:|--:|--:|--:|")
    for r in worst:
        need = needed(curve, r[3])
        loads = f"{r[5]:.2f}x" if r[5] is not None else ""
        print(f"| {r[0]} | {r[3]:.2f} us | {r[4]:.2f}x | {loads} | {need:.2f}x |")

    if args.plot:
        import matplotlib

        matplotlib.use("Agg")
        import matplotlib.pyplot as plt

        fig, ax = plt.subplots(figsize=(8, 5))
        for method, colour in (("bilinear", "tab:blue"), ("nearest", "tab:orange")):
            sel = [r for r in rows if r[1] == method]
            ax.scatter([r[3] for r in sel], [r[4] for r in sel], s=9, alpha=0.6, color=colour,
                       label=f"ours, {'trilinear' if method == 'bilinear' else method}")
        xs = [c[0] for c in curve]
        ax.plot(xs, [c[1] for c in curve], "k-o", ms=4, label="the pool alone (no memory traffic)")
        ax.plot(xs, [SHORT_ROW_SHARE * c[1] for c in curve], "k:", lw=1,
                label=f"{SHORT_ROW_SHARE:g} of the pool")
        ax.axhline(LONG_ROW_SPEEDUP, color="grey", ls="--", lw=1, label=f"{LONG_ROW_SPEEDUP:g}x")
        ax.axvline(LONG_ROW_US, color="grey", ls=":", lw=1)
        ax.set_xscale("log")
        ax.set_xlabel("length of a row task at 1 thread (us, 1024 points)")
        ax.set_ylabel("2 threads / 1 thread")
        cpu = meta.get("cpu", {})
        cpu_name = (f"{cpu.get('vendor', '')} family {cpu.get('family', '?')} model "
                    f"{cpu.get('model', '?')}" if cpu else "")
        ax.set_title(f"Two threads over one by row length; {cpu_name}, git {meta.get('git', '?')}",
                     fontsize=10)
        ax.legend(fontsize=8, loc="lower right")
        ax.grid(True, which="both", alpha=0.3)
        fig.tight_layout()
        fig.savefig(args.plot, dpi=110)
        print(f"\nwrote {args.plot}")


if __name__ == "__main__":
    main()
