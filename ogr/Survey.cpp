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
    layers.emplace_back().kind = kind;
  }
}

std::size_t Survey::LayerOf(KESP_FEATURE_TYPE kind, std::uint16_t name) const {
  if (split == LayerSplit::kByKind) return IndexOfKind(kind);
  const auto found = m_layerOf.find({kind, name});
  return found != m_layerOf.end() ? found->second : IndexOfKind(kind);
}

std::size_t Survey::MakeLayerOf(KESP_FEATURE_TYPE kind, std::uint16_t name) {
  if (split == LayerSplit::kByName && name != kFurtherName && layers.size() < kMostLayers) {
    const auto [place, isNew] = m_layerOf.try_emplace({kind, name}, layers.size());
    if (isNew) {
      layers.emplace_back().kind = kind;
      layers.back().name = name;
    }
    return place->second;
  }
  return LayerOf(kind, name);
}

}  // namespace kesp::ogr
