// A file of records, and what a walk over it tells.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "fuzz/Reader.h"
#include "kesp/platform/Exception.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/records/KespFeatureEnd.h"

#include "tests/support/FaultySystem.h"
#include "tests/support/Records.h"

namespace kesp::test {

inline void PrintTo(const Walked& walked, std::ostream* out) {
  *out << "records at";
  for (const auto position : walked.positions) *out << ' ' << position;
  *out << ", error " << walked.error << (walked.raised ? ", raised" : "");
}
// The rest of the file from the current position on.
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
  // Also far beyond the end, after a hole.
  void PutAt(std::uint64_t at, const ByteVector& bytes) const {
    std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(static_cast<std::streamoff>(at))
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  ByteVector Records() const { return Part(ReadFile(path), kFirst); }
  const TempDir dir;
  const std::filesystem::path path = dir / "a.kesp";
  CKespDataFile file;
};

}  // namespace kesp::test
