#include <array>
#include <cmath>
#include <limits>

#include "tests/dataset/DataSet.h"

using namespace kesp::test;

namespace {

ByteVector Several() {
  return Survey({Header2{}, Feature(1, "Fence", 0x8, 3, 2), Attribute(1, "Height", "Low", 0x6, 3, 1 + 1e-13),
                 Feature(2, "fen"), Attribute(2, "height", "high", 0, 3, 2), Attribute(2, "HEIGHT", "second", 0, 3, 1),
                 Point(2, 5, {}, 0x2), Note("rain", 0x6), Tag(3, "Key", Hex("\"v\" 00 00"), 0x8),
                 Feature(3, "Gate", 0xA, 3, 3), Tag(3, "KEY", Hex("00 00")), Tag(1, "Key", Words({1}))});
}

// What the query finds for each comparison.
template <class Query>
std::string ByLogic(Query query) {
  std::string all;
  for (const LogicFlag logic : {LOGIC_ALL, LOGIC_EQUAL, LOGIC_NONE, LOGIC_NOT_EQUAL, LOGIC_LESS, LOGIC_GREATER,
                                LOGIC_ANY, static_cast<LogicFlag>(3)}) {
    int count = -1;
    ErrorEnum error = ERR_MEMORY;
    auto** const found = query(logic, count, error);
    all += Names(found, count) + "|";
    EXPECT_EQ(error, count == 0 ? ERR_NOT_FOUND : ERR_NONE) << logic;
  }
  return all;
}

TEST(Queries, CompareFlagsTypesTextsAndNumbers) {
  DataSet set(Several(), Then::Read);
  using F = CKespFile;
  F& f = set.file;
  const auto with = [&](auto query, auto wanted) {
    return ByLogic([&](LogicFlag logic, int& n, ErrorEnum& e) { return (f.*query)(logic, wanted, n, e); });
  };
  const auto attribute = [&](auto wanted) {
    return ByLogic(
        [&](auto logic, int& n, auto& e) { return f.GetFeaturesWhereAttribute("HEIGHT", logic, wanted, n, e); });
  };
  const auto among = [&](auto wanted) {
    CKespFeature* some[] = {set.Feature(2), nullptr, set.Feature(3), set.Feature(1)};
    return ByLogic([&](auto logic, int& n, auto& e) {
      return f.GetFeaturesFromFeaturesWhereAttribute(some, 4, "HEIGHT", logic, wanted, n, e);
    });
  };
  const auto type = [&](int wanted) { return with(&F::GetFeaturesWhereType, static_cast<KESP_FEATURE_TYPE>(wanted)); };
  const double inf = std::numeric_limits<double>::infinity();
  const std::string all = Names(f.m_recordList);
  // In the order of ByLogic. The flags are as the filter leaves them: 0xA becomes 0x202, and a feature has its
  // children's.
  EXPECT_EQ(with(&F::GetFeaturesWhereFlags, 0x202U), "F1 F3|F1 F3||F2|||F1 F2 F3||");
  EXPECT_EQ(with(&F::GetPointsWhereFlags, 2U), "P2/5|P2/5|||||P2/5||");
  EXPECT_EQ(with(&F::GetAttributesWhereFlags, 6U),
            "A1:Height|A1:Height|A2:height A2:HEIGHT|A2:height A2:HEIGHT|||A1:Height||");
  EXPECT_EQ(with(&F::GetNotesWhereFlags, 0xAU), "|||N:rain|||N:rain||");
  EXPECT_EQ(with(&F::GetTagsWhereFlags, 8U), "T3|T3|T3 T1|T3 T1|||T3||");
  EXPECT_EQ(with(&F::GetRecordsWhereFlags, 0U),
            all + "|H A2:height A2:HEIGHT T3 T1|" + all + "|F1 A1:Height F2 P2/5 N:rain T3 F3|||||");
  EXPECT_EQ(type(2), "|F1||F2 F3|||||");
  EXPECT_EQ(type(0), "|||F1 F2 F3|||||");
  EXPECT_EQ(with(&F::GetFeaturesWhereName, "FENCE"), "|F1|F1 F2 F3|F2 F3|F2|F3|||");
  EXPECT_EQ(with(&F::GetFeaturesWhereName, "en"), "F1 F2||F3|F1 F2 F3||F1 F2 F3|||");
  EXPECT_EQ(with(&F::GetFeaturesWhereName, ""), "F1 F2 F3|||F1 F2 F3||F1 F2 F3|||");
  EXPECT_EQ(attribute(1.0), "|F1||F2||F1 F2|||");  // of the first of that name
  EXPECT_EQ(attribute(2), "|F2||F1|F1||||");
  EXPECT_EQ(attribute(2UL) + among(2L), attribute(2) + among(2));
  EXPECT_EQ(attribute(inf), "|||F1 F2|F1 F2||||");
  EXPECT_EQ(attribute(inf - inf), "||||||||");
  EXPECT_EQ(attribute(CString("LOW")), "|F1|F1 F2|F2|F2||||");
  EXPECT_EQ(among(1.0), "|F1||F2||F2 F1|||");
  EXPECT_EQ(among(CString("hi")), "F2||F1|F2 F1||F2 F1|||");
  set.Feature(1)->GetAttribute(0)->Value = 2e-12;  // from 0, neither equal nor different
  set.Feature(3)->FeatureType = static_cast<KESP_FEATURE_TYPE>(9);
  f.AddFeatureRecOnlyToWriteQueue(set.Feature(1));  // is in the list twice, and is found twice
  f.AddNoteToWriteQueue(nullptr);
  EXPECT_EQ(attribute(0.0), "|||F2||F1 F2 F1|||");
  EXPECT_EQ(type(0), "|F3||F1 F2 F1|||||");  // types without a name are one
}

TEST(Queries, FindByNumberAndJoin) {
  DataSet set(Several());
  CKespFile& f = set.file;
  int count = -1;
  const auto tags = [&](CKespFile& of, const char* name) {
    auto** const found = of.GetStringToStringTags(name, count);
    return Names(found, count);
  };
  EXPECT_EQ(tags(f, "key"), "T3 T3");  // reads the file: nothing was read yet
  EXPECT_EQ(tags(f, "k"), "");
  CKespFile empty;
  EXPECT_EQ(tags(empty, "key"), "");
  CKespPoint* point = nullptr;
  CKespFeature* feature = nullptr;
  const auto lookUp = [&](unsigned long number) {
    return std::pair(f.GetPoint(number + 3, point), f.GetFeature(number, feature));
  };
  EXPECT_EQ(lookUp(2), std::pair(ERR_NONE, ERR_NONE));
  EXPECT_EQ(lookUp(6), std::pair(ERR_NOT_FOUND, ERR_NOT_FOUND));
  EXPECT_EQ(Name(point) + Name(feature), "P2/5F2");
  CKespFeature* one[] = {set.Feature(1), set.Feature(2)};
  const auto join = [&](CKespFeature** a, int aCount, CKespFeature** b, int bCount) {
    auto** const joined = f.JoinTwoArrays(a, aCount, b, bCount, count);
    return Names(joined, count);
  };
  EXPECT_EQ(join(one, 2, one + 1, 1), "F1 F2 F2");
  EXPECT_EQ(join(one, 2, nullptr, 0), "F1 F2");
  EXPECT_EQ(join(nullptr, 0, nullptr, -1), "");
  f.CloseKesp();
  EXPECT_EQ(lookUp(2), std::pair(ERR_FILE_NOT_OPEN, ERR_FILE_NOT_OPEN));
}

// Coordinates that often tie, and a few that are far away or not finite.
double Coordinate(Random& random) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const double odd[] = {1e308, -1e308, 1e-320, kInfinity, -kInfinity, kInfinity - kInfinity};
  const unsigned which = random(200);
  return which < std::size(odd) ? odd[which] : random(3) == 0 ? random(40) : random(40000) / 1000.0;
}

// What a loop finds, and what the index finds; the record list of the data set is as it is.
void CompareInRects(CKespFile& file, Random& random, int rects) {
  for (; rects > 0; --rects) {
    CRect2D rect(Coordinate(random), Coordinate(random), Coordinate(random), Coordinate(random));
    if (rects % 2 == 0) rect.maxX = rect.minX + random(9), rect.maxY = rect.minY + random(9);
    std::vector<CKespPoint*> points;
    std::vector<CKespFeature*> features;
    for (CKespRecord* record : file.m_recordList) {
      auto* const point = dynamic_cast<CKespPoint*>(record);
      auto* const feature = dynamic_cast<CKespFeature*>(record);
      const bool isFinite = point != nullptr && std::isfinite(point->CoordX + point->CoordY);
      if (isFinite && rect.PtInRect({point->CoordX, point->CoordY})) points.push_back(point);
      CBoundingBox box;
      if (feature == nullptr) continue;
      for (const CKespPoint* each : feature->m_pointList) box.Include(each->CoordX, each->CoordY);
      const CRect2D shared(std::max(rect.minX, box.MinX()), std::max(rect.minY, box.MinY()),
                           std::min(rect.maxX, box.MaxX()), std::min(rect.maxY, box.MaxY()));
      const bool isRect = rect.minX <= rect.maxX && rect.minY <= rect.maxY && box.IsValid();
      if (isRect && shared.minX <= shared.maxX && shared.minY <= shared.maxY) features.push_back(feature);
    }
    int count = -1;
    ErrorEnum error = ERR_MEMORY;
    const auto same = [&](auto** found, const auto& expected) {
      const std::unique_ptr own = std::unique_ptr<std::remove_pointer_t<decltype(found)>[]>(found);
      EXPECT_EQ(error, expected.empty() ? ERR_NOT_FOUND : ERR_NONE);
      return std::equal(expected.begin(), expected.end(), found, found + count);
    };
    ASSERT_TRUE(same(file.GetPointsInRect(rect, count, error), points)) << count << " for " << points.size();
    ASSERT_TRUE(same(file.GetFeaturesInRect(rect, count, error), features)) << count << " for " << features.size();
  }
}

TEST(Queries, FindByPlaceWhatALoopFinds) {
  Random random(5);
  for (const std::uint32_t features : {0u, 1u, 2u, 17u, 600u}) {
    std::vector<std::unique_ptr<CKespFeature>> all;
    CKespFile file;
    const auto queue = [&](std::uint32_t upTo) {
      while (all.size() < upTo) {
        const auto number = static_cast<std::uint32_t>(all.size());
        CKespFeature* const feature = file.CreateFeature("Oak", KESP_FEATURE_LINE, number);
        all.emplace_back(feature);
        std::vector<CKespRecord*> records{feature};
        for (unsigned i = random(9); i > 0; --i) {
          feature->AddPoint(
              file.CreatePoint(10 * number + i, "", 0, Coordinate(random), Coordinate(random), 0, number));
          records.push_back(feature->m_pointList.back());
        }
        if (random(20) == 0) records.push_back(nullptr), records.push_back(records[records.size() / 2]);
        file.AddRecordsToWriteQueue(records.data(), static_cast<int>(records.size()));
      }
    };
    queue(features / 2);
    CompareInRects(file, random, 50);
    queue(features);
    CompareInRects(file, random, 300);
    for (const auto& feature : all) {
      CKespFeature* const from = feature.get();
      if (random(3) == 0) file.DeleteFeatureAndAssociatedRec(from);  // found as before, with its flag
      while (CKespPoint* point = from->GetPoint(1)) CKespFileTestAccess::DeletePointInFeature(file, point, from);
      if (all.size() < 20) CompareInRects(file, random, 20);
    }
    CompareInRects(file, random, 100);
    for (const auto& feature : all) {
      if (CKespPoint* const point = feature->GetPoint(0)) point->CoordX = Coordinate(random);
    }
    file.ForgetSpatialIndex();
    CompareInRects(file, random, 100);
    file.ClearQueueWithoutWriting();
    CompareInRects(file, random, 2);
    file.m_featureIndex.RemoveAll();  // or the data set deletes the features too
  }
}

TEST(Summary, OfNoPointsHasNoExtentAndTimesThatAnyPointReplaces) {
  CTime first, last;
  CBoundingBox extent(100, 200, 100, 200);
  CString text = u"old";
  unsigned long points = 9, features = 9;
  std::tm start{};
  start.tm_sec = start.tm_min = start.tm_hour = 1;
  start.tm_mday = 2;
  start.tm_year = 70;
  start.tm_isdst = -1;
  const std::int64_t inTenThousandDays = CTime::GetCurrentTime().GetTime() + 864000000;
  EXPECT_EQ(CKespFile().GetKespDataSummary(points, features, extent, first, last, text), ERR_NONE);
  EXPECT_EQ(points + features, 0u);
  EXPECT_FALSE(extent.IsValid());
  EXPECT_TRUE(text.IsEmpty());
  EXPECT_NEAR(static_cast<double>(first.GetTime()), static_cast<double>(inTenThousandDays), 60);
  EXPECT_EQ(last.GetTime(), std::mktime(&start));
}

TEST(BoundingBox, GrowsWithPointsThatAreFinite) {
  const double inf = std::numeric_limits<double>::infinity();
  const auto extent = [](const CBoundingBox& box) {
    std::array<double, 4> e{9, 9, 9, 9};
    box.Get(e[0], e[1], e[2], e[3]);
    return e;
  };
  CBoundingBox box(0.1, 0.2, 0.3, 0.4);
  EXPECT_EQ(extent(box), (std::array{0.1, 0.2, 0.3, 0.4}));
  for (const auto& [x, y] : {std::pair{.05, .35}, {.25, .45}, {.15, .25}, {inf, 0}, {9, inf - inf}}) box.Include(x, y);
  EXPECT_EQ(extent(box), (std::array{0.05, 0.25, 0.25, 0.45}));
  box = CBoundingBox(0, inf, 0, 1);
  box.Include(1.1, -2.2);
  EXPECT_EQ(extent(box), (std::array{1.1, 1.1, -2.2, -2.2}));
  for (const auto& [a, b] : {std::pair{0.2, 0.1}, {-inf, 1}, {0, inf}})
    for (const CBoundingBox& bad : {CBoundingBox(), CBoundingBox(a, b, 0, 1), CBoundingBox(0, 1, a, b)})
      EXPECT_EQ(std::tuple(bad.IsValid(), extent(bad)), std::tuple(false, std::array<double, 4>{}));
}

}  // namespace
