"""Kesp data files, the surveys of a GPS field application: reading, writing, searching, editing and repairing them.

    with kesp.open("survey.kesp") as survey:
        for feature in survey:
            print(feature.name, feature.attributes)
    points = kesp.read_points("survey.kesp")  # NumPy arrays
    trees = kesp.read_dataframe("survey.kesp", layer="points")  # a GeoDataFrame
"""
from ._checking import Finding, Gap, Loss, Report, Validation, repair, salvage, validate
from ._errors import Damage, DamageWarning, Error, FitError
from ._frames import LAYERS, read_dataframe
from ._survey import Attributes, Feature, Features, Menu, Note, Point, Survey, between, open
from ._tables import Batches, Table, read_attributes, read_features, read_points
from ._tags import Link, Tag
from ._writing import to_file

__all__ = [
    "LAYERS", "Attributes", "Batches", "Damage", "DamageWarning", "Error", "Feature", "Features", "Finding", "FitError",
    "Gap", "Link", "Loss", "Menu", "Note", "Point", "Report", "Survey", "Table", "Tag", "Validation", "between", "open",
    "read_attributes", "read_dataframe", "read_features", "read_points", "repair", "salvage", "to_file", "validate",
]  # fmt: skip
