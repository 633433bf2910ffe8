"""What the tests share: a small survey, and the settings for hypothesis."""
import os
import subprocess
from datetime import datetime, timezone

import hypothesis
import pytest

import kesp

# Under a sanitizer everything takes a few times as long.
slow = bool(os.environ.get("KESP_SLOW"))
hypothesis.settings.register_profile("kesp", deadline=None, max_examples=12 if slow else 60, derandomize=True)
hypothesis.settings.load_profile("kesp")


@pytest.fixture
def survey_path(tmp_path):
    """Three features, a note, a tag and a link."""
    path = tmp_path / "survey.kesp"
    when = datetime(2024, 5, 1, 8, 30, tzinfo=timezone.utc)
    with kesp.open(path, "x") as survey:
        values = {"Height": 3.25, "Species": kesp.Menu("Oak", "Red"), "Planted": datetime(1999, 3, 2), "Remark": "x"}
        survey.add_feature("Tree", "point", [kesp.Point(10, 20, 1, when, "A1", 7, 0.5, 9)], values, color=0x2211)
        survey.add_feature("Path", "line", [(0, 0), (5, 5), (9, 1)], {"height": 4, "Width": 2})
        survey.add_feature("Lawn", "area", [(0, 0), (4, 0), (4, 4)])
        survey.add_note("rain")
        survey.add_tag("Depth", 2.5)
        survey.add_link(1, 2, 7)
    return path


@pytest.fixture
def dump():
    """What the command-line tool makes of a file: another reader of what was written."""
    import json

    def run(path):
        out = subprocess.run([os.environ["KESP_TOOL"], "dump", path], capture_output=True, check=True).stdout
        return [{**r, **r.get("fields", {})} for r in map(json.loads, out.splitlines()) if "type" in r]

    return run
