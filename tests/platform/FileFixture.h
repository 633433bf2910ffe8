// A file in a folder of its own, and what the tests of files ask of it.
#pragma once
#include <gtest/gtest.h>

#include "kesp/platform/File.h"
#include "tests/support/Bytes.h"
#include "tests/support/FaultySystem.h"

namespace kesp::test {

using Fault = FaultySystem::Fault;
constexpr unsigned kReader = CFile::modeRead;
constexpr unsigned kWriter = CFile::modeReadWrite | CFile::shareDenyWrite;
constexpr unsigned kCreator = kWriter | CFile::modeCreate;

// The cause of what `run` raises; none when it raises nothing.
template <class Run>
CFileException::Cause CauseOf(Run run) {
  try {
    run();
  } catch (const CFileException& error) {
    return error.m_cause;
  }
  return CFileException::none;
}
inline std::string ReadText(CFile& file, std::size_t count) {
  std::string text(count, '?');
  text.resize(file.Read(text.data(), count));
  return text;
}

class FileFixture : public testing::Test {
 protected:
  const TempDir dir;
  const std::filesystem::path path = dir / "file";
  const CString name = Text(path);
};

}  // namespace kesp::test
