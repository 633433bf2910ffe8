"""crews.py FOLDER [SURVEYS]: a thousand small surveys of many crews, made on the spot, as one table.

    PYTHONPATH=build/release/python /usr/bin/python3 examples/crews.py /tmp/crews

Each crew has a folder with a survey for each day. Prints the points of each crew and day and what was surveyed twice,
and draws all of it into FOLDER/crews.png, or crews.svg without matplotlib. One survey is damaged on the way.
"""
import os
import sys
from datetime import datetime, timedelta, timezone

import numpy as np

import kesp
import kesp.dask

CREWS = 20
SPECIES = ("Oak", "Lime", "Maple", "Birch")
FIRST_DAY = datetime(2024, 5, 1, 8, tzinfo=timezone.utc)


def make_survey(path, crew, day, rng):
    """A day of a crew: some thirty trees along its strip of the town, of which a neighbour has a few too."""
    with kesp.open(path, "x") as survey:
        for n in range(rng.integers(20, 40)):
            # Trees are in a grid of 10 m. The strips, 100 m wide, overlap by one row.
            x, y = 10 * rng.integers(10 * crew, 10 * crew + 11), 10 * rng.integers(0, 300)
            error = rng.normal(0, 0.02, 2)
            point = kesp.Point(x + error[0], y + error[1], 40, time=FIRST_DAY + timedelta(days=day, minutes=5 * int(n)))
            values = {"Species": kesp.Menu(SPECIES[(x + y) // 10 % 4]), "Height": round(rng.normal(12, 3), 1)}
            survey.add_feature("Tree", "point", [point], values)


def make_surveys(folder, count):
    rng = np.random.default_rng(1)
    for n in range(count):
        day, crew = divmod(n, CREWS)
        path = os.path.join(folder, f"crew-{crew:02}", f"day-{day:02}.kesp")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        make_survey(path, crew, day, rng)
    os.truncate(path, os.path.getsize(path) // 2)


def read_trees(pattern):
    """A row for each tree: where it is, when and by which crew it was surveyed."""
    features = kesp.dask.read_dataframe(pattern, "points", columns={"Species": "text", "Height": "number"}, errors="ignore")
    points = kesp.dask.read_dataframe(pattern, "vertices", columns=["feature_number", "time", "geometry"], errors="ignore")
    features, points = features.drop(columns="error").compute(), points.drop(columns="error").compute()
    trees = features.reset_index().merge(points, on=["path", "feature_number"])
    # Well-known binary of a point with height: 5 bytes, then x, y and z.
    trees["x"], trees["y"], _ = np.frombuffer(b"".join(trees.geometry.str[5:]), "<f8").reshape(-1, 3).T
    trees["crew"] = trees.path.map(lambda path: os.path.basename(os.path.dirname(path)))
    return trees.assign(day=trees.time.dt.date).drop(columns="geometry")


def find_duplicates(trees):
    """What several crews have at one place, rounded to a metre."""
    east, north = trees.x.round(), trees.y.round()
    crews = trees.groupby([east, north]).crew.transform("nunique")
    place = trees.assign(east=east, north=north)[crews > 1]
    return place.sort_values(["east", "north", "crew"])


def draw(trees, duplicates, stem):
    try:
        import matplotlib

        matplotlib.use("Agg")
        from matplotlib import pyplot
    except ImportError:
        return draw_svg(trees, duplicates, stem + ".svg")
    figure, axes = pyplot.subplots(figsize=(10, 14))
    for crew, its in trees.groupby("crew"):
        axes.scatter(its.x, its.y, s=3, label=crew)
    axes.scatter(duplicates.x, duplicates.y, s=22, facecolors="none", edgecolors="black", linewidths=0.5, label="twice")
    axes.set(aspect="equal", xlabel="east, m", ylabel="north, m", title=f"{len(trees)} trees of {trees.crew.nunique()} crews")
    axes.legend(loc="upper left", bbox_to_anchor=(1, 1))
    figure.savefig(stem + ".png", dpi=110, bbox_inches="tight")
    return stem + ".png"


def draw_svg(trees, duplicates, path):
    hue = trees.crew.rank(method="dense") * 137 % 360
    dots = [f'<circle cx="{x:.0f}" cy="{3000 - y:.0f}" r="4" fill="hsl({h:.0f},70%,45%)"/>' for x, y, h in zip(trees.x, trees.y, hue)]
    rings = [f'<circle cx="{x:.0f}" cy="{3000 - y:.0f}" r="9" fill="none" stroke="black"/>' for x, y in zip(duplicates.x, duplicates.y)]
    with open(path, "w", encoding="utf-8") as file:
        file.write('<svg xmlns="http://www.w3.org/2000/svg" viewBox="-20 -20 2060 3060">')
        file.write("\n".join(dots + rings) + "</svg>\n")
    return path


def main(folder, count=1000):
    make_surveys(folder, count)
    pattern = os.path.join(folder, "crew-*", "*.kesp")
    verdicts = kesp.dask.validate_all(pattern)
    print(verdicts[~verdicts.whole][["path", "offset", "error"]].to_string(index=False))
    trees = read_trees(pattern)
    print(trees.groupby(["crew", "day"]).size().unstack(fill_value=0).iloc[:, :7])
    print(trees.groupby("Species").Height.agg(["size", "mean"]).round(1))
    duplicates = find_duplicates(trees)
    print(f"{len(trees)} trees in {trees.path.nunique()} surveys, {len(duplicates)} of them by several crews:")
    print(duplicates[["crew", "day", "x", "y", "Species", "Height"]].head(6).round(2).to_string(index=False))
    print(draw(trees, duplicates, os.path.join(folder, "crews")))


if __name__ == "__main__":
    main(sys.argv[1], *map(int, sys.argv[2:3]))
