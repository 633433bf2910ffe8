// A Kesp data file as a GDAL data set.
//
// Opening reads the file once. What that finds (Survey) is kept, and decides which layers there are. The layers read
// the file again when their features are asked for, one feature at a time.
//
// A data set that is open for changes has an Editor. Its layers read what has been appended when a walk begins.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include <gdal_priv.h>

#include "ogr/Crs.h"
#include "ogr/Editor.h"
#include "ogr/FeatureWriter.h"
#include "ogr/FirstPass.h"
#include "ogr/Layer.h"
#include "ogr/Options.h"
#include "ogr/Relationships.h"
#include "ogr/Survey.h"
#include "ogr/SurveyFile.h"

namespace kesp::ogr {

class Dataset final : public GDALDataset {
 public:
  // Null, with an error reported to GDAL, if the file can't be opened. Damage is no reason for that.
  static std::unique_ptr<Dataset> Open(const std::string& path, const Options& options, char** siblings,
                                       SurveyFile::Access access);
  // Makes a file without features. Null, with an error, if that fails or if there is one.
  static std::unique_ptr<Dataset> Create(const std::string& path, const CreationOptions& options);
  ~Dataset() override;

  int GetLayerCount() override { return static_cast<int>(m_layers.size()); }
  OGRLayer* GetLayer(int index) override;
  int TestCapability(const char* capability) override;
  char** GetFileList() override;
  std::vector<std::string> GetRelationshipNames(CSLConstList options) const override;
  const GDALRelationship* GetRelationship(const std::string& name) const override;

  OGRErr StartTransaction(int force) override;
  OGRErr CommitTransaction() override;
  OGRErr RollbackTransaction() override;
  void FlushCache(bool atClosing) override;
  CPLErr SetMetadata(char** metadata, const char* domain) override;
  CPLErr SetMetadataItem(const char* key, const char* value, const char* domain) override;
  bool AddFieldDomain(std::unique_ptr<OGRFieldDomain>&& domain, std::string& why) override;

  // For layers.

  SurveyFile& File() noexcept { return *m_file; }
  const Survey& Contents() const noexcept { return *m_survey; }
  ColorOrder Colors() const noexcept { return m_options.colors; }
  OGRSpatialReference* CoordinateSystem() const noexcept { return m_crs.system.get(); }
  // Null if the data set is open for reading.
  Editor* Editing() noexcept { return m_editor.get(); }
  // Whether there are, or may come to be, FIDs above 2^31 - 1.
  bool HasWideFids() const noexcept;
  Survey& Editable() noexcept { return *m_survey; }
  // Makes what was appended known to Contents().
  void CatchUp();
  bool Flush();
  // Tells GDAL what the end of a walk, or else of the first walk, says of the file. False if a part of it
  // was not read.
  bool ReportEnd(const WalkEnd& end);

 private:
  Dataset(std::string path, Options options) : m_path(std::move(path)), m_options(std::move(options)) {}
  OGRLayer* ICreateLayer(const char* name, OGRSpatialReference* crs, OGRwkbGeometryType type, char** options) override;
  bool ReadFile(SurveyFile::Access access);
  void ReadAll();
  bool IsLayerPossible(const std::string& name, OGRwkbGeometryType type);
  void AddRecordLayer(const std::string& name);
  FeatureWriter::Settings SettingsFor(const char* name, OGRwkbGeometryType type, char** options) const;
  void RemoveLayer(const char* name);
  bool TakeCrs(const OGRSpatialReference* crs);
  bool Salvage();
  void AddMetadata();
  void AddDomains();
  void AddLayers();
  std::vector<std::string> LayerNames() const;

  std::string m_path;
  Options m_options;
  Crs m_crs;
  std::unique_ptr<SurveyFile> m_file;
  std::unique_ptr<Survey> m_survey;
  std::unique_ptr<FirstPass> m_firstPass;
  std::unique_ptr<Editor> m_editor;
  Relationships m_relationships;
  std::vector<std::unique_ptr<Layer>> m_layers;
  std::vector<std::unique_ptr<Layer>> m_removed;  // somebody may still have a pointer
  bool m_hasWarnedOfOpenFeature = false;
};

}  // namespace kesp::ogr
