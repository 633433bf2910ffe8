"""draw_map.py SURVEY PICTURE: draws a survey as QGIS reads it, with the colors of its features and their names."""
import sys

from qgis.core import (Qgis, QgsApplication, QgsEmbeddedSymbolRenderer, QgsMapRendererParallelJob, QgsMapSettings,
                       QgsPalLayerSettings, QgsTextBufferSettings, QgsTextFormat, QgsVectorLayer,
                       QgsVectorLayerSimpleLabeling)
from qgis.PyQt.QtCore import QSize
from qgis.PyQt.QtGui import QColor, QFont

survey, picture = sys.argv[1:]
app = QgsApplication([], False)
app.initQgis()


def labels(layer, size, color, **settings):
    text = QgsTextFormat()
    text.setFont(QFont("DejaVu Sans", weight=QFont.DemiBold))
    text.setSize(size)
    text.setColor(QColor(color))
    halo = QgsTextBufferSettings()
    halo.setEnabled(True)
    halo.setSize(0.8)
    text.setBuffer(halo)
    label = QgsPalLayerSettings()
    label.fieldName = "feature_name"
    for name, value in settings.items():
        setattr(label, name, value)
    label.setFormat(text)
    layer.setLabeling(QgsVectorLayerSimpleLabeling(label))
    layer.setLabelsEnabled(True)


layers = {}
for name in ("areas", "lines", "points"):
    layer = QgsVectorLayer(f"{survey}|layername={name}", name, "ogr")
    assert layer.isValid() and layer.featureCount() > 0, name
    assert layer.dataProvider().storageType() == "Kesp", layer.dataProvider().storageType()
    # QGIS draws by the styles of the features without being told to.
    assert isinstance(layer.renderer(), QgsEmbeddedSymbolRenderer), layer.renderer()
    layers[name] = layer
labels(layers["areas"], 9, "#2d4a33", placement=QgsPalLayerSettings.Horizontal)
labels(layers["lines"], 7, "#404040", placement=QgsPalLayerSettings.Curved)
labels(layers["points"], 6, "#503c28")

settings = QgsMapSettings()
settings.setLayers(list(reversed(layers.values())))
settings.setDestinationCrs(layers["areas"].crs())
settings.setBackgroundColor(QColor("#f7f6f0"))
settings.setOutputSize(QSize(900, 580))
settings.setOutputDpi(110)
extent = settings.fullExtent()
extent.grow(8)
settings.setExtent(extent)
job = QgsMapRendererParallelJob(settings)
job.start()
job.waitForFinished()
assert not job.errors(), [error.message for error in job.errors()]
assert job.renderedImage().save(picture)
print(picture, "by QGIS", Qgis.QGIS_VERSION)
