"""Columns of points, features and attributes as NumPy arrays, and for Arrow."""
from __future__ import annotations

import operator
import os
from collections.abc import Mapping
from typing import Any, Callable, Iterator, Optional, Sequence, Union

import numpy as np

from . import _kesp
from ._errors import Damage, Error, check, report

Path = Union[str, bytes, "os.PathLike[Any]"]
Progress = Callable[[int, int], Any]


def times_of(seconds: np.ndarray) -> np.ndarray:
    """Seconds since 1970 UTC as datetime64[s]; 0 is no time. A view, unless there is a point without a time."""
    times = seconds.view("datetime64[s]")
    none = seconds == 0
    return np.where(none, np.datetime64("NaT", "s"), times) if none.any() else times


class Table(Mapping):
    """Columns of equal length by their names: a mapping from names to NumPy arrays.

    Numbers are views of the memory that the library read into, so they must not be written to; they stay valid when the
    table is gone. Texts and times without a value are made when a column is asked for the first time.

    ``rows`` is the number of rows, ``damage`` is None or says what ended the file. The table speaks the Arrow PyCapsule
    protocol, so ``pyarrow.table(t)``, ``polars.DataFrame(t)`` and DuckDB take it without copying. There a time of 0 means
    none.
    """

    def __init__(self, table: _kesp.Table, damage: Optional[Damage] = None) -> None:
        self._table = table
        self._columns: dict[str, np.ndarray] = {}
        self.damage = damage

    @property
    def rows(self) -> int:
        return len(self._table)

    def __getitem__(self, name: str) -> np.ndarray:
        column = self._columns.get(name)
        if column is None:
            column = self._table.numpy(name)
            if name == "time":
                column = times_of(column)
            column.flags.writeable = False
            self._columns[name] = column
        return column

    def __iter__(self) -> Iterator[str]:
        return iter(self._table.names)

    def __len__(self) -> int:
        """The number of columns."""
        return len(self._table.names)

    def to_pandas(self) -> Any:
        """A pandas DataFrame with these columns."""
        import pandas

        return pandas.DataFrame(dict(self))

    def __arrow_c_schema__(self) -> object:
        return self._table.arrow_schema()

    def __arrow_c_array__(self, requested_schema: object = None) -> tuple[object, object]:
        return self._table.arrow_schema(), self._table.arrow_array()

    def __arrow_c_stream__(self, requested_schema: object = None) -> object:
        return self._table.arrow_stream()

    def __repr__(self) -> str:
        return f"<kesp.Table of {self.rows} rows: {', '.join(self)}>"

    def _repr_html_(self) -> str:
        from ._html import table_html

        return table_html(list(self), [self[name][:10] for name in self], self.rows)


class Batches:
    """Tables of a file one after another, so that memory does not grow with the file.

    An iterator, and a context manager that ends the reading. It also speaks the Arrow PyCapsule protocol; iterator and
    stream take their batches from the same reading. At damage the batches before it come first. Then the iterator does
    what ``on_damage`` says, and has it in ``damage``; the stream ends with an error.
    """

    def __init__(
        self, kind: str, path: Path, names: Sequence[str], deleted: bool, rows: int, on_damage: str = "raise"
    ) -> None:
        check(on_damage)
        if not 1 <= operator.index(rows) < 2**63:
            raise ValueError(f"batch_rows is an integer of 1 or more, not {rows}")
        self._batches = _kesp.Batches(kind, path, list(names), deleted, rows)
        self._on_damage = on_damage
        self.damage: Optional[Damage] = None

    def __iter__(self) -> "Batches":
        return self

    def __next__(self) -> Table:
        try:
            table = self._batches.next()
        except Error as error:
            if error.offset is None or self._on_damage == "raise":
                raise
            self.damage = Damage(error.offset, error.code, error.text)
            report(self.damage, error.path, self._on_damage)
            table = None
        if table is None:
            raise StopIteration
        return Table(table)

    def close(self) -> None:
        """Ends the reading; there are no further batches."""
        self._batches.close()

    def __enter__(self) -> "Batches":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __arrow_c_schema__(self) -> object:
        return self._batches.shape().arrow_schema()

    def __arrow_c_stream__(self, requested_schema: object = None) -> object:
        return self._batches.arrow_stream()


def _read(
    kind: str,
    path: Path,
    columns: Optional[Sequence[str]],
    deleted: bool,
    batch_rows: Optional[int],
    on_damage: str,
    progress: Optional[Progress],
) -> Any:
    names = [] if columns is None else [columns] if isinstance(columns, str) else list(columns)
    if columns is not None and not names:
        raise ValueError("no columns are asked for")
    if batch_rows is not None:
        if progress is not None:
            raise ValueError("batches don't tell their progress: give batch_rows or progress")
        return Batches(kind, path, names, deleted, batch_rows, on_damage)
    table, damage = _kesp.read_table(kind, path, names, deleted, progress)
    report(damage, os.fsdecode(path), on_damage)
    return Table(table, damage)


def read_points(
    path: Path,
    columns: Optional[Sequence[str]] = None,
    *,
    deleted: bool = False,
    batch_rows: Optional[int] = None,
    on_damage: str = "raise",
    progress: Optional[Progress] = None,
) -> Any:
    """Reads the points of a file, in file order: all that are there, also those whose feature is missing.

    ``columns``: of feature_number, point_number (uint32), x (east), y (north), z (float64), time (datetime64[s], UTC,
    NaT for none), status (uint16), gps_value (float64), gps_number (uint16), offset1, offset2 (float64), has_offset
    (uint16), flags (uint32), text (object). Without it all but text.

    Returns a Table of arrays of shape (rows,); with ``batch_rows``, Batches of at most that many rows. ``deleted`` adds
    the records that are marked as deleted (flags & 1). ``on_damage`` is 'raise', 'warn' or 'ignore'; the last two return
    what comes before the damage. ``progress`` is called with (bytes done, bytes in all) some 20 times a second, and
    refused with ``batch_rows``. Raises OSError, kesp.Error, and ValueError for a column that does not exist.
    """
    return _read("points", path, columns, deleted, batch_rows, on_damage, progress)


def read_features(
    path: Path,
    columns: Optional[Sequence[str]] = None,
    *,
    deleted: bool = False,
    batch_rows: Optional[int] = None,
    on_damage: str = "raise",
    progress: Optional[Progress] = None,
) -> Any:
    """Reads the features of a file, in file order. Arguments, result and errors are those of read_points.

    Columns: number (uint32), name (object), type (uint16; 1 point, 2 line, 3 area), color (uint32), symbol (uint16),
    flags (uint32), first_point (uint64) and point_count (uint32): its rows in read_points(), is_one_run (uint8; 1 if
    these rows are all its own), min_x, min_y, max_x, max_y (float64; NaN without a point).
    """
    return _read("features", path, columns, deleted, batch_rows, on_damage, progress)


def read_attributes(
    path: Path,
    columns: Optional[Sequence[str]] = None,
    *,
    deleted: bool = False,
    batch_rows: Optional[int] = None,
    on_damage: str = "raise",
    progress: Optional[Progress] = None,
) -> Any:
    """Reads the attributes of a file, in file order. Arguments, result and errors are those of read_points.

    Columns: feature_number (uint32), name (object), kind (uint8; 1 text, 2 number, 3 menu, 4 date, 5 other), text,
    sub_text (object), number (float64; of a date, days since 30 December 1899, 0 for none), decimals (uint16), flags
    (uint32).
    """
    return _read("attributes", path, columns, deleted, batch_rows, on_damage, progress)
