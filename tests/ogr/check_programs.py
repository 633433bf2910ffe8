"""check_programs.py KESP PLUGIN_DIR WRITER...: GDAL's programs, its Python and GeoPandas read what KESP shows, and
write what they have read.

Each WRITER writes a survey. The first one's is in degrees, the last one's in UTM 32N."""
import csv
import json
import os
import shutil
import subprocess
import sys
import tempfile

kesp, plugins, *writers = map(os.path.abspath, sys.argv[1:])
os.environ["GDAL_DRIVER_PATH"] = plugins
import fiona
import geopandas
from osgeo import gdal, ogr

gdal.UseExceptions()
LAYERS = {1: "points", 2: "lines", 3: "areas"}


def run(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def same(what, got, wanted):
    if got != wanted:
        sys.exit(f"{what}:\n  got    {got}\n  wanted {wanted}")


def expected(survey, dimensions, layers=tuple(LAYERS.values())):
    """{layer: [(name, Girth or None, [point, ...]), ...]} by the library, areas closed."""
    result = {}
    for feature in json.loads(run(kesp, "dump", "--dataset", survey))["features"]:
        layer = LAYERS[feature["type"]]
        fields = ("CoordX", "CoordY", "CoordZ", "PointTime")[:dimensions]
        points = [[round(point[field], 6) for field in fields] for point in feature["points"]]
        girth = [round(a["Value"], 6) for a in feature["attributes"] if a["AttributeName"] == "Girth"]
        row = (feature["name"], girth[0] if girth else None, points + points[:1] if layer == "areas" else points)
        result.setdefault(layer, []).append(row)
    return {layer: result.get(layer, []) for layer in layers}


def vertices(geometry, dimensions):
    if geometry is None:  # a deleted feature whose record was left
        return []
    if geometry.GetGeometryCount():
        return [point for part in geometry for point in vertices(part, dimensions)]
    # GetPoints leaves out M.
    return [[round(v, 6) for v in (geometry.GetX(i), geometry.GetY(i), geometry.GetZ(i), geometry.GetM(i))[:dimensions]]
            for i in range(geometry.GetPointCount())]


def row(feature, dimensions, name):
    index = feature.GetFieldIndex("Girth")
    girth = round(feature.GetField(index), 6) if index >= 0 and feature.IsFieldSetAndNotNull(index) else None
    return feature.GetField(name), girth, vertices(feature.GetGeometryRef(), dimensions)


def shown(path, layers, dimensions, name="feature_name", options=()):
    dataset = gdal.OpenEx(path, gdal.OF_VECTOR, open_options=list(options))
    return {layer: [row(feature, dimensions, name) for feature in dataset.GetLayerByName(given)]
            for layer, given in layers.items()}


def check_formats(survey, folder):
    whole, names = expected(survey, 4), {layer: layer for layer in LAYERS.values()}
    same("osgeo.ogr", shown(survey, names, 4), whole)
    run("ogr2ogr", f"{folder}/out.gpkg", survey)
    same("GeoPackage", shown(f"{folder}/out.gpkg", names, 4), whole)
    for layer in LAYERS.values():
        run("ogr2ogr", f"{folder}/{layer}.geojson", survey, layer)
        same("GeoJSON", shown(f"{folder}/{layer}.geojson", {layer: layer}, 3), expected(survey, 3, [layer]))
        run("ogr2ogr", f"{folder}/{layer}.csv", survey, layer, "-lco", "GEOMETRY=AS_WKT")
        with open(f"{folder}/{layer}.csv", encoding="utf-8", newline="") as file:
            got = [(r["feature_name"], round(float(r["Girth"]), 6) if r.get("Girth") else None,
                    vertices(ogr.CreateGeometryFromWkt(r["WKT"]) if r["WKT"] else None, 4))
                   for r in csv.DictReader(file)]
        same("CSV", got, whole[layer])


def check_degrees(survey, folder):
    """GPX and KML hold longitude and latitude. GPX has no areas, no M, and no fields like Girth."""
    flat = {layer: [(r[0], None, r[2]) for r in rows] for layer, rows in expected(survey, 2).items()}
    for layer, given in (("points", "waypoints"), ("lines", "routes")):
        run("ogr2ogr", "-oo", "CRS=EPSG:4326", "-dim", "XYZ", f"{folder}/{layer}.gpx", survey, "-sql",
            f"SELECT feature_name AS name FROM {layer}")
        same("GPX", shown(f"{folder}/{layer}.gpx", {layer: given}, 2, "name")[layer], flat[layer])
    run("ogr2ogr", "-f", "KML", "-oo", "CRS=EPSG:4326", f"{folder}/out.kml", survey, *LAYERS.values(), "-dsco",
        "NameField=feature_name", "-mapFieldType", "Integer64=Real,DateTime=String")
    same("KML", shown(f"{folder}/out.kml", {v: v for v in LAYERS.values()}, 3, "Name"), expected(survey, 3))


def check_sql(survey):
    dataset = gdal.OpenEx(survey, gdal.OF_VECTOR)

    def ask(dialect, sql):
        result = dataset.ExecuteSQL(sql, dialect=dialect)
        rows = [[f.GetField(i) for i in range(f.GetFieldCount())] for f in result]
        dataset.ReleaseResultSet(result)
        return sorted([round(v, 6) if isinstance(v, float) else v for v in values] for values in rows)

    wanted = expected(survey, 2)
    same("SQLITE join", ask("SQLITE", "SELECT feature_name, COUNT(*) FROM lines JOIN vertices ON "
                            "lines.rowid = feature_number GROUP BY lines.rowid"),
         sorted([r[0], len(r[2])] for r in wanted["lines"]))
    if dataset.GetLayerByName("links"):  # OGRSQL joins the first row that matches
        join = "FROM links JOIN vertices ON links.to_feature = vertices.feature_number"
        left = join.replace("JOIN", "LEFT JOIN")
        same("OGRSQL join", ask("OGRSQL", f"SELECT links.from_feature, vertices.point_number {left}"),
             ask("SQLITE", f"SELECT from_feature, MIN(point_number) {join} GROUP BY from_feature"))
    for dialect in ("OGRSQL", "SQLITE"):
        same(dialect, ask(dialect, "SELECT feature_name, Girth FROM points WHERE Girth > 2 AND feature_name <> 'Oak'"),
             sorted([r[0], r[1]] for r in wanted["points"] if r[1] and r[1] > 2 and r[0] != "Oak"))


def check_geopandas(survey, folder):
    fiona.drvsupport.supported_drivers["Kesp"] = "raw"
    new = f"{folder}/new.kesp"
    same("fiona.listlayers", set(LAYERS.values()) <= set(fiona.listlayers(survey)), True)
    for layer, rows in expected(survey, 3).items():
        frame = geopandas.read_file(survey, layer=layer)
        got = [(r["feature_name"], vertices(r.geometry and ogr.CreateGeometryFromWkb(r.geometry.wkb), 3))
               for _, r in frame.iterrows()]
        same("GeoPandas", got, [(r[0], r[2]) for r in rows])
        frame.to_file(new, driver="Kesp", layer=layer)
    same("GeoPandas, written", expected(new, 3), expected(survey, 3))
    with fiona.open(new, "a", layer="points") as points:
        values = {name: None for name in points.schema["properties"]} | {"feature_name": "New"}
        points.write({"geometry": {"type": "Point", "coordinates": (1, 2, 3)}, "properties": values})
    same("Fiona, appended", expected(new, 3)["points"], expected(survey, 3)["points"] + [("New", None, [[1, 2, 3]])])
    dataset = gdal.OpenEx(new, gdal.OF_UPDATE)
    feature = next(iter(dataset.GetLayer("points")))
    feature.SetField("feature_name", "Elm")
    dataset.GetLayer("points").SetFeature(feature)
    dataset.GetLayer("lines").DeleteFeature(next(iter(dataset.GetLayer("lines"))).GetFID())
    del feature, dataset
    same("osgeo.ogr, changed", [expected(new, 3)["points"][0][0], expected(new, 3)["lines"]],
         ["Elm", expected(survey, 3)["lines"][1:]])


def every_row(path):
    """{layer: its rows in any order}, without FIDs that are offsets in a file."""
    dataset = gdal.OpenEx(path)
    layers = [dataset.GetLayer(i) for i in range(dataset.GetLayerCount())]
    return {layer.GetName(): sorted(str((f.GetFID() if layer.GetFIDColumn() else None, f.items(),
                                         f.GetGeometryRef() and f.GetGeometryRef().ExportToIsoWkt())) for f in layer)
            for layer in layers}


def check_recipes(survey, other, folder):
    """Those in the document but for PostgreSQL's, which scripts/test-gdal runs."""
    shutil.copy(survey, f"{folder}/survey.kesp")
    shutil.copy(other, f"{folder}/other.kesp")
    with open(f"{os.path.dirname(os.path.abspath(__file__))}/../../docs/gdal.md", encoding="utf-8") as document:
        recipes = [line for line in document.read().split("## Recipes")[1].split("\n\n- ")[0].splitlines()
                   if line.startswith("    ogr2ogr") and "PG:" not in line]
    for recipe in recipes:
        result = subprocess.run(recipe, shell=True, cwd=folder, text=True, stderr=subprocess.PIPE)
        errors = [line for line in result.stderr.splitlines() if "Normalized/laundered field name" not in line]
        same(recipe, [result.returncode, errors], [0, []])
    source = every_row(survey)
    same("copy.kesp", every_row(f"{folder}/copy.kesp"), source)
    counts = {"shapes/areas.shp": len(source["areas"]), "trees.kesp": len(source["points"]),
              "points.geojson": len(source["points"]), "oaks.kesp": sum("'Oak'" in row for row in source["points"]),
              "season.kesp": len(source["points"]) + len(every_row(other)["points"]), "lists/points.csv":
              len(source["points"]), "track.gpx": len(source["vertices"]), "degrees.kesp": len(source["points"])}
    datasets = {name: gdal.OpenEx(f"{folder}/{name}") for name in counts}
    same("recipes", {name: dataset.GetLayer(0).GetFeatureCount() for name, dataset in datasets.items()}, counts)
    same("names", {r[0] for r in expected(f"{folder}/trees.kesp", 2, ["points"])["points"]}, {"Tree"})
    for place in (p for rows in expected(f"{folder}/degrees.kesp", 2).values() for r in rows for p in r[2]):
        same("degrees", [round(v) for v in place], [8, 49])


with tempfile.TemporaryDirectory() as root:
    for number, writer in enumerate(writers):
        work = f"{root}/{number}"
        os.mkdir(work)
        run(writer, f"{work}/survey.kesp")
        check_formats(f"{work}/survey.kesp", work)
        check_sql(f"{work}/survey.kesp")
        check_geopandas(f"{work}/survey.kesp", work)
    check_degrees(f"{root}/0/survey.kesp", f"{root}/0")
    os.mkdir(f"{root}/recipes")
    check_recipes(f"{work}/survey.kesp", f"{root}/1/survey.kesp", f"{root}/recipes")
print("ogr2ogr, SQL, osgeo.ogr, Fiona and GeoPandas agree with", os.path.basename(kesp))
