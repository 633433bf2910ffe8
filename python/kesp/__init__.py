"""Kesp data files, the surveys of a GPS field application: reading, writing, searching, editing and repairing them.

    with kesp.open("survey.kesp") as survey:
        for feature in survey:
            print(feature.name, feature.attributes)
    points = kesp.read_points("survey.kesp")  # NumPy arrays
    trees = kesp.read_dataframe("survey.kesp", layer="points")  # a GeoDataFrame
"""
from ._errors import Damage, DamageWarning, Error, FitError
from ._frames import LAYERS, read_dataframe
from ._tables import Batches, Table, read_attributes, read_features, read_points

__all__ = [
    "LAYERS", "Batches", "Damage", "DamageWarning", "Error", "FitError", "Table", "read_attributes", "read_dataframe",
    "read_features", "read_points",
]  # fmt: skip
