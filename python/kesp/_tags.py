"""Tags: typed values under a name, as bytes."""
from __future__ import annotations

import struct
from dataclasses import dataclass
from numbers import Real
from typing import Any, Optional

from . import _kesp
from ._errors import FitError
from ._values import TAG_KINDS, integer

_KIND_NUMBERS = {name: number for number, name in TAG_KINDS.items()}
_LAYOUTS = {1: "<i", 2: "<d", 4: "<3d", 5: "<4d", 6: "<I", 7: "<4I", 8: "<I", 9: "<5f", 10: "<6I", 11: "<6f", 12: "<4f", 13: "<2I"}
_BLOB, _STRING, _LINK = 0, 3, 10
_NUMBERS = {
    "i": f"integers from {-(2**31)} to {2**31 - 1}", "I": f"integers from 0 to {2**32 - 1}",
    "f": "numbers of 32 bits, at most 3.4e38", "d": "numbers of 64 bits, at most 1.8e308",
}  # fmt: skip


@dataclass(frozen=True)
class Link:
    """A tag that links two features, by their numbers."""

    from_feature: int
    from_qualifier: int
    to_feature: int
    to_qualifier: int
    value: int
    spare: int
    offset: int
    """of the tag's record in the file, in bytes"""
    flags: int


class Tag:
    """A typed value under a name, of an open survey."""

    __slots__ = ("_store", "_at")

    def __init__(self, store: _kesp.Store, at: int) -> None:
        self._store = store
        self._at = at

    @property
    def kind(self) -> int:
        """Its number: 0 blob, 1 integer, 2 double, 3 string, ..."""
        return self._store.tag(self._at)[0]

    @property
    def kind_name(self) -> Optional[str]:
        """None for a kind that nobody knows."""
        return TAG_KINDS.get(self.kind)

    @property
    def name(self) -> Optional[str]:
        """None if the tag's bytes have none."""
        return self._store.tag(self._at)[1]

    @property
    def data(self) -> Optional[bytes]:
        """The bytes of the value."""
        return self._store.tag(self._at)[2]

    @property
    def value(self) -> Any:
        """An int, a float, a str, bytes, or a tuple of numbers; None if the bytes are too few for the kind."""
        kind, _, payload, _, _ = self._store.tag(self._at)
        if payload is None:
            return None
        if kind == _BLOB:
            return payload
        if kind == _STRING:
            if len(payload) < 2:
                return None
            return payload[: len(payload) // 2 * 2].decode("utf-16-le", "surrogatepass").partition("\0")[0]
        layout = _LAYOUTS.get(kind)
        if layout is None or len(payload) < struct.calcsize(layout):
            return None
        values = struct.unpack_from(layout, payload)
        return values if len(values) > 1 else values[0]

    @property
    def value_text(self) -> Optional[str]:
        """The text, or the numbers with blanks between them; None for blobs and what can't be decoded."""
        value = self.value
        if value is None or isinstance(value, bytes):
            return None
        return " ".join(f"{v:.17g}" if isinstance(v, float) else str(v) for v in (value if isinstance(value, tuple) else (value,)))

    @property
    def link(self) -> Optional[Link]:
        """What it links, if it is a link."""
        value: Any = self.value if self.kind == _LINK else None
        if value is None:
            return None
        first, first_qualifier, second, second_qualifier, number, spare = value
        return Link(first, first_qualifier, second, second_qualifier, number, spare, self.offset, self.flags)

    @property
    def flags(self) -> int:
        return self._store.tag(self._at)[3]

    @property
    def offset(self) -> int:
        """of its record in the file, in bytes; 0 before it is written"""
        return self._store.tag(self._at)[4]

    def delete(self) -> None:
        self._store.delete_tag(self._at)

    def __repr__(self) -> str:
        if not self._store.is_open:
            return "<kesp.Tag of a closed survey>"
        return f"<kesp.Tag {self.name!r}: {self.value!r}>"


def _kind_of(value: Any) -> int:
    if isinstance(value, (bytes, bytearray)):
        return _BLOB
    if isinstance(value, str):
        return _STRING
    if isinstance(value, int) and not isinstance(value, bool):
        return 1
    if isinstance(value, float):
        return 2
    if isinstance(value, (tuple, list)) and len(value) in (3, 4):
        return 4 if len(value) == 3 else 5
    raise TypeError(f"a tag of a {type(value).__name__} needs a kind")


def payload_of(name: str, value: Any, kind: Optional[str]) -> tuple[int, str, bytes]:
    """The number of the kind, the name and the bytes."""
    if kind is not None and kind not in _KIND_NUMBERS:
        raise ValueError(f"the kinds of tags are {', '.join(_KIND_NUMBERS)}, not {kind!r}")
    number = _kind_of(value) if kind is None else _KIND_NUMBERS[kind]
    if "\0" in name or (isinstance(value, str) and "\0" in value):
        raise FitError("names and texts of tags end at the first zero, so they can't contain one")
    if number == _BLOB:
        data: Any = value
        return number, name, bytes(memoryview(data))
    if number == _STRING:
        return number, name, (value + "\0").encode("utf-16-le", "surrogatepass")
    values = value if isinstance(value, (tuple, list)) else (value,)
    for part in values:
        if not isinstance(part, Real):
            raise TypeError(f"a tag of the kind {TAG_KINDS[number]} has numbers, not {type(part).__name__}")
    layout = _LAYOUTS[number]
    count = int(layout[1:-1] or 1)
    if len(values) != count:
        raise ValueError(f"numbers in a tag of the kind {TAG_KINDS[number]}: {count}, not {len(values)}")
    try:
        return number, name, struct.pack(layout, *values)
    except (struct.error, OverflowError):
        raise FitError(f"a tag of the kind {TAG_KINDS[number]} has {_NUMBERS[layout[-1]]}") from None


def link_payload(source: int, target: int, value: int, qualifiers: tuple[int, int]) -> bytes:
    """The bytes of a link."""
    if len(qualifiers) != 2:
        raise ValueError(f"a link has two qualifiers, not {len(qualifiers)}")
    most = 2**32 - 1
    first, second = (integer(number, most, "a feature's number") for number in (source, target))
    first_qualifier, second_qualifier = (integer(number, most, "a link's qualifier") for number in qualifiers)
    value = integer(value, most, "a link's value")
    return struct.pack("<6I", first, first_qualifier, second, second_qualifier, value, most)
