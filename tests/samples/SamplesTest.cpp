// The tool's JSON against that of a folder of samples: KESP_SAMPLES in the environment, or the one beside the sources.
// Beside NAME.kesp stands what must come out of it, NAME.records.jsonl and its like.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
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

// The documents of a text, one on each line. As values and as texts, since 1 and 1.0 are equal as values.
std::vector<std::pair<json, std::string>> Parse(const std::string& text) {
  std::vector<std::pair<json, std::string>> documents;
  std::istringstream in(SpellSurrogates(text));
  for (std::string line; std::getline(in, line);) {
    json value = json::parse(line, nullptr, false);
    documents.emplace_back(value, value.dump());
  }
  return documents;
}

int StatusOfRecords(const json& last) { return last["end"]["error"] == 1 ? 0 : last["end"]["error"] == 7 ? 2 : 1; }
int StatusOfDataset(const json& whole) {
  const int result = whole["result"];
  return result == ERR_NONE || result == ERR_OLD_VERSION ? 0 : result == ERR_FILE_NOT_OPEN ? 2 : 1;
}

// Runs the tool over each sample that has a file of this ending beside it, with what must come out.
void CompareAll(const std::vector<std::string>& command, const std::string& ending, int (*statusOf)(const json&)) {
  const char* const given = std::getenv("KESP_SAMPLES");
  const fs::path folder = given != nullptr ? given : KESP_SAMPLES_DEFAULT;
  if (!fs::is_directory(folder)) GTEST_SKIP() << "no samples in " << folder;
  std::size_t compared = 0;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    fs::path wanted = entry.path();
    if (wanted.extension() != ".kesp" || !fs::exists(wanted.replace_extension(ending))) continue;
    SCOPED_TRACE(wanted.string());
    std::vector<std::string> arguments = command;
    arguments.push_back(entry.path());
    const ToolResult got = RunTool(arguments);
    const auto gotDocuments = Parse(got.out);
    // A document may be laid out over lines.
    const std::string text = TextOf(wanted);
    const bool isOne = json::accept(SpellSurrogates(text));
    const auto wantDocuments = isOne ? Parse(json::parse(SpellSurrogates(text)).dump()) : Parse(text);
    for (std::size_t i = 0; i < std::min(gotDocuments.size(), wantDocuments.size()); ++i) {
      ASSERT_TRUE(gotDocuments[i] == wantDocuments[i])
          << "document " << i + 1 << ": " << json::diff(wantDocuments[i].first, gotDocuments[i].first).dump();
    }
    ASSERT_EQ(gotDocuments.size(), wantDocuments.size());
    const int status = statusOf(wantDocuments.back().first);
    // A file that holds nothing can't always be told from one that can't be opened.
    EXPECT_TRUE(got.status == status || (got.status == 2 && status == 1 && wantDocuments.size() == 1)) << got.status;
    EXPECT_EQ(got.err.empty(), status == 0) << got.err;
    ++compared;
  }
  EXPECT_GT(compared, 0u) << "no " << ending << " in " << folder;
}

TEST(Samples, RecordsAgree) {
  CompareAll({"dump", "--records"}, ".records.jsonl", StatusOfRecords);
  CompareAll({"dump", "--include-deleted"}, ".records-all.jsonl", StatusOfRecords);
}

TEST(Samples, DatasetsAgree) {
  CompareAll({"dump", "--dataset"}, ".dataset.json", StatusOfDataset);
  CompareAll({"dump", "--dataset", "--include-deleted"}, ".dataset-all.json", StatusOfDataset);
}

}  // namespace
}  // namespace kesp::test
