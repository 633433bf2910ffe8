"""Reading in Python, compared with the C++ columns, pyshp, Fiona and GeoPandas.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python/bench.py build/release/bench/PointsBench

Needs GDAL's tools, python3-pyshp, python3-fiona and python3-geopandas. Makes 2 million points (20,000 lines of 100) in a
folder for temporary files, and the same lines as a shapefile and a GeoPackage. All files are in the page cache. One run
each, but for the library and the module, which are the medians of five.
"""
import os
import statistics
import subprocess
import sys
import tempfile
import time

import fiona
import geopandas
import numpy as np
import shapefile

import kesp

FEATURES, POINTS = 20_000, 100


def seconds(work, rounds=1):
    took = []
    for _ in range(rounds):
        start = time.perf_counter()
        result = work()
        took.append(time.perf_counter() - start)
        del result
    return statistics.median(took)


def make_survey(path):
    rng = np.random.default_rng(1)
    steps = rng.normal(size=(FEATURES, POINTS, 3)).cumsum(axis=1) + rng.uniform(0, 1e5, size=(FEATURES, 1, 3))
    with kesp.open(path, "x") as survey:
        for n, line in enumerate(steps):
            survey.add_feature(f"Track {n % 50}", "line", [kesp.Point(*p, time=1_700_000_000 + i) for i, p in enumerate(line.tolist())],
                               {"Length": float(n), "Surface": "gravel"})  # fmt: skip
            if n % 1000 == 999:
                survey.flush()


def iterate_fiona(path):
    with fiona.open(path) as layer:
        for feature in layer:
            _ = feature["geometry"]["coordinates"], dict(feature["properties"])


def iterate_kesp(path):
    with kesp.open(path) as survey:
        for feature in survey:
            _ = feature.coordinates, dict(feature.attributes)


def read_pyshp(path):
    with shapefile.Reader(path) as reader:
        return [shape.points for shape in reader.iterShapes()]


def main(columns_program):
    with tempfile.TemporaryDirectory(dir=os.environ.get("KESP_BENCH_DIR")) as folder:
        survey, shp, gpkg = (os.path.join(folder, name) for name in ("tracks.kesp", "tracks.shp", "tracks.gpkg"))
        make_survey(survey)
        frame = kesp.read_dataframe(survey, "lines").drop(columns=["deleted", "edited"])
        frame.to_file(shp)
        frame.to_file(gpkg, driver="GPKG")
        del frame
        cpp = float(subprocess.run([columns_program, survey], capture_output=True, check=True, text=True).stdout)
        all_columns = seconds(lambda: kesp.read_points(survey), 5)
        rows = [
            ("kesp.read_points", all_columns),
            ("the C++ columns", cpp),
            ("kesp.read_points, x, y and z", seconds(lambda: kesp.read_points(survey, ["x", "y", "z"]), 5)),
            ("kesp.read_dataframe, lines", seconds(lambda: kesp.read_dataframe(survey, "lines"))),
            ("kesp.open and each feature", seconds(lambda: iterate_kesp(survey), 3)),
            ("pyshp, shapes of a shapefile", seconds(lambda: read_pyshp(shp))),
            ("fiona, each feature of a shapefile", seconds(lambda: iterate_fiona(shp))),
            ("fiona, each feature of a GeoPackage", seconds(lambda: iterate_fiona(gpkg))),
            ("geopandas.read_file, shapefile", seconds(lambda: geopandas.read_file(shp))),
            ("geopandas.read_file, GeoPackage", seconds(lambda: geopandas.read_file(gpkg))),
        ]
        for name, took in rows:
            print(f"{name:40} {took * 1000:9.0f} ms {took / all_columns:8.2f}")


if __name__ == "__main__":
    main(sys.argv[1])
