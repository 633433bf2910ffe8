// What a first walk over a file finds, from which the data set makes its layers.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ogr/Attributes.h"
#include "ogr/Box.h"
#include "ogr/Directory.h"
#include "ogr/Options.h"
#include "ogr/SurveyFile.h"
#include "ogr/TextTable.h"

namespace kesp::ogr {

// A layer of features: those of one kind, or of one kind and one name.
struct LayerPlan {
  std::size_t index = 0;  // in Survey::layers
  KESP_FEATURE_TYPE kind = KESP_FEATURE_POINT;
  std::optional<std::size_t> name;  // see Survey::names; a layer without one takes what no other takes
  std::uint64_t features = 0;
  Box box;                              // of their points with finite coordinates
  bool hasSeveralPoints = false;        // a point feature has several
  bool hasFurther = false;              // attributes that have no field of their own
  std::vector<std::size_t> attributes;  // codes, in the order in which they occur
  std::vector<bool> hasAttribute;       // by code

  bool Has(std::size_t attribute) const { return attribute < hasAttribute.size() && hasAttribute[attribute]; }
  void Add(std::size_t attribute);
};

struct Survey {
  static constexpr std::size_t kMostNames = 4096;
  static constexpr std::size_t kMostLayers = 250;

  Survey(LayerSplit layerSplit, std::size_t mostEntries);

  // The code of a feature's name. Those of names beyond kMostNames follow: one for all names of the same hash.
  std::uint16_t NameCodeOf(const TextView& name) const;
  std::uint16_t AddName(const TextView& name);
  // The code of a name that came when kMostNames others were there, by its hash.
  static std::uint16_t FurtherName(std::uint32_t hash) noexcept {
    return static_cast<std::uint16_t>(kMostNames + hash % (Entry::kMixedNames - kMostNames));
  }
  // The layer of a feature, as an index of `layers`. While the file is read, it is made if it isn't there.
  std::size_t LayerOf(KESP_FEATURE_TYPE kind, std::uint16_t name) const;
  std::size_t MakeLayerOf(KESP_FEATURE_TYPE kind, std::uint16_t name);
  // Calls `use` with each layer to which features of an entry may belong.
  template <class Use>
  void ForLayersOf(const Entry& entry, Use use) {
    for (const KESP_FEATURE_TYPE kind : {KESP_FEATURE_POINT, KESP_FEATURE_LINE, KESP_FEATURE_AREA}) {
      if ((entry.kinds & Entry::BitOf(kind)) == 0) continue;
      if (split == LayerSplit::kByKind || entry.name != Entry::kMixedNames) {
        use(layers[LayerOf(kind, entry.name)]);
        continue;
      }
      for (LayerPlan& layer : layers) {
        if (layer.kind == kind) use(layer);
      }
    }
  }
  // Forgets what depends on where records are. Names, attributes and layers keep their codes and places.
  void Forget();

  LayerSplit split;
  Directory directory;
  TextTable names{kMostNames, LetterCase::kMatters};  // of features
  Attributes attributes;
  std::deque<LayerPlan> layers;  // the first three have no name: points, lines, areas
  std::uint64_t points = 0;
  Box box;  // of all points of features
  std::uint64_t notes = 0, tags = 0, links = 0;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> linked;   // feature numbers; see kMostLinked
  std::unordered_map<std::uint32_t, std::uint32_t> changeFlags;  // by feature number, from tags
  std::vector<std::uint64_t> consumedNotes;                      // positions of notes that belong to the header
  std::vector<std::pair<std::string, std::string>> metadata;
  bool hasHeader = false;
  bool isEdited = false;  // boxes may be too large, and features may have gone
  WalkEnd end;
  std::uint32_t lastFeature = 0, lastPoint = 0;  // the highest numbers
  std::optional<std::uint32_t> openFeature;      // the last feature, if its end record is missing

 private:
  LayerPlan& AddLayer(KESP_FEATURE_TYPE kind);
  std::map<std::pair<KESP_FEATURE_TYPE, std::uint16_t>, std::size_t> m_layerOf;
};

}  // namespace kesp::ogr
