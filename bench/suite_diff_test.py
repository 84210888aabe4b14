#!/usr/bin/python3
"""Checks suite_diff.py's arithmetic on made-up reports: ours over the better
plain schedule, the cases both runs share, and the per-method counts."""

import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import suite_diff  # noqa: E402


def case(name, threads, ours=None, **plains):
    rates = dict(plains)
    if ours is not None:
        rates["ours"] = ours
    return {"name": name, "threads": threads, "mpts": rates}


class Ratios(unittest.TestCase):
    def test_over_the_better_plain_schedule(self):
        report = {"results": [case("axis_x 64^3 uint8 nearest", 1, 300, plain_sse41=100, plain_avx2=200)]}
        self.assertEqual(suite_diff.ratios(report), {("axis_x 64^3 uint8 nearest", 1): 1.5})

    def test_leaves_out_cases_without_ours_or_a_plain_schedule(self):
        report = {"results": [case("a 64^3 uint8 nearest", 1, plain_avx2=100),
                              case("b 64^3 uint8 nearest", 1, 100, stream=50)]}
        self.assertEqual(suite_diff.ratios(report), {})


class Summary(unittest.TestCase):
    old = {("a 64^3 uint8 nearest", 1): 0.9, ("b 64^3 uint8 nearest", 1): 1.2,
           ("c 64^3 uint8 nearest", 1): 1.5, ("a 64^3 uint8 bilinear", 2): 2.0,
           ("gone 64^3 uint8 nearest", 1): 0.5}
    new = {("a 64^3 uint8 nearest", 1): 1.1, ("b 64^3 uint8 nearest", 1): 1.3,
           ("c 64^3 uint8 nearest", 1): 1.6, ("a 64^3 uint8 bilinear", 2): 1.0}

    def test_counts_and_medians_per_method_and_threads(self):
        rows = suite_diff.summary(self.old, self.new)
        self.assertEqual([(r["method"], r["threads"]) for r in rows], [("nearest", 1), ("bilinear", 2)])
        nearest, bilinear = rows
        self.assertEqual(nearest["cases"], 3)  # the case only the old run has is left out
        self.assertEqual(nearest["median"], (1.2, 1.3))
        self.assertEqual(nearest["below_1.25"], (2, 1))
        self.assertEqual(nearest["below_1"], (1, 0))
        self.assertEqual(bilinear["below_1.25"], (0, 1))
        self.assertEqual(bilinear["below_1"], (0, 0))

    def test_filter_on_case_names(self):
        rows = suite_diff.summary(self.old, self.new, "^b ")
        self.assertEqual(len(rows), 1)
        self.assertEqual(rows[0]["cases"], 1)


if __name__ == "__main__":
    unittest.main()
