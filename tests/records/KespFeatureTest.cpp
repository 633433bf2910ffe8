#include "kesp/records/KespFeature.h"

#include <gtest/gtest.h>

#include <random>

#include "kesp/kesp.h"
#include "tests/records/Scratch.h"

namespace kesp::test {
namespace {

CKespPoint* Point(double x, double y) {
  auto* const point = new CKespPoint;
  point->CoordX = x, point->CoordY = y;
  return point;
}
CKespAttribute* Attribute(const char16_t* name, int kind = KESP_ATTRIBUTE_STRING) {
  auto* const attribute = new CKespAttribute;
  attribute->AttributeName = name, attribute->AttributeKind = kind;
  return attribute;
}

CKespFeature Oak() {
  CKespFeature oak;
  oak.FeatureNumber = 7, oak.m_flags = 2, oak.FeatureName = u"Oak in the park", oak.FeatureType = KESP_FEATURE_LINE;
  oak.Color = 3, oak.SymbolIndex = 4, oak.DisplayWord1 = 5, oak.DisplayWord2 = 6, oak.DisplayText = u"text";
  oak.AddPoint(Point(1, 2));
  oak.AddAttribute(Attribute(u"Type"));
  oak.SetFeatureEnd(new CKespFeatureEnd);
  return oak;
}
// What assignment through a pointer takes over.
auto Description(const CKespFeature& f) {
  return std::tuple(f.FeatureName.ToUtf8(), f.FeatureType, f.Color, f.SymbolIndex, f.DisplayWord1, f.DisplayWord2,
                    f.DisplayText.ToUtf8());
}
// And what it does not.
auto Parts(const CKespFeature& f) {
  return std::tuple(f.FeatureNumber, f.m_flags, f.GetNumPoints(), f.GetNumAttributes(), f.GetFeatureEnd() != nullptr);
}

TEST(Feature, AWrongTypeIsReportedAndTheBodyTaken) {
  Scratch scratch;
  for (const auto& [type, text] : {std::pair{0u, ""}, {1u, "Point"}, {3u, "Area"}, {4u, ""}, {65535u, ""}}) {
    for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2, 3}) {
      SCOPED_TRACE(testing::Message() << type << ' ' << version);
      CKespFeature from, to;
      from.FeatureType = static_cast<KESP_FEATURE_TYPE>(type), from.SymbolIndex = 34;
      to.m_recordVersion = version;
      const bool good = type == 1 || type == 3;
      EXPECT_EQ(scratch.Read(to, scratch.Body(from, version)), good);
      EXPECT_EQ(to.GetError(), good ? KESP_ERROR_NONE : KESP_ERROR_BAD_RECORD);
      EXPECT_EQ(std::tuple(to.FeatureType, to.SymbolIndex, to.GetTypeString().ToUtf8()), std::tuple(type, 34, text));
      // Reading again clears the error; only in version 1 it stays.
      from.FeatureType = KESP_FEATURE_LINE;
      EXPECT_EQ(scratch.Read(to, scratch.Body(from, version)), good || version > 1);
    }
  }
}

TEST(Feature, OwnsWhatIsInItsListsUntilItIsRemoved) {
  CKespFeature feature;
  CRect2D extents(9, 9, 9, 9);
  EXPECT_FALSE(feature.GetExtents(extents));
  EXPECT_TRUE(extents == CRect2D());
  for (CKespPoint* point : {Point(1.1, 1), Point(5.5, -2.2), Point(3, 4.4)}) EXPECT_TRUE(feature.AddPoint(point));
  EXPECT_TRUE(feature.GetExtents(extents));
  EXPECT_TRUE(extents == CRect2D(1.1, -2.2, 5.5, 4.4));
  for (const char16_t* name : {u"Type", u"Height", u"TYPE"}) EXPECT_TRUE(feature.AddAttribute(Attribute(name)));
  EXPECT_EQ(feature.GetAttribute(u"type"), feature.GetAttribute(0));
  EXPECT_EQ(feature.GetAttribute(u"none"), nullptr);

  const std::unique_ptr<CKespPoint> point(feature.RemovePoint(0));
  const std::unique_ptr<CKespAttribute> attribute(feature.RemoveAttribute(2));
  EXPECT_EQ(attribute->AttributeName, CString(u"TYPE"));
  EXPECT_EQ(std::tuple(point->CoordX, feature.GetPoint(0)->CoordX), std::tuple(1.1, 5.5));
  EXPECT_EQ(std::tuple(feature.GetNumPoints(), feature.GetNumAttributes()), std::tuple(2, 2));
  for (const int at : {-1, 2}) {
    EXPECT_EQ(std::tuple(feature.GetPoint(at), feature.RemovePoint(at)), std::tuple(nullptr, nullptr)) << at;
    EXPECT_EQ(std::tuple(feature.GetAttribute(at), feature.RemoveAttribute(at)), std::tuple(nullptr, nullptr)) << at;
  }
  const std::unique_ptr<CKespFeatureEnd> replaced(new CKespFeatureEnd);
  feature.SetFeatureEnd(replaced.get());
  feature.SetFeatureEnd(new CKespFeatureEnd);
  EXPECT_TRUE(feature.Clear());
  EXPECT_EQ(Parts(feature), std::tuple(0, 0, 0, 0, false));
}

TEST(Feature, IsCopiedAndMovedWholeAndAssignedByItsDescription) {
  CKespFeature from = Oak(), to, moved(Oak());
  const CKespFeature copy(from);
  EXPECT_EQ(Parts(copy), std::tuple(7, 2, 1, 1, true));
  EXPECT_EQ(copy.GetPoint(0)->CoordX, 1);
  EXPECT_TRUE(copy.CompareAttributeList(&from));
  EXPECT_NE(copy.GetPoint(0), from.GetPoint(0));
  EXPECT_NE(copy.GetAttribute(0), from.GetAttribute(0));
  EXPECT_NE(copy.GetFeatureEnd(), from.GetFeatureEnd());
  EXPECT_FALSE(to = static_cast<CKespFeature*>(nullptr));
  EXPECT_TRUE(to = &from);
  EXPECT_EQ(Parts(to), std::tuple(0, 0, 0, 0, false));
  const CKespPoint* const point = moved.GetPoint(0);
  CKespFeature taken(std::move(moved)), assigned;
  assigned.AddPoint(Point(3, 4));
  assigned = std::move(taken);
  EXPECT_EQ(assigned.GetPoint(0), point);
  EXPECT_EQ(Parts(assigned), Parts(from));
  for (const CKespFeature* const one : std::initializer_list<const CKespFeature*>{&copy, &to, &assigned})
    EXPECT_EQ(Description(*one), Description(from));
  for (CKespFeature* const left : {&moved, &taken}) {  // NOLINT(bugprone-use-after-move): an empty feature
    EXPECT_EQ(left->GetNumPoints() + left->GetNumAttributes(), 0);
    EXPECT_EQ(left->GetFeatureEnd(), nullptr);
    EXPECT_TRUE(left->AddPoint(Point(1, 1)));
  }
}

// A short one, which also grows in between, and one that is long enough for its removals to be noted.
TEST(Feature, ListsKeepTheirOrderWhereverSomethingIsTakenOut) {
  std::minstd_rand random(4);
  const std::unique_ptr<CKespPoint> stranger(Point(0, 0));
  for (const auto& [least, most] : {std::pair{1U, 100U}, {600U, 1500U}}) {
    const bool isShort = least == 1;
    CKespFeature feature;
    std::vector<CKespPoint*> model;
    for (int step = 0; step < 6000; ++step) {
      std::size_t added = model.size() < least ? most - model.size() : isShort ? random() % 2 : 0;
      for (; added != 0; --added) feature.AddPoint(model.emplace_back(random() % 50 == 0 ? nullptr : Point(1, 2)));
      if (isShort && random() % 10 == 0) feature.m_pointList.reserve(random() % 20);
      const std::size_t at = std::array{std::size_t{0}, model.size() - 1, random() % model.size()}[random() % 3];
      if (random() % 200 == 0) {
        ASSERT_TRUE(std::equal(feature.m_pointList.begin(), feature.m_pointList.end(), model.begin(), model.end()));
      }
      ASSERT_EQ(feature.GetPoint(static_cast<int>(at)), model[at]) << step;
      ASSERT_TRUE(model[at] == nullptr || feature.m_pointList.IndexOf(model[at]) == at) << step;
      ASSERT_EQ(feature.m_pointList.IndexOf(stranger.get()), model.size());
      const std::unique_ptr<CKespPoint> removed(feature.RemovePoint(static_cast<int>(at)));
      ASSERT_EQ(removed.get(), model[at]) << step;
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
      ASSERT_EQ(feature.m_pointList.IndexOf(removed.get()),
                removed ? model.size() : feature.m_pointList.IndexOf(nullptr));
    }
  }
}

TEST(Feature, ComparesTheLayoutOfItsAttributes) {
  CKespFeature a, same, name, kind, more;
  for (CKespFeature* const one : {&a, &same, &more}) one->AddAttribute(Attribute(u"Height", KESP_ATTRIBUTE_NUMERIC));
  a.GetAttribute(0)->Value = 5;
  kind.AddAttribute(Attribute(u"Height", KESP_ATTRIBUTE_DATE));
  name.AddAttribute(Attribute(u"height", KESP_ATTRIBUTE_NUMERIC));
  more.AddAttribute(Attribute(u"more"));
  EXPECT_TRUE(a.CompareAttributeList(&same));
  EXPECT_FALSE(a.CompareAttributeList(nullptr));
  for (CKespFeature* const other : {&name, &kind, &more})
    EXPECT_FALSE(a.CompareAttributeList(other) || other->CompareAttributeList(&a));
}

}  // namespace
}  // namespace kesp::test
