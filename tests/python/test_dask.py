"""Many surveys with Dask: parts against the whole read, damage among whole files, and a cluster that loses a worker."""
import os
import random
import signal
import struct
import subprocess
import sys
import time

import dask
import geopandas
import pandas
import pytest

import kesp
import kesp.dask

pytestmark = pytest.mark.filterwarnings("ignore::DeprecationWarning")
LAYERS = ("points", "lines", "areas", "vertices")


@pytest.fixture(autouse=True)
def one_thread():
    with dask.config.set(scheduler="sync"):
        yield


def make(path, features, crew="A", version=3):
    with kesp.open(path, "x", version=version) as survey:
        for n in range(features):
            values = {"Crew": kesp.Menu(crew, "sub" if n % 5 == 0 else ""), "Height": n + 0.5}
            survey.add_feature(f"F{n % 3}", ("point", "line", "area")[n % 3], [(n, k, 1) for k in range(1 + n % 4)], values)


def records(data):
    at = 48 + struct.unpack_from("<I", data, 44)[0]
    while at < len(data):
        end = at + 14 + struct.unpack_from("<I", data, at + 10)[0]
        yield data[at:end]
        at = end


def shuffled(path, seed):
    """Points far from their features, numbers that come twice, deleted records, and in every third file damage."""
    chance = random.Random(seed)
    make(path, 12, version=1 + seed % 3)
    data = path.read_bytes()
    header, *others = records(data)
    for record in [r for r in others if chance.random() < 0.2]:
        others.insert(chance.randrange(len(others)), record)
    for a in [chance.randrange(len(others) - 1) for _ in range(seed % 7)]:
        others.append(others.pop(a))
    marked = [r[:6] + struct.pack("<I", chance.choice([0, 0, 0, 1, 8])) + r[10:] for r in others]
    data = data[: 48 + struct.unpack_from("<I", data, 44)[0]] + header + b"".join(marked)
    path.write_bytes(data[: -chance.randrange(1, 900)] if seed % 3 == 0 else data)


def plain(frame):
    """A frame as the lazy ones are: menus are texts, and a point is no multipoint."""
    frame = frame.astype({n: object for n, kind in frame.dtypes.items() if kind == "category"})
    simple = [g.geoms[0] if g is not None and hasattr(g, "geoms") and len(g.geoms) == 1 else g for g in frame.geometry]
    return pandas.DataFrame(frame.drop(columns="geometry")), [g and g.wkt for g in simple]


@pytest.mark.parametrize("layer", LAYERS)
def test_parts_give_what_the_whole_read_gives(tmp_path, layer):
    most = 0
    for seed in range(8):
        path = tmp_path / f"{seed}.kesp"
        shuffled(path, seed)
        for deleted in (False, True):
            whole, shapes = plain(kesp.read_dataframe(path, layer, deleted=deleted, on_damage="ignore"))
            lazy = kesp.dask.read_dataframe(path, layer, deleted=deleted, part_bytes=1500)
            most = max(most, lazy.npartitions)
            frame = lazy.compute()
            damage = kesp.validate(path).damage
            assert [text.endswith(damage.text) for text in frame.error.dropna()] == [True] * (damage is not None)
            frame = frame[frame.error.isna()]
            if layer == "vertices":  # a straggler is in the part of its feature
                frame = frame.sort_index()
            assert [g and g.wkt for g in geopandas.GeoSeries.from_wkb(frame.geometry)] == shapes, seed
            common = list(whole.columns)
            pandas.testing.assert_frame_equal(frame[common], whole, check_dtype=False, check_column_type=False)
            assert frame.drop(columns=[*common, "path", "geometry"]).isna().all(axis=None)
    assert most > 5


@pytest.fixture
def many(tmp_path):
    """Nine whole surveys, one that is cut short, and one that is none."""
    for n in range(10):
        make(tmp_path / f"{n}.kesp", 6, crew="AB"[n % 2])
    data = (tmp_path / "4.kesp").read_bytes()
    (tmp_path / "4.kesp").write_bytes(data[:-5])
    (tmp_path / "none.kesp").write_bytes(b"text")
    return os.fspath(tmp_path / "*.kesp")


def test_columns_filters_and_errors(many, tmp_path):
    frame = kesp.dask.read_dataframe(many, filters=[("Height", ">", 3), ("Crew", "==", "A")]).compute()
    found = frame[frame.error.isna()]
    assert (len(found), set(found.Height), set(found.Crew), list(found.index)) == (5, {3.5}, {"A"}, [4] * 5)
    assert sorted(os.path.basename(p) for p in frame.path[frame.error.notna()]) == ["4.kesp", "none.kesp"]
    either = kesp.dask.read_dataframe(many, columns=["Height"], filters=[[("feature_number", "==", 1)], [("Crew", "in", "B")]])
    assert len(either.Height.dropna()) == 5 + 10
    declared = kesp.dask.read_dataframe(many, columns={"height": "number", "Crew": "number"}, errors="ignore").compute()
    assert (len(declared), declared.height.sum(), declared.Crew.isna().all()) == (20, 40, True)
    assert set(kesp.dask.read_dataframe(many, columns={"Crew_sub": "text"}).Crew_sub.dropna().compute()) == {"sub"}
    with pytest.raises(kesp.Error):
        kesp.dask.read_dataframe(many, errors="raise").compute()
    filters = [{"filters": [(name, "==", 1)]} for name in ("path", "geometry")]
    for wrong in (*filters, {"columns": ["no"]}, {"errors": "no"}, {"columns": {"a": "int"}}):
        with pytest.raises(ValueError):
            kesp.dask.read_dataframe(many, **wrong)
    remote = kesp.dask.read_dataframe(f"file://{tmp_path}/[0-3].kesp", "lines", storage_options={}, part_bytes=1000)
    assert (remote.npartitions, len(remote)) == (4, 8)
    for layer in ("notes", "tags", "links"):
        assert list(kesp.dask.read_dataframe(many, layer).compute().error.notna()) == [True, True]


def test_verdicts_and_repairs(many, tmp_path):
    verdicts = kesp.dask.validate_all(many).set_index("path")
    assert list(verdicts.index[~verdicts.whole]) == [os.fspath(tmp_path / n) for n in ("4.kesp", "none.kesp")]
    repaired = kesp.dask.repair_all(many, tmp_path / "out")
    assert list(repaired.error.notna()) == [False] * 10 + [True] and repaired.kept[0] == repaired.kept[4] + 1
    assert kesp.dask.validate_all(tmp_path / "out" / "*").whole.all()
    assert kesp.dask.repair_all(many, tmp_path / "out").error.str.contains("File exists").sum() == 10


def test_a_killed_worker_loses_nothing(tmp_path):
    from distributed import Client

    for n in range(40):
        make(tmp_path / f"{n}.kesp", 6)
    marks = tmp_path / "marks"
    marks.mkdir()

    def slowly(frame):
        (marks / f"{os.getpid()}-{time.monotonic_ns()}").touch()
        time.sleep(0.05)
        return frame

    def start(name, *more):
        where = ["--scheduler-file", tmp_path / "scheduler.json", "--no-dashboard", "--host", "127.0.0.1"]
        command = [sys.executable, "-m", f"distributed.cli.dask_{name}", *where, *more]
        return subprocess.Popen(command, cwd=tmp_path, stderr=subprocess.DEVNULL)

    started = [start("scheduler", "--port", "0"), *(start("worker", "--no-nanny", "--nthreads", "1") for _ in range(2))]
    try:
        with Client(scheduler_file=tmp_path / "scheduler.json", timeout=60) as client:
            client.wait_for_workers(2, timeout=60)
            lazy = kesp.dask.read_dataframe(os.fspath(tmp_path / "*.kesp"), "points")
            total = client.compute(lazy.map_partitions(slowly, meta=lazy.dtypes.to_dict()).Height.sum())
            workers = {process.pid for process in started[1:]}
            while not workers <= {int(mark.name.split("-")[0]) for mark in marks.iterdir()}:
                assert not total.done(), total.exception()
                time.sleep(0.01)
            started[1].send_signal(signal.SIGKILL)
            assert not total.done() and total.result(timeout=60) == 40 * (0.5 + 3.5)
    finally:
        for process in reversed(started):
            process.kill()
            process.wait()
