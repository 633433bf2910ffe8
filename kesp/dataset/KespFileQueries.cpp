// Queries over the records in memory.
#include <algorithm>
#include <cmath>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kesp/dataset/KespFile.h"

namespace {

constexpr double kEqualWithin = 2e-12;
constexpr std::int64_t kTenThousandDays = 864000000;  // seconds

bool FlagsMatch(LogicFlag logic, std::uint32_t flags, std::uint32_t mask) {
  switch (logic) {
    case LOGIC_ALL:
      return (flags & mask) == mask;
    case LOGIC_EQUAL:
      return flags == mask;
    case LOGIC_NONE:
      return (flags & mask) == 0;
    case LOGIC_NOT_EQUAL:
      return flags != mask;
    case LOGIC_ANY:
      return (flags & mask) != 0;
    default:
      return false;
  }
}

bool TextMatches(LogicFlag logic, const CString& text, const CString& wanted) {
  switch (logic) {
    case LOGIC_ALL:
      return text.Find(wanted) >= 0;
    case LOGIC_EQUAL:
      return text.CompareNoCase(wanted) == 0;
    case LOGIC_NONE:
      return text.Find(wanted) < 0;
    case LOGIC_NOT_EQUAL:
      return text.CompareNoCase(wanted) != 0;
    case LOGIC_LESS:
      return text.CompareNoCase(wanted) < 0;
    case LOGIC_GREATER:
      return text.CompareNoCase(wanted) > 0;
    default:
      return false;
  }
}

// A difference of exactly the limit matches neither LOGIC_EQUAL nor LOGIC_NOT_EQUAL; a NaN matches nothing.
bool NumberMatches(LogicFlag logic, double number, double wanted) {
  switch (logic) {
    case LOGIC_EQUAL:
      return std::fabs(number - wanted) < kEqualWithin;
    case LOGIC_NOT_EQUAL:
      return std::fabs(number - wanted) > kEqualWithin;
    case LOGIC_LESS:
      return number < wanted;
    case LOGIC_GREATER:
      return number > wanted;
    default:
      return false;
  }
}

// A number for the name of a feature type; all types without a name have the same.
std::uint32_t NameOf(KESP_FEATURE_TYPE type) {
  return type >= KESP_FEATURE_POINT && type <= KESP_FEATURE_AREA ? std::uint32_t{type} : 0;
}

template <class Record>
Record** HandOut(const std::vector<Record*>& found, int& count) {
  auto* const array = new Record*[found.size()];
  std::copy(found.begin(), found.end(), array);
  count = static_cast<int>(found.size());
  return array;
}

template <class Record>
Record** HandOut(const std::vector<Record*>& found, int& count, ErrorEnum& error) {
  Record** const array = HandOut(found, count);
  error = found.empty() ? ERR_NOT_FOUND : ERR_NONE;
  return array;
}

// Returns the records of a class (all of them for CKespRecord) that pass the test, in the order of the range.
template <class Record, class Range, class Test>
Record** Select(const Range& range, KESP_RECORD_TYPE type, Test test, int& count, ErrorEnum& error) {
  std::vector<Record*> found;
  for (CKespRecord* entry : range) {
    if (entry == nullptr || (type != KESP_RECORD_NONE && entry->m_recordType != type)) continue;
    auto* const record = static_cast<Record*>(entry);
    if (test(*record)) found.push_back(record);
  }
  return HandOut(found, count, error);
}

template <class Record>
Record** WhereFlags(const kesp::RecordList& list, KESP_RECORD_TYPE type, LogicFlag logic, unsigned long mask,
                    int& count, ErrorEnum& error) {
  const auto mask32 = static_cast<std::uint32_t>(mask);
  return Select<Record>(
      list, type, [&](const CKespRecord& record) { return FlagsMatch(logic, record.m_flags, mask32); }, count, error);
}

// These test the feature's attribute of that name; a feature without it fails.
auto NumberTest(const CString& attribute, LogicFlag logic, double value) {
  return [=](const CKespFeature& feature) {
    const CKespAttribute* const found = feature.GetAttribute(attribute);
    return found != nullptr && NumberMatches(logic, found->Value, value);
  };
}
auto TextTest(const CString& attribute, LogicFlag logic, const CString& text) {
  return [=](const CKespFeature& feature) {
    const CKespAttribute* const found = feature.GetAttribute(attribute);
    return found != nullptr && TextMatches(logic, found->TextValue, text);
  };
}

struct FeatureArray {
  CKespFeature* const* first;
  int count;
  CKespFeature* const* begin() const { return first; }
  CKespFeature* const* end() const { return first + std::max(count, 0); }
};

}  // namespace

CKespRecord** CKespFile::GetRecordsWhereFlags(LogicFlag logic, unsigned long mask, int& count, ErrorEnum& error) const {
  return WhereFlags<CKespRecord>(m_recordList, KESP_RECORD_NONE, logic, mask, count, error);
}
CKespFeature** CKespFile::GetFeaturesWhereFlags(LogicFlag logic, unsigned long mask, int& count,
                                                ErrorEnum& error) const {
  return WhereFlags<CKespFeature>(m_recordList, KESP_RECORD_FEATURE, logic, mask, count, error);
}
CKespPoint** CKespFile::GetPointsWhereFlags(LogicFlag logic, unsigned long mask, int& count, ErrorEnum& error) const {
  return WhereFlags<CKespPoint>(m_recordList, KESP_RECORD_POINT, logic, mask, count, error);
}
CKespAttribute** CKespFile::GetAttributesWhereFlags(LogicFlag logic, unsigned long mask, int& count,
                                                    ErrorEnum& error) const {
  return WhereFlags<CKespAttribute>(m_recordList, KESP_RECORD_ATTRIBUTE, logic, mask, count, error);
}
CKespNote** CKespFile::GetNotesWhereFlags(LogicFlag logic, unsigned long mask, int& count, ErrorEnum& error) const {
  return WhereFlags<CKespNote>(m_recordList, KESP_RECORD_NOTE, logic, mask, count, error);
}
CKespTag** CKespFile::GetTagsWhereFlags(LogicFlag logic, unsigned long mask, int& count, ErrorEnum& error) const {
  return WhereFlags<CKespTag>(m_recordList, KESP_RECORD_TAG, logic, mask, count, error);
}

CKespFeature** CKespFile::GetFeaturesWhereType(LogicFlag logic, KESP_FEATURE_TYPE type, int& count,
                                               ErrorEnum& error) const {
  const auto test = [=](const CKespFeature& feature) {
    const bool same = NameOf(feature.FeatureType) == NameOf(type);
    return logic == LOGIC_EQUAL ? same : logic == LOGIC_NOT_EQUAL && !same;
  };
  return Select<CKespFeature>(m_recordList, KESP_RECORD_FEATURE, test, count, error);
}

CKespFeature** CKespFile::GetFeaturesWhereName(LogicFlag logic, CString name, int& count, ErrorEnum& error) const {
  const auto test = [&](const CKespFeature& feature) { return TextMatches(logic, feature.FeatureName, name); };
  return Select<CKespFeature>(m_recordList, KESP_RECORD_FEATURE, test, count, error);
}

CKespFeature** CKespFile::GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, double value, int& count,
                                                    ErrorEnum& error) const {
  return Select<CKespFeature>(m_recordList, KESP_RECORD_FEATURE, NumberTest(attribute, logic, value), count, error);
}

CKespFeature** CKespFile::GetFeaturesWhereAttribute(CString attribute, LogicFlag logic, CString text, int& count,
                                                    ErrorEnum& error) const {
  return Select<CKespFeature>(m_recordList, KESP_RECORD_FEATURE, TextTest(attribute, logic, text), count, error);
}

CKespFeature** CKespFile::GetFeaturesFromFeaturesWhereAttribute(CKespFeature* const* features, int featureCount,
                                                                CString attribute, LogicFlag logic, double value,
                                                                int& count, ErrorEnum& error) const {
  return Select<CKespFeature>(FeatureArray{features, featureCount}, KESP_RECORD_FEATURE,
                              NumberTest(attribute, logic, value), count, error);
}

CKespFeature** CKespFile::GetFeaturesFromFeaturesWhereAttribute(CKespFeature* const* features, int featureCount,
                                                                CString attribute, LogicFlag logic, CString text,
                                                                int& count, ErrorEnum& error) const {
  return Select<CKespFeature>(FeatureArray{features, featureCount}, KESP_RECORD_FEATURE,
                              TextTest(attribute, logic, text), count, error);
}

CKespFeature** CKespFile::JoinTwoArrays(CKespFeature* const* first, int firstCount, CKespFeature* const* second,
                                        int secondCount, int& count) const {
  const FeatureArray a{first, firstCount};
  const FeatureArray b{second, secondCount};
  std::vector<CKespFeature*> both(a.begin(), a.end());
  both.insert(both.end(), b.begin(), b.end());
  return HandOut(both, count);
}

CKespTag** CKespFile::GetStringToStringTags(CString name, int& count) {
  if (m_recordList.IsEmpty()) (void)ReadKespFile(false);
  std::vector<CKespTag*> found;
  for (CKespTag* tag : m_tagList) {
    if (tag->GetType() != KESP_TAG_STRING) continue;
    CString tagName;
    CString value;
    (void)tag->GetString(tagName, value);
    if (tagName.CompareNoCase(name) == 0) found.push_back(tag);
  }
  return HandOut(found, count);
}

ErrorEnum CKespFile::GetPoint(unsigned long pointNumber, CKespPoint*& point) const try {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  return m_pointIndex.Lookup(static_cast<std::uint32_t>(pointNumber), point) ? ERR_NONE : ERR_NOT_FOUND;
} catch (const std::bad_alloc&) {
  return ERR_MEMORY;
}

ErrorEnum CKespFile::GetFeature(unsigned long featureNumber, CKespFeature*& feature) const try {
  if (m_pDataFile == nullptr) return ERR_MEMORY;
  if (!m_pDataFile->IsOpen()) return ERR_FILE_NOT_OPEN;
  return m_featureIndex.Lookup(static_cast<std::uint32_t>(featureNumber), feature) ? ERR_NONE : ERR_NOT_FOUND;
} catch (const std::bad_alloc&) {
  return ERR_MEMORY;
}

std::uint32_t CKespFile::GetNumberOfPoints() {
  if (m_numPoints == 0) {
    for (const auto& entry : m_featureIndex) m_numPoints += static_cast<std::uint32_t>(entry.value->GetNumPoints());
  }
  return m_numPoints;
}

ErrorEnum CKespFile::GetKespDataSummary(unsigned long& numPoints, unsigned long& numFeatures, CBoundingBox& extent,
                                        CTime& firstTime, CTime& lastTime, CString& lastPointText) const {
  lastPointText.Empty();
  firstTime = CTime(CTime::GetCurrentTime().GetTime() + kTenThousandDays);
  std::tm earliest{};
  earliest.tm_year = 70;
  earliest.tm_mday = 2;
  earliest.tm_hour = earliest.tm_min = earliest.tm_sec = 1;
  earliest.tm_isdst = -1;
  lastTime = CTime(std::mktime(&earliest));
  numPoints = 0;
  numFeatures = static_cast<unsigned long>(m_featureIndex.GetCount());
  extent.Reset();

  const CKespPoint* last = nullptr;
  for (const auto& entry : m_featureIndex) {
    numPoints += static_cast<unsigned long>(entry.value->GetNumPoints());
    for (const CKespPoint* point : entry.value->m_pointList) {
      if (point == nullptr) continue;
      const CTime time(point->PointTime);
      if (time > lastTime) {
        lastTime = time;
        last = point;
      }
      if (time < firstTime) firstTime = time;
      extent.Include(point->CoordX, point->CoordY);
    }
  }
  if (last != nullptr) lastPointText = last->PointText;
  return ERR_NONE;
}

ErrorEnum CKespFile::GetKespDataSummary(std::uint32_t& numPoints, std::uint32_t& numFeatures, CBoundingBox& extent,
                                        CTime& firstTime, CTime& lastTime, CString& lastPointText) const {
  unsigned long points = 0;
  unsigned long features = 0;
  const ErrorEnum result = GetKespDataSummary(points, features, extent, firstTime, lastTime, lastPointText);
  numPoints = static_cast<std::uint32_t>(points);
  numFeatures = static_cast<std::uint32_t>(features);
  return result;
}
