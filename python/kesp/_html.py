"""What notebooks show."""
from __future__ import annotations

from html import escape
from typing import Any, Mapping, Sequence


def table_html(names: Sequence[str], columns: Sequence[Any], rows: int) -> str:
    """The first rows of columns, and how many rows there are."""
    head = "".join(f"<th>{escape(name)}</th>" for name in names)
    body = "".join(
        "<tr>" + "".join(f"<td>{escape(str(value))}</td>" for value in row) + "</tr>" for row in zip(*columns)
    )
    return f"<table><thead><tr>{head}</tr></thead><tbody>{body}</tbody></table><p>{rows} rows</p>"


def pairs_html(title: str, pairs: Mapping[str, Any]) -> str:
    """Names and values."""
    rows = "".join(f"<tr><th>{escape(str(k))}</th><td>{escape(str(v))}</td></tr>" for k, v in pairs.items())
    return f"<b>{escape(title)}</b><table>{rows}</table>"
