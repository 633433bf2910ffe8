"""Frames into surveys."""
from __future__ import annotations

import os
from itertools import chain
from typing import Any, Iterator, Optional

from ._frames import TYPES
from ._survey import Menu, Survey
from ._tables import Path, read_features

_OWN = {"feature_name", "feature_color", "feature_symbol", "deleted", "edited", "further_attributes"}
_GEOMETRIES = {"Point": "point", "MultiPoint": "point", "LineString": "line", "Polygon": "area"}
_SHORT = {("lines", "Point"): "line", ("areas", "Point"): "area", ("areas", "LineString"): "area"}
"""The types of the features of a layer that have too few points for their geometry."""


def _points_of(geometry: Any, layer: Any) -> tuple[str, list]:
    kind = geometry.geom_type
    if (layer, kind) in _SHORT and len(geometry.coords) < 3:
        return _SHORT[layer, kind], list(geometry.coords)
    if kind not in _GEOMETRIES:
        raise ValueError(f"a feature can't have a {kind}; GeoDataFrame.explode makes single parts")
    if kind == "Polygon":
        if len(geometry.interiors):
            raise ValueError("an area can't have holes")
        return "area", list(geometry.exterior.coords)[:-1]
    if kind == "MultiPoint":
        return "point", [point.coords[0] for point in geometry.geoms]
    return _GEOMETRIES[kind], list(geometry.coords)


def _attributes_of(columns: list, row: Any, menus: set) -> dict:
    import pandas

    attributes: dict = {}
    for position, column in columns:
        value = row[position]
        if value is None or (not isinstance(value, str) and pandas.isna(value)):
            continue
        if isinstance(value, pandas.Timestamp):
            value = value.tz_convert("UTC").to_pydatetime() if value.tz is not None else value.to_pydatetime()
        if hasattr(value, "item"):
            value = value.item()
        if isinstance(value, bool):
            value = float(value)
        attributes[column] = Menu(value) if column in menus and isinstance(value, str) else value
    for column in menus:
        sub = attributes.pop(f"{column}_sub", None)
        if sub is not None and column in attributes:
            attributes[column] = Menu(attributes[column], sub)
    return attributes


def _number_of(label: Any) -> Optional[int]:
    """None for 2**32 and above, which stands for a feature whose number another one has."""
    try:
        number = int(label)
        if number != label or number < 0:
            raise ValueError
    except (TypeError, ValueError, OverflowError):
        raise ValueError(f"a feature's number is an integer from 0 to {2**32 - 1}, not {label!r}") from None
    return number if number < 2**32 else None


def _numbers_of(index: Any, appended_to: Optional[Path]) -> list:
    """The features' numbers. Those without one get numbers that no other row has, and no feature of the survey had."""
    numbers = [_number_of(label) for label in index]
    if None not in numbers:
        return numbers
    old = [] if appended_to is None else read_features(appended_to, ["number"], deleted=True)["number"].tolist()
    taken = {*old, *numbers} - {None}
    every: Iterator[int] = chain(range(max(taken, default=0) + 1, 2**32), range(1, 2**32))
    free = (number for number in every if number not in taken)
    return [next(free) if number is None else number for number in numbers]


def _values(frame: Any, column: str, default: Any) -> list:
    return list(frame[column]) if column in frame.columns else [default] * len(frame)


class _NothingOnFailure:
    """Closes the survey. After an exception a new file goes away again, and of an old one nothing is changed."""

    def __init__(self, survey: Survey) -> None:
        self._survey = survey

    def __enter__(self) -> None:
        pass

    def __exit__(self, kind: Any, error: Any, trace: Any) -> None:
        try:
            self._survey.__exit__(kind, error, trace)
        finally:
            if kind is not None and self._survey.mode == "x":
                os.unlink(self._survey.path)


def to_file(
    frame: Any,
    path: Path,
    *,
    mode: str = "x",
    version: int = 3,
    name: Optional[str] = None,
    truncate: bool = False,
    layer: Optional[str] = None,
) -> None:
    """Writes a GeoDataFrame of points, lines and polygons as features: all of them, or none.

    ``mode``: 'x' makes the file, 'a' appends to a survey that exists. The columns feature_name, feature_color and
    feature_symbol go back to where read_dataframe has them from; the others become attributes: numbers, texts,
    categoricals as menus (with ``<name>_sub``), dates (with a zone in UTC), booleans as 1 and 0. Missing values make no
    attribute. ``name`` is the name of features without one.

    An index named feature_number gives the numbers. Where it is 2**32 or more, as in read_dataframe for a number that
    comes twice, the feature gets a new one; negative numbers and fractions raise ValueError.

    ``layer`` is the one that the features are from: in 'lines' a point is a line of one point, and in 'areas' a point or
    a line of two points is an area. Without it, that holds for the features in ``frame.attrs["kesp_short"]``, where
    read_dataframe notes them, and the geometry alone says the type of the others.

    Raises what kesp.open raises, ValueError for a geometry that is missing or can't be stored, and kesp.FitError, with
    nothing written.
    """
    import pandas

    if mode not in ("x", "a"):
        raise ValueError(f"the modes are 'x' and 'a', not {mode!r}")
    if layer is not None and layer not in TYPES:
        raise ValueError(f"the layers of features are {', '.join(TYPES)}, not {layer!r}")
    geometry = frame.geometry
    if geometry.isna().any():
        raise ValueError("a feature needs a geometry")
    short = {label: kind for kind, labels in frame.attrs.get("kesp_short", {}).items() for label in labels}
    shapes = [_points_of(g, layer or short.get(label)) for g, label in zip(geometry, frame.index)]
    columns = [(i, c) for i, c in enumerate(frame.columns) if c not in _OWN and c != geometry.name]
    menus = {c for _, c in columns if isinstance(frame[c].dtype, pandas.CategoricalDtype)}
    names = [n if isinstance(n, str) else name or "" for n in _values(frame, "feature_name", name or "")]
    colors, symbols = _values(frame, "feature_color", 0), _values(frame, "feature_symbol", 34)
    numbers: list = [None] * len(frame)
    if frame.index.name == "feature_number":
        numbers = _numbers_of(frame.index, path if mode == "a" else None)
    survey = Survey(path, "x" if mode == "x" else "r+", version=version)
    with _NothingOnFailure(survey):
        for i, row in enumerate(frame.itertuples(index=False, name=None)):
            survey.add_feature(
                names[i], shapes[i][0], shapes[i][1], _attributes_of(columns, row, menus),
                color=int(colors[i]), symbol=int(symbols[i]), number=numbers[i], truncate=truncate,
            )  # fmt: skip
