// Small files with a record of every class, their bodies spelled field by field, and what a walk over them tells.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "fuzz/Reader.h"
#include "kesp/platform/Exception.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/records/KespFeatureEnd.h"
#include "tests/support/Bytes.h"
#include "tests/support/FaultySystem.h"

namespace kesp::test {

constexpr std::uint32_t kFirst = 50;  // where the records of FileHeader() start

// Bodies by class and version; they belong to feature 7.
inline ByteVector FeatureBody1() { return Hex("07 00*3 'Oak' 00*19 01 00 11 22 33 00 05 00"); }
inline ByteVector FeatureBody3() { return Hex("07 00*3 \"Oak\" 00*506 02 00 11 22 33 00 05 00"); }
inline ByteVector PointBody1() { return Hex("07 00*3 03 00*3 'A1' 00*20 00*36 04 00"); }
inline ByteVector PointBody2() { return Hex("07 00*3 03 00*3 \"A1\" 00*38 00*36 04 00 00*20"); }
inline ByteVector HeaderBody1() { return Hex("00*10 'Job' 00*18 00*256 00*256 00*256 00*128 00"); }
inline ByteVector EndBody(std::uint32_t feature) {
  ByteVector body;
  Append(body, feature, 4);
  return body;
}
inline ByteVector AttributeBody1() { return Hex("07 00*3 'Girth' 00*17 01 00 'thick' 00*36 00*21 00*24 02 00 00*22"); }
inline ByteVector NoteBody1() { return Hex("'rain' 00*252"); }
inline ByteVector NoteBody2() { return Hex("\"rain\" 00*504"); }
// Kind integer, a block of 16: the name "d" in 4 bytes, a payload of 4.
inline ByteVector TagBody() { return Hex("01 00*3 10 00*3 04 00*3 \"d\" 00 00 04 00*3 2a 00*3"); }

struct Stored {
  std::uint32_t type;
  std::uint16_t version;
  ByteVector body;
  ByteVector Bytes(std::uint32_t flags = 0) const { return Record(type, version, flags, body); }
};
inline std::vector<Stored> EveryClass() {
  return {{3, 1, HeaderBody1()}, {1, 1, FeatureBody1()}, {2, 1, PointBody1()}, {5, 1, AttributeBody1()},
          {4, 1, EndBody(7)},    {6, 1, NoteBody1()},    {9, 2, TagBody()},    {1, 3, FeatureBody3()},
          {2, 2, PointBody2()},  {6, 2, NoteBody2()}};
}

inline void PrintTo(const Walked& walked, std::ostream* out) {
  *out << "records at";
  for (const auto position : walked.positions) *out << ' ' << position;
  *out << ", error " << walked.error << (walked.raised ? ", raised" : "");
}
// The rest of the file from where it stands.
inline Walked WalkOn(CKespDataFile& file, bool skipDeleted = false) {
  Walked walked;
  std::uint32_t position = 0;
  try {
    while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(position, skipDeleted)}) {
      EXPECT_EQ(record->m_filePosition, position);
      walked.positions.push_back(position);
    }
    walked.error = file.GetError();
  } catch (const CFileException&) {
    walked.raised = true;
  }
  return walked;
}
inline Walked Walk(const std::filesystem::path& path, bool skipDeleted = false) {
  CKespDataFile file;
  EXPECT_TRUE(file.OpenReadOnly(Text(path)) && file.SeekToFirstRecord()) << file.GetErrorString().ToUtf8();
  return WalkOn(file, skipDeleted);
}

inline CKespFeatureEnd EndRecord(std::uint32_t feature) {
  CKespFeatureEnd end;
  end.FeatureNumber = feature;
  return end;
}
// And as it stands in the file: 18 bytes.
inline ByteVector EndOf(std::uint32_t feature, std::uint32_t flags = 0) {
  return Record(4, 1, flags, EndBody(feature));
}

inline ByteVector WithLength(ByteVector record, std::uint32_t length) {  // stated in its header
  for (std::size_t i = 0; i < 4; ++i) record[10 + i] = static_cast<std::uint8_t>(length >> 8 * i);
  return record;
}
inline ByteVector Part(const ByteVector& bytes, std::size_t from, std::size_t to = SIZE_MAX) {
  const auto at = [&](std::size_t i) { return bytes.begin() + static_cast<std::ptrdiff_t>(std::min(i, bytes.size())); };
  return {at(from), at(to)};
}

// A test with a file of its own.
class OneFile : public testing::Test {
 protected:
  void Put(const ByteVector& records) {
    file.Close();
    WriteFile(path, FileHeader() + records);
  }
  void Open(const ByteVector& records, bool readOnly = false) {
    Put(records);
    ASSERT_TRUE(readOnly ? file.OpenReadOnly(Text(path)) : file.Open(Text(path)));
  }
  ByteVector Records() const {  // what stands behind the file's header
    const ByteVector bytes = ReadFile(path);
    return {bytes.begin() + kFirst, bytes.end()};
  }
  const TempDir dir;
  const std::filesystem::path path = dir / "a.kesp";
  CKespDataFile file;
};

}  // namespace kesp::test
