// A data set of a file of given bytes, and the names of the records in it.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "kesp/dataset/KespFile.h"
#include "tests/support/Records.h"

struct CKespFileTestAccess {
  static void DeletePoint(CKespFile& file, CKespPoint* point) { file.DeletePoint(point); }
  static int DeletePointInFeature(CKespFile& file, CKespPoint* point, CKespFeature* feature) {
    return file.DeletePointInFeature(point, feature);
  }
};

namespace kesp::test {

struct Random : std::mt19937 {
  using std::mt19937::mt19937;
  unsigned operator()(unsigned below) { return static_cast<unsigned>(std::mt19937::operator()() % below); }
};

// "H F7 P7/3 A7:Girth E7 N:rain T3"
inline std::string Name(const CKespRecord* record) {
  if (record == nullptr) return "null";
  if (const auto* const f = dynamic_cast<const CKespFeature*>(record)) return "F" + std::to_string(f->FeatureNumber);
  if (const auto* const p = dynamic_cast<const CKespPoint*>(record))
    return "P" + std::to_string(p->FeatureNumber) + "/" + std::to_string(p->PointNumber);
  if (const auto* const a = dynamic_cast<const CKespAttribute*>(record))
    return "A" + std::to_string(a->FeatureNumber) + ":" + a->AttributeName.ToUtf8();
  if (const auto* const e = dynamic_cast<const CKespFeatureEnd*>(record)) return "E" + std::to_string(e->FeatureNumber);
  if (const auto* const n = dynamic_cast<const CKespNote*>(record)) return "N:" + n->NoteText.ToUtf8();
  if (const auto* const t = dynamic_cast<const CKespTag*>(record)) return "T" + std::to_string(t->GetType());
  return "H";
}
template <class Range>
std::string Names(const Range& records) {
  std::string names;
  for (const CKespRecord* record : records) names += (names.empty() ? "" : " ") + Name(record);
  return names;
}
// Of the array that a query returned, which is deleted here.
template <class RecordType>
std::string Names(RecordType** array, int count) {
  EXPECT_NE(array, nullptr);
  const std::unique_ptr<RecordType*[]> own(array);
  return Names(std::span<RecordType*>(array, static_cast<std::size_t>(count)));
}
enum class Then { Open, Read };
// A data set and a file of the given bytes, opened, and read where that is asked for.
class DataSet {
 public:
  explicit DataSet(const ByteVector& bytes, Then then = Then::Open) {
    WriteFile(path, bytes);
    (void)file.OpenKesp(Text(path), message);
    EXPECT_TRUE(then == Then::Open || file.ReadKespFile(false) == ERR_NONE);
  }
  CKespFeature* Feature(std::uint32_t number) const { return *file.m_featureIndex.Find(number); }
  CKespPoint* Point(std::uint32_t number) const { return *file.m_pointIndex.Find(number); }

  TempDir dir;
  std::filesystem::path path = dir / "survey.kesp";
  CString message;
  CKespFile file;
};

}  // namespace kesp::test
