#include "ogr/Dataset.h"

#include <algorithm>
#include <utility>

#include <cpl_conv.h>
#include <cpl_string.h>

#include "kesp/util/Utilities.h"
#include "ogr/FeatureLayer.h"
#include "ogr/Salvaging.h"
#include "ogr/TableLayers.h"
#include "ogr/UniqueNames.h"
#include "ogr/VertexLayer.h"

namespace kesp::ogr {
namespace {

std::unique_ptr<OGRCodedFieldDomain> CodedDomain(const std::string& name, OGRFieldType type,
                                                 const std::vector<std::pair<std::string, std::string>>& values) {
  std::vector<OGRCodedValue> coded;
  coded.reserve(values.size());
  for (const auto& [code, value] : values) coded.push_back({CPLStrdup(code.c_str()), CPLStrdup(value.c_str())});
  return std::make_unique<OGRCodedFieldDomain>(name, std::string(), type, OFSTNone, std::move(coded));
}

std::unique_ptr<OGRCodedFieldDomain> StatusDomain() {
  constexpr int kFirstText = 33066;
  constexpr int kStatuses = 11;
  std::vector<std::pair<std::string, std::string>> values;
  values.reserve(kStatuses);
  for (int status = 0; status < kStatuses; ++status) {
    values.emplace_back(std::to_string(status), GetStringRes(kFirstText + status).ToUtf8());
  }
  return CodedDomain(VertexLayer::kStatusDomain, OFTInteger, values);
}

std::size_t MostEntries() {
  const char* const option = CPLGetConfigOption("KESP_DIRECTORY_ENTRIES", nullptr);
  constexpr GIntBig kLeast = 2;
  if (option == nullptr) return Directory::kMostEntries;
  return static_cast<std::size_t>(std::max(kLeast, CPLAtoGIntBig(option)));
}

}  // namespace

std::unique_ptr<Dataset> Dataset::Open(const std::string& path, const Options& options, char** siblings) {
  std::unique_ptr<Dataset> dataset(new Dataset(path, options));
  std::optional<Crs> crs = FindCrs(options.crs, path, siblings);
  if (!crs) return nullptr;
  dataset->m_crs = std::move(*crs);
  if (!dataset->ReadFile()) return nullptr;
  dataset->AddMetadata();
  dataset->AddDomains();
  dataset->AddLayers();
  return dataset;
}

bool Dataset::ReadFile() {
  m_file = SurveyFile::Open(m_path, m_options.includeDeleted);
  if (m_file == nullptr) return false;
  m_survey = std::make_unique<Survey>(m_options.layers, MostEntries());
  ReadSurvey(*m_file, *m_survey);
  if (!m_survey->end.isWhole && m_options.salvage && !Salvage()) return false;
  if (!m_survey->hasHeader) {
    CPLError(CE_Warning, CPLE_AppDefined, "%s: the first record is no header record", m_path.c_str());
  }
  return true;
}

bool Dataset::Salvage() {
  std::unique_ptr<SurveyFile> salvaged = OpenSalvaged(*m_file, m_path);
  if (salvaged == nullptr) return false;
  m_survey = std::make_unique<Survey>(m_options.layers, MostEntries());
  m_file = std::move(salvaged);
  ReadSurvey(*m_file, *m_survey);
  return true;
}

void Dataset::AddMetadata() {
  SetMetadataItem("FILE_VERSION", std::to_string(m_file->Container().m_version).c_str());
  for (const auto& [key, value] : m_survey->metadata) SetMetadataItem(key.c_str(), value.c_str());
  const WalkEnd& end = m_survey->end;
  if (end.isWhole) return;
  SetMetadataItem("DAMAGE", end.Cause().c_str());
  SetMetadataItem("DAMAGE_OFFSET", std::to_string(end.offset).c_str());
}

void Dataset::AddDomains() {
  const Attributes& attributes = m_survey->attributes;
  for (std::size_t code = 0; code < attributes.Size(); ++code) {
    if (!attributes[code].HasDomain()) continue;
    std::vector<std::pair<std::string, std::string>> values;
    const TextTable& menu = attributes[code].menuValues;
    for (std::size_t i = 0; i < menu.Size(); ++i) values.emplace_back(menu[i], menu[i]);
    const std::string name = DomainName(*m_survey, code);
    m_oMapFieldDomains[name] = CodedDomain(name, OFTString, values);
  }
  m_oMapFieldDomains.try_emplace(VertexLayer::kStatusDomain, StatusDomain());
}

std::vector<std::string> Dataset::LayerNames() const {
  static constexpr const char* kKinds[] = {"points", "lines", "areas"};
  const bool byName = m_options.layers == LayerSplit::kByName;
  UniqueNames unique;
  for (const char* const reserved : {VertexLayer::kName, NoteLayer::kName, TagLayer::kName, LinkLayer::kName}) {
    (void)unique.Take(reserved);
  }
  std::vector<std::string> names;
  for (const LayerPlan& plan : m_survey->layers) {
    const std::string kind = kKinds[plan.kind - KESP_FEATURE_POINT];
    std::string name = plan.name ? m_survey->names[*plan.name] : byName ? "other_" + kind : kind;
    if (name.empty()) name = "unnamed_" + kind;
    names.push_back(unique.Take(name));
  }
  return names;
}

void Dataset::AddLayers() {
  const std::vector<std::string> names = LayerNames();
  const bool hasFeatures = !m_survey->directory.Entries().empty();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const LayerPlan& plan = m_survey->layers[i];
    const bool isShown = plan.features != 0 || (!hasFeatures && m_options.layers == LayerSplit::kByKind);
    if (isShown) m_layers.push_back(std::make_unique<FeatureLayer>(*this, names[i], plan));
  }
  if (m_survey->points != 0 || !hasFeatures) m_layers.push_back(std::make_unique<VertexLayer>(*this));
  if (m_survey->notes > m_survey->consumedNotes.size()) m_layers.push_back(std::make_unique<NoteLayer>(*this));
  if (m_survey->tags != 0) m_layers.push_back(std::make_unique<TagLayer>(*this));
  if (m_survey->links != 0) m_layers.push_back(std::make_unique<LinkLayer>(*this));
  m_relationships = FindRelationships(*m_survey, names);
  m_survey->linked = {};
}

OGRLayer* Dataset::GetLayer(int index) {
  if (index < 0 || index >= GetLayerCount()) return nullptr;
  return m_layers[static_cast<std::size_t>(index)].get();
}

int Dataset::TestCapability(const char* capability) {
  return EQUAL(capability, ODsCMeasuredGeometries) || EQUAL(capability, ODsCZGeometries) ? TRUE : FALSE;
}

char** Dataset::GetFileList() {
  CPLStringList files(GDALDataset::GetFileList());
  if (!m_crs.sidecar.empty()) files.AddString(m_crs.sidecar.c_str());
  return files.StealList();
}

std::vector<std::string> Dataset::GetRelationshipNames(CSLConstList /*options*/) const {
  std::vector<std::string> names;
  for (const auto& [name, relationship] : m_relationships) names.push_back(name);
  return names;
}

const GDALRelationship* Dataset::GetRelationship(const std::string& name) const {
  const auto found = m_relationships.find(name);
  return found != m_relationships.end() ? found->second.get() : nullptr;
}

// A failure and not a warning: a script that converts a file must not take a part of it for the whole.
void Dataset::ReportEnd(const WalkEnd& walkEnd) {
  const WalkEnd& end = walkEnd.isWhole ? m_survey->end : walkEnd;
  const std::optional<std::uint32_t>& open = m_survey->openFeature;
  const std::string incomplete =
      open ? "feature " + std::to_string(*open) + ", which has no end record, may be incomplete" : std::string();
  if (!end.isWhole) {
    CPLError(CE_Failure, CPLE_FileIO, "%s: damaged at offset %llu (%s): what comes after it was not read%s%s%s",
             m_path.c_str(), static_cast<unsigned long long>(end.offset), end.Cause().c_str(), open ? "; " : "",
             incomplete.c_str(), m_options.salvage ? "" : ". The open option SALVAGE=YES reads what can be saved");
  } else if (open && !std::exchange(m_hasWarnedOfOpenFeature, true)) {
    CPLError(CE_Warning, CPLE_AppDefined, "%s: %s", m_path.c_str(), incomplete.c_str());
  }
}

}  // namespace kesp::ogr
