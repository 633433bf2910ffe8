// The library against a folder of samples: KESP_SAMPLES in the environment, or the one beside the sources. Beside
// NAME.kesp is the JSON that the tool must make of it, NAME.records.jsonl and its like.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// The parser takes no lone surrogates, so every surrogate's escape becomes the text that spells it.
std::string SpellSurrogates(std::string text) {
  for (std::size_t at = 0; (at = text.find('\\', at)) != std::string::npos; at += 2) {
    const bool isSurrogate =
        at + 5 < text.size() && text[at + 1] == 'u' && (text[at + 2] | 0x20) == 'd' && text[at + 3] >= '8';
    if (!isSurrogate) continue;
    for (std::size_t digit = at + 2; digit < at + 6; ++digit)
      text[digit] = static_cast<char>(std::tolower(text[digit]));
    text.insert(at, 1, '\\');
  }
  return text;
}

// The documents of a text, one on each line or one over several. As values and as texts, since 1 and 1.0 are equal as
// values.
std::vector<std::pair<json, std::string>> Parse(const std::string& text) {
  const std::string spelled = SpellSurrogates(text);
  std::istringstream in(json::accept(spelled) ? json::parse(spelled).dump() : spelled);
  std::vector<std::pair<json, std::string>> documents;
  for (std::string line; std::getline(in, line);) {
    json value = json::parse(line, nullptr, false);
    documents.emplace_back(value, value.dump());
  }
  return documents;
}

class Samples : public testing::Test {
 protected:
  void SetUp() override {
    const char* const given = std::getenv("KESP_SAMPLES");
    folder = given != nullptr ? given : KESP_SAMPLES_DEFAULT;
    if (!fs::is_directory(folder)) GTEST_SKIP() << "no samples in " << folder;
  }
  fs::path folder;
};

TEST_F(Samples, Agree) {
  const struct {
    std::vector<std::string> command;
    const char* ending;
  } kCases[] = {{{"dump", "--records"}, ".records.jsonl"},
                {{"dump", "--include-deleted"}, ".records-all.jsonl"},
                {{"dump", "--dataset"}, ".dataset.json"},
                {{"dump", "--dataset", "--include-deleted"}, ".dataset-all.json"}};
  for (const auto& c : kCases) {
    std::size_t compared = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
      fs::path wanted = entry.path();
      if (wanted.extension() != ".kesp" || !fs::exists(wanted.replace_extension(c.ending))) continue;
      SCOPED_TRACE(wanted.string());
      std::vector<std::string> arguments = c.command;
      arguments.push_back(entry.path().string());
      const ToolResult result = RunTool(arguments);
      const auto got = Parse(result.out), want = Parse(TextOf(wanted));
      for (std::size_t i = 0; i < std::min(got.size(), want.size()); ++i) {
        ASSERT_TRUE(got[i] == want[i]) << "document " << i + 1 << ": "
                                       << json::diff(want[i].first, got[i].first).dump();
      }
      ASSERT_EQ(got.size(), want.size());
      EXPECT_EQ(result.err.empty(), result.status == 0) << result.err;
      ++compared;
    }
    EXPECT_GT(compared, 0u) << "no " << c.ending << " in " << folder;
  }
}

}  // namespace
}  // namespace kesp::test
