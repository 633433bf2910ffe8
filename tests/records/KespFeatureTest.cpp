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

TEST(Feature, AWrongTypeIsReportedAndTheBodyTaken) {
  Scratch scratch;
  for (const auto& [type, text] : {std::pair{0u, u""}, {1u, u"Point"}, {3u, u"Area"}, {4u, u""}, {65535u, u""}}) {
    for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2, 3}) {
      CKespFeature from, to;
      from.FeatureType = static_cast<KESP_FEATURE_TYPE>(type), from.SymbolIndex = 34;
      to.m_recordVersion = version;
      const bool good = type == 1 || type == 3;
      EXPECT_EQ(scratch.Read(to, scratch.Body(from, version)), good) << type << ' ' << version;
      EXPECT_EQ(to.GetError(), good ? KESP_ERROR_NONE : KESP_ERROR_BAD_RECORD);
      EXPECT_TRUE(to.FeatureType == type && to.SymbolIndex == 34 && to.GetTypeString() == CString(text));
      // Reading again clears the error, in version 1 alone it stays.
      from.FeatureType = KESP_FEATURE_LINE;
      EXPECT_EQ(scratch.Read(to, scratch.Body(from, version)), good || version > 1) << type << ' ' << version;
    }
  }
}

TEST(Feature, OwnsWhatIsInItsListsUntilItIsRemoved) {
  CKespFeature feature;
  CRect2D extents(9, 9, 9, 9);
  EXPECT_TRUE(!feature.GetExtents(extents) && extents == CRect2D());
  for (CKespPoint* point : {Point(1, 1), Point(5, -2), Point(3, 4)}) EXPECT_TRUE(feature.AddPoint(point));
  EXPECT_TRUE(feature.GetExtents(extents) && extents == CRect2D(1, -2, 5, 4));
  for (const char16_t* name : {u"Type", u"Height", u"TYPE"}) EXPECT_TRUE(feature.AddAttribute(Attribute(name)));
  EXPECT_EQ(feature.GetAttribute(u"type"), feature.GetAttribute(0));
  EXPECT_EQ(feature.GetAttribute(u"none"), nullptr);

  const std::unique_ptr<CKespPoint> point(feature.RemovePoint(0));
  const std::unique_ptr<CKespAttribute> attribute(feature.RemoveAttribute(2));
  EXPECT_EQ(attribute->AttributeName, CString(u"TYPE"));
  for (const int at : {-1, 2})
    EXPECT_TRUE(feature.RemovePoint(at) == nullptr && feature.RemoveAttribute(at) == nullptr);
  EXPECT_TRUE(point->CoordX == 1 && feature.GetNumPoints() == 2 && feature.GetPoint(0)->CoordX == 5);
  EXPECT_EQ(feature.GetNumAttributes(), 2);
  for (const int at : {-1, 2}) EXPECT_TRUE(feature.GetPoint(at) == nullptr && feature.GetAttribute(at) == nullptr);
  const std::unique_ptr<CKespFeatureEnd> replaced(new CKespFeatureEnd);
  feature.SetFeatureEnd(replaced.get());
  feature.SetFeatureEnd(new CKespFeatureEnd);
  EXPECT_TRUE(feature.Clear() && feature.GetFeatureEnd() == nullptr);
  EXPECT_EQ(feature.GetNumPoints() + feature.GetNumAttributes(), 0);
}

TEST(Feature, IsCopiedWholeAndAssignedByItsDescription) {
  CKespFeature from;
  from.FeatureNumber = 7, from.m_flags = 2, from.FeatureName = u"Oak", from.FeatureType = KESP_FEATURE_LINE;
  from.Color = 3, from.SymbolIndex = 4, from.DisplayWord1 = 5, from.DisplayWord2 = 6, from.DisplayText = u"text";
  from.AddPoint(Point(1, 2));
  from.AddAttribute(Attribute(u"Type"));
  from.SetFeatureEnd(new CKespFeatureEnd);
  const CKespFeature copy(from);
  EXPECT_TRUE(copy.GetPoint(0)->CoordX == 1 && copy.GetPoint(0) != from.GetPoint(0));
  EXPECT_TRUE(copy.CompareAttributeList(&from) && copy.GetAttribute(0) != from.GetAttribute(0));
  EXPECT_TRUE(copy.GetFeatureEnd() != nullptr && copy.GetFeatureEnd() != from.GetFeatureEnd());
  EXPECT_TRUE(copy.FeatureNumber == 7 && copy.m_flags == 2);

  CKespFeature to;
  EXPECT_FALSE(to = static_cast<CKespFeature*>(nullptr));
  EXPECT_TRUE(to = &from);
  EXPECT_TRUE(to.FeatureNumber == 0 && to.m_flags == 0 && to.GetFeatureEnd() == nullptr);
  EXPECT_EQ(to.GetNumPoints() + to.GetNumAttributes(), 0);
  for (const CKespFeature* feature : {&copy, static_cast<const CKespFeature*>(&to)}) {
    EXPECT_EQ(feature->FeatureName + feature->DisplayText, CString(u"Oaktext"));
    EXPECT_TRUE(feature->FeatureType == KESP_FEATURE_LINE && feature->Color == 3 && feature->SymbolIndex == 4);
    EXPECT_TRUE(feature->DisplayWord1 == 5 && feature->DisplayWord2 == 6);
  }
}

TEST(Feature, HandsAllOfItOverWhenItIsMoved) {
  CKespFeature from;
  from.FeatureNumber = 7, from.FeatureName = u"a name of more than eleven";
  from.AddPoint(Point(1, 2));
  from.AddAttribute(Attribute(u"Type"));
  from.SetFeatureEnd(new CKespFeatureEnd);
  const CKespPoint* const point = from.GetPoint(0);
  CKespFeature moved(std::move(from)), assigned;
  assigned.AddPoint(Point(3, 4));
  assigned = std::move(moved);
  EXPECT_TRUE(assigned.GetPoint(0) == point && assigned.GetNumAttributes() == 1 && assigned.GetFeatureEnd() != nullptr);
  EXPECT_TRUE(assigned.FeatureNumber == 7 && assigned.FeatureName == CString(u"a name of more than eleven"));
  for (CKespFeature* const left : {&from, &moved}) {  // NOLINT(bugprone-use-after-move): an empty feature
    EXPECT_EQ(left->GetNumPoints() + left->GetNumAttributes(), 0);
    EXPECT_TRUE(left->GetFeatureEnd() == nullptr && left->AddPoint(Point(1, 1)));
  }
}

TEST(Feature, ListsKeepTheirOrderWhereverSomethingIsTakenOut) {
  std::minstd_rand random(3);
  CKespFeature feature;
  std::vector<CKespPoint*> model;
  for (int step = 0; step < 5000; ++step) {
    if (random() % 20 < (step / 500 % 2 == 0 ? 12u : 8u)) {
      model.push_back(Point(step, 0));
      feature.AddPoint(model.back());
    } else if (!model.empty()) {
      const std::size_t places[] = {0, model.size() - 1, random() % model.size()};
      const std::size_t at = places[random() % 3];
      const std::unique_ptr<CKespPoint> removed(feature.RemovePoint(static_cast<int>(at)));
      ASSERT_EQ(removed.get(), model[at]);
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
    }
    ASSERT_TRUE(std::equal(feature.m_pointList.begin(), feature.m_pointList.end(), model.begin(), model.end())) << step;
  }
}

TEST(Feature, IsTakenApartInTheOrderOfClear) {
  static std::string order;
  struct LoggedPoint : CKespPoint {
    ~LoggedPoint() override { order += 'P'; }
  };
  struct LoggedAttribute : CKespAttribute {
    ~LoggedAttribute() override { order += 'A'; }
  };
  struct LoggedEnd : CKespFeatureEnd {
    ~LoggedEnd() override { order += 'E'; }
  };
  {
    CKespFeature feature;
    feature.SetFeatureEnd(new LoggedEnd);
    feature.AddPoint(new LoggedPoint);
    feature.AddAttribute(new LoggedAttribute);
  }
  EXPECT_EQ(order, "APE");
}

TEST(Feature, ComparesTheLayoutOfItsAttributes) {
  CKespFeature a, same, name, kind, more;
  for (CKespFeature* const one : {&a, &same, &kind, &more})
    one->AddAttribute(Attribute(u"Height", one == &kind ? KESP_ATTRIBUTE_DATE : KESP_ATTRIBUTE_NUMERIC));
  a.GetAttribute(0)->Value = 5;
  name.AddAttribute(Attribute(u"height", KESP_ATTRIBUTE_NUMERIC));
  more.AddAttribute(Attribute(u"more"));
  EXPECT_TRUE(a.CompareAttributeList(&same) && !a.CompareAttributeList(nullptr));
  for (CKespFeature* const other : {&name, &kind, &more})
    EXPECT_FALSE(a.CompareAttributeList(other) || other->CompareAttributeList(&a));
}

}  // namespace
}  // namespace kesp::test
