"""Whether a file is whole, and a copy of what can be saved."""
from __future__ import annotations

import os
import tempfile
from dataclasses import dataclass, field
from typing import Optional

from . import _kesp
from ._errors import Damage, Error
from ._html import pairs_html
from ._tables import Path, Progress


@dataclass(frozen=True)
class Finding:
    """Something that a whole file should not have, or that is worth knowing."""

    code: str
    """for programs, such as 'featuresWithoutPoints'"""
    count: int
    numbers: tuple[int, ...]
    """of the features or points, the first 100; empty where none apply"""
    text: str
    """for people"""


@dataclass(frozen=True)
class Validation:
    """What validate found."""

    path: str
    damage: Optional[Damage]
    problems: list[Finding]
    remarks: list[Finding]
    counts: dict[str, int]
    """records that are not deleted, by type: header, feature, point, attribute, featureEnd, note, tag, unknown"""
    features: int
    """different feature numbers"""
    deleted: int
    """records that are marked as deleted"""

    @property
    def whole(self) -> bool:
        """The file can be read to its end, and begins with a header record."""
        return self.damage is None

    def _repr_html_(self) -> str:
        findings = {f.code: f.text for f in [*self.problems, *self.remarks]}
        return pairs_html(self.path, {"whole": self.whole, **self.counts, **findings})


def validate(path: Path, *, progress: Optional[Progress] = None) -> Validation:
    """Reads the file once and says what is wrong with it. Raises OSError, and kesp.Error for what is no Kesp data file."""
    damage, findings, counts, features, deleted = _kesp.validate(path, progress)
    made = [(Finding(*finding[:4]), finding[4]) for finding in findings]
    problems = [f for f, is_remark in made if not is_remark]
    remarks = [f for f, is_remark in made if is_remark]
    return Validation(os.fsdecode(path), damage, problems, remarks, counts, features, deleted)


@dataclass(frozen=True)
class Gap:
    """A part of the source that can't be understood."""

    offset: int
    length: int
    code: int
    text: str


@dataclass(frozen=True)
class Loss:
    """What records of a type lose in an older file version."""

    type: str
    records: int
    texts: int
    numbers: int


@dataclass(frozen=True)
class Report:
    """What repair or salvage did. Counts are of records, lengths in bytes."""

    source: str
    destination: str
    kept: int
    deleted: int
    """marked as deleted, and left out"""
    unknown: int
    """of unknown types, and left out"""
    application_bytes: int
    gap_count: int
    gap_bytes: int
    gaps: list[Gap] = field(default_factory=list)
    """the first 4096"""
    lost: list[Loss] = field(default_factory=list)

    def _repr_html_(self) -> str:
        return pairs_html(self.destination, {k: v for k, v in vars(self).items() if not isinstance(v, list)})


def _rebuild(
    source: Path, destination: Path, salvage: bool, version: int, replace: bool, lossy: bool, progress: Optional[Progress]
) -> Report:
    if version not in (0, 1, 2, 3):
        raise ValueError(f"the file versions are 1, 2 and 3, or 0 for the one of the source, not {version!r}")
    place = os.path.realpath(os.fsdecode(destination))
    held = None
    if os.path.exists(place):
        if not replace:
            raise FileExistsError(17, "File exists", place)
        if os.path.samefile(place, os.fsdecode(source)):
            raise ValueError("the source can't be the destination")
        held = _kesp.Hold(place)
    try:
        return _rebuild_at(place, source, destination, salvage, version, replace, lossy, progress)
    finally:
        if held is not None:
            held.close()


def _rebuild_at(
    place: str, source: Path, destination: Path, salvage: bool, version: int, replace: bool, lossy: bool, progress: Optional[Progress]
) -> Report:
    handle, made = tempfile.mkstemp(prefix=".kesp-", dir=os.path.dirname(place))
    os.close(handle)
    try:
        report = _kesp.rebuild(source, made, salvage, version, progress)
        lost = [Loss(*loss) for loss in report.pop("lost")]
        if lost and not lossy:
            counts = ", ".join(f"{loss.records} {loss.type} records" for loss in lost)
            raise Error(f"file version {version} can't hold all of {counts}; lossy=True allows that", 0, place)
        gaps = [Gap(*gap) for gap in report.pop("gaps")]
        umask = os.umask(0)
        os.umask(umask)
        os.chmod(made, 0o666 & ~umask)
        if replace:
            os.replace(made, place)
        else:
            os.link(made, place)  # fails if somebody made a file of that name meanwhile
            os.unlink(made)
        return Report(os.fsdecode(source), os.fsdecode(destination), **report, gaps=gaps, lost=lost)
    except BaseException:
        if os.path.exists(made):
            os.unlink(made)
        raise


def repair(
    source: Path,
    destination: Path,
    *,
    version: int = 0,
    replace: bool = False,
    lossy: bool = False,
    progress: Optional[Progress] = None,
) -> Report:
    """Writes a new file of the records before the first damage. The source never changes.

    ``version``: the file version of the copy; 0 is that of the source. ``replace`` replaces a file that exists. An older
    version may not hold all: then kesp.Error is raised and nothing is written, unless ``lossy``. The file appears under
    its name when it is whole and on the disk. Raises FileExistsError, BlockingIOError (the file to replace is open for
    writing), other OSErrors, and kesp.Error.
    """
    return _rebuild(source, destination, False, version, replace, lossy, progress)


def salvage(
    source: Path,
    destination: Path,
    *,
    version: int = 0,
    replace: bool = False,
    lossy: bool = False,
    progress: Optional[Progress] = None,
) -> Report:
    """Like repair, but goes on after each damage, also after a damaged file header. The report tells the gaps."""
    return _rebuild(source, destination, True, version, replace, lossy, progress)
