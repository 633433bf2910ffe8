"""Each code block of these pages runs, in the order of the page, in one folder and one session."""
import os
import pathlib
import re

import pytest

DOCS = pathlib.Path(__file__).parents[2] / "docs"


@pytest.mark.parametrize(("name", "least"), [("python.md", 10), ("many-surveys.md", 7)])
@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_each_block_of_the_page_runs(tmp_path, monkeypatch, name, least):
    monkeypatch.chdir(tmp_path)
    page = DOCS / name
    text = page.read_text("utf-8")
    blocks = [(m.start(), m.group(1)) for m in re.finditer(r"```python\n(.*?)```", text, re.S)]
    assert len(blocks) >= least
    session = {"__name__": "page"}
    for at, block in blocks:
        line = text.count("\n", 0, at) + 1
        exec(compile("\n" * line + block, os.fspath(page), "exec"), session)
