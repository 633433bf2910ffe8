"""One survey: its features, notes, tags and links, read, searched and edited."""
from __future__ import annotations

import math
import operator
import os
from collections.abc import Collection, Mapping, MutableMapping
from contextlib import contextmanager
from dataclasses import dataclass
from datetime import date, datetime
from decimal import Decimal
from numbers import Real
from typing import Any, Callable, Iterable, Iterator, Optional, Union

import numpy as np

from . import _kesp
from ._errors import Damage
from ._html import pairs_html, table_html
from ._tables import Path, Progress
from ._tags import Link, Tag, link_payload, payload_of
from ._values import EDITED_FLAGS, TYPES, date_of, days_of, integer, naive_of, real, seconds_of, time_of

_TEXT, _NUMBER, _MENU, _DATE, _OTHER = 1, 2, 3, 4, 5
_TYPE_NUMBERS = {name: number for number, name in TYPES.items()}
_MOST_DECIMALS = 9
_MOST_16, _MOST_32 = 2**16 - 1, 2**32 - 1


class Menu(str):
    """The value of an attribute that was chosen from a menu: a str, with ``sub`` for the second level."""

    sub: str

    def __new__(cls, text: str, sub: str = "") -> "Menu":
        menu = super().__new__(cls, text)
        menu.sub = sub
        return menu

    def __repr__(self) -> str:
        return f"Menu({str(self)!r}, {self.sub!r})" if self.sub else f"Menu({str(self)!r})"


@dataclass(frozen=True)
class Point:
    """A measured position. East, north and height are in the units of the survey."""

    x: float
    y: float
    z: float = 0.0
    time: Optional[datetime] = None
    """in UTC, to the second; a time without a zone is taken in UTC"""
    text: str = ""
    """at most 20 UTF-16 units"""
    status: int = 0
    """of the GPS signal, 0 to 65535; 0 to 10 have a meaning"""
    gps_value: float = 0.0
    gps_number: int = 0
    number: int = 0
    """in the file; a new point gets one"""
    flags: int = 0
    """as read; not written"""


Value = Union[str, float, datetime, Menu, None]


def _value_of(kind: int, text: str, sub: str, number: float) -> Value:
    if kind == _NUMBER:
        return number
    if kind == _MENU:
        return Menu(text, sub)
    if kind == _DATE:
        return date_of(number)
    return text if kind == _TEXT else None


def _decimals_of(number: float) -> int:
    if not math.isfinite(number):
        return 0
    exponent = Decimal(repr(number)).normalize().as_tuple().exponent
    return min(max(0, -int(exponent)), _MOST_DECIMALS)


def _python_date(value: Any) -> Any:
    """A datetime64 as a datetime (None for NaT), and all else as it is."""
    if not isinstance(value, np.datetime64):
        return value
    day = value.astype("datetime64[ms]").item()
    if isinstance(day, int):
        raise ValueError(f"{value} is outside the years 1 to 9999")
    return day


def _attribute_tuple(name: str, value: Any, old: Optional[tuple]) -> tuple:
    """What the store takes. A plain text leaves a menu a menu, and a number that is there keeps its decimals."""
    if isinstance(value, Menu):
        return name, _MENU, str(value), value.sub, 0.0, None
    if isinstance(value, str):
        kind = _MENU if old is not None and old[1] == _MENU else _TEXT
        return name, kind, str(value), "", 0.0, None
    value = _python_date(value)
    if isinstance(value, date):
        return name, _DATE, "", "", days_of(value), None
    if value is None:
        return name, _DATE, "", "", 0.0, None
    if isinstance(value, Real) and not isinstance(value, (bool, np.bool_)):
        number = real(value, "an attribute's number")
        kept = old is not None and old[1] == _NUMBER
        return name, _NUMBER, "", "", number, None if kept else _decimals_of(number)
    raise TypeError(f"an attribute is a str, a number, a date, a Menu or None (no date), not {type(value).__name__}")


def _point_tuple(point: Any) -> tuple:
    if isinstance(point, Point):
        seconds = seconds_of(point.time)
        status = integer(point.status, _MOST_16, "a point's status")
        gps = real(point.gps_value, "gps_value"), integer(point.gps_number, _MOST_16, "gps_number")
        return (*_position(point.x, point.y, point.z), seconds, point.text, status, *gps)
    x, y, *z = point
    if len(z) > 1:
        raise TypeError("a point is (x, y), (x, y, z) or a kesp.Point")
    return (*_position(x, y, z[0] if z else 0.0), 0, "", 0, 0.0, 0)


def _position(x: Any, y: Any, z: Any) -> tuple[float, float, float]:
    return real(x, "a coordinate"), real(y, "a coordinate"), real(z, "a coordinate")


class Attributes(MutableMapping):
    """The attributes of a feature by their names; the case of A to Z does not matter.

    Values are str, float, datetime (local, without a zone; None for no date) and Menu. If a name occurs several times,
    the first counts; ``all`` has every one. Setting and deleting change the survey.
    """

    def __init__(self, feature: "Feature") -> None:
        self._feature = feature

    def _tuples(self) -> list:
        return self._feature._store.attributes(self._feature._at)

    def _find(self, name: str) -> Optional[tuple]:
        return self._feature._store.attribute(self._feature._at, name)

    def __getitem__(self, name: str) -> Value:
        found = self._find(name)
        if found is None:
            raise KeyError(name)
        return _value_of(found[1], found[2], found[3], found[4])

    def __setitem__(self, name: str, value: Any) -> None:
        self.set(name, value)

    def set(self, name: str, value: Any, *, truncate: bool = False) -> None:
        """Changes or adds an attribute. ``truncate`` cuts a text that is too long; without it kesp.FitError is raised."""
        self._feature._store.set_attribute(
            self._feature._at, _attribute_tuple(name, value, self._find(name)), truncate
        )

    def __delitem__(self, name: str) -> None:
        self._feature._store.remove_attribute(self._feature._at, name)

    def __iter__(self) -> Iterator[str]:
        return iter(self._feature._store.attribute_names(self._feature._at))

    def __len__(self) -> int:
        return len(self._feature._store.attribute_names(self._feature._at))

    @property
    def all(self) -> list[tuple[str, Value]]:
        """Each name and value, in file order, also of repeated names."""
        return [(a[0], _value_of(a[1], a[2], a[3], a[4])) for a in self._tuples()]

    def __repr__(self) -> str:
        return repr(dict(self.all))


def _fold(name: str) -> str:
    if name.isascii():
        return name.lower()
    return "".join(c.lower() if "A" <= c <= "Z" else c for c in name)


class Feature:
    """A point feature, a line or an area of an open survey.

    It refers to the survey: after closing, each use raises ValueError, and after the feature was deleted, KeyError.
    What it returns (texts, numbers, points, arrays) is a copy and stays valid. Setting name, type, color, symbol, points
    or attributes changes the survey; kesp.FitError says that a value has no room.
    """

    __slots__ = ("_store", "_at")

    def __init__(self, store: _kesp.Store, at: int) -> None:
        self._store = store
        self._at = at

    @property
    def number(self) -> int:
        """32 bits; unique in a survey, unless another program repeats it."""
        return self._store.feature(self._at)[0]

    @property
    def name(self) -> str:
        return self._store.feature(self._at)[1]

    @name.setter
    def name(self, value: str) -> None:
        self.change(name=value)

    @property
    def type(self) -> str:
        """'point', 'line' or 'area'."""
        return TYPES.get(self._store.feature(self._at)[2], "")

    @type.setter
    def type(self, value: str) -> None:
        self.change(type=value)

    @property
    def color(self) -> int:
        """32 bits, as it is in the file; most programs have red in the low byte."""
        return self._store.feature(self._at)[3]

    @color.setter
    def color(self, value: int) -> None:
        self.change(color=value)

    @property
    def symbol(self) -> int:
        """16 bits, an index of the host's."""
        return self._store.feature(self._at)[4]

    @symbol.setter
    def symbol(self, value: int) -> None:
        self.change(symbol=value)

    def change(
        self,
        *,
        name: Optional[str] = None,
        type: Optional[str] = None,
        color: Optional[int] = None,
        symbol: Optional[int] = None,
        truncate: bool = False,
    ) -> None:
        """Changes several values at once; what is None stays."""
        old = self._store.feature(self._at)
        number = old[2] if type is None else _type_number(type)
        look = _look(old[3] if color is None else color, old[4] if symbol is None else symbol)
        self._store.change_feature(self._at, (old[1] if name is None else name, number, *look), truncate)

    @property
    def flags(self) -> int:
        return self._store.feature(self._at)[5]

    @property
    def deleted(self) -> bool:
        """Marked as deleted in the file; only with ``kesp.open(path, deleted=True)``."""
        return bool(self.flags & 1)

    @property
    def edited(self) -> bool:
        """It, a point or an attribute of it was added or changed after the file was first written."""
        return bool(self.flags & EDITED_FLAGS)

    @property
    def points(self) -> list[Point]:
        return [Point(p[0], p[1], p[2], time_of(p[3]), *p[4:]) for p in self._store.points(self._at)]

    @points.setter
    def points(self, points: Iterable[Any]) -> None:
        self.set_points(points)

    def set_points(self, points: Iterable[Any], *, truncate: bool = False) -> None:
        """Replaces the points: kesp.Point, (x, y) or (x, y, z). The numbers of the first ones stay."""
        self._store.set_points(self._at, [_point_tuple(p) for p in points], truncate)

    @property
    def coordinates(self) -> np.ndarray:
        """East, north and height of the points: float64 of shape (points, 3)."""
        return self._store.coordinates(self._at)

    @property
    def attributes(self) -> Attributes:
        self._store.feature(self._at)
        return Attributes(self)

    @attributes.setter
    def attributes(self, values: Mapping) -> None:
        """Sets these attributes, and deletes all others: all of that, or nothing if a value does not fit."""
        attributes = self.attributes
        last = {_fold(name): (name, value) for name, value in values.items()}
        self._store.replace_attributes(
            self._at, [_attribute_tuple(name, value, attributes._find(name)) for name, value in last.values()]
        )

    def delete(self) -> None:
        """Marks the feature, its points and its attributes as deleted."""
        self._store.delete_feature(self._at)

    @property
    def __geo_interface__(self) -> dict:
        """A GeoJSON feature; coordinates are as in the file, with the height."""
        number, name, kind, color, symbol, _, _ = self._store.feature(self._at)
        properties = {"name": name, "color": color, "symbol": symbol}
        for key, value in self.attributes.items():
            properties.setdefault(key, value.isoformat() if isinstance(value, datetime) else value)
        geometry = _geometry(kind, self.coordinates.tolist())
        return {"type": "Feature", "id": number, "properties": properties, "geometry": geometry}

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Feature) and (self._store, self._at) == (other._store, other._at)

    def __hash__(self) -> int:
        return hash((id(self._store), self._at))

    def __repr__(self) -> str:
        if not self._store.is_open:
            return "<kesp.Feature of a closed survey>"
        return f"<kesp.Feature {self.number}: {self.type} {self.name!r}>"

    def _repr_html_(self) -> str:
        return pairs_html(repr(self), dict(self.attributes.all))


def _geometry(kind: int, coordinates: list) -> Optional[dict]:
    if not coordinates:
        return None
    if kind == 1:
        if len(coordinates) == 1:
            return {"type": "Point", "coordinates": coordinates[0]}
        return {"type": "MultiPoint", "coordinates": coordinates}
    if kind == 3:
        return {"type": "Polygon", "coordinates": [coordinates + coordinates[:1]]}
    return {"type": "LineString", "coordinates": coordinates}


def _type_number(name: str) -> int:
    if name not in _TYPE_NUMBERS:
        raise ValueError(f"a feature is a point, a line or an area, not {name!r}")
    return _TYPE_NUMBERS[name]


def _look(color: Any, symbol: Any) -> tuple[int, int]:
    return integer(color, _MOST_32, "a feature's color"), integer(symbol, _MOST_16, "a feature's symbol")


class Note:
    """A free text of a survey, at most 255 UTF-16 units. Setting ``text`` changes the survey."""

    __slots__ = ("_store", "_at")

    def __init__(self, store: _kesp.Store, at: int) -> None:
        self._store = store
        self._at = at

    @property
    def text(self) -> str:
        return self._store.note(self._at)[0]

    @text.setter
    def text(self, value: str) -> None:
        self._store.change_note(self._at, value, False)

    @property
    def flags(self) -> int:
        return self._store.note(self._at)[1]

    @property
    def offset(self) -> int:
        """of its record in the file, in bytes; 0 before it is written"""
        return self._store.note(self._at)[2]

    def delete(self) -> None:
        self._store.delete_note(self._at)

    def __repr__(self) -> str:
        return f"<kesp.Note {self.text!r}>" if self._store.is_open else "<kesp.Note of a closed survey>"


class Features(Collection):
    """The features of a survey in file order. ``features[n]`` is the one with the number n, so iterate to go through."""

    def __init__(self, survey: "Survey") -> None:
        self._survey = survey

    def _find(self, number: Any) -> Optional[int]:
        """None also for what can't be a number of a feature."""
        try:
            wanted = operator.index(number)
        except TypeError:
            return None
        return self._survey._store.find_number(wanted) if 0 <= wanted <= _MOST_32 else None

    def __getitem__(self, number: Any) -> Feature:
        at = self._find(number)
        if at is None:
            raise KeyError(number)
        return Feature(self._survey._store, at)

    def __contains__(self, number: object) -> bool:
        if isinstance(number, Feature):
            return any(feature == number for feature in self)
        return self._find(number) is not None

    def __iter__(self) -> Iterator[Feature]:
        return self._each(self._survey._store, self._survey._store.features())

    @staticmethod
    def _each(store: _kesp.Store, features: list) -> Iterator[Feature]:
        for at in features:
            if not store.is_open:
                raise ValueError("the survey is closed")
            yield Feature(store, at)

    def __len__(self) -> int:
        return len(self._survey._store.features())

    def get(self, number: int, default: Any = None) -> Any:
        at = self._find(number)
        return default if at is None else Feature(self._survey._store, at)


@dataclass(frozen=True)
class between:
    """A range for find: numbers or dates, both ends included. Raises ValueError if low is above high."""

    low: Any
    high: Any

    def __post_init__(self) -> None:
        low, high = self._ends()
        if low > high:
            raise ValueError(f"low is above high: {self.low!r}, {self.high!r}")

    def _ends(self) -> tuple[Any, Any]:
        low, high = _comparable(self.low), _comparable(self.high)
        if isinstance(low, float) != isinstance(high, float):
            raise TypeError("a range is of two numbers or of two dates")
        return low, high


class Survey:
    """An open survey; kesp.open makes it. A context manager, iterable over its features, of len(survey) features.

    One thread at a time may use it. Reading takes no lock: what another program writes later is not seen. Changes are
    gathered and seen at once by this survey; ``flush()``, ``close()`` and the end of a ``with`` block write them to the
    disk. If the block ends with an exception, what was not flushed is dropped.
    """

    def __init__(
        self, path: Path, mode: str = "r", *, deleted: bool = False, version: int = 3, progress: Optional[Progress] = None
    ) -> None:
        if mode not in ("r", "r+", "x"):
            raise ValueError(f"the modes are 'r', 'r+' and 'x', not {mode!r}")
        if version not in (1, 2, 3):
            raise ValueError(f"the file versions are 1, 2 and 3, not {version!r}")
        if deleted and mode != "r":
            raise ValueError("deleted records can only be read")
        self._store = _kesp.Store(path, mode, deleted, version, progress)
        self.path: str = os.fsdecode(path)
        self.mode = mode
        self._is_editing = False

    @property
    def closed(self) -> bool:
        return not self._store.is_open

    @property
    def version(self) -> int:
        """of the file: 1, 2 or 3"""
        return self._store.file_version

    @property
    def damage(self) -> Optional[Damage]:
        """None for a whole file, else where it stops being readable, as it was opened."""
        return self._store.damage

    @property
    def whole(self) -> bool:
        return self.damage is None

    @property
    def features(self) -> Features:
        return Features(self)

    @property
    def notes(self) -> list[Note]:
        return [Note(self._store, at) for at in self._store.notes()]

    @property
    def tags(self) -> list[Tag]:
        return [Tag(self._store, at) for at in self._store.tags()]

    @property
    def links(self) -> list[Link]:
        """The tags that link two features."""
        return [link for tag in self.tags if (link := tag.link) is not None]

    @property
    def header(self) -> Optional[dict]:
        """The values of the header record by their names, or None if there is none. A copy: set_header changes it."""
        header = self._store.header()
        if header is not None:
            for name in ("CreationTime", "FirstPointTime", "LastPointTime"):
                header[name] = time_of(header[name])
        return header

    def set_header(self, *, truncate: bool = False, **texts: str) -> None:
        """Sets HeaderText1 (20 units), HeaderText5 (127), HeaderText2 to 4, 6, 7 (255) of the header record."""
        self._store.set_header(texts, truncate)

    @property
    def bounds(self) -> Optional[tuple[float, float, float, float]]:
        """Minimum x, minimum y, maximum x, maximum y of all points of features; None without any."""
        return self._store.extent()[0]

    @property
    def time_span(self) -> Optional[tuple[datetime, datetime]]:
        """The first and the last time of a point, in UTC; None without any."""
        _, first, last = self._store.extent()
        low, high = time_of(first), time_of(last)
        return None if low is None or high is None else (low, high)

    def __len__(self) -> int:
        return len(self.features)

    def __bool__(self) -> bool:
        return True

    def __iter__(self) -> Iterator[Feature]:
        return iter(self.features)

    @property
    def __geo_interface__(self) -> dict:
        return {"type": "FeatureCollection", "features": [feature.__geo_interface__ for feature in self]}

    def find(
        self,
        name: Union[str, Iterable[str], None] = None,
        *,
        type: Optional[str] = None,
        where: Optional[Mapping[str, Any]] = None,
        rect: Optional[tuple[float, float, float, float]] = None,
        since: Any = None,
        until: Any = None,
        text: Optional[str] = None,
        ignore_case: bool = False,
        partial: bool = False,
    ) -> list[Feature]:
        """The features that meet all that is asked, in file order.

        ``name``: one of these names; of none, nothing is found. ``type``: 'point', 'line' or 'area'. ``where``: attributes
        and their values: a text, a number, between(low, high), a date, or a function of the value. A date is found as it
        is stored: in UTC if it has a zone, to the millisecond; the ends of a range are not rounded. ``rect`` (minimum x,
        minimum y, maximum x, maximum y), ``since``, ``until`` (datetimes, both included) and ``text``: a point has all of
        these; the points after one with the text count as having it. Texts and attribute names ignore the case of A to Z
        with ``ignore_case``; ``partial`` finds texts that contain the wanted one. A feature without points, or without
        the attribute, is not found where they are asked for.
        """
        names = None if name is None else [name] if isinstance(name, str) else list(name)
        edges = None if rect is None else tuple(real(edge, "an edge of rect") for edge in rect)
        if edges is not None and len(edges) != 4:
            raise ValueError("rect is minimum x, minimum y, maximum x, maximum y")
        conditions, tests = _conditions(where or {})
        times = None
        if since is not None or until is not None:
            low = -(2**31) if since is None else seconds_of(since)
            times = (low, 2**31 - 1 if until is None else seconds_of(until))
        asked = {
            "names": names or [],
            "types": 7 if type is None else 1 << (_type_number(type) - 1),
            "ignore_case": ignore_case,
            "partial": partial,
            "text": text,
            "rect": edges,
            "times": times,
            "where": conditions,
        }
        found = [Feature(self._store, at) for at in self._store.find(asked) if names != []]
        return [f for f in found if all(_passes(f, n, test, ignore_case) for n, test in tests)]

    def add_feature(
        self,
        name: str,
        type: str = "point",
        points: Iterable[Any] = (),
        attributes: Optional[Mapping[str, Any]] = None,
        *,
        color: int = 0,
        symbol: int = 34,
        number: Optional[int] = None,
        truncate: bool = False,
    ) -> Feature:
        """Adds a feature with its points (kesp.Point, (x, y) or (x, y, z)) and attributes.

        ``number``: a free one, or the next. ``truncate`` cuts texts that are too long; without it kesp.FitError is
        raised, and nothing is added.
        """
        values = (name, _type_number(type), *_look(color, symbol))
        number = None if number is None else integer(number, _MOST_32, "a feature's number")
        tuples = [_attribute_tuple(n, v, None) for n, v in (attributes or {}).items()]
        at = self._store.add_feature(number, values, [_point_tuple(p) for p in points], tuples, truncate)
        return Feature(self._store, at)

    def add_note(self, text: str, *, truncate: bool = False) -> Note:
        """Adds a note of at most 255 UTF-16 units."""
        return Note(self._store, self._store.add_note(text, truncate))

    def add_tag(self, name: str, value: Any, kind: Optional[str] = None) -> Tag:
        """Adds a tag. Without ``kind``, an int is an integer, a float a double, a str a string, bytes a blob, three
        numbers a point and four a rect. The other kinds are in the list of kinds in docs/python.md."""
        return Tag(self._store, self._store.add_tag(*payload_of(name, value, kind)))

    def add_link(
        self,
        source: Union[int, Feature],
        target: Union[int, Feature],
        value: int = 0,
        *,
        qualifiers: tuple[int, int] = (0, 0),
    ) -> Tag:
        """Links two features: of this survey, or by their numbers. All numbers of a link have 32 bits."""
        payload = link_payload(self._number_of(source), self._number_of(target), value, qualifiers)
        return Tag(self._store, self._store.add_tag(10, "", payload))

    def _number_of(self, feature: Union[int, Feature]) -> int:
        if not isinstance(feature, Feature):
            return feature
        if feature._store is not self._store:
            raise ValueError("a link is between features of one survey")
        return feature.number

    def delete(self, record: Union[Feature, Note, Tag]) -> None:
        """Marks a feature (with its points and attributes), a note or a tag as deleted."""
        record.delete()

    @contextmanager
    def edit(self) -> Iterator["Survey"]:
        """All changes in the block reach the disk when it ends, or none if it raises. What was changed before is written
        first. In the block, another edit(), flush() and close() raise RuntimeError."""
        self._check_no_edit("edit()")
        self._store.flush()
        self._is_editing = True
        try:
            yield self
            self._store.flush()
        except BaseException:
            if not self.closed:
                self.rollback()
            raise
        finally:
            self._is_editing = False

    def _check_no_edit(self, what: str) -> None:
        if self._is_editing:
            raise RuntimeError(f"no {what} inside an edit(), which is all or nothing")

    def flush(self) -> None:
        """Writes the changes; when it returns they are on the disk. Raises OSError or kesp.Error; what could not be
        written is kept for the next flush. Raises RuntimeError inside an edit()."""
        self._check_no_edit("flush()")
        self._store.flush()

    def rollback(self) -> None:
        """Takes back what was changed since the last flush."""
        self._store.rollback()

    def close(self) -> None:
        """Writes the changes, and the summary in the header, and closes the file. Closing twice does nothing. Raises
        RuntimeError inside an edit()."""
        self._check_no_edit("close()")
        self._store.close(False)

    def __enter__(self) -> "Survey":
        return self

    def __exit__(self, kind: object, error: object, trace: object) -> None:
        self._store.close((kind is not None or self._is_editing) and self.mode != "r")

    def __repr__(self) -> str:
        return f"<kesp.Survey {self.path!r}, {'closed' if self.closed else f'{len(self)} features'}>"

    def _repr_html_(self) -> str:
        if self.closed:
            return f"<p>{self!r}</p>".replace("<kesp", "&lt;kesp").replace("'>", "'")
        rows = [(f.number, f.type, f.name, dict(f.attributes.all)) for _, f in zip(range(10), self)]
        columns = list(zip(*rows)) or [(), (), (), ()]
        return table_html(["number", "type", "name", "attributes"], columns, len(self))


def _comparable(value: Any) -> Any:
    """A number as a float, and a date as a datetime without a zone."""
    value = _python_date(value)
    if isinstance(value, date):
        return naive_of(value)
    if isinstance(value, Real):
        return real(value, "a wanted number")
    kind = type(value).__name__
    raise TypeError(f"wanted is a text, a number, a date, a range of numbers or dates, or a function, not {kind}")


def _conditions(where: Mapping) -> tuple[list, list]:
    """What the library tests, and what is tested here."""
    conditions: list = []
    tests: list = []
    for name, wanted in where.items():
        if not isinstance(name, str):
            raise TypeError(f"an attribute's name is a str, not {type(name).__name__}")
        if isinstance(wanted, str):
            conditions.append((name, str(wanted)))
            continue
        if callable(wanted):
            tests.append((name, wanted))
            continue
        if isinstance(wanted, between):
            low, high = wanted._ends()
        else:
            low = high = _comparable(wanted)
            if isinstance(low, datetime):
                low = high = date_of(days_of(low)) or low
        if isinstance(low, float):
            conditions.append((name, low, high))
        else:
            tests.append((name, lambda v, low=low, high=high: isinstance(v, datetime) and low <= v <= high))
    return conditions, tests


def _passes(feature: Feature, name: str, test: Callable, ignore_case: bool) -> bool:
    same = (lambda other: _fold(other) == _fold(name)) if ignore_case else (lambda other: other == name)
    return any(same(n) and bool(test(v)) for n, v in feature.attributes.all)


def open(
    path: Path, mode: str = "r", *, deleted: bool = False, version: int = 3, progress: Optional[Progress] = None
) -> Survey:
    """Opens a survey and reads it into memory, which takes about half the file's length.

    ``mode``: 'r' reads, 'r+' reads and changes, 'x' makes a new file of file version ``version``. ``deleted`` also reads
    what is marked as deleted, in mode 'r'. ``progress`` is called with (bytes done, bytes in all) in mode 'r'.

    A damaged file can be opened with 'r': ``damage`` says where it ends. Raises FileNotFoundError, FileExistsError ('x'),
    PermissionError, BlockingIOError (another program writes it), other OSErrors, and kesp.Error.
    """
    return Survey(path, mode, deleted=deleted, version=version, progress=progress)
