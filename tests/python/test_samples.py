"""The samples against their JSON, where there are samples: KESP_SAMPLES, or the folder beside the sources."""
import json
import os
import pathlib

import pytest

import kesp

FOLDER = pathlib.Path(os.environ.get("KESP_SAMPLES") or pathlib.Path(__file__).parents[3] / "shared" / "samples")
KINDS = {1: str, 2: float, 3: kesp.Menu}
files = sorted(FOLDER.rglob("*.kesp")) if FOLDER.is_dir() else []
pytestmark = pytest.mark.skipif(not files, reason=f"no samples in {FOLDER}")


def lines(path, ending):
    text = path.with_suffix(ending)
    return [json.loads(line) for line in text.read_text("utf-8", "surrogatepass").splitlines()] if text.exists() else []


def records(path, ending, kind):
    return [{**r, **r.get("fields", {})} for r in lines(path, ending) if r.get("type") == kind]


def is_readable(path):
    try:
        kesp.read_points(path, on_damage="ignore")
    except kesp.Error:
        return False
    return True


@pytest.mark.parametrize("path", files, ids=lambda p: p.stem)
def test_a_sample_agrees(path):
    if not is_readable(path):
        assert not records(path, ".records.jsonl", "header")
        return
    for ending, deleted in ((".records.jsonl", False), (".records-all.jsonl", True)):
        if not path.with_suffix(ending).exists():
            continue
        points = kesp.read_points(path, ["x", "y", "point_number", "feature_number", "time", "text", "status", "flags"],
                                  deleted=deleted, on_damage="ignore")  # fmt: skip
        expected = records(path, ending, "point")
        for column, member in (("x", "CoordX"), ("y", "CoordY"), ("point_number", "PointNumber"), ("flags", "flags"),
                               ("feature_number", "FeatureNumber"), ("status", "SignalStatus")):  # fmt: skip
            assert points[column].tolist() == [r[member] for r in expected], column
        attributes = kesp.read_attributes(path, deleted=deleted, on_damage="ignore")
        assert attributes.rows == len(records(path, ending, "attribute"))
        features = kesp.read_features(path, deleted=deleted, on_damage="ignore")
        assert features["number"].tolist() == [r["FeatureNumber"] for r in records(path, ending, "feature")]
    for ending, deleted in ((".dataset.json", False), (".dataset-all.json", True)):
        if path.with_suffix(ending).exists():
            compare(path, json.loads(path.with_suffix(ending).read_text("utf-8", "surrogatepass")), deleted)


def compare(path, expected, deleted):
    with kesp.open(path, deleted=deleted) as survey:
        features = list(survey)
        assert [f.number for f in features] == [f["number"] for f in expected["features"]]
        for feature, want in zip(features, expected["features"]):
            assert (feature.name, feature.color, feature.symbol) == (want["name"], want["color"], want["symbol"])
            assert feature.flags == want["flags"]
            assert [(p.x, p.y, p.z, p.text, p.number) for p in feature.points] == [
                (p["CoordX"], p["CoordY"], p["CoordZ"], p["PointText"], p["PointNumber"]) for p in want["points"]
            ]
            assert len(feature.attributes.all) == len(want["attributes"])
            for (name, value), attribute in zip(feature.attributes.all, want["attributes"]):
                assert name == attribute["AttributeName"]
                assert type(value) is KINDS.get(attribute["AttributeKind"], type(value))
                if isinstance(value, float):
                    assert value == attribute["Value"]
        assert [n.text for n in survey.notes] == [n["text"] for n in expected["notes"]]
        assert [t.kind for t in survey.tags] == [t["tagType"] for t in expected["tags"]]
        assert [(k.from_feature, k.to_feature, k.offset) for k in survey.links] == [
            (k["featureNumber1"], k["featureNumber2"], k["tagRecordPosition"]) for k in expected["links"]
        ]
        assert (survey.header is None) == (expected["header"] is None)
