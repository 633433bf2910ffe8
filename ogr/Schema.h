// The fields of a layer of features: its own, and one for each attribute that occurs in it.
#pragma once
#include <string>
#include <vector>

#include <ogr_feature.h>

#include "ogr/Survey.h"

namespace kesp::ogr {

// The fields that every layer of features has, in this order.
enum OwnField : int { kNameField, kColorField, kSymbolField, kDeletedField, kEditedField, kOwnFields };

// The name of the FID as a column: no field has it.
constexpr const char* kFidColumn = "feature_number";

struct Schema {
  static constexpr int kNone = -1;
  struct AttributeField {
    int value = kNone;
    int subValue = kNone;  // of menus
  };
  std::vector<AttributeField> fields;  // by attribute code
  int further = kNone;                 // attributes without a field of their own, and repeated ones, as JSON
};

// Adds the fields to an empty definition. A field of a menu refers to a domain of the name that DomainName returns.
Schema MakeSchema(const Survey& survey, const LayerPlan& layer, OGRFeatureDefn& definition);
std::string DomainName(const Survey& survey, std::size_t attribute);

}  // namespace kesp::ogr
