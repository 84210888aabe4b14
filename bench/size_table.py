#!/usr/bin/python3
"""Turns qz_bench's JSON reports into one Markdown table of million points
per second, one row per entry, workload and thread count, one column per
volume size (medians when the runs were repeated).

    HL_NUM_THREADS=1 build-bench/bench/qz_bench --benchmark_filter=... --benchmark_format=json > t1.json
    /usr/bin/python3 bench/size_table.py t1.json [t2.json ...]
"""

import json
import re
import sys


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    reports = []
    for path in sys.argv[1:]:
        with open(path) as f:
            reports.append(json.load(f))
    rows, sizes, streams, pools = {}, set(), [], []
    for b in (b for r in reports for b in r["benchmarks"]):
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        name = b.get("run_name", b["name"])
        rate = b["items_per_second"] / 1e6
        m = re.match(r"(interp3_\w+)/(\w+)/n:(\d+)/threads:(\d+)", name)
        if m:
            entry, workload, n, t = m.group(1), m.group(2), int(m.group(3)), int(m.group(4))
            rows.setdefault((entry, workload, t), {})[n] = rate
            sizes.add(n)
            continue
        m = re.match(r"stream/(\w+)/points:\d+/threads:(\d+)", name)
        if m:
            streams.append((m.group(1), int(m.group(2)), rate))
            continue
        m = re.match(r"pool/tasks:\d+/steps:(\d+)/threads:(\d+)", name)
        if m:  # items are tasks
            pools.append((int(m.group(1)), int(m.group(2)), 1e3 / rate))
    sizes = sorted(sizes)
    for r in reports:
        ctx = r.get("context", {})
        print(f"qz_bench {ctx.get('date', '')}: kernel set {ctx.get('qz_kernel_set', '?')}, "
              f"{ctx.get('qz_threads', '?')} threads of {ctx.get('num_cpus', '?')} cpus, "
              f"load {' '.join(f'{x:.2f}' for x in ctx.get('load_avg', []))}")
    print()
    print("Million points per second.")
    print()
    print("| entry | workload | threads | " + " | ".join(f"{n}^3" for n in sizes) + " |")
    print("|---|---|--:|" + "--:|" * len(sizes))
    for (entry, workload, t), by_n in sorted(rows.items()):
        cells = [f"{by_n[n]:.0f}" if n in by_n else "" for n in sizes]
        print(f"| {entry} | {workload} | {t} | " + " | ".join(cells) + " |")
    for ct, t, rate in sorted(streams):
        print(f"| stream {ct} | (any) | {t} | " + " | ".join([f"{rate:.0f}"] + [""] * (len(sizes) - 1)) + " |")
    if pools:
        print()
        print("The pool alone: wall time per row task, tasks of `steps` dependent multiply-adds.")
        print()
        print("| steps | threads | ns per task |")
        print("|--:|--:|--:|")
        for steps, t, ns in sorted(pools):
            print(f"| {steps} | {t} | {ns:.0f} |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
