#!/usr/bin/env python3
"""Two suite.py reports side by side: ours over the better plain schedule,
case by case, then per method and thread count the medians and the number
of cases below 1.25x and below 1x in each.

The runs are separate processes, often hours apart: rows that wait on memory
move with the host by up to 2x, so a change is judged by same-process A/B
runs (bench/qz_ab_libraries); this shows where the goals stand.

    /usr/bin/python3 bench/suite_diff.py OLD.json NEW.json [--filter REGEX] [--cases]
"""
import argparse
import json
import re
import statistics


def ratios(report):
    """(case name, threads) -> ours over the better plain schedule, from a
    loaded report; cases without ours or without a plain schedule are left
    out."""
    out = {}
    for c in report["results"]:
        rates = c["mpts"]
        plains = [v for k, v in rates.items() if k.startswith("plain_")]
        if "ours" in rates and plains:
            out[(c["name"], c["threads"])] = rates["ours"] / max(plains)
    return out


def summary(old, new, pattern=""):
    """Per method and thread count, over the cases both runs have: the
    median ratio and the cases below 1.25x and below 1x, old then new."""
    keys = [k for k in new if k in old and re.search(pattern, k[0])]
    rows = []
    for method in ("nearest", "bilinear"):
        for threads in (1, 2):
            ks = [k for k in keys if k[1] == threads and k[0].endswith(" " + method)]
            if not ks:
                continue
            rows.append({
                "method": method, "threads": threads, "cases": len(ks),
                "median": tuple(statistics.median(d[k] for k in ks) for d in (old, new)),
                "below_1.25": tuple(sum(d[k] < 1.25 for k in ks) for d in (old, new)),
                "below_1": tuple(sum(d[k] < 1.0 for k in ks) for d in (old, new)),
            })
    return rows


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("old")
    ap.add_argument("new")
    ap.add_argument("--filter", default="", help="regex on case names")
    ap.add_argument("--cases", action="store_true", help="list every case, not only the summary")
    args = ap.parse_args()
    old_report, new_report = json.load(open(args.old)), json.load(open(args.new))
    old, new = ratios(old_report), ratios(new_report)
    git = [r.get("meta", {}).get("git", "?") for r in (old_report, new_report)]
    print(f"ours / better plain schedule: {args.old} (git {git[0]}) -> {args.new} (git {git[1]})\n")
    print("| method | threads | median | below 1.25x | below 1x | cases |")
    print("|---|--:|--:|--:|--:|--:|")
    for r in summary(old, new, args.filter):
        print(f"| {r['method']} | {r['threads']} | {r['median'][0]:.2f} -> {r['median'][1]:.2f} "
              f"| {r['below_1.25'][0]} -> {r['below_1.25'][1]} | {r['below_1'][0]} -> {r['below_1'][1]} "
              f"| {r['cases']} |")
    if args.cases:
        print("\n| case | threads | old | new |")
        print("|---|--:|--:|--:|")
        for k in sorted(k for k in new if k in old and re.search(args.filter, k[0])):
            print(f"| {k[0]} | {k[1]} | {old[k]:.2f} | {new[k]:.2f} |")


if __name__ == "__main__":
    main()
