#!/usr/bin/python3
"""Turns qz_bench's JSON into a Markdown table of million points per second,
one row per entry, workload and thread count, one column per volume size.

    build-bench/bench/qz_bench --benchmark_filter=... --benchmark_format=json > run.json
    /usr/bin/python3 bench/size_table.py run.json
"""

import json
import re
import sys


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    with open(sys.argv[1]) as f:
        report = json.load(f)
    ctx = report.get("context", {})
    rows, sizes, streams = {}, set(), []
    for b in report["benchmarks"]:
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
    sizes = sorted(sizes)
    print(f"qz_bench, kernel set {ctx.get('qz_kernel_set', '?')}, "
          f"{ctx.get('num_cpus', '?')} cpus, load {ctx.get('load_avg', '?')}; million points per second")
    print()
    print("| entry | workload | threads | " + " | ".join(f"{n}^3" for n in sizes) + " |")
    print("|---|---|--:|" + "--:|" * len(sizes))
    for (entry, workload, t), by_n in sorted(rows.items()):
        cells = [f"{by_n[n]:.0f}" if n in by_n else "" for n in sizes]
        print(f"| {entry} | {workload} | {t} | " + " | ".join(cells) + " |")
    for ct, t, rate in sorted(streams):
        print(f"| stream {ct} | (any) | {t} | " + " | ".join([f"{rate:.0f}"] + [""] * (len(sizes) - 1)) + " |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
