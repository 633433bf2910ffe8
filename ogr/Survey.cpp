#include "ogr/Survey.h"

namespace kesp::ogr {
namespace {

std::size_t IndexOfKind(KESP_FEATURE_TYPE kind) { return static_cast<std::size_t>(kind) - KESP_FEATURE_POINT; }

}  // namespace

void LayerPlan::Add(std::size_t attribute) {
  if (Has(attribute)) return;
  if (attribute >= hasAttribute.size()) hasAttribute.resize(attribute + 1);
  hasAttribute[attribute] = true;
  attributes.push_back(attribute);
}

Survey::Survey(LayerSplit layerSplit, std::size_t mostEntries) : split(layerSplit), directory(mostEntries) {
  for (const KESP_FEATURE_TYPE kind : {KESP_FEATURE_POINT, KESP_FEATURE_LINE, KESP_FEATURE_AREA}) {
    AddLayer(kind);
  }
}

LayerPlan& Survey::AddLayer(KESP_FEATURE_TYPE kind) {
  const std::size_t index = layers.size();
  LayerPlan& layer = layers.emplace_back();
  layer.index = index;
  layer.kind = kind;
  return layer;
}

void Survey::Forget() {
  directory.Forget();
  for (LayerPlan& layer : layers) {
    layer.features = 0;
    layer.box = {};
  }
  points = notes = tags = links = 0;
  box = {};
  linked.clear();
  changeFlags.clear();
  consumedNotes.clear();
  metadata.clear();
  lastFeature = lastPoint = 0;
  isEdited = hasHeader = false;
}

std::uint16_t Survey::NameCodeOf(const TextView& name) const {
  const std::size_t code = names.Find(name);
  return code != TextTable::kNone ? static_cast<std::uint16_t>(code) : FurtherName(TextTable::HashOf(name));
}

std::uint16_t Survey::AddName(const TextView& name) {
  std::uint32_t hash = 0;
  const std::size_t code = names.Add(name, hash);
  return code != TextTable::kNone ? static_cast<std::uint16_t>(code) : FurtherName(hash);
}

std::size_t Survey::LayerOf(KESP_FEATURE_TYPE kind, std::uint16_t name) const {
  if (split == LayerSplit::kByKind) return IndexOfKind(kind);
  const auto found = m_layerOf.find({kind, name});
  return found != m_layerOf.end() ? found->second : IndexOfKind(kind);
}

std::size_t Survey::MakeLayerOf(KESP_FEATURE_TYPE kind, std::uint16_t name) {
  if (split == LayerSplit::kByName && name < kMostNames && layers.size() < kMostLayers) {
    const auto [place, isNew] = m_layerOf.try_emplace({kind, name}, layers.size());
    if (isNew) AddLayer(kind).name = name;
    return place->second;
  }
  return LayerOf(kind, name);
}

}  // namespace kesp::ogr
