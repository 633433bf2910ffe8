// kesp find walks over a file without a data set. It has to find what is found in one.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "kesp/search/KespSearch.h"
#include "tests/dataset/DataSet.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

using nlohmann::json;

// What is asked, as options and as a filter with what a feature must have besides.
struct Question {
  std::string options;
  CKespSearch search{};
  int bits = 0;
  bool needsPoint = false;
  const char* needsAttribute = nullptr;
};
CKespSearch Naming(const char* attribute, CKespSearch search) {
  return search.SetAttributeNameFilter(attribute), search;
}
std::vector<Question> Questions() {
  std::vector<Question> questions{
      {"", {}},
      {"--name Oak", {}},
      {"--type area", {}, SEARCH_AREA_FEATURES},
      {"--attribute K --value x", Naming("K", CKespSearch("x")), 0, false, "K"},
      {"--value X --ignore-case --invert", CKespSearch("x"), SEARCH_IGNORE_CASE, false, ""},
      {"--area 2,2,5,5", {}, SEARCH_IN_AREA, true},
      {"--point-text b --from 1970-01-01T00:16:40Z", {}, SEARCH_TIME_RANGE, true},
      {"--area 2,2,5,5 --value y --include-empty", CKespSearch("y"), SEARCH_IN_AREA},
  };
  for (Question& question : questions) {
    question.search.Enable(true);
    question.search.SetAreaFilter({2, 2, 5, 5});
    question.search.SetTimeRangeFilter(1000, std::numeric_limits<std::int64_t>::max());
    question.search.SetSearchOptions(question.bits);
  }
  questions[1].search.FeatureNameFilterAdd("Oak");
  questions[4].search.SetInverted(true);
  questions[6].search.SetPointNameFilter("b");
  return questions;
}

// Few numbers, so that they come again, and records in any order. Tags may mark a feature as deleted.
ByteVector MixedSurvey(Random& random) {
  ByteVector bytes = FileHeader() + ByteVector(Header2{.kespVersion = 3});
  for (std::uint32_t i = 0; i < 80; ++i) {
    const std::uint32_t number = 1 + random(5), flags = random(6) == 0 ? 1 : 0;
    const auto version = [&](unsigned newest) { return static_cast<std::uint16_t>(1 + random(newest)); };
    const unsigned kind = random(10);
    if (kind < 2) {
      Append(bytes, Feature(number, random(2) == 0 ? "Oak" : "Elm", flags, version(3), version(3)));
    } else if (kind < 6) {
      const double x = random(8), y = random(8);
      const std::int32_t time = 500 * static_cast<std::int32_t>(random(4));
      Append(bytes,
             Point(number, i, {.time = time, .x = x, .y = y, .text = random(2) == 0 ? "a" : "b"}, flags, version(2)));
    } else if (kind < 8) {
      Append(bytes, Attribute(number, random(2) == 0 ? "K" : "L", random(2) == 0 ? "x" : "y", flags, version(3)));
    } else if (kind == 8) {
      Append(bytes, random(2) == 0 ? EndOf(number, flags) : Record(200, 1, 0, Hex("00")));
    } else {
      Append(bytes, Tag(13, random(4) == 0 ? "Other" : "featurechanges", Words({number, 8 + random(2)}), flags));
    }
  }
  return bytes;
}

json Shown(const CKespFeature& feature) {
  json shown{
      {"number", feature.FeatureNumber}, {"name", feature.FeatureName.ToUtf8()}, {"deleted", feature.IsDeleted()}};
  for (const CKespPoint* const p : feature.m_pointList) shown["points"].push_back({p->PointNumber, p->IsDeleted()});
  for (const CKespAttribute* const a : feature.m_attributeList) {
    shown["attributes"].push_back({a->AttributeName.ToUtf8(), a->TextValue.ToUtf8(), a->IsDeleted()});
  }
  return shown;
}
json Shown(const json& line) {
  json shown{{"number", line["number"]}, {"name", line["name"]}, {"deleted", line["deleted"]}};
  for (const json& p : line["points"]) shown["points"].push_back({p["number"], p["deleted"]});
  for (const json& a : line["attributes"]) shown["attributes"].push_back({a["name"], a["value"], a["deleted"]});
  return shown;
}

bool IsFound(const CKespFeature& feature, Question& question) {
  const auto isNeeded = [&](const CKespAttribute* attribute) {
    return *question.needsAttribute == 0 || attribute->AttributeName == question.needsAttribute;
  };
  return question.search.Validate(&feature) && (!question.needsPoint || feature.GetNumPoints() != 0) &&
         (question.needsAttribute == nullptr ||
          std::any_of(feature.m_attributeList.begin(), feature.m_attributeList.end(), isNeeded));
}

TEST_F(Tool, FindsWhatIsInADataSet) {
  Random random(20240229);
  std::size_t found = 0;
  for (unsigned round = 0; round < 12; ++round) {
    ByteVector bytes = MixedSurvey(random);
    if (round % 3 == 1) bytes.resize(bytes.size() - random(4000));
    if (round % 3 == 2) bytes[bytes.size() - 1 - random(4000)] ^= 1;
    WriteFile(dir / "a", bytes);
    const bool includesDeleted = round % 2 == 1;
    CKespFile dataset;
    CString message;
    ASSERT_EQ(dataset.OpenKespReadOnly(Text(dir / "a"), message), ERR_NONE);
    (void)dataset.ReadKespFile(includesDeleted);
    for (Question& question : Questions()) {
      const std::string options = " @a " + question.options + (includesDeleted ? " --include-deleted" : "");
      std::vector<json> wanted;
      std::string rows;
      for (const CKespRecord* const record : dataset.m_recordList) {
        const auto* const feature = dynamic_cast<const CKespFeature*>(record);
        if (feature == nullptr || !IsFound(*feature, question)) continue;
        wanted.push_back(Shown(*feature));
        rows += std::to_string(feature->FeatureNumber) + ' ' + std::to_string(feature->GetNumPoints()) + ' ' +
                std::to_string(feature->GetNumAttributes()) + ' ' + feature->FeatureName.ToUtf8() + '\n';
      }
      std::vector<json> got;
      std::istringstream lines(Run("find --json" + options).out);
      for (std::string line; std::getline(lines, line);) got.push_back(json::parse(line));
      ASSERT_EQ(got.size(), wanted.size() + 1) << options;
      EXPECT_EQ(got.back()["found"], wanted.size());
      for (std::size_t i = 0; i < wanted.size(); ++i) EXPECT_EQ(Shown(got[i]), wanted[i]) << options;

      std::istringstream table(Run("find" + options).out);
      std::string number, type, points, attributes, time, name, shown;
      std::getline(table, name);  // the heads
      while (table >> number >> type >> points >> attributes >> time >> name) {
        shown += number + ' ' + points + ' ' + attributes + ' ' + name + '\n';
      }
      EXPECT_EQ(shown, rows) << options;
      found += wanted.size();
    }
  }
  EXPECT_GT(found, 200U);
}

}  // namespace
}  // namespace kesp::test
