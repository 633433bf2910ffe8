#include "ogr/Dataset.h"

#include <algorithm>
#include <limits>
#include <utility>

#include <cpl_conv.h>
#include <cpl_string.h>

#include "kesp/util/Utilities.h"
#include "ogr/FeatureLayer.h"
#include "ogr/HeaderItems.h"
#include "ogr/NewLayer.h"
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

constexpr const char* kKinds[] = {"points", "lines", "areas"};

// Null for all kinds.
std::optional<KESP_FEATURE_TYPE> KindOf(OGRwkbGeometryType type) {
  switch (wkbFlatten(type)) {
    case wkbPoint:
    case wkbMultiPoint:
      return KESP_FEATURE_POINT;
    case wkbLineString:
    case wkbMultiLineString:
      return KESP_FEATURE_LINE;
    case wkbPolygon:
    case wkbMultiPolygon:
      return KESP_FEATURE_AREA;
    default:
      return std::nullopt;
  }
}

std::size_t MostEntries() {
  const char* const option = CPLGetConfigOption("KESP_DIRECTORY_ENTRIES", nullptr);
  constexpr GIntBig kLeast = 2;
  if (option == nullptr) return Directory::kMostEntries;
  return static_cast<std::size_t>(std::max(kLeast, CPLAtoGIntBig(option)));
}

}  // namespace

std::unique_ptr<Dataset> Dataset::Open(const std::string& path, const Options& options, char** siblings,
                                       SurveyFile::Access access) {
  std::unique_ptr<Dataset> dataset(new Dataset(path, options));
  std::optional<Crs> crs = FindCrs(options.crs, path, siblings);
  if (!crs) return nullptr;
  dataset->m_crs = std::move(*crs);
  if (!dataset->ReadFile(access)) return nullptr;
  dataset->AddMetadata();
  dataset->AddDomains();
  dataset->AddLayers();
  return dataset;
}

std::unique_ptr<Dataset> Dataset::Create(const std::string& path, const CreationOptions& options) {
  Options own;
  own.colors = options.colors;
  std::unique_ptr<Dataset> dataset(new Dataset(path, std::move(own)));
  dataset->m_crs = FindCrs({}, path, nullptr).value_or(Crs{});
  dataset->m_file = SurveyFile::Create(path, options.fileVersion);
  if (dataset->m_file == nullptr) return nullptr;
  dataset->ReadAll();
  dataset->eAccess = GA_Update;
  dataset->m_editor = std::make_unique<Editor>(*dataset->m_file, *dataset->m_survey, path, Editor::Origin::kNew);
  dataset->AddDomains();
  return dataset;
}

Dataset::~Dataset() {
  if (m_editor != nullptr) m_editor->Close();
}

void Dataset::ReadAll() {
  m_survey = std::make_unique<Survey>(m_options.layers, MostEntries());
  m_firstPass = std::make_unique<FirstPass>(*m_file, *m_survey);
  m_firstPass->Run();
}

bool Dataset::ReadFile(SurveyFile::Access access) {
  m_file = SurveyFile::Open(m_path, m_options.includeDeleted, access);
  if (m_file == nullptr) return false;
  ReadAll();
  const bool isDamaged = !m_survey->end.isWhole;
  if (isDamaged && m_file->IsWritable()) {
    CPLError(CE_Failure, CPLE_FileIO, "%s: damaged at offset %llu (%s), so it can't be changed: repair it first",
             m_path.c_str(), static_cast<unsigned long long>(m_survey->end.offset), m_survey->end.Cause().c_str());
    return false;
  }
  if (m_file->IsWritable() && m_file->Container().m_version == 0) {
    CPLError(CE_Failure, CPLE_NotSupported, "%s: is of file version 0, which no record can be written for",
             m_path.c_str());
    return false;
  }
  if (isDamaged && m_options.salvage && !Salvage()) return false;
  if (!m_survey->hasHeader) {
    CPLError(CE_Warning, CPLE_AppDefined, "%s: the first record is no header record", m_path.c_str());
  }
  if (m_file->IsWritable()) {
    eAccess = GA_Update;
    m_editor = std::make_unique<Editor>(*m_file, *m_survey, m_path, Editor::Origin::kExisting);
  }
  return true;
}

bool Dataset::Salvage() {
  std::unique_ptr<SurveyFile> salvaged = OpenSalvaged(*m_file, m_path);
  if (salvaged == nullptr) return false;
  m_firstPass.reset();
  m_file = std::move(salvaged);
  ReadAll();
  return true;
}

void Dataset::AddMetadata() {
  const auto put = [this](const char* key, const std::string& value) {
    GDALDataset::SetMetadataItem(key, value.c_str());
  };
  put("FILE_VERSION", std::to_string(m_file->Container().m_version));
  for (const auto& [key, value] : m_survey->metadata) put(key.c_str(), value);
  const WalkEnd& end = m_survey->end;
  if (end.isWhole) return;
  put("DAMAGE", end.Cause());
  put("DAMAGE_OFFSET", std::to_string(end.offset));
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
    const bool canBeEmpty = m_options.layers == LayerSplit::kByKind && (!hasFeatures || m_editor != nullptr);
    if (plan.features != 0 || canBeEmpty) m_layers.push_back(std::make_unique<FeatureLayer>(*this, names[i], plan));
  }
  const bool isEditable = m_editor != nullptr;
  const bool hasNotes = m_survey->notes > m_survey->consumedNotes.size();
  if (m_survey->points != 0 || !hasFeatures || isEditable) AddRecordLayer(VertexLayer::kName);
  if (hasNotes || isEditable) AddRecordLayer(NoteLayer::kName);
  if (m_survey->tags != 0 || isEditable) AddRecordLayer(TagLayer::kName);
  if (m_survey->links != 0 || isEditable) AddRecordLayer(LinkLayer::kName);
  m_relationships = FindRelationships(*m_survey, names);
  m_survey->linked = {};
}

void Dataset::AddRecordLayer(const std::string& name) {
  if (name == VertexLayer::kName) m_layers.push_back(std::make_unique<VertexLayer>(*this));
  if (name == NoteLayer::kName) m_layers.push_back(std::make_unique<NoteLayer>(*this));
  if (name == TagLayer::kName) m_layers.push_back(std::make_unique<TagLayer>(*this));
  if (name == LinkLayer::kName) m_layers.push_back(std::make_unique<LinkLayer>(*this));
}

OGRLayer* Dataset::GetLayer(int index) {
  if (index < 0 || index >= GetLayerCount()) return nullptr;
  return m_layers[static_cast<std::size_t>(index)].get();
}

int Dataset::TestCapability(const char* capability) {
  for (const char* const ofEditing : {ODsCCreateLayer, ODsCTransactions, ODsCRandomLayerWrite, ODsCAddFieldDomain}) {
    if (EQUAL(capability, ofEditing)) return m_editor != nullptr ? TRUE : FALSE;
  }
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

// FIDs are numbers of features, or positions in the file.
bool Dataset::HasWideFids() const noexcept {
  constexpr std::uint32_t kLast = std::numeric_limits<std::int32_t>::max();
  return m_editor != nullptr || m_survey->lastFeature > kLast || m_file->Length() > kLast ||
         m_survey->directory.HasRepeats();
}

// A failure and not a warning: a script that converts a file must not take a part of it for the whole.
bool Dataset::ReportEnd(const WalkEnd& walkEnd) {
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
  return end.isWhole;
}

void Dataset::CatchUp() {
  if (m_editor == nullptr || !m_editor->HasNews() || !m_editor->Flush()) return;
  m_firstPass->Run();
  m_editor->ForgetNews();
}

bool Dataset::Flush() { return m_editor == nullptr || m_editor->Flush(); }

OGRErr Dataset::StartTransaction(int /*force*/) {
  if (m_editor == nullptr) return OGRERR_UNSUPPORTED_OPERATION;
  return m_editor->Begin() ? OGRERR_NONE : OGRERR_FAILURE;
}

OGRErr Dataset::CommitTransaction() { return m_editor != nullptr && m_editor->Commit() ? OGRERR_NONE : OGRERR_FAILURE; }

// What was read may be of what is gone. So the file is read again.
OGRErr Dataset::RollbackTransaction() {
  if (m_editor == nullptr || !m_editor->Rollback()) return OGRERR_FAILURE;
  m_survey->Forget();
  m_firstPass = std::make_unique<FirstPass>(*m_file, *m_survey);
  m_firstPass->Run();
  m_survey->isEdited = true;
  m_editor->ForgetNews();
  for (const auto& layer : m_layers) layer->AfterRollback();
  for (const auto& layer : m_removed) layer->AfterRollback();
  return OGRERR_NONE;
}

void Dataset::FlushCache(bool atClosing) {
  GDALDataset::FlushCache(atClosing);
  Flush();
}

CPLErr Dataset::SetMetadata(char** metadata, const char* domain) {
  for (char** item = metadata; item != nullptr && *item != nullptr; ++item) {
    char* key = nullptr;
    const char* const value = CPLParseNameValue(*item, &key);
    const bool isSet = key == nullptr || SetMetadataItem(key, value, domain) == CE_None;
    CPLFree(key);
    if (!isSet) return CE_Failure;
  }
  return GDALDataset::SetMetadata(metadata, domain);
}

CPLErr Dataset::SetMetadataItem(const char* key, const char* value, const char* domain) {
  const bool isOfFile = domain == nullptr || *domain == '\0';
  if (m_editor != nullptr && m_editor->Header() != nullptr && isOfFile) {
    CKespTavoHeader changed(*m_editor->Header());
    const HeaderItem item = PutHeaderItem(changed, key, value);
    if (item == HeaderItem::kBad) {
      CPLError(CE_Failure, CPLE_IllegalArg, "%s: %s can't be %s", m_path.c_str(), key, value);
      return CE_Failure;
    }
    const auto put = [&](CKespTavoHeader& header) { PutHeaderItem(header, key, value); };
    if (item == HeaderItem::kPut && !m_editor->ChangeHeader(put)) return CE_Failure;
  }
  return GDALDataset::SetMetadataItem(key, value, domain);
}

bool Dataset::AddFieldDomain(std::unique_ptr<OGRFieldDomain>&& domain, std::string& why) {
  if (m_editor == nullptr || domain->GetDomainType() != OFDT_CODED || domain->GetFieldType() != OFTString) {
    why = "only menus of texts can be added";
    return false;
  }
  const std::string name = domain->GetName();
  return m_oMapFieldDomains.try_emplace(name, std::move(domain)).second;
}

bool Dataset::TakeCrs(const OGRSpatialReference* crs) {
  if (crs == nullptr) return true;
  if (m_crs.system == nullptr) {
    m_crs = WriteCrs(*crs, m_path);
    return true;
  }
  const char* const ignoringAxes[] = {"IGNORE_DATA_AXIS_TO_SRS_AXIS_MAPPING=YES", nullptr};
  if (m_crs.system->IsSame(crs, ignoringAxes) != 0) return true;
  CPLError(CE_Failure, CPLE_NotSupported, "%s: all layers have one reference system, and %s another", m_path.c_str(),
           m_crs.sidecar.empty() ? "the file has" : (m_crs.sidecar + " names").c_str());
  return false;
}

bool Dataset::IsLayerPossible(const std::string& name, OGRwkbGeometryType type) {
  const auto refuse = [this](const std::string& why) {
    CPLError(CE_Failure, CPLE_NotSupported, "%s: %s", m_path.c_str(), why.c_str());
    return false;
  };
  OGRLayer* const present = GetLayerByName(name.c_str());
  if (present != nullptr && present->GetFeatureCount() != 0) return refuse("there is a layer " + name);
  const bool isTable = name == NoteLayer::kName || name == TagLayer::kName || name == LinkLayer::kName;
  const bool hasGeometry = wkbFlatten(type) != wkbNone;
  if (isTable && hasGeometry) return refuse("the layer " + name + " has no geometry");
  if (name == VertexLayer::kName && wkbFlatten(type) != wkbPoint) return refuse("vertices are points");
  switch (wkbFlatten(type)) {
    case wkbNone:
      return isTable || refuse(std::string("a layer without geometry can only be ") + NoteLayer::kName + ", " +
                               TagLayer::kName + " or " + LinkLayer::kName);
    case wkbUnknown:
    case wkbPoint:
    case wkbMultiPoint:
    case wkbLineString:
    case wkbMultiLineString:
    case wkbPolygon:
    case wkbMultiPolygon:
      return true;
    default:
      return refuse(std::string("a layer of the type ") + OGRGeometryTypeToName(type) + " can't be written");
  }
}

// ogr2ogr gives the name of the FIDs' column in its source. FIDs of a column of another name count rows of a table.
OGRLayer* Dataset::ICreateLayer(const char* name, OGRSpatialReference* crs, OGRwkbGeometryType type, char** options) {
  if (m_editor == nullptr || !IsLayerPossible(name, type)) return nullptr;
  const bool hasGeometry = wkbFlatten(type) != wkbNone;
  if (hasGeometry && !TakeCrs(crs)) return nullptr;
  RemoveLayer(name);
  const bool takesFids = EQUAL(CSLFetchNameValueDef(options, "FID", kFidColumn), kFidColumn);
  if (!hasGeometry || std::string_view(name) == VertexLayer::kName) {
    AddRecordLayer(name);
  } else {
    FeatureWriter::Settings settings = SettingsFor(name, type, options);
    settings.takesFids = takesFids;
    m_layers.push_back(std::make_unique<NewLayer>(*this, name, type, std::move(settings)));
  }
  if (!takesFids) m_layers.back()->LeaveFids();
  return m_layers.back().get();
}

// An empty layer may come again with other fields.
void Dataset::RemoveLayer(const char* name) {
  const auto place =
      std::find_if(m_layers.begin(), m_layers.end(), [name](auto& layer) { return EQUAL(layer->GetName(), name); });
  if (place == m_layers.end()) return;
  m_removed.push_back(std::move(*place));
  m_layers.erase(place);
}

FeatureWriter::Settings Dataset::SettingsFor(const char* name, OGRwkbGeometryType type, char** options) const {
  FeatureWriter::Settings settings;
  settings.layer = name;
  settings.kind = KindOf(type);
  settings.colors = m_options.colors;
  const bool isMulti = wkbFlatten(type) == wkbMultiPoint || !settings.kind;
  settings.multi = CPLFetchBool(options, "SPLIT_MULTI", false) ? MultiGeometries::kSplit
                   : isMulti                                   ? MultiGeometries::kManyPoints
                                                               : MultiGeometries::kRefuse;
  const bool isNamedByKind =
      std::any_of(std::begin(kKinds), std::end(kKinds), [&](auto* kind) { return EQUAL(kind, name); });
  if (!isNamedByKind) settings.name = name;
  return settings;
}

}  // namespace kesp::ogr
