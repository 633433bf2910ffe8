"""Writing, changing, finding, checking: against a model, against the tool, and against what a file can hold."""
import math
import os
from datetime import datetime, timedelta, timezone

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, rule

import kesp

# Any text without a zero, lone surrogates too, as far as a field holds it.
texts = st.text(st.characters(blacklist_characters="\0"), max_size=20).filter(lambda t: _units(t) <= 20 and _joins(t) == t)
names = st.sampled_from(["Height", "height", "Art", "ÄRGER", "", "x" * 20])
numbers = st.floats()
dates = st.datetimes(datetime(100, 1, 2), datetime(9999, 12, 30)).map(
    lambda d: d.replace(microsecond=d.microsecond // 1000 * 1000)
).filter(lambda d: d != datetime(1899, 12, 30))
menus = st.builds(kesp.Menu, texts, texts)
values = st.one_of(texts, numbers, dates, menus)
times = st.none() | st.datetimes(datetime(1902, 1, 1), datetime(2038, 1, 1), timezones=st.just(timezone.utc)).map(
    lambda d: d.replace(microsecond=0)
).filter(lambda d: d.timestamp() != 0)
points = st.builds(kesp.Point, numbers, numbers, numbers, times, texts, st.integers(0, 65535), numbers, st.integers(0, 65535))


def _units(text):
    return len(text.encode("utf-16-le", "surrogatepass")) // 2


def _joins(text):
    """Two lone surrogates that follow each other are one character afterwards."""
    return text.encode("utf-16-le", "surrogatepass").decode("utf-16-le", "surrogatepass")


def _same(a, b):
    return type(a) is type(b) and getattr(a, "sub", None) == getattr(b, "sub", None) and (a == b or a != a and b != b)


def _same_point(a, b):
    return all(_same(getattr(a, n), getattr(b, n)) for n in ("x", "y", "z", "time", "text", "status", "gps_value"))


class Editing(RuleBasedStateMachine):
    """Any order of operations on a survey, beside a dict that should hold the same."""

    def __init__(self):
        super().__init__()
        import tempfile

        self.folder = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.folder.name, "model.kesp")
        self.model, self.flushed = {}, {}
        self.notes, self.flushed_notes = [], []

    @initialize()
    def create(self):
        self.survey = kesp.open(self.path, "x")

    def _pick(self, data):
        return data.draw(st.sampled_from(sorted(self.model))) if self.model else None

    @rule(name=texts, kind=st.sampled_from(["point", "line", "area"]), points=st.lists(points, max_size=4),
          attributes=st.dictionaries(st.sampled_from(["Height", "Art", ""]), values))  # fmt: skip
    def add(self, name, kind, points, attributes):
        feature = self.survey.add_feature(name, kind, points, attributes)
        self.model[feature.number] = [name, kind, list(points), dict(attributes)]

    @rule(data=st.data(), name=texts)
    def rename(self, data, name):
        if (number := self._pick(data)) is not None:
            self.survey.features[number].name = name
            self.model[number] = [name, *self.model[number][1:]]

    @rule(data=st.data(), points=st.lists(points, max_size=4))
    def move(self, data, points):
        if (number := self._pick(data)) is not None:
            self.survey.features[number].points = points
            self.model[number] = [*self.model[number][:2], list(points), self.model[number][3]]

    @rule(data=st.data(), name=names, value=values)
    def set(self, data, name, value):
        if (number := self._pick(data)) is None:
            return
        attributes = dict(self.model[number][3])
        key = next((n for n in attributes if n.translate(_LOWER) == name.translate(_LOWER)), name)
        if isinstance(attributes.get(key), kesp.Menu) and type(value) is str:
            value = kesp.Menu(value)
        self.survey.features[number].attributes[name] = value
        attributes[key] = value
        self.model[number] = [*self.model[number][:3], attributes]

    @rule(data=st.data())
    def remove(self, data):
        if (number := self._pick(data)) is not None and self.model[number][3]:
            attributes = dict(self.model[number][3])
            name = data.draw(st.sampled_from(list(attributes)))
            del self.survey.features[number].attributes[name], attributes[name]
            self.model[number] = [*self.model[number][:3], attributes]

    @rule(data=st.data())
    def delete(self, data):
        if (number := self._pick(data)) is not None:
            self.survey.features[number].delete()
            del self.model[number]

    @rule(text=texts)
    def note(self, text):
        self.survey.add_note(text)
        self.notes.append(text)

    @rule()
    def flush(self):
        self.survey.flush()
        self.flushed, self.flushed_notes = dict(self.model), list(self.notes)
        self._compare(kesp.open(self.path))

    @rule()
    def rollback(self):
        self.survey.rollback()
        self.model, self.notes = dict(self.flushed), list(self.flushed_notes)

    @rule(discard=st.booleans())
    def reopen(self, discard):
        if discard:
            self.survey.rollback()
            self.model, self.notes = dict(self.flushed), list(self.flushed_notes)
        self.survey.close()
        self.flushed, self.flushed_notes = dict(self.model), list(self.notes)
        found = kesp.validate(self.path)
        assert found.whole and not [p for p in found.problems if p.code != "featuresWithoutPoints"]
        self.survey = kesp.open(self.path, "r+")

    def _compare(self, survey):
        assert survey.whole and sorted(f.number for f in survey) == sorted(self.model)
        assert [n.text for n in survey.notes] == self.notes
        for feature in survey:
            name, kind, points, attributes = self.model[feature.number]
            assert (feature.name, feature.type) == (name, kind)
            assert len(feature.points) == len(points) and all(map(_same_point, feature.points, points))
            assert list(feature.attributes) == list(attributes)
            assert all(_same(feature.attributes[n], v) for n, v in attributes.items()), (feature.attributes, attributes)

    @invariant()
    def agrees(self):
        if hasattr(self, "survey"):
            self._compare(self.survey)

    def teardown(self):
        self.survey.close()
        self.folder.cleanup()


_LOWER = {c: c + 32 for c in range(65, 91)}
TestEditing = Editing.TestCase


def test_the_tool_reads_what_was_written(survey_path, dump):
    records = dump(survey_path)
    assert [r["type"] for r in records].count("point") == 7 and not any(r.get("flags") for r in records)
    with kesp.open(survey_path, "r+") as survey:
        survey.features[1].attributes["Height"] = 4.5
        survey.delete(survey.features[2])
        survey.add_feature("New", points=[(1, 2)])
        survey.set_header(HeaderText1="Park")
    by_type = {}
    for record in dump(survey_path):
        by_type.setdefault(record["type"], []).append(record)
    assert [f["FeatureName"] for f in by_type["feature"]] == ["Tree", "Lawn", "New"]
    height = next(a for a in by_type["attribute"] if a["AttributeName"] == "Height")
    assert height["Value"] == 4.5 and height["flags"] == 8 and by_type["feature"][2]["flags"] == 2
    header = by_type["header"][0]
    assert (header["HeaderText1"], header["FeatureCount"], header["PointCount"]) == ("Park", 3, 5)
    assert header["StatusFlags"] & 1 and header["DataExtent2"] == 10


@pytest.mark.parametrize("version, most_name, most_text", [(1, 20, 40), (2, 20, 40), (3, 255, 255)])
def test_what_does_not_fit_is_refused_or_cut(tmp_path, version, most_name, most_text):
    path = tmp_path / "v.kesp"
    with kesp.open(path, "x", version=version) as survey:
        tree = survey.add_feature("n" * most_name, points=[(1, 2)], attributes={"A": "t" * most_text})
        survey.flush()
        before = path.read_bytes()
        refused = [
            lambda: survey.add_feature("n" * (most_name + 1)),
            lambda: survey.add_feature("x", attributes={"A": "t" * (most_text + 1)}),
            lambda: survey.add_feature("x", points=[kesp.Point(0, 0, text="p" * 21)]),
            lambda: survey.add_feature("x", number=tree.number),
            lambda: tree.change(name="a\0b"),
            lambda: survey.add_note("n" * 256),
            lambda: tree.change(color=2**32), lambda: tree.change(symbol=-1), lambda: survey.add_link(-1, 1),
            lambda: tree.set_points([kesp.Point(1, 2, status=65536)]), lambda: tree.attributes.set("A", 10**400),
            lambda: survey.add_tag("", (1, 1e300, 0, 0), "posErrMark"), lambda: survey.add_tag("a\0b", 1),
            *[lambda day=day: tree.attributes.set("A", day) for day in (datetime(99, 1, 1), datetime(1899, 12, 30), datetime.max)],
        ] + ([lambda: survey.add_note("Ω"), lambda: tree.set_points([kesp.Point(0, 0, gps_number=3)])] if version == 1 else [])
        for change in refused:
            with pytest.raises(kesp.FitError):
                change()
        for change in (lambda: tree.change(color=1.5), lambda: tree.attributes.set("A", object())):
            with pytest.raises(TypeError):
                change()
        with pytest.raises(ValueError):
            tree.points = [kesp.Point(0, 0, time=datetime(2040, 1, 1))]
        survey.flush()
        assert path.read_bytes() == before
        tree.change(name="n" * 19 + "😀" * 200, truncate=True)
        assert tree.name == ("n" * 19 + "😀" * ((most_name - 19) // 2) if version > 1 else "n" * 19)
    assert kesp.open(path).features[1].attributes["A"] == "t" * most_text


def test_an_edit_is_all_or_nothing(survey_path):
    before = survey_path.read_bytes()
    with kesp.open(survey_path, "r+") as survey:
        with pytest.raises(ZeroDivisionError), survey.edit():
            survey.features[1].name = "Beech"
            survey.add_note("gone")
            survey.tags[0].delete()
            del survey.features[1].attributes["Height"]
            for commit in (survey.flush, survey.close, survey.edit().__enter__):
                with pytest.raises(RuntimeError, match="inside"):
                    commit()
            1 / 0
        assert survey.features[1].name == "Tree" and len(survey.notes) == 1 and len(survey.tags) == 2
    assert survey_path.read_bytes() == before
    with kesp.open(survey_path, "r+") as survey, survey.edit():
        survey.notes[0].text = "sun"
    assert kesp.open(survey_path).notes[0].text == "sun"
    with pytest.raises(ZeroDivisionError), kesp.open(survey_path, "r+") as survey:
        survey.add_note("dropped")
        1 / 0
    assert len(kesp.open(survey_path).notes) == 1
    with kesp.open(survey_path) as survey, pytest.raises(ValueError, match="read-only"):
        survey.add_note("no")


@pytest.mark.parametrize("value, kind", [(7, None), (2.5, None), ("täg", None), (b"\0\1", None), ((1.0, 2.0, 3.0), None),
                                         ((1.0, 2.0, 3.0, 4.0), None), (0xFFFFFFFF, "color"), ((1, 2, 3, 4), "gpsMark"),
                                         (5, "fileLink"), ((1.0,) * 5, "qualityMark"), ((1, 2), "namedFlag")])  # fmt: skip
def test_tags_come_back(tmp_path, value, kind):
    with kesp.open(tmp_path / "t.kesp", "x") as survey:
        survey.add_tag("name", value, kind)
    tag = kesp.open(tmp_path / "t.kesp").tags[0]
    assert tag.value == value and tag.name == "name" and (kind is None or tag.kind_name == kind)


def test_finding(survey_path):
    day = datetime(2024, 5, 1, tzinfo=timezone.utc)
    planted = datetime(1999, 3, 2, 1, tzinfo=timezone(timedelta(hours=1)))
    cases = [
        (dict(name="Tree"), [1]), (dict(name=["Lawn", "Path"]), [2, 3]), (dict(name="tree"), []),
        (dict(type="line"), [2]), (dict(rect=(4, 4, 9, 9)), [2, 3]), (dict(rect=(100, 100, 101, 101)), []),
        (dict(since=day, until=day + timedelta(days=1)), [1]), (dict(since=day + timedelta(days=1)), []),
        (dict(where={"Height": kesp.between(2, 5)}), [1]), (dict(where={"Height": 4}), []),
        (dict(where={"Height": 4}, ignore_case=True), [2]), (dict(where={"Species": "Oak"}), [1]),
        (dict(where={"Species": "oa"}, ignore_case=True, partial=True), [1]), (dict(where={"Species": "Oak", "Height": 1}), []),
        (dict(where={"Planted": datetime(1999, 3, 2)}), [1]), (dict(where={"Width": lambda v: v > 1}), [2]),
        (dict(where={"Planted": kesp.between(datetime(1999, 1, 1), datetime(2000, 1, 1))}), [1]), (dict(text="A1"), [1]),
        (dict(), [1, 2, 3]), (dict(name=[]), []), (dict(where={"Planted": planted.replace(microsecond=400)}), [1]),
        (dict(where={"Planted": kesp.between(planted, datetime.max)}), [1]),
    ]  # fmt: skip
    with kesp.open(survey_path) as survey:
        for asked, expected in cases:
            assert [f.number for f in survey.find(**asked)] == expected, asked
        for wrong in (lambda: kesp.between(10, 0), lambda: survey.find(rect=(0, 0, 1))):
            with pytest.raises(ValueError):
                wrong()
        for number, found in [(np.uint32(2), True), (-1, False), (2**40, False), ("a", False)]:
            assert (number in survey.features) == found == (survey.features.get(number) is not None)
        assert survey.bounds == (0, 0, 10, 20) and survey.time_span[0] == datetime(2024, 5, 1, 8, 30, tzinfo=timezone.utc)
        shapes = survey.__geo_interface__["features"]
        assert [s["geometry"]["type"] for s in shapes] == ["Point", "LineString", "Polygon"]
        assert "<td>Tree</td>" in survey._repr_html_() and "Height" in survey.features[1]._repr_html_()


def test_checking_and_saving(survey_path, tmp_path):
    found = kesp.validate(survey_path)
    assert found.whole and not found.problems and found.counts["point"] == 7 and found.features == 3
    data = bytearray(survey_path.read_bytes())
    offset = bytes(data).index("Path".encode("utf-16-le")) - 18
    data[offset + 4] = 99  # the version of the second feature's record
    survey_path.write_bytes(data)
    damage = kesp.validate(survey_path).damage
    assert damage.offset == offset and damage.code == 3
    copy = tmp_path / "copy.kesp"
    report = kesp.repair(survey_path, copy)
    assert report.gap_bytes == len(data) - offset == report.gaps[0].length and report.gaps[0].offset == offset
    assert kesp.open(copy).whole and len(kesp.open(copy)) == 1
    with pytest.raises(FileExistsError):
        kesp.salvage(survey_path, copy)
    with kesp.open(copy, "r+"), pytest.raises(BlockingIOError):
        kesp.salvage(survey_path, copy, replace=True)
    salvaged = kesp.salvage(survey_path, copy, replace=True)
    assert salvaged.kept > report.kept and [f.name for f in kesp.open(copy)] == ["Tree", "Lawn"]
    assert sorted(p.name for p in tmp_path.iterdir()) == ["copy.kesp", "survey.kesp"] and survey_path.read_bytes() == data
    with pytest.raises(kesp.Error, match="can't hold"):
        kesp.repair(copy, tmp_path / "old.kesp", version=1)
    assert kesp.repair(copy, tmp_path / "old.kesp", version=1, lossy=True).lost


@given(st.floats(allow_nan=False, allow_infinity=False))
def test_any_date_number_becomes_a_date_or_none(days):
    from kesp._values import date_of, days_of

    date = date_of(days)
    if date is None:
        assert days == 0 or not -657434 <= math.trunc(days) <= 2958465 or days > 2958465
    elif date != datetime(1899, 12, 30):
        days = abs(days) if abs(days) < 1 else days  # both signs mean that time of the first day
        assert abs(days_of(date) - days) < 1e-8 * max(1, abs(days))


def test_all_attributes_are_set_or_none(survey_path):
    with kesp.open(survey_path, "r+") as survey:
        tree = survey.features[1]
        before = dict(tree.attributes)
        for value, error in (("x" * 300, kesp.FitError), (b"", TypeError)):
            with pytest.raises(error):
                tree.attributes = {"Height": 9, "New": 1, "Remark": value}
            assert dict(tree.attributes) == before
        tree.attributes = {"height": 9, "HEIGHT": 8, "Species": "Elm", "New": 1}
        assert list(tree.attributes.all) == [("Height", 8), ("Species", kesp.Menu("Elm")), ("New", 1)]
    with kesp.open(survey_path) as survey:
        assert survey.whole and dict(survey.features[1].attributes) == {"Height": 8, "Species": "Elm", "New": 1}
