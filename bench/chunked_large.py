"""A volume larger than each worker's memory, resampled from a Zarr store.

    /usr/bin/python3 bench/chunked_large.py [--gib 4] [--memory-limit 1GiB] [--dir DIR]

Writes a uint16 volume of about --gib GiB to a Zarr store (64^3 chunks),
starts a LocalCluster of two worker processes with --memory-limit each, and
computes through qzinterp3d.dask an oblique plane through the whole volume
(affine_transform) and a million points spread over it (map_coordinates).
Prints the time of each, the chunks read, the workers' peak memory, and
whether the values equal those of the in-memory call on the whole volume,
bit for bit (that check loads the whole volume into this process).
Needs PYTHONPATH to hold the qzinterp3d package (e.g. build/python).
"""

import argparse
import logging
import os
import shutil
import tempfile
import threading
import time

import dask.array as da
import distributed
import numpy as np
import zarr

import qzinterp3d as qz
import qzinterp3d.dask as qzd


class CountingStore(zarr.storage.DirectoryStore):
    def __init__(self, path, log):
        super().__init__(path)
        self.log = log

    def __getitem__(self, key):
        if not os.path.basename(key).startswith("."):
            with open(self.log, "a") as f:
                f.write(key + "\n")
        return super().__getitem__(key)

    def __getstate__(self):
        return self.path, self.log

    def __setstate__(self, state):
        self.__init__(*state)


def watch_memory(client, peak, done):
    """Samples each worker's resident memory every 0.2 s until done."""
    while not done.wait(0.2):
        try:
            now = client.run(lambda: __import__("psutil").Process().memory_info().rss)
        except Exception:
            continue
        for worker, rss in now.items():
            peak[worker] = max(peak.get(worker, 0), rss)


def same_bits(a, b):
    return a.shape == b.shape and np.array_equal(a.view(np.uint32), b.view(np.uint32))


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--gib", type=float, default=4.0)
    p.add_argument("--memory-limit", default="1GiB")
    p.add_argument("--dir", default=None)
    args = p.parse_args()

    nx = 2048
    side = int(round((args.gib * 2**30 / 2 / nx) ** 0.5 / 64)) * 64
    shape = (side, side, nx)
    work = tempfile.mkdtemp(dir=args.dir)
    path, log = os.path.join(work, "volume.zarr"), os.path.join(work, "reads.log")
    t = time.time()
    z = zarr.open_array(path, mode="w", shape=shape, chunks=(64, 64, 64), dtype=np.uint16)
    noise = np.random.default_rng(1).integers(0, 4096, nx).astype(np.uint16)
    j, i = np.ogrid[:side, :nx]
    for k in range(0, side, 64):
        kk = np.arange(k, k + 64)[:, None, None]
        z[k:k + 64] = ((kk * 131 + j * 37 + i * 7) % 60000).astype(np.uint16) ^ noise
    print(f"volume {shape} uint16, {np.prod(shape) * 2 / 2**30:.2f} GiB, "
          f"{z.nchunks} chunks, written in {time.time() - t:.1f} s")

    volume = da.from_zarr(zarr.open_array(store=CountingStore(path, log), mode="r"))
    m = np.array([[0, 0.6, 0.2], [0, 1.0, 0.0], [0, -0.3, 0.95]])
    offset = [side * 0.3, 0.0, 20.0]
    out_shape = (1, side, nx)
    rng = np.random.default_rng(2)
    points = np.stack([rng.uniform(-1, n, 1_000_000) for n in shape])

    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, memory_limit=args.memory_limit,
                                  dashboard_address=None, silence_logs=logging.ERROR) as cluster, \
            distributed.Client(cluster) as client:
        results = {}
        for name, make in [
            ("affine_transform, oblique plane", lambda: qzd.affine_transform(
                volume, m, offset, output_shape=out_shape, output=np.float32)),
            ("map_coordinates, 1e6 spread points", lambda: qzd.map_coordinates(
                volume, da.from_array(points, chunks=(3, 250_000)), output=np.float32)),
        ]:
            if os.path.exists(log):
                os.remove(log)
            t = time.time()
            lazy = make()
            planned = time.time() - t
            peak, done = {}, threading.Event()
            watcher = threading.Thread(target=watch_memory, args=(client, peak, done))
            watcher.start()
            results[name] = client.compute(lazy).result()
            computed = time.time() - t - planned
            done.set()
            watcher.join()
            with open(log) as f:
                n_reads = len(f.read().split())
            print(f"{name}: planned in {planned:.1f} s, computed in {computed:.1f} s, "
                  f"{lazy.numblocks} blocks, {n_reads} chunk reads, workers' largest resident "
                  f"memory seen {sorted(round(v / 2**20) for v in peak.values())} MiB "
                  f"(limit {args.memory_limit})")

    t = time.time()
    whole = np.asarray(zarr.open_array(path, mode="r"))
    print(f"in-memory reference: volume loaded in {time.time() - t:.1f} s")
    t = time.time()
    plane = qz.affine_transform(whole, m, offset, output_shape=out_shape, output=np.float32)
    at = qz.map_coordinates(whole, points, output=np.float32)
    print(f"in-memory calls: {time.time() - t:.1f} s")
    print("bit-identical:", same_bits(results["affine_transform, oblique plane"], plane),
          same_bits(results["map_coordinates, 1e6 spread points"], at))
    shutil.rmtree(work)


if __name__ == "__main__":
    main()
