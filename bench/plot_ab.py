#!/usr/bin/env python3
"""Bar charts of same-process A/B runs (bench/qz_ab_libraries output).

Each panel is one table of a results file: the table that follows the first
comment line ("# ...") containing SECTION. The chart shows, per case, the
first ratio column (the new build over the base) beside a second copy of the
base build (the last column named base... or head..., else the last column:
the spread of identical code).

    /usr/bin/python3 bench/plot_ab.py --out docs/images/zen3-one-window/ab-one-thread.png \\
        --title "..." "trilinear=bench/results/ab-one-window-zen3.txt:Trilinear with cf9420d" \\
        "nearest=bench/results/ab-one-window-zen3.txt:Nearest with cf9420d"
"""
import argparse

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def read_table(path, section):
    rows, inside, header = [], False, None
    for line in open(path):
        if line.startswith("#"):
            if inside and rows:
                break
            inside = inside or section in line
            continue
        parts = line.split()
        if not inside or not parts:
            continue
        if parts[0] == "method":
            header = parts
        elif parts[0] in ("bilinear", "nearest") and len(parts) >= 7:
            rows.append(parts)
    if not rows:
        raise SystemExit(f"no table after a line with {section!r} in {path}")
    return header, rows


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("panels", nargs="+", help="TITLE=FILE:SECTION")
    ap.add_argument("--out", required=True)
    ap.add_argument("--title", default="")
    args = ap.parse_args()
    fig, axes = plt.subplots(1, len(args.panels), figsize=(6.5 * len(args.panels), 9), squeeze=False)
    for ax, panel in zip(axes[0], args.panels):
        title, rest = panel.split("=", 1)
        path, section = rest.split(":", 1)
        header, rows = read_table(path, section)
        both_methods = len({r[0] for r in rows}) > 1
        labels = [("trilinear " if both_methods and r[0] == "bilinear" else "") + f"{r[1]} {r[2]} {r[3]}^3"
                  for r in rows]
        # The old build's second copy: the last column named base... or head...
        copies = [i for i in range(6, len(header)) if header[i].startswith(("base", "head"))]
        noise_column = copies[-1] if copies else len(header) - 1
        new = [float(r[5]) for r in rows]
        noise = [float(r[noise_column]) for r in rows]
        ys = range(len(rows))
        names = header[5], header[noise_column]
        ax.barh([y + 0.2 for y in ys], new, height=0.4, color="tab:blue", label=f"{names[0]} / {header[4]}")
        ax.barh([y - 0.2 for y in ys], noise, height=0.4, color="tab:gray",
                label=f"{names[1]} / {header[4]} (same code: the noise)")
        ax.axvline(1.0, color="k", lw=0.8)
        ax.set_yticks(list(ys))
        ax.set_yticklabels(labels, fontsize=7)
        ax.invert_yaxis()
        ax.set_xlim(min(0.8, min(new + noise) - 0.05), 1.45)
        ax.set_title(title)
        ax.set_xlabel("speed ratio, one process")
        ax.legend(fontsize=7, loc="lower right")
    fig.suptitle(args.title)
    fig.tight_layout()
    fig.savefig(args.out, dpi=90)


if __name__ == "__main__":
    main()
