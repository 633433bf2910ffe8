// A file that record bodies are written to and read from.
#pragma once
#include "kesp/platform/File.h"
#include "kesp/records/KespRecord.h"
#include "tests/support/Bytes.h"

namespace kesp::test {

struct Scratch {
  void Fill(const ByteVector& bytes) {
    file.SetLength(0);
    file.SeekToBegin();
    file.Write(bytes.data(), bytes.size());
    file.SeekToBegin();
  }
  bool Read(CKespRecord& record, const ByteVector& bytes) {
    Fill(bytes);
    return record.Read(file);
  }
  ByteVector Body(CKespRecord& record, unsigned short version, unsigned long sourceFlag = 0) {
    Fill({});
    written = record.Write(file, sourceFlag, version);
    return ReadFile(m_dir / "body");
  }

  TempDir m_dir;
  CFile file{Text(m_dir / "body"), CFile::modeReadWrite | CFile::modeCreate};
  bool written = false;  // what the last Write returned
};

}  // namespace kesp::test
