"""Layers as pandas and GeoPandas frames, with the names that the plugin for GDAL has."""
from __future__ import annotations

import json
import os
import struct
from datetime import datetime, timedelta
from typing import Any, Optional

import numpy as np

from . import _kesp
from ._errors import report
from ._tables import Path, Progress, times_of
from ._values import EDITED_FLAGS, TAG_KINDS, date_of

LAYERS = ("points", "lines", "areas", "vertices", "notes", "tags", "links")
TYPES = {"points": 1, "lines": 2, "areas": 3}
FIELDS = ["feature_name", "feature_color", "feature_symbol", "deleted", "edited"]
TEXT, NUMBER, MENU, DATE = 1, 2, 3, 4


def _words(column: tuple) -> np.ndarray:
    codes, words = column
    table = np.empty(len(words), dtype=object)
    table[:] = words
    return table[codes]


def fold(name: str) -> str:
    """Equal for names that differ in the case of A to Z only."""
    return "".join(c.lower() if "A" <= c <= "Z" else c for c in name)


def take_name(name: str, taken: set) -> str:
    """The name, or with _2, _3 ... if it is taken."""
    unique, n = name, 2
    while fold(unique) in taken:
        unique, n = f"{name}_{n}", n + 1
    taken.add(fold(unique))
    return unique


def _as_text(kind: int, text: str, number: float, decimals: int) -> str:
    if kind == NUMBER:
        return f"{number:.{decimals}f}"
    if kind == DATE:
        date = date_of(number)
        return "" if date is None else date.isoformat()
    return text


class AttributeColumns:
    """Makes a column for each attribute name of some features."""

    def __init__(self, attributes: dict, rows: int) -> None:
        codes, names = attributes["name"]
        self._ids: dict = {}
        merged = np.array([self._ids.setdefault(fold(n), len(self._ids)) for n in names], dtype=np.int64)
        self._rows = rows
        self._row = attributes["feature"]
        self._name = merged[codes] if len(names) else np.zeros(0, dtype=np.int64)
        self._spelling = [names[i] for i in np.unique(merged, return_index=True)[1]] if len(names) else []
        self._kind = attributes["kind"]
        self._number = attributes["number"]
        self._decimals = attributes["decimals"]
        self._text = _words(attributes["text"])
        self._sub = _words(attributes["sub"])
        # Of several attributes of a name in a feature, the first counts.
        key = self._name * max(rows, 1) + self._row
        self._first = np.zeros(len(key), dtype=bool)
        self._first[np.unique(key, return_index=True)[1]] = True

    def columns(self, taken: set) -> dict:
        """All of them, by column name."""
        out: dict = {}
        order = np.unique(self._name, return_index=True)
        for name in order[0][np.argsort(order[1])]:
            at = np.flatnonzero((self._name == name) & self._first)
            spelled = self._spelling[name] or "attribute"
            column = take_name(spelled, taken)
            kinds = set(self._kind[at].tolist())
            out[column] = self._column(at, kinds.pop() if len(kinds) == 1 else TEXT)
            if any(self._sub[at][self._kind[at] == MENU]):
                out[take_name(f"{column}_sub", taken)] = self._objects(at, [s or None for s in self._sub[at]])
        if not self._first.all():
            out[take_name("further_attributes", taken)] = self.further()
        return out

    def column(self, name: str, kind: int, sub: bool = False) -> Any:
        """The column of a folded name. As NUMBER or DATE, what is of another kind is missing."""
        at = np.flatnonzero((self._name == self._ids.get(name, -1)) & self._first)
        if kind in (NUMBER, DATE):
            at = at[self._kind[at] == kind]
        return self._objects(at, [s or None for s in self._sub[at]]) if sub else self._column(at, kind)

    def _objects(self, at: np.ndarray, values: list) -> np.ndarray:
        column = np.full(self._rows, None, dtype=object)
        column[self._row[at]] = values
        return column

    def _column(self, at: np.ndarray, kind: int) -> Any:
        import pandas

        if kind == NUMBER:
            column = np.full(self._rows, np.nan)
            column[self._row[at]] = self._number[at]
            return column
        if kind == DATE:
            dates = pandas.Series(self._objects(at, [date_of(d) for d in self._number[at]]))
            return pandas.to_datetime(dates, errors="coerce").to_numpy()
        if kind == MENU:
            return pandas.Categorical(self._objects(at, list(self._text[at])))
        return self._objects(at, [self._text_of(i) for i in at])

    def _text_of(self, i: int) -> str:
        return _as_text(self._kind[i], self._text[i], float(self._number[i]), int(self._decimals[i]))

    def further(self) -> np.ndarray:
        """Those after the first of their name in a feature, as JSON."""
        lists: dict = {}
        for i in np.flatnonzero(~self._first):
            entry = {"name": self._spelling[self._name[i]], "value": self._text_of(i), "sub": self._sub[i]}
            lists.setdefault(self._row[i], []).append(entry)
        column = np.full(self._rows, None, dtype=object)
        for row, entries in lists.items():
            column[row] = json.dumps(entries)
        return column


# Types of well-known binary, with Z.
_POINT, _LINE, _POLYGON, _MULTIPOINT = 1001, 1002, 1003, 1004


def _wkb(layer: str, xyz: np.ndarray, several: bool) -> Optional[bytes]:
    """The geometry of a feature. A line of one point is a point, and an area of fewer than three is a line or a point,
    since GEOS takes no others."""
    count = len(xyz)
    if count == 0:
        return None
    if layer == "points" and several:
        parts = b"".join(struct.pack("<BI", 1, _POINT) + point.tobytes() for point in xyz)
        return struct.pack("<BII", 1, _MULTIPOINT, count) + parts
    if layer == "points" or count == 1:
        return struct.pack("<BI", 1, _POINT) + xyz[0].tobytes()
    if layer == "areas" and count >= 3:
        ring = xyz if (xyz[0] == xyz[-1]).all() and count > 3 else np.concatenate([xyz, xyz[:1]])
        return struct.pack("<BIII", 1, _POLYGON, 1, len(ring)) + ring.tobytes()
    return struct.pack("<BII", 1, _LINE, count) + xyz.tobytes()


def _is_short(layer: str, wkb: Optional[bytes]) -> bool:
    """Whether a line or an area has too few points for its own type of geometry."""
    type_ = None if wkb is None else struct.unpack_from("<I", wkb, 1)[0]
    return layer in ("lines", "areas") and (type_ == _POINT or (type_ == _LINE and layer == "areas"))


def geometries(
    layer: str, points: dict, rows: int, kept: Optional[np.ndarray] = None, mixed: bool = False
) -> list:
    """Well-known binary for each row, or for the ``kept`` ones. Of vertices, each point is a row. If a point feature has
    several points, all are multipoints, or only those that have several if they may be ``mixed``."""
    if layer == "vertices":
        layer, rows = "points", len(points["feature"])
        points = dict(points, feature=np.arange(rows))
    keep = np.isfinite(points["x"]) & np.isfinite(points["y"]) & np.isfinite(points["z"])
    order = np.flatnonzero(keep)[np.argsort(points["feature"][keep], kind="stable")]
    xyz = np.column_stack([points["x"][order], points["y"][order], points["z"][order]])
    bounds = np.searchsorted(points["feature"][order], np.arange(rows + 1))
    counts = np.diff(bounds)
    least = 1 if mixed or not (counts > 1).any() else 0
    rows_kept = np.arange(rows) if kept is None else kept
    return [_wkb(layer, xyz[bounds[i] : bounds[i + 1]], counts[i] > least) for i in rows_kept]


def _crs_beside(path: Path) -> Optional[Any]:
    """The reference system in survey.qpj or survey.prj."""
    stem = os.path.splitext(os.fsdecode(path))[0]
    for ending in (".qpj", ".prj"):
        try:
            with open(stem + ending, encoding="utf-8") as file:
                text = file.read()
            from pyproj import CRS

            return CRS.from_user_input(text.strip())
        except (OSError, ImportError, ValueError, RuntimeError):
            continue
    return None


def _finish(frame: Any, wkb: Optional[list], path: Path, crs: Any) -> Any:
    if wkb is None:
        return frame
    try:
        import geopandas
    except ImportError:
        return frame.assign(geometry=wkb)
    geometry = geopandas.GeoSeries.from_wkb(wkb, index=frame.index, crs=crs if crs is not None else _crs_beside(path))
    return geopandas.GeoDataFrame(frame, geometry=geometry)


def _marks(flags: np.ndarray) -> dict:
    return {"deleted": (flags & 1) != 0, "edited": (flags & EDITED_FLAGS) != 0}


def feature_columns(features: dict) -> dict:
    """The index, and the columns that each layer of features has."""
    number = features["number"].astype(np.int64)
    return {
        "feature_number": np.where(features["owns_number"] != 0, number, features["offset"].astype(np.int64) + (1 << 32)),
        "feature_name": _words(features["name"]),
        "feature_color": features["color"].astype(np.int64),
        "feature_symbol": features["symbol"].astype(np.int32),
        "deleted": (features["flags"] & 1) != 0,
        "edited": (features["all_flags"] & EDITED_FLAGS) != 0,
    }


def vertex_columns(features: dict, points: dict) -> dict:
    """The index, and the columns of vertices."""
    columns = {
        "offset": points["offset"].astype(np.int64),
        "feature_number": features["number"][points["feature"]],
        "point_number": points["point_number"],
        "text": _words(points["text"]),
        "time": times_of(points["time"]).astype("datetime64[ns]"),
    }
    for name in ("z", "status", "gps_value", "gps_number", "has_offset", "offset_1", "offset_2"):
        columns[name] = points[name] if name != "has_offset" else points[name] != 0
    return {**columns, **_marks(points["flags"])}


def record_frame(layer: str, path: Path, deleted: bool, progress: Optional[Progress] = None) -> tuple:
    """Notes, tags or links, and the damage of the file."""
    import pandas

    from ._survey import Survey

    with Survey(path, "r", deleted=deleted, progress=progress) as survey:
        records: Any = getattr(survey, layer)
        columns: dict = {"text": [note.text for note in records]} if layer == "notes" else {}
        if layer == "tags":
            columns["kind"] = [tag.kind for tag in records]
            columns["kind_name"] = [TAG_KINDS.get(tag.kind) for tag in records]
            columns["name"] = [tag.name for tag in records]
            columns["value"] = [tag.value_text for tag in records]
            columns["data"] = [tag.data if tag.value is None or tag.kind == 0 else None for tag in records]
        if layer == "links":
            for name in ("from_feature", "from_qualifier", "to_feature", "to_qualifier", "value", "spare"):
                columns[name] = np.array([getattr(link, name) for link in records], dtype=np.int64)
        columns.update(_marks(np.array([record.flags for record in records], dtype=np.uint32)))
        index = pandas.Index([r.offset for r in records], name="offset", dtype="int64")
        return pandas.DataFrame(columns, index=index), survey.damage


def read_dataframe(
    path: Path,
    layer: str = "points",
    *,
    geometry: bool = True,
    crs: Any = None,
    deleted: bool = False,
    on_damage: str = "raise",
    progress: Optional[Progress] = None,
) -> Any:
    """Reads a layer as a frame: points, lines, areas, vertices, notes, tags or links.

    The first four are a GeoDataFrame if GeoPandas is there; without it ``geometry`` is a column of well-known binary.
    ``geometry=False`` leaves it out and gives a DataFrame. Features have the columns feature_name, feature_color,
    feature_symbol, deleted, edited, and one for each attribute name; their index is the feature number. Coordinates are
    east, north, height in the units of the survey. ``crs`` is the reference system; without it the one in a .qpj or .prj
    file of the same name beside the file, if any. A line of one point is a point, and an area of one or two points a
    point or a line; to_file makes lines and areas of these again, which ``frame.attrs["kesp_short"]`` lists.

    ``deleted``, ``on_damage`` and ``progress`` are those of read_points. Raises OSError, kesp.Error and ValueError.
    """
    if layer not in LAYERS:
        raise ValueError(f"the layers are {', '.join(LAYERS)}, not {layer!r}")
    if layer in ("notes", "tags", "links"):
        frame, damage = record_frame(layer, path, deleted, progress)
        report(damage, os.fsdecode(path), on_damage)
        return frame
    import pandas

    names: Optional[list[str]] = [] if layer == "vertices" else None
    with_points = geometry or layer == "vertices"
    features, points, attributes, damage = _kesp.assemble(path, deleted, progress, TYPES.get(layer, 0), names, with_points)
    report(damage, os.fsdecode(path), on_damage)
    if layer == "vertices":
        columns = vertex_columns(features, points)
    else:
        columns = feature_columns(features)
        taken = {*FIELDS, "feature_number", "geometry"}
        columns.update(AttributeColumns(attributes, len(features["type"])).columns(taken))
    wkb = geometries(layer, points, len(features["type"])) if geometry else None
    frame = pandas.DataFrame(columns)
    frame = _finish(frame.set_index(frame.columns[0]), wkb, path, crs)
    short = [int(label) for label, g in zip(frame.index, wkb or ()) if _is_short(layer, g)]
    if short:
        frame.attrs["kesp_short"] = {layer: short}
    return frame
