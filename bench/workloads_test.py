#!/usr/bin/python3
"""The benchmark's C++ and Python sides sample the same points: every
workload of bench/workloads.h (dumped by qz_workloads_dump) equals
compare.make_coords bit for bit, in float32 and float64, at every volume
size the suite runs; and every point lies inside the volume.

    /usr/bin/python3 bench/workloads_test.py <path to qz_workloads_dump>
"""

import subprocess
import sys
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent))
import compare  # noqa: E402

SIZES = (64, 256, 512, 1024)


def main():
    dump = sys.argv[1]
    passed = failed = 0
    for workload in compare.WORKLOADS:
        for n in SIZES:
            for ct, name in ((np.float32, "float32"), (np.float64, "float64")):
                raw = subprocess.run([dump, workload, str(n), name], check=True,
                                     capture_output=True).stdout
                cpp = np.frombuffer(raw, ct).reshape(3, compare.ROWS, compare.COLS)
                py = np.stack(compare.make_coords(workload, n, ct))
                problems = []
                if cpp.tobytes() != py.tobytes():
                    problems.append(f"{int(np.sum(cpp != py))} coordinates differ")
                if not (np.all(py >= 1) and np.all(py <= n)):
                    problems.append(f"points outside [1, {n}]")
                if problems:
                    failed += 1
                    print(f"FAIL {workload} {n}^3 {name}: {'; '.join(problems)}")
                else:
                    passed += 1
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
