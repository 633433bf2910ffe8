// Makes the records of OGR features.
//
// All records of a feature are made and checked before one of them is handed to the Editor.
// Errors: reported to GDAL; the result is then false or null.
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kesp/records/KespPoint.h"
#include "ogr/Editor.h"
#include "ogr/FieldTargets.h"
#include "ogr/Options.h"
#include "ogr/Shapes.h"

namespace kesp::ogr {

class FeatureWriter {
 public:
  struct Settings {
    std::string layer;                      // for messages
    std::optional<KESP_FEATURE_TYPE> kind;  // of all features; without it geometries decide
    MultiGeometries multi = MultiGeometries::kRefuse;
    std::string name;          // of features for which no field gives one
    bool isNameFixed = false;  // no feature may have another
    bool takesFids = true;     // as numbers
    ColorOrder colors = ColorOrder::kBgr;
  };
  FeatureWriter(Editor& editor, Settings settings) : m_editor(editor), m_settings(std::move(settings)) {}

  // Appends the feature with a new number, or with its FID if that is free, and sets its FID.
  bool Write(OGRFeature& feature, const std::vector<FieldTarget>& targets);

  // For changes.

  std::optional<std::vector<Shape>> Shapes(const OGRFeature& feature);
  // Puts the feature's own values into a record, or only some of them.
  struct Own {
    bool name = true, color = true, symbol = true;
  };
  bool PutOwn(CKespFeature& record, const OGRFeature& feature, const std::vector<FieldTarget>& targets, Own wanted);
  std::unique_ptr<CKespAttribute> NewAttribute(const OGRFeature& feature, int field,
                                               const std::vector<FieldTarget>& targets);
  std::unique_ptr<CKespPoint> NewPoint(const Vertex& vertex) const;
  bool Fits(const CKespRecord& record);
  bool Refuse(const std::string& why) const;

 private:
  bool ChooseNumber(const OGRFeature& feature, const std::vector<FieldTarget>& targets, std::uint64_t& number);
  bool AddRecords(const Shape& shape, const OGRFeature& feature, const std::vector<FieldTarget>& targets,
                  Records& records);
  bool AddAttributes(const OGRFeature& feature, const std::vector<FieldTarget>& targets, Records& records);
  bool AddFurther(const char* json, Records& records);
  static void Mark(const OGRFeature& feature, const std::vector<FieldTarget>& targets, const Records& records);
  bool PutNumber(const OGRFeature& feature, int field, std::uint32_t most, std::uint32_t& number) const;

  Editor& m_editor;
  Settings m_settings;
};

// Puts the feature's number into all its records, and numbers the points that have none.
void SetNumbers(const Records& records, std::uint32_t feature, std::uint64_t firstPoint);

// The field of that role, if it has a value; else Schema::kNone.
int FieldOf(const OGRFeature& feature, const std::vector<FieldTarget>& targets, Role role,
            int mainField = Schema::kNone);

}  // namespace kesp::ogr
