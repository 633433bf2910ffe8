#include <limits>

#include "tests/dataset/DataSet.h"

using namespace kesp::test;

namespace {

constexpr LogicFlag kLogics[] = {LOGIC_ALL,  LOGIC_EQUAL,   LOGIC_NONE, LOGIC_NOT_EQUAL,
                                 LOGIC_LESS, LOGIC_GREATER, LOGIC_ANY,  static_cast<LogicFlag>(3)};

// For each comparison what the query finds; "" also stands for the error that belongs to it.
template <class Query>
void ExpectByLogic(std::vector<std::string> expected, Query query, const char* name) {
  for (std::size_t i = 0; i < std::size(kLogics); ++i) {
    int count = -1;
    ErrorEnum error = ERR_MEMORY;
    auto** const found = query(kLogics[i], count, error);
    EXPECT_EQ(Names(found, count), expected[i]) << name << ' ' << kLogics[i];
    EXPECT_EQ(error, expected[i].empty() ? ERR_NOT_FOUND : ERR_NONE) << name << ' ' << kLogics[i];
  }
}

template <class Ask>
std::string Answer(Ask ask) {
  int count = -1;
  auto** const found = ask(count);
  return Names(found, count);
}

ByteVector Several() {
  return Survey({Header2{}, Feature(1, "Fence", 0x8, 3, 2), Attribute(1, "Height", "Low", 0x6, 3, 1 + 1e-13),
                 Feature(2, "fen"), Attribute(2, "height", "high", 0, 3, 2), Attribute(2, "HEIGHT", "second", 0, 3, 1),
                 Point(2, 5, {}, 0x2), Note("rain", 0x6), Tag(3, "Key", Hex("\"v\" 00 00"), 0x8),
                 Feature(3, "Gate", 0xA, 3, 3), Tag(3, "KEY", Hex("00 00")), Tag(1, "Key", Words({1}))});
}

TEST(Queries, CompareFlagsTypesTextsAndNumbers) {
  DataSet set(Several());
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  CKespFile& f = set.file;
  const auto flags = [&](auto query, std::uint32_t mask) {
    return [&f, query, mask](LogicFlag logic, int& count, ErrorEnum& error) {
      return (f.*query)(logic, mask, count, error);
    };
  };
  const auto type = [&](std::uint32_t wanted) {
    return [&f, wanted](LogicFlag logic, int& count, ErrorEnum& error) {
      return f.GetFeaturesWhereType(logic, static_cast<KESP_FEATURE_TYPE>(wanted), count, error);
    };
  };
  const auto named = [&](const char* wanted) {
    return [&f, wanted](LogicFlag logic, int& count, ErrorEnum& error) {
      return f.GetFeaturesWhereName(logic, wanted, count, error);
    };
  };
  const auto attribute = [&](auto wanted) {
    return [&f, wanted](LogicFlag logic, int& count, ErrorEnum& error) {
      return f.GetFeaturesWhereAttribute("HEIGHT", logic, wanted, count, error);
    };
  };
  CKespFeature* some[] = {set.Feature(2), nullptr, set.Feature(3), set.Feature(1)};
  const auto among = [&](auto wanted) {
    return [&f, wanted, &some](LogicFlag logic, int& count, ErrorEnum& error) {
      return f.GetFeaturesFromFeaturesWhereAttribute(some, 4, "HEIGHT", logic, wanted, count, error);
    };
  };
  const double inf = std::numeric_limits<double>::infinity();
  const std::string all = Names(f.m_recordList);
  // The flags as the filter leaves them: 0xA becomes 0x202, and a feature has its children's.
  // clang-format off
  //              ALL                   EQUAL      NONE                   NOT_EQUAL              LESS     GREATER     ANY
  ExpectByLogic({"F1 F3",              "F1 F3",   "",                    "F2",                  "",      "",         "F1 F2 F3", ""}, flags(&CKespFile::GetFeaturesWhereFlags, 0x202), "features");
  ExpectByLogic({"P2/5",               "P2/5",    "",                    "",                    "",      "",         "P2/5",     ""}, flags(&CKespFile::GetPointsWhereFlags, 2), "points");
  ExpectByLogic({"A1:Height", "A1:Height", "A2:height A2:HEIGHT", "A2:height A2:HEIGHT",        "",      "",         "A1:Height", ""}, flags(&CKespFile::GetAttributesWhereFlags, 6), "attributes");
  ExpectByLogic({"",                   "",        "",                    "N:rain",              "",      "",         "N:rain",   ""}, flags(&CKespFile::GetNotesWhereFlags, 0xA), "notes");
  ExpectByLogic({"T3",                 "T3",      "T3 T1",               "T3 T1",               "",      "",         "T3",       ""}, flags(&CKespFile::GetTagsWhereFlags, 8), "tags");
  ExpectByLogic({all, "H A2:height A2:HEIGHT T3 T1", all, "F1 A1:Height F2 P2/5 N:rain T3 F3",  "",      "",         "",         ""}, flags(&CKespFile::GetRecordsWhereFlags, 0), "records");
  ExpectByLogic({"",                   "F1",      "",                    "F2 F3",               "",      "",         "",         ""}, type(2), "type");
  ExpectByLogic({"",                   "F1",      "F1 F2 F3",            "F2 F3",               "F2",    "F3",       "",         ""}, named("FENCE"), "name");
  ExpectByLogic({"F1 F2",              "",        "F3",                  "F1 F2 F3",            "",      "F1 F2 F3", "",         ""}, named("en"), "part of a name");
  ExpectByLogic({"F1 F2 F3",           "",        "",                    "F1 F2 F3",            "",      "F1 F2 F3", "",         ""}, named(""), "no name");
  ExpectByLogic({"",                   "F1",      "",                    "F2",                  "",      "F1 F2",    "",         ""}, attribute(1.0), "number");  // of the first of that name
  ExpectByLogic({"",                   "F2",      "",                    "F1",                  "F1",    "",         "",         ""}, attribute(2), "whole number");
  ExpectByLogic({"",                   "",        "",                    "F1 F2",               "F1 F2", "",         "",         ""}, attribute(inf), "inf");
  ExpectByLogic({"",                   "",        "",                    "",                    "",      "",         "",         ""}, attribute(inf - inf), "NaN");
  ExpectByLogic({"",                   "F1",      "F1 F2",               "F2",                  "F2",    "",         "",         ""}, attribute(CString("LOW")), "text");
  ExpectByLogic({"",                   "F1",      "",                    "F2",                  "",      "F2 F1",    "",         ""}, among(1.0), "number among features");
  ExpectByLogic({"F2",                 "",        "F1",                  "F2 F1",               "",      "F2 F1",    "",         ""}, among(CString("hi")), "text among features");
  set.Feature(1)->GetAttribute(0)->Value = 2e-12;  // from 0, neither equal nor different
  set.Feature(3)->FeatureType = static_cast<KESP_FEATURE_TYPE>(9);
  f.AddFeatureRecOnlyToWriteQueue(set.Feature(1));  // stands there twice, and is found twice
  ExpectByLogic({"",                   "",        "",                    "F2",                  "",   "F1 F2 F1",    "",         ""}, attribute(0.0), "edge");
  ExpectByLogic({"",                   "F3",      "",                    "F1 F2 F1",            "",      "",         "",         ""}, type(0), "types without a name are one");
  // clang-format on
}

TEST(Queries, AnswerByNumberAndJoin) {
  DataSet set(Several());
  CKespFile& f = set.file;
  EXPECT_EQ(Answer([&](int& count) { return f.GetStringToStringTags("key", count); }),
            "T3 T3");  // reads the file: nothing was read yet
  EXPECT_EQ(Answer([&](int& count) { return f.GetStringToStringTags("k", count); }), "");
  CKespPoint* point = nullptr;
  CKespFeature* feature = nullptr;
  EXPECT_EQ(f.GetPoint(5, point), ERR_NONE);
  EXPECT_EQ(f.GetFeature(2, feature), ERR_NONE);
  EXPECT_EQ(Name(point) + Name(feature), "P2/5F2");
  EXPECT_EQ(f.GetPoint(6, point), ERR_NOT_FOUND);
  EXPECT_EQ(f.GetFeature(6, feature), ERR_NOT_FOUND);
  EXPECT_EQ(Name(point) + Name(feature), "P2/5F2");
  CKespFeature* one[] = {set.Feature(1), set.Feature(2)};
  CKespFeature* other[] = {set.Feature(2)};
  EXPECT_EQ(Answer([&](int& count) { return f.JoinTwoArrays(one, 2, other, 1, count); }), "F1 F2 F2");
  EXPECT_EQ(Answer([&](int& count) { return f.JoinTwoArrays(one, 2, nullptr, 0, count); }), "F1 F2");
  EXPECT_EQ(Answer([&](int& count) { return f.JoinTwoArrays(nullptr, 0, nullptr, -1, count); }), "");
  f.CloseKesp();
  EXPECT_EQ(f.GetPoint(5, point), ERR_FILE_NOT_OPEN);
  EXPECT_EQ(f.GetFeature(2, feature), ERR_FILE_NOT_OPEN);

  CKespFile empty;
  ErrorEnum error = ERR_NONE;
  EXPECT_EQ(Answer([&](int& count) { return empty.GetStringToStringTags("key", count); }), "");
  EXPECT_EQ(Answer([&](int& count) { return empty.GetRecordsWhereFlags(LOGIC_NONE, 0, count, error); }), "");
  EXPECT_EQ(error, ERR_NOT_FOUND);
}

TEST(Summary, LooksAtEveryPointInTheOrderOfTheIndex) {
  CTime first;
  CTime last;
  CBoundingBox extent;
  CString text = u"old";
  unsigned long points = 9;
  unsigned long features = 9;
  std::tm start{};
  start.tm_year = 70;
  start.tm_mday = 2;
  start.tm_hour = start.tm_min = start.tm_sec = 1;
  start.tm_isdst = -1;
  const std::int64_t inTenThousandDays = CTime::GetCurrentTime().GetTime() + 864000000;
  CKespFile empty;
  EXPECT_EQ(empty.GetKespDataSummary(points, features, extent, first, last, text), ERR_NONE);
  EXPECT_TRUE(points + features == 0 && !extent.IsValid() && text.IsEmpty());
  EXPECT_NEAR(static_cast<double>(first.GetTime()), static_cast<double>(inTenThousandDays), 60);
  EXPECT_EQ(last.GetTime(), std::mktime(&start));

  // Feature 2 comes before feature 1 in the index, whatever their places in the file.
  DataSet set(Survey({Header2{}, Feature(1), Point(1, 1, {900000, 5, 6, "later in the walk"}), Feature(2),
                      Point(2, 2, {-7, -1, 2, "negative"}), Point(2, 3, {900000, 3, -4, "first latest"}), Feature(3)}));
  ASSERT_EQ(set.file.ReadKespFile(false), ERR_NONE);
  EXPECT_EQ(FeatureOrder(set.file), "F3 F2 F1");
  set.file.GetKespDataSummary(points, features, extent, first, last, text);
  EXPECT_EQ(points, 3u);
  EXPECT_EQ(features, 3u);
  EXPECT_EQ(first.GetTime(), -7);
  EXPECT_EQ(last.GetTime(), 900000);
  EXPECT_EQ(text, CString("first latest"));
  EXPECT_EQ((std::vector{extent.MinX(), extent.MaxX(), extent.MinY(), extent.MaxY()}),
            (std::vector<double>{-1, 5, -4, 6}));
}

}  // namespace
