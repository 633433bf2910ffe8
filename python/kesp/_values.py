"""Python values of attributes, dates and tags."""
from __future__ import annotations

import math
import operator
from datetime import date, datetime, timedelta, timezone
from typing import Any, Optional

from ._errors import FitError

TYPES = {1: "point", 2: "line", 3: "area"}
TAG_KINDS = {
    0: "blob", 1: "integer", 2: "double", 3: "string", 4: "point", 5: "rect", 6: "color", 7: "gpsMark", 8: "fileLink",
    9: "qualityMark", 10: "featureLink", 11: "qualityMarkEx", 12: "posErrMark", 13: "namedFlag",
}  # fmt: skip
EDITED_FLAGS = 0x1FEA
"""The flags of a record that was added or changed after its file was first written."""

_EPOCH = datetime(1899, 12, 30)
_FIRST, _LAST = -657434, 2958465  # 1 January 100 and 31 December 9999, in days


def integer(value: Any, most: int, what: str) -> int:
    """As an int that a field holds, from anything with __index__."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{what} is an integer, not {type(value).__name__}") from None
    if not 0 <= number <= most:
        raise FitError(f"{what} is an integer from 0 to {most}, not {number}")
    return number


def real(value: Any, what: str) -> float:
    """As a float, which many an int is too large for."""
    try:
        return float(value)
    except OverflowError:
        raise FitError(f"{what} is a number of 64 bits, at most 1.8e308") from None


def date_of(days: float) -> Optional[datetime]:
    """Days since 30 December 1899; the fraction is the time of day, forward from midnight also before that. To the
    millisecond, since the number holds no more. None for 0, and for a date outside the years 100 to 9999."""
    if not math.isfinite(days) or days == 0 or not _FIRST <= math.trunc(days) <= _LAST:
        return None
    whole = math.trunc(days)
    milliseconds = round(abs(days - whole) * 86_400_000)
    try:
        return _EPOCH + timedelta(days=whole, milliseconds=milliseconds)
    except OverflowError:
        return None


def naive_of(value: date) -> datetime:
    """A date as a datetime without a zone: midnight, or the time in UTC if it has a zone."""
    if not isinstance(value, datetime):
        return datetime(value.year, value.month, value.day)
    if value.tzinfo is None:
        return value
    try:
        return value.astimezone(timezone.utc).replace(tzinfo=None)
    except OverflowError:
        raise FitError(f"{value} is outside the years 1 to 9999 in UTC") from None


def days_of(value: date) -> float:
    """The number that date_of turns into this date. A time with a zone is taken in UTC."""
    value = naive_of(value)
    whole = (value.replace(hour=0, minute=0, second=0, microsecond=0) - _EPOCH).days
    fraction = (value - value.replace(hour=0, minute=0, second=0, microsecond=0)) / timedelta(days=1)
    days = whole + fraction if whole >= 0 else whole - fraction
    if date_of(days) is None:
        raise FitError(f"a date is in the years 100 to 9999 and not 30 December 1899, 0:00, which is no date: {value}")
    return days


def seconds_of(value: Any) -> int:
    """Seconds since 1970 UTC of a datetime, a datetime64 or a number. A time without a zone is in UTC; None is no time."""
    if value is None:
        return 0
    if hasattr(value, "astype"):
        value = value.astype("datetime64[s]").item()
        if value is None:
            return 0
    if isinstance(value, datetime):
        moment = value if value.tzinfo is not None else value.replace(tzinfo=timezone.utc)
        seconds = math.floor(moment.timestamp())
    elif isinstance(value, float) and not math.isfinite(value):
        raise ValueError(f"{value} is no time")
    else:
        seconds = int(value)
    if not -(2**31) <= seconds < 2**31:
        raise ValueError(f"{value} is outside the times that a point can have, 1901-12-13 to 2038-01-19")
    return seconds


def time_of(seconds: int) -> Optional[datetime]:
    """In UTC; None for 0, which means no time."""
    if seconds == 0:
        return None
    return datetime(1970, 1, 1, tzinfo=timezone.utc) + timedelta(seconds=seconds)
