// Data sets opened by GDAL, and what they show as text.
#pragma once
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "tests/support/Records.h"

namespace kesp::test {

struct CloseDataset {
  void operator()(GDALDataset* dataset) const { GDALClose(dataset); }
};
using DatasetPtr = std::unique_ptr<GDALDataset, CloseDataset>;
using FeaturePtr = OGRFeatureUniquePtr;

inline CPLStringList ListOf(const std::vector<std::string>& options) {
  CPLStringList list;
  for (const std::string& option : options) list.AddString(option.c_str());
  return list;
}

inline DatasetPtr Open(const std::filesystem::path& path, const std::vector<std::string>& options = {},
                       unsigned flags = GDAL_OF_READONLY) {
  const CPLStringList list = ListOf(options);
  const char* const drivers[] = {"Kesp", nullptr};
  return DatasetPtr(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR | flags, drivers, list.List(), nullptr));
}

// A file of these bytes, opened.
class Opened {
 public:
  explicit Opened(const ByteVector& bytes, const std::vector<std::string>& options = {}) {
    WriteFile(m_dir / "survey.kesp", bytes);
    m_dataset = Open(m_dir / "survey.kesp", options);
  }
  GDALDataset* operator->() const { return m_dataset.get(); }
  explicit operator bool() const { return m_dataset != nullptr; }
  OGRLayer& operator[](const char* layer) const { return *m_dataset->GetLayerByName(layer); }

 private:
  TempDir m_dir;
  DatasetPtr m_dataset;
};

// "7 name=Oak Girth=2.5 POINT ZM (1 2 3 4) PEN(c:#ff0000)", with the fields that are set.
inline std::string Show(OGRFeature& feature) {
  std::string text = std::to_string(feature.GetFID());
  for (int i = 0; i < feature.GetFieldCount(); ++i) {
    if (!feature.IsFieldSet(i)) continue;
    text += ' ' + std::string(feature.GetFieldDefnRef(i)->GetNameRef()) + '=';
    text += feature.IsFieldNull(i) ? "null" : feature.GetFieldAsString(i);
  }
  if (const OGRGeometry* const geometry = feature.GetGeometryRef()) {
    OGRWktOptions iso;
    iso.variant = wkbVariantIso;
    text += ' ' + geometry->exportToWkt(iso);
  }
  if (feature.GetStyleString() != nullptr) text += ' ' + std::string(feature.GetStyleString());
  return text;
}

// All features that the layer gives, each in a line of its own.
inline std::string Show(OGRLayer& layer) {
  std::string text;
  layer.ResetReading();
  while (const FeaturePtr feature{layer.GetNextFeature()}) text += Show(*feature) + '\n';
  return text;
}

// The same in the order of the lines.
inline std::string ShowSorted(OGRLayer& layer) {
  std::vector<std::string> lines;
  layer.ResetReading();
  while (const FeaturePtr feature{layer.GetNextFeature()}) lines.push_back(Show(*feature) + '\n');
  std::sort(lines.begin(), lines.end());
  return std::accumulate(lines.begin(), lines.end(), std::string());
}

// "points: Point ZM, name String, Girth Real(2)".
inline std::string ShowSchema(OGRLayer& layer) {
  OGRFeatureDefn& definition = *layer.GetLayerDefn();
  std::string text = std::string(layer.GetName()) + ": " + OGRGeometryTypeToName(layer.GetGeomType());
  for (int i = 0; i < definition.GetFieldCount(); ++i) {
    OGRFieldDefn& field = *definition.GetFieldDefn(i);
    text += std::string(", ") + field.GetNameRef() + ' ' + OGRFieldDefn::GetFieldTypeName(field.GetType());
    if (field.GetPrecision() != 0) text += '(' + std::to_string(field.GetPrecision()) + ')';
    if (!field.GetDomainName().empty()) text += '<' + field.GetDomainName() + '>';
  }
  return text;
}

// An attribute of version 3.
inline ByteVector Value(std::uint32_t feature, std::string_view name, int kind, std::string_view text, double value = 0,
                        int decimals = 0, std::string_view sub = "") {
  return Record(5, 3, 0,
                Body(5, 3,
                     {{"feature", feature},
                      {"title", name},
                      {"kind", kind},
                      {"string", text},
                      {"sub", sub},
                      {"value", value},
                      {"decimals", decimals}}));
}

// Collects what GDAL is told while it lives.
class Errors {
 public:
  Errors() { CPLPushErrorHandlerEx(&Errors::Take, this); }
  ~Errors() { CPLPopErrorHandler(); }
  Errors(const Errors&) = delete;
  Errors& operator=(const Errors&) = delete;
  int failures = 0, warnings = 0;
  std::string text;

 private:
  static void CPL_STDCALL Take(CPLErr level, CPLErrorNum, const char* message) {
    auto& errors = *static_cast<Errors*>(CPLGetErrorHandlerUserData());
    if (level == CE_Failure) ++errors.failures;
    if (level == CE_Warning) ++errors.warnings;
    if (level >= CE_Warning) errors.text += std::string(message) + '\n';
  }
};

}  // namespace kesp::test
