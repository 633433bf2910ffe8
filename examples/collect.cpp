// Collects a survey with the data set: writes it, opens it again, adds to it, deletes from it, and runs queries.
//
//   collect garden.kesp
//
// write_survey appends records to the container one by one. Here the data set, CKespFile, makes the records, queues
// them and writes them, and holds the whole file in memory when it is read.
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kesp/kesp.h"

namespace {

constexpr std::int32_t kMorning = 1718003700;  // 10 June 2024, 07:15 UTC
constexpr double kDateOfInspection = 45453;    // the same day, counted from 30 December 1899

enum FeatureNumber : std::uint32_t { kTree = 1, kPath, kLawn, kBench, kPond };

void Require(ErrorEnum error, const std::string& what) {
  if (error != ERR_NONE) throw std::runtime_error(what + ": error " + std::to_string(error));
}

// The data set ignores the results of single appends and rewrites. This checks whether one of them failed.
void RequireWritten(const CKespFile& survey) {
  const CKespDataFile& container = *survey.m_pDataFile;
  if (!container.IsOpen() || container.GetSystemError() != 0) throw std::runtime_error("not all could be written");
}

// Owns records until they are written. Queued records still belong to the caller, and must not be deleted while they
// are queued. A header that is left in the queue would be deleted by the data set too.
class Batch {
 public:
  // Records that were read from a file are in the queue too, and would be written again.
  explicit Batch(CKespFile& survey) : m_survey(survey) { m_survey.ClearQueueWithoutWriting(); }
  ~Batch() { m_survey.ClearQueueWithoutWriting(); }  // before the records are deleted
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  void AddHeader(const CString& title) {
    auto* const header = Keep(new CKespTavoHeader);
    header->HeaderText1 = title;
    header->CreationTime = kMorning;
    m_survey.AddTavoHeaderToWriteQueue(header);
  }
  // The feature owns its attributes, its points and its end, and they are queued with it.
  void Add(std::unique_ptr<CKespFeature> feature) {
    auto* const kept = Keep(feature.release());
    kept->SetFeatureEnd(m_survey.CreateFeatureEnd(kept->GetFeatureNumber()));
    Require(m_survey.AddFeatureAndAssociatedRecToWriteQueue(kept), "a feature can't be queued");
  }
  void Add(CKespTag* tag) { m_survey.AddTagToWriteQueue(Keep(tag)); }
  void Add(CKespNote* note) { m_survey.AddNoteToWriteQueue(Keep(note)); }

 private:
  template <class Record>
  Record* Keep(Record* record) {
    m_records.push_back(std::unique_ptr<CKespRecord>(record));
    return record;
  }

  CKespFile& m_survey;
  std::vector<std::unique_ptr<CKespRecord>> m_records;
};

// The caller chooses the numbers. Points are numbered through the whole survey.
void AddPoint(CKespFile& survey, CKespFeature& feature, std::uint32_t number, double east, double north) {
  const std::int32_t time = kMorning + 20 * static_cast<std::int32_t>(number);
  CKespPoint* const point = survey.CreatePoint(number, CString("P" + std::to_string(number)), time, north, east, 116.0,
                                               feature.GetFeatureNumber());
  feature.AddPoint(point);  // the feature owns it now
  survey.AddGpsInfoToPoint(*point, 1.2, 9, KESP_SIGNAL_STATUS_3);
}

std::unique_ptr<CKespFeature> MakeTree(CKespFile& survey) {
  std::unique_ptr<CKespFeature> tree(survey.CreateFeature(L"Tree", KESP_FEATURE_POINT, kTree));
  survey.AddDisplayInfoToFeature(tree.get(), 0x00228B22, 12, 1, 0, L"");
  CKespAttribute* const species = survey.CreateMenuAttribute(L"Species", kTree, L"Oak");
  species->SubValue = L"Sessile";
  tree->AddAttribute(species);
  CKespAttribute* const girth = survey.CreateNumericAttribute(L"Girth", kTree, 2.35, 0, 0);
  girth->Decimals = 2;
  tree->AddAttribute(girth);
  tree->AddAttribute(survey.CreateDateAttribute(L"Inspected", kTree, kDateOfInspection, 0, 0));
  tree->AddAttribute(survey.CreateStringAttribute(L"Remark", kTree, L"Hollow at the base"));
  AddPoint(survey, *tree, 1, 8.40444, 49.01355);
  return tree;
}

std::unique_ptr<CKespFeature> MakePath(CKespFile& survey) {
  std::unique_ptr<CKespFeature> path(survey.CreateFeature(L"Path", KESP_FEATURE_LINE, kPath));
  path->AddAttribute(survey.CreateMenuAttribute(L"Surface", kPath, L"Gravel"));
  AddPoint(survey, *path, 2, 8.40421, 49.01340);
  AddPoint(survey, *path, 3, 8.40458, 49.01352);
  AddPoint(survey, *path, 4, 8.40497, 49.01349);
  return path;
}

std::unique_ptr<CKespFeature> MakeLawn(CKespFile& survey) {
  std::unique_ptr<CKespFeature> lawn(survey.CreateFeature(L"Lawn", KESP_FEATURE_AREA, kLawn));
  lawn->AddAttribute(survey.CreateNumericAttribute(L"Area", kLawn, 1240, 0, 0));
  AddPoint(survey, *lawn, 5, 8.4043, 49.0136);
  AddPoint(survey, *lawn, 6, 8.4048, 49.0136);
  AddPoint(survey, *lawn, 7, 8.4048, 49.0139);
  return lawn;
}

std::unique_ptr<CKespFeature> MakeBench(CKespFile& survey) {
  std::unique_ptr<CKespFeature> bench(survey.CreateFeature(L"Bench", KESP_FEATURE_POINT, kBench));
  AddPoint(survey, *bench, 8, 8.40462, 49.01353);
  return bench;
}

std::unique_ptr<CKespFeature> MakePond(CKespFile& survey) {
  std::unique_ptr<CKespFeature> pond(survey.CreateFeature(L"Pond", KESP_FEATURE_AREA, kPond));
  pond->AddAttribute(survey.CreateStringAttribute(L"Remark", kPond, L"Overgrown, an oak at its edge"));
  AddPoint(survey, *pond, 9, 8.4050, 49.0141);
  AddPoint(survey, *pond, 10, 8.4053, 49.0141);
  AddPoint(survey, *pond, 11, 8.4052, 49.0143);
  return pond;
}

void Write(const CString& path) {
  CKespFile survey;
  Batch batch(survey);
  batch.AddHeader(L"Garden");
  batch.Add(survey.CreateNote(L"Dry, light wind"));
  batch.Add(MakeTree(survey));
  batch.Add(MakePath(survey));
  batch.Add(MakeLawn(survey));
  batch.Add(MakeBench(survey));
  batch.Add(survey.CreateTag(L"GPS", kTree, 1, 2318, 112520000));  // when GPS saw the tree's point
  batch.Add(survey.CreateTagGps(1, 1, 1, 2, 2));                   // how well
  batch.Add(survey.CreateTagGpsEx(2, 0.8F, 0.9F, 1.2F, 1.5F, 9));
  batch.Add(survey.CreateTagFeatureLink(kPath, 0, kLawn, 0, 0));  // the path leads to the lawn
  // Refuses an existing file and leaves it as it is.
  Require(survey.WriteNewKespFileFromQueue(path), path.ToPathBytes() + " can't be written");
  RequireWritten(survey);
  Require(survey.CloseKesp(), "the file can't be closed");
}

void Open(CKespFile& survey, const CString& path) {
  CString message;
  Require(survey.OpenKesp(path, message), "the file can't be opened: " + message.ToUtf8());
  (void)survey.ReadKespFile(false);
  // Records appended after damage can't be read.
  if (!survey.WasReadToEnd()) throw std::runtime_error("the file can't be read to its end");
}

void Append(const CString& path) {
  CKespFile survey;
  Open(survey, path);
  Batch batch(survey);
  batch.Add(MakePond(survey));
  Require(survey.AppendToKespFileFromQueue(path), "nothing can be appended");
  RequireWritten(survey);
  Require(survey.CloseKesp(), "the file can't be closed");
}

void DeleteBench(const CString& path) {
  CKespFile survey;
  Open(survey, path);
  CKespFeature* bench = nullptr;  // owned by the data set, also after it is deleted in the file
  Require(survey.GetFeature(kBench, bench), "there is no bench");
  Require(survey.DeleteFeatureAndAssociatedRec(bench), "the bench can't be deleted");

  // Writes the summary of the features that are left. The host's extent stays as it is.
  Require(survey.UpdateKespHeader(L"", L"Made by collect", L"", L"Garden", L"", L"", 1, 0, 1, 0, false),
          "the header can't be brought up to date");
  RequireWritten(survey);
  Require(survey.CloseKesp(), "the file can't be closed");
}

void Show(const CKespFeature& feature) {
  std::cout << "  " << feature.FeatureNumber << ' ' << feature.FeatureName.ToUtf8() << ", "
            << feature.GetTypeString().ToUtf8() << ", points: " << feature.GetNumPoints() << '\n';
  for (const auto& attribute : feature.m_attributeList) {
    std::cout << "      " << attribute->AttributeName.ToUtf8() << ": " << attribute->GetAsFormatedString(false).ToUtf8()
              << '\n';
  }
}

// Deleting leaves a feature without points in the file, which a search may accept.
bool HasPoints(const CKespFeature& feature) { return feature.GetNumPoints() != 0; }

void ShowMatches(CKespFile& survey, const char* title, CKespSearch& search) {
  std::cout << title << ":\n";
  for (const auto& entry : survey.m_featureIndex) {
    if (HasPoints(*entry.value) && search.Validate(entry.value)) {
      std::cout << "  " << entry.value->FeatureName.ToUtf8() << '\n';
    }
  }
}

void Look(const CString& path) {
  CKespFile survey;
  CString message;
  Require(survey.OpenKespReadOnly(path, message), "the file can't be opened: " + message.ToUtf8());
  Require(survey.ReadKespFile(false), "the file can't be read");

  std::cout << "The features:\n";
  for (const auto& entry : survey.m_featureIndex) {
    if (HasPoints(*entry.value)) Show(*entry.value);
  }

  int count = 0;
  ErrorEnum error = ERR_NONE;
  // The caller owns the array, but not the features in it.
  const std::unique_ptr<CKespFeature*[]> thick(
      survey.GetFeaturesWhereAttribute(L"Girth", LOGIC_GREATER, 2.0, count, error));
  std::cout << "Thicker than 2 m:\n";
  for (const CKespFeature* feature : std::span(thick.get(), static_cast<std::size_t>(count))) {
    std::cout << "  " << feature->FeatureName.ToUtf8() << '\n';
  }

  const std::unique_ptr<CKespNote*[]> notes(survey.GetNotesWhereFlags(LOGIC_NONE, KESP_FLAG_DELETED, count, error));
  std::cout << "Notes:\n";
  for (const CKespNote* note : std::span(notes.get(), static_cast<std::size_t>(count))) {
    std::cout << "  " << note->NoteText.ToUtf8() << '\n';
  }

  CKespFeaturePtPair seen;
  if (survey.m_gpsMarkIndex.Lookup(CGPSTime(2318, 112520000), seen)) {
    std::cout << "GPS mark: feature " << seen.FeatureNumber << ", point " << seen.PointNumber << '\n';
  }
  std::cout << "Quality marks: " << survey.m_qualityMarkIndex.GetCount() << '\n';
  CKespLinkList* links = nullptr;
  if (survey.m_linkListIndex.Lookup(kLawn, links) && links->HasLink(kLawn, kPath)) {
    std::cout << "The lawn and the path are linked\n";
  }

  constexpr int kAllTypes = SEARCH_POINT_FEATURES | SEARCH_LINE_FEATURES | SEARCH_AREA_FEATURES;
  CKespSearch oak(L"oak");
  oak.SetSearchOptions(kAllTypes | SEARCH_IGNORE_CASE | SEARCH_PARTIAL_MATCH);
  ShowMatches(survey, "With an oak in an attribute", oak);

  CKespSearch north;
  north.Enable(true);
  north.SetSearchOptions(kAllTypes | SEARCH_IN_AREA);
  north.SetAreaFilter(CRect2D{8.40, 49.0138, 8.41, 49.02});
  ShowMatches(survey, "With a point in the north", north);

  unsigned long points = 0;
  unsigned long features = 0;
  CBoundingBox extent;
  CTime first;
  CTime last;
  CString lastText;
  Require(survey.GetKespDataSummary(points, features, extent, first, last, lastText), "there is no summary");
  std::cout << "Points in all: " << points << ", the last one: " << lastText.ToUtf8() << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: collect PATH\n";
    return 2;
  }
  try {
    const CString path = CString::FromPathBytes(argv[1]);
    Write(path);
    Append(path);
    DeleteBench(path);
    Look(path);
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "collect: " << e.what() << '\n';
    return 1;
  }
}
