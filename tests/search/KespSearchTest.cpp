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
  point->PointText = text;
  point->PointTime = time;
  point->CoordX = x;
  point->CoordY = y;
  feature.AddPoint(point);
}

CKespAttribute Attribute(int kind, const char* text, const char* sub, double value, const char* name = "Kind") {
  CKespAttribute attribute;
  attribute.AttributeName = name;
  attribute.AttributeKind = kind;
  attribute.TextValue = text;
  attribute.SubValue = sub;
  attribute.Value = value;
  return attribute;
}

TEST(KespSearch, ADisabledFilterTakesEverything) {
  CKespSearch search;
  CKespFeature* const noFeature = nullptr;
  CKespAttribute* const noAttribute = nullptr;
  EXPECT_FALSE(search.IsEnabled());
  EXPECT_EQ(search.GetSearchOptions(), kAll);
  search.SetSearchOptions(0);
  for (const int kind : {SEARCH_VALUE_NONE, SEARCH_VALUE_NUMBER, SEARCH_VALUE_TEXT}) {
    search.m_valueKind = kind;
    for (const bool enabled : {false, true}) {
      search.Enable(enabled);
      EXPECT_EQ(search.Validate(7.0), !enabled || kind == SEARCH_VALUE_NONE);
      EXPECT_EQ(search.Validate("x"), !enabled || kind == SEARCH_VALUE_NONE);
      EXPECT_EQ(search.Validate(noAttribute), !enabled || kind == SEARCH_VALUE_NONE);
      EXPECT_EQ(search.Validate(noFeature), !enabled);
      EXPECT_EQ(search.GetSearchOptions(), 0);
    }
  }
}

TEST(KespSearch, ANumberMustLieInTheRange) {
  const struct {
    double first, second, value;
    bool matches;
  } cases[] = {{5, 1, 1, true},         {5, 1, 5, true},         {1, 5, 5, true},
               {1, 5, 5.000001, false}, {5, 1, 0.999999, false}, {5, 1, kNaN, true},
               {kNaN, 5, 5, true},      {kNaN, 5, 4, false},     {5, kNaN, 1e300, true}};
  for (const auto& c : cases) {
    CKespSearch search(c.first, c.second);
    EXPECT_EQ(search.Validate(c.value), c.matches) << c.first << ' ' << c.second << ' ' << c.value;
    search.SetInverted(true);
    EXPECT_EQ(search.Validate(c.value), !c.matches) << c.first << ' ' << c.second << ' ' << c.value;
    EXPECT_FALSE(search.Validate("1"));
    search.Set("1");
    EXPECT_FALSE(search.Validate(c.value));
  }
  CKespSearch positive(1, 5);
  EXPECT_EQ(positive.GetSearchOptions(), kAll);
  EXPECT_FALSE(positive.Validate(0));  // a number, not a null pointer
  EXPECT_TRUE(positive.Validate(5) && positive.Validate(5u) && positive.Validate(5L) && positive.Validate(5.0f));
}

TEST(KespSearch, ATextMustEqualOrContainTheWantedOne) {
  // The neighbours of a to z are not folded, nor is anything above them.
  const struct {
    int options;
    const char* wanted;
    std::vector<const char*> matching, others;
  } cases[] = {
      {0, "ABC", {"ABC"}, {"abc", "ABCD", "AB", ""}},
      {kFold, "AZaz`{\u00E4", {"azAZ`{\u00E4"}, {"AZaz@{\u00E4", "AZaz`[\u00E4", "AZaz`{\u00C4", "azAZ`{\u00E4x"}},
      {kPart, "ABC", {"ABC", "xABABCx"}, {"xabcx", "AB", ""}},
      {kBoth, "ABC", {"xabcxx", "abaBc"}, {"xabx", ""}},
      {0, "", {}, {"x"}},
      {kBoth, "", {"x"}, {}},
      {kPart, "", {"x"}, {}}};
  for (const auto& c : cases) {
    CKespSearch search(c.wanted);
    search.SetSearchOptions(c.options);
    for (const bool inverted : {false, true}) {
      search.SetInverted(inverted);
      for (const char* text : c.matching) EXPECT_EQ(search.Validate(text), !inverted) << c.wanted << ' ' << text;
      for (const char* text : c.others) EXPECT_EQ(search.Validate(text), inverted) << c.wanted << ' ' << text;
    }
  }
  CKespSearch empty(L"");
  empty.SetInverted(true);
  EXPECT_TRUE(empty.Validate(""));
}

TEST(KespSearch, AnAttributeIsAskedByItsKind) {
  const struct {
    int kind;
    CKespSearch search;
    bool plain, inverted;
  } cases[] = {{1, CKespSearch("Oak"), true, false},     {1, CKespSearch("Red"), false, true},
               {1, CKespSearch(0, 1e6), false, false},   {2, CKespSearch(45000, 1e6), true, false},
               {2, CKespSearch(0, 1), false, true},      {2, CKespSearch("45000"), false, false},
               {3, CKespSearch("Oak"), true, true},      {3, CKespSearch("Red"), true, true},
               {3, CKespSearch("Oak/Red"), false, true}, {4, CKespSearch("03/15/2023"), true, false},
               {4, CKespSearch(0, 1e6), false, false},   {5, CKespSearch("Oak"), false, false}};
  for (auto c : cases) {
    const CKespAttribute attribute = Attribute(c.kind, "Oak", "Red", 45000);
    EXPECT_EQ(c.search.Validate(&attribute), c.plain) << c.kind << c.search.m_searchText.ToUtf8();
    c.search.SetInverted(true);
    EXPECT_EQ(c.search.Validate(&attribute), c.inverted) << c.kind << c.search.m_searchText.ToUtf8();
  }
}

TEST(KespSearch, NamesAreListedAndRemovedTheOtherWayRound) {
  CKespSearch search;
  search.SetSearchOptions(kAll | kBoth);
  EXPECT_TRUE(search.IsASearchAll() && search.IsFeatureIncluded("A") && search.FeatureNameRemove("A"));
  for (const char* name : {"A", "B", "a"}) search.FeatureNameFilterAdd(name);
  EXPECT_TRUE(search.IsFeatureIncluded("B"));
  EXPECT_FALSE(search.IsFeatureIncluded("b"));
  EXPECT_TRUE(search.FeatureNameRemove("A"));
  EXPECT_EQ(search.m_featureNames, (std::vector<CString>{"A", "a"}));
  EXPECT_TRUE(search.FeatureNameRemove("A"));
  search.FeatureNameFilterAdd("A");
  EXPECT_FALSE(search.FeatureNameRemove("A"));
  EXPECT_EQ(search.m_featureNames, (std::vector<CString>{"A", "A"}));
  EXPECT_TRUE(search.FeatureNameClearAll() && search.IsASearchAll());
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
    EXPECT_TRUE(search.Validate(&feature));
    EXPECT_EQ(search.GetSearchOptions(), kAll | kFold);
  }
  search.FeatureNameFilterAdd("TREE");
  EXPECT_FALSE(search.Validate(&feature));
  search.FeatureNameFilterAdd("Tree");
  EXPECT_TRUE(search.Validate(&feature));
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
  } cases[] = {// By text alone.
               {"start", 0, 0, 0, {}, true},
               {"START", kPart, 0, 0, {}, false},
               {"START", kFold, 0, 0, {}, true},
               {"gate", kFold, 0, 0, {}, false},
               {"gate", kBoth, 0, 0, {}, true},
               // By time or area alone; without its sign, -10 would be 4294967286.
               {"", kTime, -10, -10, {}, true},
               {"", kTime, -9, 99, {}, false},
               {"", kTime, 4'294'967'286, 4'294'967'286, {}, false},
               {"", kArea, 0, 0, {50, 60, 51, 61}, true},
               {"", kArea, 0, 0, {51, 60, 52, 61}, false},
               // Both by one point, not by two; the text may have come earlier, not later.
               {"", kTime | kArea, 200, 200, {0, 0, 9, 9}, true},
               {"", kTime | kArea, 100, 100, {0, 0, 9, 9}, false},
               {"Gate 7", kTime | kArea, 200, 200, {5, 6, 5, 6}, true},
               {"Gate 7", kTime | kArea, -10, -10, {1, 1, 1, 1}, false}};
  for (const auto& c : cases) {
    CKespSearch search;
    search.Enable(true);
    search.SetSearchOptions(kAll | c.options);
    search.SetPointNameFilter(c.text);
    search.SetTimeRangeFilter(c.start, 0);
    search.SetEndTimeRangeFilter(c.end);
    search.SetAreaFilter(c.area);
    EXPECT_EQ(search.Validate(&feature), c.passes) << c.text << ' ' << c.options << ' ' << c.start;
    EXPECT_TRUE(search.Validate(&bare));
    EXPECT_FALSE(search.Validate(&broken));
    search.SetSearchOptions(kAll);
    search.SetPointNameFilter("");
    EXPECT_TRUE(search.Validate(&feature));  // a range without its option is not asked for
  }
}

TEST(KespSearch, OneAttributeOfTheWantedNameMustHaveTheValue) {
  CKespFeature feature, bare;
  feature.AddAttribute(nullptr);
  for (const char* text : {"Oak", "Elm"}) feature.AddAttribute(new CKespAttribute(Attribute(1, text, "", 0)));
  // Inverted, the oak differs from the elm asked for.
  const struct {
    const char *name, *value;
    int options;
    bool plain, inverted;
  } cases[] = {{"", "Elm", 0, true, true},       {"Kind", "Elm", 0, true, true},
               {"Kind", "Ash", 0, false, true},  {"Kin", "Elm", kPart, false, false},
               {"KIND", "Elm", 0, false, false}, {"KIND", "elm", kFold, true, true},
               {"Kind", "", kPart, true, false}};
  for (const auto& c : cases) {
    CKespSearch search(c.value);
    search.SetSearchOptions(kAll | c.options);
    search.SetAttributeNameFilter(c.name);
    EXPECT_EQ(search.IsAllAttributeSearch(), CString(c.name).IsEmpty());
    EXPECT_EQ(search.Validate(&feature), c.plain) << c.name << ' ' << c.value;
    EXPECT_TRUE(search.Validate(&bare));
    search.SetInverted(true);
    EXPECT_EQ(search.Validate(&feature), c.inverted) << c.name << ' ' << c.value;
    search.m_valueKind = SEARCH_VALUE_NONE;
    EXPECT_TRUE(search.Validate(&feature));
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
