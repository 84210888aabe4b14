"""interp3, map_coordinates and affine_transform release the GIL while it computes: another Python thread runs
during the call.

The interpreter's switch interval is raised so far that a thread holding the
GIL is never asked to give it up within the test: then the only way the
counting thread can advance the counter between the two reads around the
call is that the call itself released the GIL. With the GIL held throughout,
the two reads are always equal."""

import sys
import threading
import time

import numpy as np
import pytest

import qzinterp3d as qz


@pytest.fixture
def no_forced_switches():
    previous = sys.getswitchinterval()
    sys.setswitchinterval(1000.0)
    try:
        yield
    finally:
        sys.setswitchinterval(previous)


def counting_thread(state):
    state["started"].set()
    while not state["stop"]:
        state["count"] += 1
        time.sleep(0)  # gives the GIL up, so the calling thread can get it back


def advanced_during(call):
    """How far the counting thread got during one of (up to 20) calls."""
    state = {"started": threading.Event(), "stop": False, "count": 0}
    counter = threading.Thread(target=counting_thread, args=(state,))
    counter.start()
    state["started"].wait()
    try:
        advanced = 0
        for _ in range(20):  # normally the first call shows it
            before = state["count"]
            call()
            advanced = state["count"] - before
            if advanced:
                break
    finally:
        state["stop"] = True
        counter.join()
    return advanced


@pytest.mark.parametrize("grid", ["serial", "pool"])
def test_another_thread_runs_during_the_call(no_forced_switches, grid):
    rng = np.random.default_rng(1)
    nx = 4 if grid == "serial" else 64
    volume = rng.random((32, 32, nx), dtype=np.float32)
    xq, yq, zq = (rng.uniform(1, n, (1500, 1000)).astype(np.float32) for n in (nx, 32, 32))
    assert advanced_during(lambda: qz.interp3(volume, xq, yq, zq)) > 0


@pytest.mark.parametrize("grid", ["serial", "pool"])
def test_another_thread_runs_during_resampling(no_forced_switches, grid):
    rng = np.random.default_rng(2)
    nx = 4 if grid == "serial" else 64
    volume = rng.random((32, 32, nx), dtype=np.float32)
    coords = rng.uniform(0, 31, (3, 1500, 1000))
    matrix = np.diag([0.02, 0.03, 0.05])
    assert advanced_during(lambda: qz.map_coordinates(volume, coords)) > 0
    assert advanced_during(lambda: qz.affine_transform(volume, matrix, output_shape=(30, 200, 300))) > 0
