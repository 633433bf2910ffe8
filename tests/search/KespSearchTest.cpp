#include "kesp/search/KespSearch.h"

#include <gtest/gtest.h>

#include <limits>

#include "kesp/format/RecordView.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespPoint.h"
#include "kesp/search/FeatureTest.h"

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr int kAll = 7, kFold = SEARCH_IGNORE_CASE, kPart = SEARCH_PARTIAL_MATCH, kBoth = kFold | kPart;
constexpr int kTime = SEARCH_TIME_RANGE, kArea = SEARCH_IN_AREA;

constexpr const char *kText = "attribute of text", *kNumber = "attribute of number", *kMenu = "attribute of menu",
                     *kDate = "attribute of date", *kOther = "attribute of others", *kEmpty = "attribute of nothing",
                     *kFolded = "attribute of letters", *kOak = "Oak with a hollow", *kRed = "Red as a robin's";

// Asks for a value of an attribute, and for the points of a feature.
CKespSearch Value(CKespSearch search, const char* name, int options = 0) {
  search.SetAttributeNameFilter(name);
  search.SetSearchOptions(kAll | options);
  return search;
}
CKespSearch Value(const char* text, const char* name, int options = 0) {
  return Value(CKespSearch(text), name, options);
}
CKespSearch Points(const char* text, int options, CTime start = {}, CTime end = {}, CRect2D area = {}) {
  CKespSearch search = Value(CKespSearch(), "", options);
  search.Enable(true);
  search.SetPointNameFilter(text);
  search.SetTimeRangeFilter(start, 0);
  search.SetEndTimeRangeFilter(end);
  search.SetAreaFilter(area);
  return search;
}

void AddPoint(CKespFeature& feature, const char* text, std::int32_t time, double x, double y) {
  feature.AddPoint(new CKespPoint);
  CKespPoint& point = *feature.m_pointList.back();
  point.PointText = text, point.PointTime = time, point.CoordX = x, point.CoordY = y;
}
void AddAttribute(CKespFeature& feature, const char* name, int kind, const char* text) {
  feature.AddAttribute(new CKespAttribute);
  CKespAttribute& attribute = *feature.m_attributeList.back();
  attribute.AttributeName = name, attribute.AttributeKind = kind, attribute.Value = 45000;
  attribute.TextValue = text, attribute.SubValue = kRed;
}

template <class View, class Record, class Bodies>
void WithView(const Record& record, const Bodies& bodies, std::uint16_t version, auto use) {
  std::vector<std::byte> body;
  kesp::WithVersion(bodies, version, [&](const auto& describe) {
    body.resize(kesp::BodyWidth(describe));
    kesp::FieldWriter writer(body.data());
    describe(writer, record);
  });
  use(View(body.data(), version));
}
// The same, record by record, as views of bodies of the oldest and of the newest version. A null has no view.
bool PassesAsViews(const CKespSearch& search, const CKespFeature& feature, bool isOld) {
  const auto version = [&](const auto& bodies) { return isOld ? std::uint16_t{1} : kesp::NewestOf(bodies); };
  const kesp::FeatureTest test(search);
  kesp::FeatureTest::State state;
  EXPECT_FALSE(state.Passes()) << "not started";
  const auto add = [&](const auto& view) { test.Add(state, view); };
  WithView<kesp::FeatureView>(feature, kesp::kFeatureBodies, version(kesp::kFeatureBodies),
                              [&](const auto& view) { state = test.Start(view); });
  for (const CKespPoint* const p : feature.m_pointList) {
    if (p != nullptr) WithView<kesp::PointView>(*p, kesp::kPointBodies, version(kesp::kPointBodies), add);
  }
  for (const CKespAttribute* const a : feature.m_attributeList) {
    if (a != nullptr) WithView<kesp::AttributeView>(*a, kesp::kAttributeBodies, version(kesp::kAttributeBodies), add);
  }
  return state.Passes();
}

TEST(KespSearch, AFeatureIsAskedForItsAttributesAndPoints) {
  CKespFeature feature, bare, broken;
  for (CKespFeature* const one : {&feature, &broken}) one->AddAttribute(nullptr), one->AddPoint(nullptr);
  AddAttribute(feature, kText, 1, kOak), AddAttribute(feature, kNumber, 2, kOak), AddAttribute(feature, kMenu, 3, kOak);
  AddAttribute(feature, kDate, 4, kOak), AddAttribute(feature, kOther, 5, kOak), AddAttribute(feature, kEmpty, 1, "");
  AddAttribute(feature, kFolded, 1, "AZaz`{\u00E4 are letters");
  AddPoint(feature, "start of the line", -10, 1, 1), AddPoint(feature, "Gate 7 of the park", 100, 50, 60);
  AddPoint(feature, "", 200, 5, 6), AddPoint(feature, "end", 300, kNaN, 0);
  const CKespSearch wide(0, 1e6);
  const struct {
    CKespSearch search;
    bool plain, inverted;
    // clang-format off
  } cases[] = {
      // Each kind has its value; a menu two, of which either will do.
      {Value(kOak, kText), true, false}, {Value(kRed, kText), false, true}, {Value(wide, kText), false, false},
      {Value(wide, kNumber), true, false}, {Value("45000", kNumber), false, false}, {Value(kOak, kMenu), true, true},
      {Value(kRed, kMenu), true, true}, {Value("03/15/2023", kDate), true, false}, {Value(wide, kDate), false, false},
      {Value(kOak, kOther), false, false},
      // A range has its ends either way round; nothing compares with a NaN.
      {Value({45001, 45000}, kNumber), true, false}, {Value({45000, 44999}, kNumber), true, false},
      {Value({45000.0001, 45000.0002}, kNumber), false, true}, {Value({44999.9999, 44999.9998}, kNumber), false, true},
      {Value({kNaN, 45001}, kNumber), false, true}, {Value({44999, kNaN}, kNumber), true, false},
      // Texts are equal, or contain; the neighbours of a to z are not folded, nor is anything above them.
      {Value("oak with a hollow", kText), false, true}, {Value("oak with a hollow", kText, kFold), true, false},
      {Value("Oak with a", kText, kFold), false, true}, {Value("with a h", kText, kPart), true, false},
      {Value("WITH A H", kText, kPart), false, true}, {Value("A H", kText, kBoth), true, false},
      {Value("A X", kText, kBoth), false, true}, {Value("azAZ`{\u00E4 ARE LETTERS", kFolded, kFold), true, false},
      {Value("@", kFolded, kBoth), false, true}, {Value("[", kFolded, kBoth), false, true},
      {Value("\u00C4", kFolded, kBoth), false, true},
      // Two empty texts match even inverted.
      {Value("", kEmpty), true, true}, {Value("", kText), false, true}, {Value("", kText, kPart), true, false},
      {Value("", kText, kBoth), true, false}, {Value(kOak, kEmpty), false, true},
      // One candidate is enough. Names are equal, or none is a candidate.
      {Value(kOak, ""), true, true}, {Value("Elm", ""), false, true},
      {Value(kOak, "attribute of", kPart), false, false},
      {Value(kOak, "ATTRIBUTE OF TEXT"), false, false}, {Value(kOak, "ATTRIBUTE OF TEXT", kFold), true, false},
      // Points by their text.
      {Points("start of the line", 0), true, true}, {Points("START OF THE LINE", kPart), false, false},
      {Points("START OF THE LINE", kFold), true, true}, {Points("gate 7 of the", kFold), false, false},
      {Points("gate 7 of the", kBoth), true, true},
      // By time or area alone; without its sign, -10 would be 4294967286.
      {Points("", kTime, -10, -10), true, true}, {Points("", kTime, -9, 99), false, false},
      {Points("", kTime, 4294967286, 4294967286), false, false}, {Points("", 0, 999, 999, {8, 8, 8, 8}), true, true},
      {Points("", kArea, 0, 0, {50, 60, 51, 61}), true, true},
      {Points("", kArea, 0, 0, {50.0000001, 60, 99, 99}), false, false},
      {Points("", kArea, 0, 0, {50, 60.0000001, 99, 99}), false, false},
      {Points("", kArea, 0, 0, {9, 9, 49.9999999, 60}), false, false},
      {Points("", kArea, 0, 0, {9, 9, 50, 59.9999999}), false, false},
      // Both by one point, not by two; the text may have come earlier, not later.
      {Points("", kTime | kArea, 200, 200, {0, 0, 9, 9}), true, true},
      {Points("", kTime | kArea, 100, 100, {0, 0, 9, 9}), false, false},
      {Points("Gate 7 of the park", kTime | kArea, 200, 200, {5, 6, 5, 6}), true, true},
      {Points("Gate 7 of the park", kTime | kArea, -10, -10, {1, 1, 1, 1}), false, false},
  };
  // clang-format on
  for (auto [search, plain, inverted] : cases) {
    SCOPED_TRACE(search.m_searchText.ToUtf8() + search.m_pointNameFilter.ToUtf8() +
                 search.m_attributeNameFilter.ToUtf8());
    EXPECT_EQ(std::tuple(search.Validate(&feature), search.Validate(&bare)), std::tuple(plain, true));
    for (const bool isOld : {false, true}) {
      EXPECT_EQ(std::tuple(PassesAsViews(search, feature, isOld), PassesAsViews(search, bare, isOld)),
                std::tuple(plain, true));
    }
    search.SetInverted(true);
    EXPECT_EQ(std::tuple(search.Validate(&feature), PassesAsViews(search, feature, false)),
              std::tuple(inverted, inverted));
    const bool asksNothing = search.m_valueKind == SEARCH_VALUE_NONE;
    const bool asksPoints = !search.m_pointNameFilter.IsEmpty() || search.GetSearchOptions() >= kTime;
    EXPECT_EQ(search.Validate(&broken), asksNothing && !asksPoints);
    EXPECT_EQ(search.Validate(static_cast<CKespAttribute*>(nullptr)), asksNothing);
    EXPECT_FALSE(search.Validate(static_cast<CKespFeature*>(nullptr)));
    search.Enable(false);
    EXPECT_EQ(std::tuple(search.Validate(&broken), search.Validate(-1), search.Validate("?"),
                         search.Validate(static_cast<CKespFeature*>(nullptr)), PassesAsViews(search, feature, true)),
              std::tuple(true, true, true, true, true));
  }
  CKespSearch one(1, 5);
  EXPECT_EQ(std::tuple(one.Validate(0), one.Validate(5), one.Validate(5u), one.Validate(kNaN)),
            std::tuple(false, true, true, true));  // 0 is a number
  EXPECT_EQ(std::tuple(CKespSearch().IsEnabled(), CKespSearch().GetSearchOptions()), std::tuple(false, kAll));
}

TEST(KespSearch, AFeatureNeedsAWantedTypeAndName) {
  CKespFeature feature;
  feature.FeatureName = "Tree in the park";
  CKespSearch search = Points("", 0);
  search.SetInverted(true);  // makes no difference here
  for (std::uint32_t type = 0; type <= 4; ++type) {
    feature.FeatureType = static_cast<KESP_FEATURE_TYPE>(type);
    for (int options = 1; options <= kAll; ++options) {
      search.SetSearchOptions(options);
      EXPECT_EQ(search.Validate(&feature), type < 1 || type > 3 || (options >> (type - 1) & 1)) << type << options;
      EXPECT_EQ(PassesAsViews(search, feature, false), search.Validate(&feature)) << type << options;
    }
    search.SetSearchOptions(kFold);
    EXPECT_TRUE(PassesAsViews(search, feature, false));
    EXPECT_EQ(search.GetSearchOptions(), kFold) << "stays";
    EXPECT_TRUE(search.Validate(&feature));
    EXPECT_EQ(search.GetSearchOptions(), kAll | kFold) << "no type means all";
  }
  EXPECT_TRUE(search.FeatureNameRemove("Oak")) << "there is none";
  for (const char* name : {"TREE IN THE PARK", "Oak"}) search.FeatureNameFilterAdd(name);
  EXPECT_EQ(std::tuple(search.Validate(&feature), PassesAsViews(search, feature, true)), std::tuple(false, false));
  search.FeatureNameFilterAdd(feature.FeatureName);
  EXPECT_EQ(std::tuple(search.Validate(&feature), PassesAsViews(search, feature, true)), std::tuple(true, true));
  EXPECT_TRUE(search.FeatureNameRemove("TREE IN THE PARK"));
  EXPECT_EQ(search.m_featureNames, (std::vector<CString>{"TREE IN THE PARK", feature.FeatureName})) << "others go";
  EXPECT_TRUE(search.FeatureNameRemove("TREE IN THE PARK"));
  EXPECT_FALSE(search.FeatureNameRemove("TREE IN THE PARK"));
}

}  // namespace
