#!/usr/bin/python3
"""Markdown tables from a suite.py JSON report: million points per second
per implementation, and ours over the better plain schedule, over the
streaming bound and over the loads bound; then the cases where ours is below
a given multiple of the better plain schedule, and the agreement checks.

    /usr/bin/python3 bench/suite_table.py suite.json [--below 1.25] [--filter REGEX] [--grid]
"""

import argparse
import json
import re
import sys

IMPL_ORDER = ("plain_sse41", "plain_avx2", "plain_avx512", "scipy", "torch", "stream", "loads")


def fmt_rate(x):
    return f"{x:.1f}" if x < 100 else f"{x:.0f}"


def impls_of(report):
    """Ours' columns first, then the peers that were measured anywhere."""
    seen = {name for r in report["results"] for name in r["mpts"]}
    return list(report["meta"]["ours"]) + [n for n in IMPL_ORDER if n in seen]


def better_plain(mpts):
    """(rate, name) of the faster plain schedule, or None when none ran."""
    plain = [(mpts[n], n) for n in ("plain_sse41", "plain_avx2", "plain_avx512") if n in mpts]
    return max(plain) if plain else None


def disturbed(r):
    """Ours had less CPU than its threads while timed (the machine was busy
    with something else): its figures say little."""
    return r["cpu_per_wall"]["ours"] < 0.9 * r["threads"]


def ratio(a, b):
    return f"{a / b:.2f}" if b else ""


def cpu_line(meta):
    c = meta["cpu"]
    return f"{c['vendor']} family {c['family']} model {c['model']} ({c['model_name']})"


def sort_key(r):
    return (r["method"], r["type"], r["workload"], r["n"], r["threads"])


def print_rates(results, impls, out):
    head = ["case", "thr"] + impls + ["ours/plain", "ours/stream", "ours/loads", "cpu/wall ours"]
    print("| " + " | ".join(head) + " |", file=out)
    print("|" + "|".join(["---"] + ["--:"] * (len(head) - 1)) + "|", file=out)
    for r in sorted(results, key=sort_key):
        m = r["mpts"]
        plain = better_plain(m)
        row = [r["name"], str(r["threads"])] + [fmt_rate(m[i]) if i in m else "" for i in impls]
        row.append(ratio(m["ours"], plain[0]) if plain else "")
        row.append(ratio(m["ours"], m.get("stream", 0)))
        row.append(ratio(m["ours"], m.get("loads", 0)))
        row.append(f"{r['cpu_per_wall']['ours']:.2f}" + " *" * disturbed(r))
        print("| " + " | ".join(row) + " |", file=out)


def print_below(results, below, out):
    rows = []
    for r in sorted(results, key=sort_key):
        plain = better_plain(r["mpts"])
        if plain and r["mpts"]["ours"] < below * plain[0]:
            rows.append((r, plain))
    print(f"Cases where ours is below {below:g}x the better plain schedule: {len(rows)} of "
          f"{sum(1 for r in results if better_plain(r['mpts']))}.", file=out)
    if not rows:
        return
    print(file=out)
    print("| case | thr | ours | better plain | ours/plain | cpu/wall ours |", file=out)
    print("|---|--:|--:|---|--:|--:|", file=out)
    for r, (rate, name) in rows:
        print(f"| {r['name']} | {r['threads']} | {fmt_rate(r['mpts']['ours'])} | "
              f"{name} {fmt_rate(rate)} | {r['mpts']['ours'] / rate:.2f} | "
              f"{r['cpu_per_wall']['ours']:.2f}{' *' * disturbed(r)} |", file=out)


def print_checks(checks, out):
    """The largest |difference| over tolerance per implementation (0 for
    nearest, which must be exact), over every case checked."""
    worst = {}
    for c in checks:
        for impl, d in c["impls"].items():
            share = d["diff"] / d["tol"] if d["tol"] else (0.0 if d["diff"] == 0 else float("inf"))
            if share >= worst.get(impl, (-1.0, None))[0]:
                worst[impl] = (share, c["name"])
    print(f"Agreement with a float64 reference on interior points, {len(checks)} case checks: "
          "the largest |difference| as a share of the tolerance (nearest: exact, so 0).", file=out)
    print(file=out)
    print("| implementation | worst share of tolerance | in |", file=out)
    print("|---|--:|---|", file=out)
    for impl, (share, name) in worst.items():
        print(f"| {impl} | {share:.3f} | {name} |", file=out)


TYPE_ORDER = ("uint8", "int8", "uint16", "int16", "uint32", "int32", "float32", "float64")
WORKLOAD_ORDER = ("axis_x", "axis_y", "axis_z", "oblique", "oblique_45", "oblique_steep", "upsample",
                  "deformed", "random")


def print_ratio_grid(results, out):
    """Ours over the better plain schedule, one table per method and thread
    count: a row per workload and size, a column per type."""
    types = [t for t in TYPE_ORDER if any(r["type"] == t for r in results)]
    cell = {(r["method"], r["threads"], r["workload"], r["n"], r["type"]): r for r in results}
    for method in ("bilinear", "nearest"):
        for threads in sorted({r["threads"] for r in results}):
            keys = sorted({(WORKLOAD_ORDER.index(r["workload"]), r["n"]) for r in results
                           if r["method"] == method and r["threads"] == threads})
            if not keys:
                continue
            print(f"ours / better plain schedule, {method}, {threads} thread{'s' * (threads > 1)}:",
                  file=out)
            print(file=out)
            print("| workload | n | " + " | ".join(types) + " |", file=out)
            print("|---|--:|" + "--:|" * len(types), file=out)
            for w, n in keys:
                row = []
                for t in types:
                    r = cell.get((method, threads, WORKLOAD_ORDER[w], n, t))
                    plain = better_plain(r["mpts"]) if r else None
                    row.append(f"{r['mpts']['ours'] / plain[0]:.2f}" + "*" * disturbed(r) if plain else "")
                print(f"| {WORKLOAD_ORDER[w]} | {n} | " + " | ".join(row) + " |", file=out)
            print(file=out)


def print_report(report, below=1.25, pattern=None, out=sys.stdout, grid=False):
    meta = report["meta"]
    results = [r for r in report["results"] if not pattern or re.search(pattern, r["name"])]
    impls = impls_of(report)
    print(f"CPU: {cpu_line(meta)}, {meta['cpus']} cpus usable; git {meta['git']}; {meta['date']}; "
          f"load before {' '.join(meta['load_before'])}, after {' '.join(meta['load_after'])}; "
          f"{meta['seconds']:.0f} s.", file=out)
    print(f"Million query points per second, median of {meta['reps']} interleaved repetitions "
          f"(higher is better); ours = kernel set {meta['kernels'][0]}. ours/plain is over the "
          "best of the plain schedules this CPU runs (plain_sse41, plain_avx2, plain_avx512).", file=out)
    busy = sum(1 for r in results if disturbed(r))
    print(f"cpu/wall is the process's CPU time over wall time while ours ran; * marks the {busy} of "
          f"{len(results)} cases where it was below 0.9 x the threads (another program had the cores).",
          file=out)
    if meta.get("plain_missing"):
        print(f"Plain schedules and the loads bound were not measured: {meta['plain_missing']}.",
              file=out)
    print(file=out)
    if grid:
        print_ratio_grid(results, out)
    else:
        print_rates(results, impls, out)
    print(file=out)
    print_below(results, below, out)
    print(file=out)
    print_checks(report["checks"], out)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("report")
    ap.add_argument("--below", type=float, default=1.25,
                    help="list the cases where ours is below this multiple of the better plain schedule")
    ap.add_argument("--filter", default=None, help="regex on case names")
    ap.add_argument("--grid", action="store_true",
                    help="instead of every rate, ours over the better plain schedule by workload, size and type")
    args = ap.parse_args()
    with open(args.report) as f:
        report = json.load(f)
    print_report(report, args.below, args.filter, grid=args.grid)
    return 0


if __name__ == "__main__":
    sys.exit(main())
