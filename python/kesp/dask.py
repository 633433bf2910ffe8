"""Many surveys at once: lazy frames and verdicts with Dask, on one machine or a cluster.

    import kesp.dask
    trees = kesp.dask.read_dataframe("/surveys/*/*.kesp", "points")
    trees.groupby("Species").Height.mean().compute()
"""
from __future__ import annotations

import glob as _glob
import os
import tempfile
import uuid
from contextlib import contextmanager
from dataclasses import dataclass, replace
from typing import Any, Iterable, Iterator, Mapping, Optional, Sequence, Union

import dask
import dask.dataframe
import numpy as np
import pandas

from . import _frames, _kesp
from ._checking import repair, salvage, validate
from ._errors import Error
from ._frames import DATE, LAYERS, MENU, NUMBER, TEXT
from ._tables import Path

Paths = Union[Path, Iterable[Path]]

_KINDS = {"text": TEXT, "number": NUMBER, "date": DATE}
_DTYPES = {TEXT: "object", NUMBER: "float64", DATE: "datetime64[ns]"}
_MARKS = {"deleted": "bool", "edited": "bool"}
_FEATURE = {"feature_name": "object", "feature_color": "int64", "feature_symbol": "int32", **_MARKS}
_FIXED: dict[str, dict[str, str]] = {
    "vertices": {
        "feature_number": "uint32", "point_number": "uint32", "text": "object", "time": "datetime64[ns]", "z": "float64",
        "status": "uint16", "gps_value": "float64", "gps_number": "uint16", "has_offset": "bool", "offset_1": "float64",
        "offset_2": "float64", **_MARKS, "geometry": "object",
    },
    "notes": {"text": "object", **_MARKS},
    "tags": {"kind": "int64", "kind_name": "object", "name": "object", "value": "object", "data": "object", **_MARKS},
    "links": {
        **dict.fromkeys(("from_feature", "from_qualifier", "to_feature", "to_qualifier", "value", "spare"), "int64"),
        **_MARKS,
    },
}  # fmt: skip
_SOURCE = {"path": "object", "error": "object"}
_TAKEN = {*_FEATURE, *_SOURCE, "feature_number", "geometry", "further_attributes"}
_VERDICT = ("path", "whole", "offset", "problems", "features", "deleted", "error")
_REPAIR = ("path", "destination", "kept", "deleted", "unknown", "gap_count", "gap_bytes", "error")
_FILES_PER_TASK = 16


@dataclass(frozen=True)
class _Column:
    """Of an attribute: its folded name, the kind that it is read as, and whether it has the second texts of menus. Where
    a feature has no such attribute, the second text of ``menu`` is there."""

    name: str
    kind: int
    sub: bool = False
    menu: Optional[str] = None


@dataclass(frozen=True)
class _Piece:
    """What a partition reads."""

    path: str
    start: int = 0
    end: int = 0
    stragglers: tuple = ()


@contextmanager
def _local(path: str, storage_options: Optional[dict]) -> Iterator[str]:
    """A path that the system opens: for a remote file, of a copy."""
    if storage_options is None:
        yield path
        return
    import fsspec

    fs, inside = fsspec.core.url_to_fs(path, **storage_options)
    with tempfile.TemporaryDirectory() as folder:
        copy = os.path.join(folder, os.path.basename(inside))
        fs.get_file(inside, copy)
        yield copy


def _list(paths: Paths, storage_options: Optional[dict]) -> list[str]:
    """Each path once, absolute since workers have folders of their own; those of a pattern in the order of their names."""
    given = [paths] if isinstance(paths, (str, bytes, os.PathLike)) else list(paths)
    found: dict = {}
    for path in map(os.fsdecode, given):
        path = os.path.abspath(path) if storage_options is None else path
        matches = [path]
        if _glob.has_magic(path) and storage_options is not None:
            import fsspec

            fs, inside = fsspec.core.url_to_fs(path, **storage_options)
            matches = sorted(map(fs.unstrip_protocol, fs.glob(inside)))
        elif _glob.has_magic(path) and not os.path.exists(path):
            matches = sorted(_glob.glob(path, recursive=True))
        found.update(dict.fromkeys(matches))
    if not found:
        raise FileNotFoundError(2, "No survey is there", os.fspath(given[0]) if given else "")
    return list(found)


def _kind(kind: str) -> int:
    if kind not in _KINDS:
        raise ValueError(f"an attribute is read as {', '.join(_KINDS)}, not as {kind!r}")
    return _KINDS[kind]


def _check(errors: str) -> None:
    if errors not in ("report", "raise", "ignore"):
        raise ValueError(f"errors is 'report', 'raise' or 'ignore', not {errors!r}")


def _each(work: Any, paths: Sequence, **options: Any) -> list:
    """The results of work(path, **options), computed by Dask a few files at a time."""

    def some(chunk: Sequence) -> list:
        return [work(path, **options) for path in chunk]

    chunks = [paths[i : i + _FILES_PER_TASK] for i in range(0, len(paths), _FILES_PER_TASK)]
    return [result for part in dask.compute(*[dask.delayed(some)(chunk) for chunk in chunks]) for result in part]


def _plan(path: str, layer: str, deleted: bool, part_bytes: int, storage_options: Optional[dict]) -> tuple:
    """The parts of a file, and its attributes: none of a file that can't be read, which the partition then finds."""
    try:
        with _local(path, storage_options) as place:
            parts, names = _kesp.find_parts(place, part_bytes, deleted, _frames.TYPES.get(layer, 0))
    except (OSError, Error):
        return [_Piece(path)], []
    whole = storage_options is not None or layer in ("notes", "tags", "links")
    return [_Piece(path)] if whole else [_Piece(path, s, e, tuple(more)) for s, e, more in parts], names


def _attribute_columns(found: Iterable[list]) -> dict:
    """The columns for the attributes of all files, in the order in which they come."""
    kinds: dict = {}
    for names in found:
        for name, bits, sub in names:
            spelled, all_bits, any_sub = kinds.get(_frames.fold(name), (name, 0, False))
            kinds[_frames.fold(name)] = spelled, all_bits | bits, any_sub or sub
    taken = set(_TAKEN)
    columns = {}
    for folded, (spelled, bits, any_sub) in kinds.items():
        column = _frames.take_name(spelled or "attribute", taken)
        columns[column] = _Column(folded, {1 << NUMBER: NUMBER, 1 << DATE: DATE}.get(bits, TEXT))
        if any_sub:
            columns[_frames.take_name(f"{column}_sub", taken)] = _Column(folded, MENU, True)
    return columns


def _declared(name: str, kind: int) -> _Column:
    folded = _frames.fold(name)
    return _Column(folded, kind, menu=folded[:-4] if kind == TEXT and folded.endswith("_sub") else None)


_OPERATIONS = {
    "==": lambda a, b: a == b, "!=": lambda a, b: a != b, "<": lambda a, b: a < b, "<=": lambda a, b: a <= b,
    ">": lambda a, b: a > b, ">=": lambda a, b: a >= b, "in": lambda a, b: a.isin(list(b)),
    "not in": lambda a, b: ~a.isin(list(b)),
}  # fmt: skip


def _alternatives(filters: Optional[Sequence]) -> list:
    """Filters as a list of alternatives, each a list of conditions that all must hold."""
    if not filters:
        return []
    alternatives = [list(filters)] if isinstance(filters[0], tuple) else [list(all_of) for all_of in filters]
    for condition in (c for all_of in alternatives for c in all_of):
        if len(condition) != 3 or condition[1] not in _OPERATIONS:
            raise ValueError(f"a filter is (column, one of {' '.join(_OPERATIONS)}, value), not {condition!r}")
    return alternatives


@dataclass(frozen=True)
class _Reader:
    """Reads a piece. Dask tells it which columns are used."""

    layer: str
    dtypes: dict
    attributes: dict
    columns: tuple
    filters: list
    deleted: bool
    errors: str
    storage_options: Optional[dict]

    def project_columns(self, columns: Sequence[str]) -> "_Reader":
        return replace(self, columns=tuple(columns))

    @property
    def index(self) -> str:
        return "feature_number" if self.layer in _frames.TYPES else "offset"

    def meta(self) -> pandas.DataFrame:
        columns = {name: pandas.Series(dtype=self.dtypes[name]) for name in self.columns}
        return pandas.DataFrame(columns, index=pandas.Index([], dtype="int64", name=self.index))

    def __call__(self, piece: _Piece) -> pandas.DataFrame:
        error: Union[OSError, Error, None]
        try:
            with _local(piece.path, self.storage_options) as place:
                frame, damage = self._read(place, piece)
            error = None if damage is None else Error(damage.text, damage.code, piece.path, damage.offset)
        except (OSError, Error) as raised:
            frame, error = self.meta(), raised
        if error is not None and self.errors == "raise":
            raise error
        frame = frame.assign(path=piece.path, error=None)
        if error is not None and self.errors == "report":
            frame = pandas.concat([frame, self._error_row(piece.path, str(error))])
        return frame.astype({name: self.dtypes[name] for name in self.columns})[list(self.columns)]

    def _error_row(self, path: str, text: str) -> pandas.DataFrame:
        """Its numbers are 0 where they are integers, and missing otherwise; its index is -1."""
        empty = {"i": 0, "u": 0, "f": np.nan, "b": False, "M": pandas.NaT, "O": None}
        row = {name: empty[np.dtype(self.dtypes[name]).kind] for name in self.columns}
        index = pandas.Index([-1], name=self.index)
        return pandas.DataFrame({**row, "path": path, "error": text}, index=index)

    def _read(self, place: str, piece: _Piece) -> tuple:
        needed = {*self.columns, *(condition[0] for all_of in self.filters for condition in all_of)}
        if self.layer in ("notes", "tags", "links"):
            frame, damage = _frames.record_frame(self.layer, place, self.deleted)
            return frame[self._matches(frame)], damage
        used = [self.attributes[n] for n in needed & {*self.attributes}]
        named = [n for column in used for n in (column.name, column.menu) if n is not None]
        names = None if "further_attributes" in needed else named
        features, points, attributes, damage = _kesp.assemble(
            place, self.deleted, None, _frames.TYPES.get(self.layer, 0), names,
            self.layer == "vertices" or "geometry" in needed, piece.start, piece.end, piece.stragglers, False,
        )  # fmt: skip
        if self.layer == "vertices":
            frame = pandas.DataFrame(_frames.vertex_columns(features, points)).set_index(self.index)
        else:
            frame = self._feature_frame(features, attributes, needed)
        kept = np.flatnonzero(self._matches(frame))
        frame = frame.iloc[kept]
        if "geometry" in needed:
            frame = frame.assign(geometry=_frames.geometries(self.layer, points, len(features["type"]), kept, mixed=True))
        return frame, damage

    def _feature_frame(self, features: dict, attributes: dict, needed: set) -> pandas.DataFrame:
        columns = _frames.feature_columns(features)
        made = _frames.AttributeColumns(attributes, len(features["type"]))
        for name in needed & {*self.attributes}:
            column = self.attributes[name]
            columns[name] = made.column(column.name, column.kind, column.sub)
            if column.menu is not None:
                second = made.column(column.menu, MENU, True)
                columns[name] = np.where(pandas.isna(columns[name]), second, columns[name])
        if "further_attributes" in needed:
            columns["further_attributes"] = made.further()
        return pandas.DataFrame(columns).set_index(self.index)

    def _matches(self, frame: pandas.DataFrame) -> np.ndarray:
        found = np.full(len(frame), not self.filters)
        for all_of in self.filters:
            here = np.full(len(frame), True)
            for name, operation, value in all_of:
                values = frame.index.to_series() if name == self.index else frame[name]
                # Texts and their absence don't compare.
                there = values.notna().to_numpy()
                met = np.zeros(len(frame), dtype=bool)
                met[there] = np.asarray(_OPERATIONS[operation](values[there], value), dtype=bool)
                here &= met
            found |= here
        return found


def read_dataframe(
    paths: Paths,
    layer: str = "points",
    *,
    columns: Union[Sequence[str], Mapping[str, str], None] = None,
    filters: Optional[Sequence] = None,
    deleted: bool = False,
    errors: str = "report",
    part_bytes: int = 64 << 20,
    storage_options: Optional[dict] = None,
) -> Any:
    """A lazy dask.dataframe of a layer of many surveys: a partition for each file, and several for a long one.

    ``paths``: a path, a pattern such as ``"*/*.kesp"``, or several of them. Layers and columns are those of
    kesp.read_dataframe, with these differences: menus are texts, ``geometry`` is well-known binary (bytes; None for
    none; a point feature of one point is a point), ``further_attributes`` is always there, and ``path`` and ``error`` say
    where a row is from.

    ``columns``: the columns to read. As a list, each file is read once now, by Dask, to find which attributes there are
    and of which kinds; so it is without ``columns``. A mapping from names to 'text', 'number' or 'date' says it instead:
    only files of ``part_bytes`` and more are read now, and a value of another kind is missing in a number or a date. A
    text ``<name>_sub`` has the second texts of the menu ``<name>``, where there is no attribute of that name itself.

    ``filters``: a list of (column, operation, value), all of which must hold, or a list of such lists, of which one must.
    Operations are == != < <= > >= in, not in; columns are all but geometry, path and error. A missing value meets none.

    ``errors``: 'report' makes a file that can't be read to its end a row whose ``error`` says why, after the rows that
    come before the damage; 'ignore' leaves this row out; 'raise' raises OSError or kesp.Error when it is computed.

    ``storage_options`` is for fsspec: with it, also an empty one, paths are URLs, and each partition copies its file to a
    temporary folder and reads it whole.
    """
    if layer not in LAYERS:
        raise ValueError(f"the layers are {', '.join(LAYERS)}, not {layer!r}")
    _check(errors)
    alternatives = _alternatives(filters)
    files = _list(paths, storage_options)
    is_declared = isinstance(columns, Mapping) or layer not in _frames.TYPES
    plans: dict[str, tuple] = {path: ([_Piece(path)], []) for path in files}
    wanted = [path for path in files if not is_declared or _is_long(path, part_bytes, storage_options)]
    options = {"layer": layer, "deleted": deleted, "part_bytes": part_bytes, "storage_options": storage_options}
    plans.update(zip(wanted, _each(_plan, wanted, **options)))
    if isinstance(columns, Mapping):
        attributes = {n: _declared(n, _kind(k)) for n, k in columns.items() if n not in _TAKEN}
    else:
        attributes = _attribute_columns(names for _, names in plans.values())
    fixed: dict[str, str] = _FIXED.get(layer) or {
        **_FEATURE, **{name: _DTYPES.get(column.kind, "object") for name, column in attributes.items()},
        "further_attributes": "object", "geometry": "object",
    }  # fmt: skip
    dtypes = {**fixed, **_SOURCE}
    names = [*dtypes] if columns is None else [*dict.fromkeys([*columns, *_SOURCE])]
    reader = _Reader(layer, dtypes, attributes, tuple(names), alternatives, deleted, errors, storage_options)
    filtered = [c[0] for all_of in alternatives for c in all_of]
    unfit = [n for n in filtered if n in ("geometry", *_SOURCE)]
    if unfit:
        raise ValueError(f"no filter can be on {unfit[0]}")
    unknown = [n for n in names if n not in dtypes] + [n for n in filtered if n not in {*dtypes, reader.index}]
    if unknown:
        raise ValueError(f"there is no column {unknown[0]!r} in the layer {layer}")
    pieces = [piece for path in files for piece in plans[path][0]]
    # A frame has a name of its own: if a file changes, what was computed before is not taken for it.
    return dask.dataframe.from_map(
        reader, pieces, meta=reader.meta(), label="kesp", token=uuid.uuid4().hex, enforce_metadata=False
    )


def _is_long(path: str, part_bytes: int, storage_options: Optional[dict]) -> bool:
    try:
        return storage_options is None and os.path.getsize(path) >= part_bytes
    except OSError:
        return False


def _validate(path: str, errors: str, storage_options: Optional[dict]) -> tuple:
    try:
        with _local(path, storage_options) as place:
            found = validate(place)
    except (OSError, Error) as error:
        if errors == "raise":
            raise
        return path, False, None, None, None, None, str(error)
    if errors == "raise" and found.damage is not None:
        raise Error(found.damage.text, found.damage.code, path, found.damage.offset)
    offset, text = (None, None) if found.damage is None else (found.damage.offset, found.damage.text)
    return path, found.whole, offset, "; ".join(p.text for p in found.problems), found.features, found.deleted, text


def validate_all(paths: Paths, *, errors: str = "report", storage_options: Optional[dict] = None) -> pandas.DataFrame:
    """Validates each file with Dask, and returns a frame with a row for each.

    Its columns are path, whole, offset (of the damage, in bytes), problems (a text; empty for none), features (different
    numbers), deleted (records), error (what the damage is, or why the file can't be read). ``errors='raise'`` raises for
    the first file that is not whole.
    """
    _check(errors)
    rows = _each(_validate, _list(paths, storage_options), errors=errors, storage_options=storage_options)
    counts = dict.fromkeys(("offset", "features", "deleted"), "Int64")
    return pandas.DataFrame(rows, columns=list(_VERDICT)).astype(counts)


def _repair(task: tuple, method: str, options: dict, errors: str) -> tuple:
    source, destination, was_there = task
    try:
        if was_there and not options["replace"]:
            raise FileExistsError(17, "File exists", destination)
        os.makedirs(os.path.dirname(destination), exist_ok=True)
        # What is there now, a worker that died has made.
        rebuild = salvage if method == "salvage" else repair
        made = rebuild(source, destination, version=options["version"], lossy=options["lossy"], replace=True)
    except (OSError, ValueError, Error) as error:
        if errors == "raise":
            raise
        return source, destination, *[None] * 5, str(error)
    return source, destination, made.kept, made.deleted, made.unknown, made.gap_count, made.gap_bytes, None


def repair_all(
    paths: Paths,
    folder: Path,
    *,
    method: str = "repair",
    version: int = 0,
    replace: bool = False,
    lossy: bool = False,
    errors: str = "report",
) -> pandas.DataFrame:
    """Repairs each file into ``folder`` with Dask, and returns a frame with a row for each.

    ``method`` is 'repair' or 'salvage', and the other arguments are theirs. The copies have the places below ``folder``
    that the sources have below the folder that they have in common. The columns are path, destination, kept, deleted,
    unknown, gap_count, gap_bytes, error (why there is no copy). Without ``replace``, a file that is there when the call
    begins is not touched, and is an error.
    """
    _check(errors)
    if method not in ("repair", "salvage"):
        raise ValueError(f"the methods are repair and salvage, not {method!r}")
    sources = _list(paths, None)
    common = os.path.commonpath([os.path.dirname(path) for path in sources])
    places = [os.path.join(os.path.abspath(os.fsdecode(folder)), os.path.relpath(path, common)) for path in sources]
    tasks = [(source, place, os.path.exists(place)) for source, place in zip(sources, places)]
    options = {"version": version, "replace": replace, "lossy": lossy}
    rows = _each(_repair, tasks, method=method, options=options, errors=errors)
    counts = dict.fromkeys(("kept", "deleted", "unknown", "gap_count", "gap_bytes"), "Int64")
    return pandas.DataFrame(rows, columns=list(_REPAIR)).astype(counts)
