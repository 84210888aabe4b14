#!/usr/bin/python3
"""Checks scaling.py's arithmetic on made-up reports: the pool's speed-up at
a task length (interpolated on a log scale, held at the ends), each case's
row length and speed-up, and which cases meet the goal."""

import json
import math
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import scaling  # noqa: E402


def pool_report(us_by_steps, threads):
    return {"benchmarks": [
        {"name": f"pool/tasks:1024/steps:{s}/threads:{threads}/real_time",
         "run_name": f"pool/tasks:1024/steps:{s}/threads:{threads}/real_time",
         "run_type": "iteration", "items_per_second": 1e6 / us}
        for s, us in us_by_steps.items()]}


class PoolCurve(unittest.TestCase):
    def setUp(self):
        self.curve = scaling.pool_curve({0: 0.02, 250: 0.4, 1000: 1.6}, {0: 0.04, 250: 0.4, 1000: 0.8})

    def test_dispatch_alone_is_left_out(self):
        self.assertEqual(self.curve, [(0.4, 1.0), (1.6, 2.0)])

    def test_interpolates_on_a_log_scale(self):
        self.assertAlmostEqual(scaling.speedup_at(self.curve, 0.8), 1.5)
        self.assertAlmostEqual(scaling.speedup_at(self.curve, 1.6), 2.0)

    def test_holds_the_nearest_length_outside(self):
        self.assertEqual(scaling.speedup_at(self.curve, 0.1), 1.0)
        self.assertEqual(scaling.speedup_at(self.curve, 50.0), 2.0)


class Goal(unittest.TestCase):
    def test_short_rows_need_a_share_of_the_pool_long_rows_a_fixed_speedup(self):
        curve = [(0.4, 1.0), (1.6, 2.0)]
        self.assertAlmostEqual(scaling.needed(curve, 0.8), 0.9 * 1.5)
        self.assertAlmostEqual(scaling.needed(curve, 0.1), 0.9)
        self.assertEqual(scaling.needed(curve, 1.0), 1.8)
        self.assertEqual(scaling.needed(curve, 30.0), 1.8)


class Cases(unittest.TestCase):
    def test_row_length_speedups_and_goal(self):
        def case(name, t, ours, loads):
            return {"name": name, "method": "nearest", "workload": "axis_x", "threads": t,
                    "mpts": {"ours": ours, "loads": loads}}
        suite = {"meta": {"git": "x"}, "results": [
            case("short", 1, 2048.0, 100.0), case("short", 2, 2048.0, 150.0),
            case("long", 1, 512.0, 100.0), case("long", 2, 972.8, 200.0),
            case("one thread only", 1, 1000.0, 1.0)]}
        with tempfile.TemporaryDirectory() as d:
            path = Path(d) / "suite.json"
            path.write_text(json.dumps(suite))
            meta, rows = scaling.cases(str(path))
        self.assertEqual(meta, {"git": "x"})
        by = {r[0]: r for r in rows}
        self.assertEqual(set(by), {"short", "long"})
        self.assertAlmostEqual(by["short"][3], 0.5)  # 1024 points at 2048 M/s
        self.assertAlmostEqual(by["short"][4], 1.0)
        self.assertAlmostEqual(by["short"][5], 1.5)
        self.assertAlmostEqual(by["long"][3], 2.0)
        self.assertAlmostEqual(by["long"][4], 1.9)


class Reports(unittest.TestCase):
    def test_reads_the_pool_from_google_benchmark_json(self):
        with tempfile.TemporaryDirectory() as d:
            one, two = Path(d) / "1.json", Path(d) / "2.json"
            one.write_text(json.dumps(pool_report({250: 0.4, 500: 0.8}, 1)))
            two.write_text(json.dumps(pool_report({250: 0.3, 500: 0.4}, 2)))
            curve = scaling.pool_curve(scaling.pool_task_us([str(one)]),
                                       scaling.pool_task_us([str(two)]))
        self.assertEqual(len(curve), 2)
        self.assertTrue(math.isclose(curve[0][1], 0.4 / 0.3))
        self.assertTrue(math.isclose(curve[1][1], 2.0))


if __name__ == "__main__":
    unittest.main()
