#include "kesp/search/KespSearch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespPoint.h"

// Counts what is taken from the heap.
static int allocations = 0;
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++allocations;
  return std::malloc(size);
}
void* operator new(std::size_t size) {
  if (void* const memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr int kAll = SEARCH_POINT_FEATURES | SEARCH_LINE_FEATURES | SEARCH_AREA_FEATURES;
constexpr int kFold = SEARCH_IGNORE_CASE, kPart = SEARCH_PARTIAL_MATCH, kBoth = kFold | kPart;
constexpr int kTime = SEARCH_TIME_RANGE, kArea = SEARCH_IN_AREA;

void AddPoint(CKespFeature& feature, const char* text, std::int32_t time = 0, double x = 0, double y = 0) {
  auto* const point = new CKespPoint;
  point->PointText = text, point->PointTime = time, point->CoordX = x, point->CoordY = y;
  feature.AddPoint(point);
}

CKespAttribute Attribute(int kind, const char* text, const char* sub, double value, const char* name = "Kind") {
  CKespAttribute attribute;
  attribute.AttributeName = name, attribute.AttributeKind = kind, attribute.Value = value;
  attribute.TextValue = text, attribute.SubValue = sub;
  return attribute;
}

TEST(KespSearch, ADisabledFilterTakesEverything) {
  CKespSearch search;
  search.SetSearchOptions(0);
  for (const int kind : {SEARCH_VALUE_NONE, SEARCH_VALUE_NUMBER, SEARCH_VALUE_TEXT}) {
    search.m_valueKind = kind;
    for (const bool enabled : {false, true}) {
      search.Enable(enabled);
      const bool takes = !enabled || kind == SEARCH_VALUE_NONE;
      EXPECT_TRUE(search.Validate(7.0) == takes && search.Validate("x") == takes);
      EXPECT_EQ(search.Validate(static_cast<CKespAttribute*>(nullptr)), takes);
      EXPECT_EQ(search.Validate(static_cast<CKespFeature*>(nullptr)), !enabled);
    }
  }
}

TEST(KespSearch, AnAttributeIsAskedByItsKind) {
  const CKespSearch oak("Oak"), red("Red"), wide(0, 1e6), number(45000, 1e6);
  const struct {
    int kind;
    CKespSearch search;
    bool plain, inverted;
    // clang-format off
  } cases[] = {
      {1, oak, true, false}, {1, red, false, true}, {1, wide, false, false},
      {2, number, true, false}, {2, CKespSearch(0, 1), false, true}, {2, CKespSearch("45000"), false, false},
      {3, oak, true, true}, {3, red, true, true}, {3, CKespSearch("Oak/Red"), false, true},
      {4, CKespSearch("03/15/2023"), true, false}, {4, wide, false, false}, {5, oak, false, false},
      // A range has its ends either way round; nothing compares with a NaN.
      {2, CKespSearch(45001, 45000), true, false}, {2, CKespSearch(45000, 44999), true, false},
      {2, CKespSearch(45001, 45002), false, true}, {2, CKespSearch(44999, 44998), false, true},
      {2, CKespSearch(kNaN, 45000), true, false}, {2, CKespSearch(kNaN, 45001), false, true},
      {2, CKespSearch(44999, kNaN), true, false},
  };
  // clang-format on
  for (auto c : cases) {
    const CKespAttribute attribute = Attribute(c.kind, "Oak", "Red", 45000);
    EXPECT_EQ(c.search.Validate(&attribute), c.plain) << c.kind << c.search.m_searchText.ToUtf8();
    c.search.SetInverted(true);
    EXPECT_EQ(c.search.Validate(&attribute), c.inverted) << c.kind << c.search.m_searchText.ToUtf8();
  }
  CKespSearch positive(1, 5);
  EXPECT_FALSE(positive.Validate(0));  // a number, not a null pointer
  EXPECT_TRUE(positive.Validate(5) && positive.Validate(5u) && positive.Validate(5L) && positive.Validate(kNaN));
}

TEST(KespSearch, ATextMustEqualOrContainTheWantedOne) {
  // The neighbours of a to z are not folded, nor is anything above them.
  const struct {
    int options;
    const char* wanted;
    std::vector<const char*> matching, others;
    // clang-format off
  } cases[] = {
      {0, "ABC", {"ABC"}, {"abc", "ABCD", "AB", ""}},
      {kFold, "AZaz`{\u00E4", {"azAZ`{\u00E4"}, {"AZaz@{\u00E4", "AZaz`[\u00E4", "AZaz`{\u00C4", "azAZ`{\u00E4x"}},
      {kPart, "ABC", {"ABC", "xABABCx"}, {"xabcx", "AB", ""}}, {kBoth, "ABC", {"xabcxx", "abaBc"}, {"xabx", ""}},
      {0, "", {}, {"x"}}, {kBoth, "", {"x"}, {}}, {kPart, "", {"x"}, {}},
  };
  // clang-format on
  for (const auto& c : cases) {
    CKespSearch search(c.wanted);
    search.SetSearchOptions(c.options);
    for (const bool inverted : {false, true}) {
      search.SetInverted(inverted);
      for (const char* text : c.matching) EXPECT_EQ(search.Validate(text), !inverted) << c.wanted << ' ' << text;
      for (const char* text : c.others) EXPECT_EQ(search.Validate(text), inverted) << c.wanted << ' ' << text;
    }
  }
}

TEST(KespSearch, AFeatureNeedsAWantedTypeAndName) {
  CKespFeature feature;
  feature.FeatureName = "Tree";
  CKespSearch search;
  search.Enable(true);
  search.SetInverted(true);  // of no account here
  for (std::uint32_t type = 0; type <= 4; ++type) {
    feature.FeatureType = static_cast<KESP_FEATURE_TYPE>(type);
    for (int options = 1; options <= kAll; ++options) {
      search.SetSearchOptions(options);
      EXPECT_EQ(search.Validate(&feature), type < 1 || type > 3 || (options >> (type - 1) & 1)) << type << options;
    }
    search.SetSearchOptions(kFold);
    EXPECT_TRUE(search.Validate(&feature) && search.GetSearchOptions() == (kAll | kFold)) << "no type means all";
  }
  EXPECT_TRUE(search.FeatureNameRemove("TREE")) << "there is none";
  for (const char* name : {"TREE", "Oak"}) search.FeatureNameFilterAdd(name);
  EXPECT_FALSE(search.Validate(&feature));
  search.FeatureNameFilterAdd("Tree");
  EXPECT_TRUE(search.Validate(&feature));
  EXPECT_TRUE(search.FeatureNameRemove("TREE"));
  EXPECT_EQ(search.m_featureNames, (std::vector<CString>{"TREE", "Tree"})) << "the others go";
}

TEST(KespSearch, OnePointMustMeetTextTimeAndArea) {
  CKespFeature feature, bare, broken;
  AddPoint(feature, "start", -10, 1, 1);
  AddPoint(feature, "Gate 7", 100, 50, 60);
  AddPoint(feature, "", 200, 5, 6);
  AddPoint(feature, "end", 300, kNaN, 0);
  broken.AddPoint(nullptr);
  const struct {
    const char* text;
    int options;
    std::int64_t start, end;
    CRect2D area;
    bool passes;
    // clang-format off
  } cases[] = {
      // By text alone.
      {"start", 0, 0, 0, {}, true}, {"START", kPart, 0, 0, {}, false}, {"START", kFold, 0, 0, {}, true},
      {"gate", kFold, 0, 0, {}, false}, {"gate", kBoth, 0, 0, {}, true},
      // By time or area alone; without its sign, -10 would be 4294967286.
      {"", kTime, -10, -10, {}, true}, {"", kTime, -9, 99, {}, false}, {"", kTime, 4294967286, 4294967286, {}, false},
      {"", kArea, 0, 0, {50, 60, 51, 61}, true}, {"", kArea, 0, 0, {51, 60, 52, 61}, false},
      // Both by one point, not by two; the text may have come earlier, not later.
      {"", kTime | kArea, 200, 200, {0, 0, 9, 9}, true}, {"", kTime | kArea, 100, 100, {0, 0, 9, 9}, false},
      {"Gate 7", kTime | kArea, 200, 200, {5, 6, 5, 6}, true}, {"Gate 7", kTime | kArea, -10, -10, {1, 1, 1, 1}, false},
      {"", 0, 999, 999, {8, 8, 8, 8}, true},  // a range without its option is not asked for
  };
  // clang-format on
  for (const auto& c : cases) {
    CKespSearch search;
    search.Enable(true);
    search.SetSearchOptions(kAll | c.options);
    search.SetPointNameFilter(c.text);
    search.SetTimeRangeFilter(c.start, 0);
    search.SetEndTimeRangeFilter(c.end);
    search.SetAreaFilter(c.area);
    EXPECT_EQ(search.Validate(&feature), c.passes) << c.text << ' ' << c.options << ' ' << c.start;
    EXPECT_TRUE(search.Validate(&bare) && (search.Validate(&broken) == (*c.text == 0 && c.options == 0)));
  }
}

TEST(KespSearch, OneAttributeOfTheWantedNameMustHaveTheValue) {
  CKespFeature feature, bare;
  feature.AddAttribute(nullptr);
  for (const char* text : {"Oak", "Elm"}) feature.AddAttribute(new CKespAttribute(Attribute(1, text, "", 0)));
  const struct {
    const char *name, *value;
    int options;
    bool plain, inverted;
    // clang-format off
  } cases[] = {
      {"", "Elm", 0, true, true}, {"Kind", "Elm", 0, true, true},  // inverted, the oak differs from the elm
      {"Kind", "Ash", 0, false, true}, {"Kin", "Elm", kPart, false, false}, {"KIND", "Elm", 0, false, false},
      {"KIND", "elm", kFold, true, true}, {"Kind", "", kPart, true, false},
  };
  // clang-format on
  for (const auto& c : cases) {
    CKespSearch search(c.value);
    search.SetSearchOptions(kAll | c.options);
    search.SetAttributeNameFilter(c.name);
    EXPECT_EQ(search.Validate(&feature), c.plain) << c.name << ' ' << c.value;
    EXPECT_TRUE(search.Validate(&bare));
    search.SetInverted(true);
    EXPECT_EQ(search.Validate(&feature), c.inverted) << c.name << ' ' << c.value;
  }
}

TEST(KespSearch, AskingAllocatesNothing) {
  const std::string longText(600, 'x');  // of which a copy could only come from the heap
  const char* const text = longText.c_str();
  CKespFeature feature;
  feature.FeatureName = text;
  AddPoint(feature, text);
  for (const int kind : {1, 3, 4, 2}) feature.AddAttribute(new CKespAttribute(Attribute(kind, text, text, 1, text)));
  for (const int options : {0, kFold, kPart, kBoth}) {
    CKespSearch search(longText + "y");
    search.SetSearchOptions(kAll | options | kTime | kArea);
    search.FeatureNameFilterAdd(text);
    search.SetPointNameFilter(text);
    search.SetAttributeNameFilter(text);
    const int before = allocations;
    const bool passes = search.Validate(&feature);
    EXPECT_EQ(allocations - before, 0) << options;
    EXPECT_FALSE(passes);
    search.SetInverted(true);
    EXPECT_TRUE(search.Validate(&feature)) << options;  // so the attributes were reached
  }
  const int before = allocations;
  const CString copy(feature.FeatureName);
  EXPECT_GT(allocations, before);  // a copy would be seen
}

}  // namespace
