// What the fields of a layer are in the file: the values of a feature itself, or attributes.
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <ogr_feature.h>

#include "kesp/records/KespAttribute.h"
#include "ogr/Attributes.h"
#include "ogr/Schema.h"

namespace kesp::ogr {

enum class Role { kAttribute, kSubValue, kName, kColor, kSymbol, kDeleted, kEdited, kNumber, kFurther };

struct FieldTarget {
  Role role = Role::kAttribute;
  CString name = {};                                 // of the attribute
  KESP_ATTRIBUTE_KIND kind = KESP_ATTRIBUTE_STRING;  // that a new attribute gets
  int mainField = Schema::kNone;                     // of a sub-value
};

// The target of a field that is added to a layer. Fields that have the name and type of one that the reader makes lead
// to where that comes from.
FieldTarget TargetOf(const OGRFieldDefn& field, const OGRFeatureDefn& definition);
// Of the fields that MakeSchema made.
std::vector<FieldTarget> TargetsOf(const Schema& schema, const Attributes& attributes,
                                   const OGRFeatureDefn& definition);

// Makes the type one that a value can have: lists, times of day and bytes become texts. False, with an error, if that
// changes it and `approximates` is false.
bool AdaptType(OGRFieldDefn& field, bool approximates);

// Puts the value of a field into an attribute, whose kind changes if it must. False, with the cause in `why`, if an
// attribute can't have the value.
bool PutValue(CKespAttribute& attribute, const OGRFeature& feature, int field, std::string& why);

}  // namespace kesp::ogr
