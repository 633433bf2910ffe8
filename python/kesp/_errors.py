"""What is raised, and what is said of a damaged file."""
from __future__ import annotations

import warnings
from dataclasses import dataclass
from typing import Optional


class Error(Exception):
    """The file is damaged, is not a Kesp data file, or does not allow what was asked.

    ``code`` is the library's error code (0 without one), ``text`` says what is wrong, ``path`` is the file's, and
    ``offset`` is the place of the damage in bytes, or None. What the system refuses is an OSError instead.
    """

    def __init__(self, text: str, code: int = 0, path: str = "", offset: Optional[int] = None) -> None:
        super().__init__(text, code, path, offset)
        self.text = text
        self.code = code
        self.path = path
        self.offset = offset

    def __str__(self) -> str:
        return f"{self.path}: {self.text}" if self.path else self.text


class FitError(Error, ValueError):
    """A value has no room in its field, or a field can't hold it. Nothing has been written."""


class DamageWarning(UserWarning):
    """What comes after the damage of a file was not read."""


@dataclass(frozen=True)
class Damage:
    """Where a file stops being readable, and why."""

    offset: int
    """of the record that can't be read, in bytes"""
    code: int
    """the library's error code; 0 without one"""
    text: str


def check(on_damage: str) -> None:
    if on_damage not in ("raise", "warn", "ignore"):
        raise ValueError(f"on_damage is 'raise', 'warn' or 'ignore', not {on_damage!r}")


def report(damage: Optional[Damage], path: str, on_damage: str) -> None:
    """Raises or warns, as the caller of a reading function asked."""
    check(on_damage)
    if damage is None or on_damage == "ignore":
        return
    if on_damage == "raise":
        raise Error(damage.text, damage.code, path, damage.offset)
    warnings.warn(f"{path}: {damage.text}; what comes after it was not read", DamageWarning, stacklevel=3)
