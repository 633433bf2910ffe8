"""Arrays, frames, Arrow, errors, lifetimes and threads."""
import gc
import os
import signal
import subprocess
import sys
import threading
from datetime import datetime, timezone

import numpy as np
import pytest

import kesp
from arrow_consumer import Array, Schema, batch_of, read_stream, struct_of


def test_columns_have_the_values_that_were_written(survey_path):
    points = kesp.read_points(survey_path, [*kesp.read_points(survey_path), "text"])
    assert points["x"].tolist() == [10, 0, 5, 9, 0, 4, 4] and points["feature_number"].tolist() == [1, 2, 2, 2, 3, 3, 3]
    assert points["time"].dtype == "datetime64[s]" and points["time"][0] == np.datetime64("2024-05-01T08:30:00")
    assert np.isnat(points["time"][1:]).all() and points["text"].tolist() == ["A1"] + [""] * 6
    assert (points["status"][0], points["gps_value"][0], points["gps_number"][0]) == (7, 0.5, 9)
    features = kesp.read_features(os.fsencode(survey_path), columns=["name", "max_x", "point_count"])
    assert list(features) == ["name", "max_x", "point_count"] and len(features) == 3 and features.rows == 3
    assert features["name"].tolist() == ["Tree", "Path", "Lawn"] and features["max_x"].tolist() == [10, 9, 4]
    attributes = kesp.read_attributes(survey_path)
    assert attributes["name"].tolist() == ["Height", "Species", "Planted", "Remark", "height", "Width"]
    assert attributes["number"][0] == 3.25 and attributes["sub_text"][1] == "Red" and attributes["decimals"][0] == 2
    with pytest.raises(ValueError, match="read-only"):
        points["x"][0] = 1
    assert "<td>10.0</td>" in points._repr_html_() and list(points.to_pandas().columns) == list(points)


def test_arrow_gives_what_numpy_gives_and_outlives_its_table(survey_path):
    for read in (kesp.read_points, kesp.read_features, kesp.read_attributes):
        table = read(survey_path)
        (batch,), error = read_stream(table)
        assert error is None and list(batch) == list(table)
        for name, values in batch.items():
            expected = np.where(np.isnat(table[name]), np.datetime64(0, "s"), table[name]).astype("i8") if name == "time" \
                else table[name]  # fmt: skip
            np.testing.assert_array_equal(values, expected)
        schema_capsule, array_capsule = table.__arrow_c_array__()
        column = table[list(table)[0]]
        before = column.copy()
        del table, batch
        gc.collect()
        schema = struct_of(schema_capsule, Schema, b"arrow_schema")
        array = struct_of(array_capsule, Array, b"arrow_array")
        assert len(batch_of(schema, array)[schema.children[0][0].name.decode()]) == array.length
        del schema_capsule, array_capsule, array
        gc.collect()
        np.testing.assert_array_equal(column, before)


def test_batches_hold_each_row_once(survey_path):
    for rows in (1, 2, 3, 100):
        with kesp.read_points(survey_path, ["x"], batch_rows=rows) as batches:
            tables = list(batches)
        assert all(t.rows <= rows for t in tables)
        assert np.concatenate([t["x"] for t in tables]).tolist() == kesp.read_points(survey_path)["x"].tolist()
        streamed, error = read_stream(kesp.read_points(survey_path, ["x"], batch_rows=rows))
        assert error is None and sum(len(b["x"]) for b in streamed) == 7
    batches = kesp.read_points(survey_path, batch_rows=1)
    next(batches)
    batches.close()
    assert list(batches) == []
    with pytest.raises(ValueError):
        kesp.read_points(survey_path, batch_rows=0)


def test_frames_have_the_layers_of_the_plugin(survey_path):
    trees = kesp.read_dataframe(survey_path, "points")
    assert list(trees.columns) == ["feature_name", "feature_color", "feature_symbol", "deleted", "edited", "Height",
                                   "Species", "Species_sub", "Planted", "Remark", "geometry"]  # fmt: skip
    row = trees.loc[1]
    assert (row.Height, row.Species, row.Species_sub, row.Planted) == (3.25, "Oak", "Red", datetime(1999, 3, 2))
    assert row.geometry.wkt == "POINT Z (10 20 1)" and trees.Species.dtype == "category"
    assert kesp.read_dataframe(survey_path, "lines").geometry.iloc[0].length == pytest.approx(50**0.5 + 32**0.5)
    assert kesp.read_dataframe(survey_path, "areas").geometry.iloc[0].area == 8
    assert len(kesp.read_dataframe(survey_path, "vertices")) == 7
    assert kesp.read_dataframe(survey_path, "notes").text.tolist() == ["rain"]
    tags = kesp.read_dataframe(survey_path, "tags")
    assert tags.value.tolist() == ["2.5", "1 0 2 0 7 4294967295"] and tags.kind_name[tags.index[0]] == "double"
    assert kesp.read_dataframe(survey_path, "links").to_feature.tolist() == [2]
    assert "geometry" not in kesp.read_dataframe(survey_path, "points", geometry=False)


def test_frames_come_back_as_they_were(survey_path, tmp_path):
    for layer in ("points", "lines", "areas"):
        frame, copy = kesp.read_dataframe(survey_path, layer), tmp_path / f"{layer}.kesp"
        kesp.to_file(frame, copy)
        again = kesp.read_dataframe(copy, layer)
        assert again.to_dict("list") == frame.to_dict("list") and list(again.index) == list(frame.index)
    with kesp.open(survey_path, "r+") as survey:
        survey.add_feature("Short", "area", [(1, 2), (3, 4)])
    frame = kesp.read_dataframe(survey_path, "areas")
    kesp.to_file(frame, tmp_path / "noted.kesp")
    assert [f.type for f in kesp.open(tmp_path / "noted.kesp")] == ["area", "area"]
    kesp.to_file(frame.set_index(frame.index + [2**32, 0]), tmp_path / "short.kesp", layer="areas")
    assert [(f.number, f.type) for f in kesp.open(tmp_path / "short.kesp")] == [(5, "area"), (4, "area")]
    frame["feature_name"] = "x" * 300
    with pytest.raises(kesp.FitError):
        kesp.to_file(frame, tmp_path / "long.kesp")
    assert not (tmp_path / "long.kesp").exists()


def test_errors_say_what_happened(survey_path, tmp_path):
    for read in (kesp.open, kesp.read_points, kesp.read_dataframe, kesp.validate):
        with pytest.raises(FileNotFoundError) as missing:
            read(tmp_path / "none.kesp")
        assert missing.value.filename == str(tmp_path / "none.kesp")
        (tmp_path / "other").write_bytes(b"something else, and long enough for a header of a file" * 2)
        with pytest.raises(kesp.Error) as other:
            read(tmp_path / "other")
        assert other.value.code == 9 and other.value.path == str(tmp_path / "other")
    with pytest.raises(FileExistsError):
        kesp.open(survey_path, "x")
    with kesp.open(survey_path, "r+"):
        with pytest.raises(BlockingIOError):
            kesp.open(survey_path, "r+")
    with pytest.raises(ValueError, match="no column"):
        kesp.read_points(survey_path, ["nothing"])
    with pytest.raises((ValueError, TypeError)):
        kesp.read_points("a\0b")


def test_damage_is_raised_warned_of_or_shown(survey_path):
    whole = survey_path.read_bytes()
    survey_path.write_bytes(whole[:-10])
    for read in (kesp.read_points, kesp.read_features, kesp.read_attributes, kesp.read_dataframe):
        with pytest.raises(kesp.Error) as damage:
            read(survey_path)
        assert 0 < damage.value.offset < len(whole) and damage.value.code != 0
        with pytest.warns(kesp.DamageWarning):
            assert len(read(survey_path, on_damage="warn")) > 0
        assert len(read(survey_path, on_damage="ignore")) > 0
    batches = kesp.read_points(survey_path, batch_rows=3)
    with pytest.raises(kesp.Error):
        for _ in batches:
            pass
    batches = kesp.read_points(survey_path, batch_rows=3, on_damage="ignore")
    assert sum(batch.rows for batch in batches) == 7 and batches.damage.offset == damage.value.offset
    with pytest.raises(ValueError, match="on_damage"):
        kesp.read_points(survey_path, batch_rows=3, on_damage="no")
    assert "damaged at offset" in read_stream(kesp.read_points(survey_path, batch_rows=3))[1]
    with kesp.open(survey_path) as survey:
        assert not survey.whole and survey.damage.offset == damage.value.offset and len(survey) == 3
    with pytest.raises(kesp.Error):
        kesp.open(survey_path, "r+")


def test_nothing_dangles(survey_path):
    survey = kesp.open(survey_path)
    feature, note, tag, features = survey.features[1], survey.notes[0], survey.tags[0], survey.features
    attributes, coordinates, iterator = feature.attributes, feature.coordinates, iter(survey)
    points = feature.points
    del survey
    gc.collect()
    assert feature.name == "Tree" and attributes["Height"] == 3.25  # a feature keeps its survey
    feature._store.close(False)
    for use in (lambda: feature.name, lambda: attributes["Height"], lambda: note.text, lambda: tag.value,
                lambda: features[1], lambda: next(iterator), lambda: feature.points, lambda: len(features)):  # fmt: skip
        with pytest.raises(ValueError, match="closed"):
            use()
    assert coordinates.tolist() == [[10, 20, 1]] and points[0].text == "A1" and "closed" in repr(feature)


def test_a_thousand_opens_keep_no_memory_and_no_descriptor(survey_path):
    def resident():
        with open("/proc/self/statm") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def use():
        with kesp.open(survey_path) as survey:
            [f.attributes["Height"] for f in survey.find("Tree")]
        dict(kesp.read_points(survey_path, ["x", "text"]))
        next(kesp.read_points(survey_path, batch_rows=1))
        read_stream(kesp.read_attributes(survey_path))

    for _ in range(100):
        use()
    gc.collect()
    before, descriptors = resident(), len(os.listdir("/proc/self/fd"))
    for _ in range(1000 if not os.environ.get("KESP_SLOW") else 200):
        use()
    gc.collect()
    assert len(os.listdir("/proc/self/fd")) == descriptors
    assert os.environ.get("KESP_SLOW") or resident() - before < 8 << 20


def test_threads_read_side_by_side(survey_path):
    failures = []

    def work():
        try:
            for _ in range(30):
                assert kesp.read_points(survey_path)["x"].sum() == 32
                assert sum(t.rows for t in kesp.read_points(survey_path, batch_rows=2)) == 7
                with kesp.open(survey_path) as survey:
                    assert [f.number for f in survey] == [1, 2, 3]
        except Exception as e:  # shown by the main thread
            failures.append(e)

    threads = [threading.Thread(target=work) for _ in range(4)]
    batches, rows = kesp.read_points(survey_path, batch_rows=1), []
    threads += [threading.Thread(target=lambda: rows.extend(t.rows for t in batches)) for _ in range(4)]
    [t.start() for t in threads]
    [t.join() for t in threads]
    assert failures == [] and sum(rows) == 7


def test_a_child_of_fork_can_end_with_batches(survey_path):
    code = "import kesp, os, sys; b = kesp.read_points(sys.argv[1], batch_rows=1); next(b); p = os.fork(); p and sys.exit(os.wait()[1] != 0)"
    subprocess.run([sys.executable, "-c", code, survey_path], timeout=60, check=True)


@pytest.fixture(scope="module")
def long_path(tmp_path_factory):
    """Long enough to be read in many pieces: the records of a small survey again and again."""
    path = tmp_path_factory.mktemp("long") / "long.kesp"
    with kesp.open(path, "x") as survey:
        header = path.stat().st_size
        survey.add_feature("Track", "line", [(i, i) for i in range(1000)])
    data = path.read_bytes()
    path.write_bytes(data[:header] + data[header:] * 600)
    return path


def test_long_calls_tell_their_progress_and_end_when_asked(long_path):
    calls = []
    assert kesp.read_points(long_path, ["x"], progress=lambda done, total: calls.append((done, total))).rows == 600_000
    assert calls and all(0 <= done <= total == long_path.stat().st_size for done, total in calls)

    def refuse(done, total):
        raise InterruptedError("enough")

    for call in (kesp.read_attributes, kesp.open, kesp.validate, kesp.read_dataframe):
        with pytest.raises(InterruptedError, match="enough"):
            call(long_path, progress=refuse)
    with pytest.raises(InterruptedError):
        kesp.salvage(long_path, long_path.with_suffix(".copy"), progress=refuse)
    assert os.listdir(long_path.parent) == ["long.kesp"]


def test_ctrl_c_ends_a_long_call(long_path):
    code = "import kesp, sys\nprint('go', flush=True)\nwhile True: kesp.open(sys.argv[1])"
    process = subprocess.Popen([sys.executable, "-c", code, long_path], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert process.stdout.readline() == b"go\n"
    threading.Timer(0.3, process.send_signal, [signal.SIGINT]).start()
    assert b"KeyboardInterrupt" in process.communicate(timeout=20)[1]
