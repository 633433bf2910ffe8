"""Each code block of docs/python.md runs, in the order of the page, in one folder and one session."""
import os
import pathlib
import re

PAGE = pathlib.Path(__file__).parents[2] / "docs" / "python.md"


def test_each_block_of_the_page_runs(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    text = PAGE.read_text("utf-8")
    blocks = [(m.start(), m.group(1)) for m in re.finditer(r"```python\n(.*?)```", text, re.S)]
    assert len(blocks) > 10
    session = {"__name__": "page"}
    for at, block in blocks:
        line = text.count("\n", 0, at) + 1
        exec(compile("\n" * line + block, os.fspath(PAGE), "exec"), session)
