#!/usr/bin/python3
"""Plots of throughput against volume size from a suite.py JSON report.

One PNG per method and thread count, a grid of small multiples: a row per
workload, a column per sample type; in each, million points per second (log
scale) against the volume's edge n (64 .. 1024), a solid line per
implementation and the streaming and loads bounds dashed. The title names the
CPU (vendor, family, model name), the thread count and the git revision.

    /usr/bin/python3 bench/plot_sizes.py suite.json --out docs/images/ [--label 'pre-tuning baseline']

Files: <out>/bench_<method>_<threads>t.png.
"""

import argparse
import json
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

sys.path.insert(0, str(Path(__file__).resolve().parent))
from suite_table import TYPE_ORDER, WORKLOAD_ORDER, cpu_line  # noqa: E402

# implementation -> (colour, line style, label)
STYLE = {
    "ours": ("#d62728", "-", "ours"),
    "plain_sse41": ("#1f77b4", "-", "plain Halide sse41"),
    "plain_avx2": ("#9467bd", "-", "plain Halide avx2"),
    "plain_avx512": ("#17becf", "-", "plain Halide avx512"),
    "scipy": ("#2ca02c", "-", "scipy map_coordinates"),
    "torch": ("#ff7f0e", "-", "torch grid_sample"),
    "stream": ("#7f7f7f", "--", "streaming bound"),
    "loads": ("#000000", "--", "loads-only bound"),
}


def plot(report, method, threads, path, label):
    results = [r for r in report["results"] if r["method"] == method and r["threads"] == threads]
    workloads = [w for w in WORKLOAD_ORDER if any(r["workload"] == w for r in results)]
    types = [t for t in TYPE_ORDER if any(r["type"] == t for r in results)]
    sizes = sorted({r["n"] for r in results})
    if not workloads or not types:
        return False
    width = max(10.0, 1.9 * len(types) + 1)
    fig, axes = plt.subplots(len(workloads), len(types), figsize=(width, 1.55 * len(workloads) + 1.8),
                             sharex=True, sharey=True, squeeze=False)
    drawn = {}
    for i, w in enumerate(workloads):
        for j, t in enumerate(types):
            ax = axes[i][j]
            rows = sorted((r for r in results if r["workload"] == w and r["type"] == t), key=lambda r: r["n"])
            for impl, (colour, style, name) in STYLE.items():
                pts = [(r["n"], r["mpts"][impl]) for r in rows if impl in r["mpts"]]
                if not pts:
                    continue
                line, = ax.plot([p[0] for p in pts], [p[1] for p in pts], style, color=colour, marker=".",
                                linewidth=2.0 if impl == "ours" else 1.1, markersize=4, label=name)
                drawn.setdefault(name, line)
            ax.set_xscale("log", base=2)
            ax.set_yscale("log")
            ax.set_xticks(sizes)
            ax.set_xticklabels([f"{n}" for n in sizes], fontsize=7)
            ax.tick_params(axis="y", labelsize=7)
            ax.grid(True, which="major", linewidth=0.4, alpha=0.5)
            if i == 0:
                ax.set_title(t, fontsize=9)
            if j == 0:
                ax.set_ylabel(w, fontsize=9)
    fig.supxlabel("volume edge n (n^3 samples)", fontsize=9)
    fig.supylabel("million points per second (log)", fontsize=9)
    method_name = "trilinear" if method == "bilinear" else "nearest"
    w, h = fig.get_figwidth(), fig.get_figheight()
    top = 1 - 1.45 / h  # room for three title lines and the legend
    fig.suptitle(f"{method_name}, {threads} thread{'s' * (threads > 1)}: throughput against volume size "
                 f"(1024 x 1024 points per call)\nCPU: {cpu_line(report['meta'])}\ngit "
                 f"{report['meta']['git']}" + (f", {label}" if label else ""), fontsize=10, y=1 - 0.08 / h)
    fig.legend(list(drawn.values()), list(drawn.keys()), loc="lower center", ncol=4, fontsize=8,
               bbox_to_anchor=(0.5, top + 0.3 / h), frameon=False)
    fig.subplots_adjust(left=0.9 / w, right=1 - 0.15 / w, bottom=0.6 / h, top=top, hspace=0.15, wspace=0.08)
    fig.savefig(path, dpi=72)
    plt.close(fig)
    return True


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("report")
    ap.add_argument("--out", default="docs/images", help="folder for the PNGs (default docs/images)")
    ap.add_argument("--label", default="", help="added to every title, e.g. 'pre-tuning baseline'")
    args = ap.parse_args()
    with open(args.report) as f:
        report = json.load(f)
    out = Path(args.out)
    out.mkdir(parents=True, exist_ok=True)
    for method in ("bilinear", "nearest"):
        for threads in report["meta"]["threads"]:
            path = out / f"bench_{method}_{threads}t.png"
            if plot(report, method, threads, path, args.label):
                print(path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
