"""Two Dask workers against one, over 64 surveys.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python/many.py

Needs python3-distributed. Makes 64 files of 250 lines of 100 points in a folder for temporary files, and one of 4000 such
lines, which is read in parts. There are two clusters on this machine, one with one worker and one with two; schedulers
and workers are processes of their own, with one thread for work. They take turns: a round is a read with one worker,
and one with two, of all vertices with their geometries. Prints medians of the times, and of the ratios of the rounds.
"""
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np
from distributed import Client

import kesp
import kesp.dask

FILES, LINES, POINTS, ROUNDS = 64, 250, 100, 9


def make_survey(path, lines, first=0):
    rng = np.random.default_rng(1)
    with kesp.open(path, "x") as survey:
        for n in range(first, first + lines):
            values = {"Length": float(n), "Surface": kesp.Menu(("gravel", "sand")[n % 2])}
            survey.add_feature(f"Track {n % 50}", "line", rng.normal(size=(POINTS, 3)).cumsum(axis=0).tolist(), values)


def make_surveys(folder):
    first = os.path.join(folder, "00.kesp")
    make_survey(first, LINES)
    for n in range(1, FILES):
        shutil.copy(first, os.path.join(folder, f"{n:02}.kesp"))
    os.mkdir(os.path.join(folder, "one"))
    make_survey(os.path.join(folder, "one", "long.kesp"), 16 * LINES)


def start_cluster(folder, workers):
    """The processes of a cluster, and its client."""
    file = os.path.join(folder, f"cluster-{workers}.json")

    def start(name, *more):
        command = [sys.executable, "-m", f"distributed.cli.dask_{name}", "--scheduler-file", file, "--no-dashboard"]
        return subprocess.Popen([*command, "--host", "127.0.0.1", *more], stderr=subprocess.DEVNULL, cwd=folder)

    processes = [start("scheduler", "--port", "0")]
    processes += [start("worker", "--no-nanny", "--nthreads", "1") for _ in range(workers)]
    client = Client(scheduler_file=file, timeout=60, set_as_default=False)
    client.wait_for_workers(workers, timeout=60)
    return processes, client


def count(frame):
    """What the client gets of a partition: how many geometries are at each height, in metres."""
    return frame.geometry.notna().groupby(frame.z.round()).sum()


def seconds(client, read):
    work = read().map_partitions(count, meta=("geometry", "int64")).sum()
    begin = time.perf_counter()
    client.compute(work).result()
    return time.perf_counter() - begin


def compare(clients, what, read):
    times = [[seconds(client, read) for client in clients] for _ in range(ROUNDS + 1)][1:]
    one, two = (statistics.median(times) * 1000 for times in zip(*times))
    ratios = [one / two for one, two in times]
    print(f"{what}, {read().npartitions} partitions: one worker {one:.0f} ms, two {two:.0f} ms,"
          f" ratio {statistics.median(ratios):.2f} ({min(ratios):.2f} to {max(ratios):.2f})")  # fmt: skip


def main():
    with tempfile.TemporaryDirectory(dir=os.environ.get("KESP_BENCH_DIR")) as folder:
        make_surveys(folder)
        clusters = [start_cluster(folder, workers) for workers in (1, 2)]
        clients = [client for _, client in clusters]
        files, long = os.path.join(folder, "*.kesp"), os.path.join(folder, "one", "long.kesp")
        size = os.path.getsize(long) // 16 + 1
        try:
            compare(clients, f"{FILES} files", lambda: kesp.dask.read_dataframe(files, "vertices"))
            compare(clients, "one file", lambda: kesp.dask.read_dataframe(long, "vertices", part_bytes=size))
        finally:
            for processes, client in clusters:
                client.close()
                for process in reversed(processes):
                    process.kill()
                    process.wait()


if __name__ == "__main__":
    main()
