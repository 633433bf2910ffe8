// The tool's JSON against that of a folder of samples: KESP_SAMPLES in the environment, or the one beside the sources.
// Beside NAME.kesp stands what must come out of it, NAME.records.jsonl and its like.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "kesp/dataset/ErrorEnum.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string TextOf(const fs::path& path) {
  const ByteVector bytes = ReadFile(path);
  return {bytes.begin(), bytes.end()};
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The parser takes no lone surrogates, so every surrogate's escape becomes the text that spells it.
std::string SpellSurrogates(const std::string& text) {
  std::string spelled;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      const bool isSurrogate =
          i + 5 < text.size() && text[i + 1] == 'u' && (text[i + 2] | 0x20) == 'd' && text[i + 3] >= '8';
      spelled += isSurrogate ? "\\\\" : "\\";
      spelled += isSurrogate ? 'u' : text[i + 1];
      ++i;
      if (!isSurrogate) continue;
      for (int digit = 0; digit < 4; ++digit) spelled += static_cast<char>(std::tolower(text[++i]));
    } else {
      spelled += text[i];
    }
  }
  return spelled;
}

json Parse(const std::string& text) { return json::parse(SpellSurrogates(text), nullptr, false); }

// Says where the first difference is, not what the whole documents are.
void ExpectSameLines(const std::string& got, const std::string& want) {
  const std::vector<std::string> gotLines = LinesOf(got);
  const std::vector<std::string> wantLines = LinesOf(want);
  for (std::size_t i = 0; i < std::min(gotLines.size(), wantLines.size()); ++i) {
    const json gotValue = Parse(gotLines[i]);
    const json wantValue = Parse(wantLines[i]);
    ASSERT_FALSE(gotValue.is_discarded()) << "line " << i + 1 << " is no JSON: " << gotLines[i];
    // Compared as text too, since 1 and 1.0 are equal as values.
    ASSERT_TRUE(gotValue == wantValue && gotValue.dump() == wantValue.dump())
        << "line " << i + 1 << ": " << json::diff(wantValue, gotValue).dump();
  }
  EXPECT_EQ(gotLines.size(), wantLines.size());
}

// One way to call the tool, and the ending of the files that have what it must answer.
struct Mode {
  std::vector<std::string> arguments;
  std::string ending;
  std::function<void(const ToolResult& got, const std::string& want)> compare;
};

void CompareRecords(const ToolResult& got, const std::string& want) {
  ExpectSameLines(got.out, want);
  const std::vector<std::string> lines = LinesOf(want);
  ASSERT_FALSE(lines.empty());
  const bool isWhole = Parse(lines.back())["end"]["error"] == 1;
  if (isWhole) {
    EXPECT_EQ(got.status, 0);
  } else {
    // A file that holds nothing can't always be told from one that can't be opened.
    EXPECT_TRUE(got.status == 1 || (got.status == 2 && lines.size() == 1)) << "exit status " << got.status;
  }
  EXPECT_EQ(got.err.empty(), isWhole) << got.err;
}

void CompareDataset(const ToolResult& got, const std::string& want) {
  // Texts are compared too, since 1 and 1.0 are equal as values.
  const json gotValue = Parse(got.out);
  const json wantValue = Parse(want);
  ASSERT_FALSE(gotValue.is_discarded()) << got.out.substr(0, 1000);
  ASSERT_TRUE(gotValue == wantValue && gotValue.dump() == wantValue.dump()) << json::diff(wantValue, gotValue).dump();
  const int result = wantValue["result"];
  const bool isComplete = result == ERR_NONE || result == ERR_OLD_VERSION;
  EXPECT_EQ(got.status, isComplete ? 0 : result == ERR_FILE_NOT_OPEN ? 2 : 1);
  EXPECT_EQ(got.err.empty(), isComplete) << got.err;
}

void CompareAll(const Mode& mode) {
  const char* const given = std::getenv("KESP_SAMPLES");
  const fs::path folder = given != nullptr ? given : KESP_SAMPLES_DEFAULT;
  if (!fs::is_directory(folder)) GTEST_SKIP() << "no samples in " << folder;
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.path().extension() == ".kesp") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::size_t compared = 0;
  for (const fs::path& file : files) {
    fs::path wanted = file;
    wanted.replace_extension(mode.ending);
    if (!fs::exists(wanted)) continue;
    SCOPED_TRACE(wanted.string());
    std::vector<std::string> arguments = mode.arguments;
    arguments.push_back(file);
    mode.compare(RunTool(arguments), TextOf(wanted));
    ++compared;
  }
  EXPECT_GT(compared, 0u) << "no " << mode.ending << " in " << folder;
}

TEST(Samples, RecordsAgree) { CompareAll({{"dump", "--records"}, ".records.jsonl", CompareRecords}); }

TEST(Samples, RecordsWithDeletedOnesAgree) {
  CompareAll({{"dump", "--include-deleted"}, ".records-all.jsonl", CompareRecords});
}

TEST(Samples, DatasetsAgree) { CompareAll({{"dump", "--dataset"}, ".dataset.json", CompareDataset}); }

TEST(Samples, DatasetsWithDeletedRecordsAgree) {
  CompareAll({{"dump", "--dataset", "--include-deleted"}, ".dataset-all.json", CompareDataset});
}

}  // namespace
}  // namespace kesp::test
