#include "ogr/Relationships.h"

#include <set>

#include "ogr/Schema.h"
#include "ogr/TableLayers.h"

namespace kesp::ogr {
namespace {

constexpr std::size_t kMost = 100;
using Pairs = std::set<std::pair<std::size_t, std::size_t>>;

std::vector<std::size_t> LayersOf(Survey& survey, std::uint32_t feature) {
  std::vector<std::size_t> layers;
  if (const auto entry = survey.directory.Find(feature)) {
    survey.ForLayersOf(survey.directory.Entries()[*entry],
                       [&](const LayerPlan& layer) { layers.push_back(layer.index); });
  }
  return layers;
}

Pairs FindPairs(Survey& survey) {
  Pairs pairs;
  for (const auto& [from, to] : survey.linked) {
    const std::vector<std::size_t> rights = LayersOf(survey, to);
    for (const std::size_t left : LayersOf(survey, from)) {
      for (const std::size_t right : rights) pairs.emplace(left, right);
    }
    if (pairs.size() >= kMost) break;
  }
  return pairs;
}

}  // namespace

Relationships FindRelationships(Survey& survey, const std::vector<std::string>& titles) {
  Relationships found;
  for (const auto& [left, right] : FindPairs(survey)) {
    const std::string name = "links_" + titles[left] + '_' + titles[right];
    auto relationship = std::make_unique<GDALRelationship>(name, titles[left], titles[right],
                                                           GDALRelationshipCardinality::GRC_MANY_TO_MANY);
    relationship->SetMappingTableName(LinkLayer::kName);
    relationship->SetLeftTableFields({kFidColumn});
    relationship->SetRightTableFields({kFidColumn});
    relationship->SetLeftMappingTableFields({LinkLayer::kFromField});
    relationship->SetRightMappingTableFields({LinkLayer::kToField});
    relationship->SetType(GDALRelationshipType::GRT_ASSOCIATION);
    found.emplace(name, std::move(relationship));
  }
  return found;
}

}  // namespace kesp::ogr
