// The data set: reads it, runs all queries, edits it and closes it.
#include <cmath>
#include <memory>

#include "fuzz/Targets.h"
#include "kesp/kesp.h"

namespace kesp::fuzz {
namespace {

// Takes over the array that a query returns, and checks that no entry is null.
template <class Item>
int Take(Item** array, const int& count) {  // by reference: the call in the first argument sets it
  const std::unique_ptr<Item*[]> owned(array);
  KESP_REQUIRE(array != nullptr && count >= 0);
  for (int i = 0; i < count; ++i) KESP_REQUIRE(array[i] != nullptr);
  return count;
}

void RunQueries(CKespFile& file) {
  int count = 0;
  ErrorEnum error = ERR_NONE;
  for (const LogicFlag logic : {LOGIC_EQUAL, LOGIC_NOT_EQUAL}) {
    const unsigned long mask = KESP_SRC_ADDED | KESP_SRC_MODIFIED;
    const int all = Take(file.GetRecordsWhereFlags(logic, mask, count, error), count);
    int some = 0;
    some += Take(file.GetFeaturesWhereFlags(logic, mask, count, error), count);
    some += Take(file.GetPointsWhereFlags(logic, mask, count, error), count);
    some += Take(file.GetAttributesWhereFlags(logic, mask, count, error), count);
    some += Take(file.GetNotesWhereFlags(logic, mask, count, error), count);
    some += Take(file.GetTagsWhereFlags(logic, mask, count, error), count);
    KESP_REQUIRE(some <= all);
    Take(file.GetFeaturesWhereType(logic, KESP_FEATURE_LINE, count, error), count);
    Take(file.GetFeaturesWhereName(logic, u"Oak", count, error), count);
    Take(file.GetFeaturesWhereAttribute(u"Girth", logic, u"thick", count, error), count);
    Take(file.GetFeaturesWhereAttribute(u"Girth", logic, 1.0, count, error), count);
  }
  const CRect2D everywhere(-HUGE_VAL, -HUGE_VAL, HUGE_VAL, HUGE_VAL);
  KESP_REQUIRE(Take(file.GetPointsInRect(everywhere, count, error), count) <= file.m_recordList.GetCount());
  KESP_REQUIRE(Take(file.GetFeaturesInRect(everywhere, count, error), count) <= file.m_recordList.GetCount());
  Take(file.GetFeaturesInRect({0, 0, 1, 1}, count, error), count);
  try {
    Take(file.GetStringToStringTags(u"note", count), count);
  } catch (const CFileException&) {
    // The list is empty, so the query reads the file again and meets the feature that is cut short.
  }

  std::uint32_t points = 0;
  std::uint32_t features = 0;
  CBoundingBox extent;
  CTime first;
  CTime last;
  CString text;
  (void)file.GetKespDataSummary(points, features, extent, first, last, text);
  KESP_REQUIRE(features == static_cast<std::uint32_t>(file.m_featureIndex.GetCount()));

  CKespSearch oak(L"Oak");
  CKespSearch range(1.0, 2.0);
  for (const auto& entry : file.m_featureIndex) {
    CKespFeature* feature = nullptr;
    KESP_REQUIRE(file.GetFeature(entry.key, feature) == ERR_NONE && feature == entry.value);
    (void)oak.Validate(feature);
    (void)range.Validate(feature);
    (void)feature->GetTypeString();
    CRect2D extents;
    (void)feature->GetExtents(extents);
    for (const auto& attribute : feature->m_attributeList) (void)attribute->GetAsFormatedString(false);
    (void)file.GetSrcCtrlFlagsForFeat(entry.key);
  }
  for (const auto& entry : file.m_pointIndex) {
    CKespPoint* point = nullptr;
    KESP_REQUIRE(file.GetPoint(entry.key, point) == ERR_NONE && point == entry.value);
  }
}

}  // namespace

void Dataset(Input input) {
  MemorySystem system;
  system.Put("a", Bytes(input.begin(), input.end()));
  CString message;
  for (const bool readDeleted : {false, true}) {
    CKespFile file;
    KESP_REQUIRE(file.OpenKespReadOnly(u"a", message) == ERR_NONE);
    try {
      (void)file.ReadKespFile(readDeleted);
    } catch (const CFileException&) {
      // A version-1 feature that is cut short; what was read before it is kept.
    }
    KESP_REQUIRE(static_cast<std::size_t>(file.m_recordList.GetCount()) <= input.size() / 14);
    if (file.m_pDataFile->IsOpen()) RunQueries(file);
  }
  KESP_REQUIRE(std::equal(input.begin(), input.end(), system.At("a").begin(), system.At("a").end()));

  CKespFile file;
  (void)file.OpenKesp(u"a", message);
  try {
    if (file.ReadKespFile(true) == ERR_NONE) {
      (void)file.UpdateKespHeader(u"1", u"2", u"3", u"4", u"5", u"6", 1, 2, 3, 4, true);
      while (!file.m_featureIndex.IsEmpty()) {
        const int before = file.m_featureIndex.GetCount();
        (void)file.DeleteFeatureAndAssociatedRec((*file.m_featureIndex.begin()).value);
        KESP_REQUIRE(file.m_featureIndex.GetCount() == before - 1);
      }
      RunQueries(file);
      (void)file.ValidateKesp();
      std::uint32_t version = 0;
      (void)file.GetKespVersion(version);
    }
    (void)file.CloseKesp();
  } catch (const CFileException&) {
    // The same feature, met by an operation that reads the file again.
  }
  KESP_REQUIRE(system.At("a").size() == input.size());
}

}  // namespace kesp::fuzz
