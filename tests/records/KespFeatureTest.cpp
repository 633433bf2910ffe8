#include "kesp/records/KespFeature.h"

#include <gtest/gtest.h>

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
  for (const unsigned type : {0u, 1u, 3u, 4u, 65535u}) {
    for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2, 3}) {
      CKespFeature from, to;
      from.FeatureType = static_cast<KESP_FEATURE_TYPE>(type), from.SymbolIndex = 34;
      to.m_recordVersion = version;
      const bool good = type == 1 || type == 3;
      EXPECT_EQ(scratch.Read(to, scratch.Body(from, version)), good) << type << ' ' << version;
      EXPECT_TRUE(to.GetError() == (good ? KESP_ERROR_NONE : KESP_ERROR_BAD_RECORD) && to.SymbolIndex == 34);
      EXPECT_EQ(to.FeatureType, type);
      EXPECT_EQ(to.GetTypeString(), CString(type == 1 ? u"Point" : type == 3 ? u"Area" : u""));
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

  const std::unique_ptr<CKespPoint> point(feature.GetPoint(0));
  feature.RemovePoint(0);
  EXPECT_TRUE(point->CoordX == 1 && feature.GetNumPoints() == 2 && feature.GetPoint(0)->CoordX == 5);
  const std::unique_ptr<CKespAttribute> attribute(feature.GetAttribute(2));
  feature.RemoveAttribute(2);
  for (const int outside : {-1, 2}) {
    EXPECT_TRUE(feature.GetPoint(outside) == nullptr && feature.GetAttribute(outside) == nullptr);
    feature.RemovePoint(outside);
    feature.RemoveAttribute(outside);
  }
  EXPECT_EQ(feature.GetNumAttributes(), 2);
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
  from.GetPoint(0)->CoordX = 99;
  from.GetAttribute(0)->AttributeName = u"changed";
  EXPECT_TRUE(copy.GetPoint(0)->CoordX == 1 && copy.GetAttribute(0)->AttributeName == CString(u"Type"));
  EXPECT_NE(copy.GetFeatureEnd(), from.GetFeatureEnd());
  EXPECT_TRUE(copy.FeatureNumber == 7 && copy.m_flags == 2);

  CKespFeature to;
  to.FeatureNumber = 8;
  EXPECT_FALSE(to = static_cast<CKespFeature*>(nullptr));
  EXPECT_TRUE(to = &from);
  EXPECT_TRUE(to.FeatureNumber == 8 && to.m_flags == 0 && to.GetFeatureEnd() == nullptr);
  EXPECT_EQ(to.GetNumPoints() + to.GetNumAttributes(), 0);
  for (const CKespFeature* feature : {&copy, static_cast<const CKespFeature*>(&to)}) {
    EXPECT_EQ(feature->FeatureName + feature->DisplayText, CString(u"Oaktext"));
    EXPECT_TRUE(feature->FeatureType == KESP_FEATURE_LINE && feature->Color == 3 && feature->SymbolIndex == 4);
    EXPECT_TRUE(feature->DisplayWord1 == 5 && feature->DisplayWord2 == 6);
  }
}

TEST(Feature, ComparesTheLayoutOfItsAttributes) {
  const struct {
    const char16_t* name;
    int kind;
    bool more, same;
    // clang-format off
  } kCases[] = {{u"Height", 2, false, true}, {u"height", 2, false, false}, {u"Height", 4, false, false}, {u"Height", 2, true, false}};
  // clang-format on
  for (const auto& c : kCases) {
    CKespFeature a, b;
    EXPECT_TRUE(a.CompareAttributeList(&b) && !a.CompareAttributeList(nullptr));
    a.AddAttribute(Attribute(u"Height", KESP_ATTRIBUTE_NUMERIC));
    a.GetAttribute(0)->Value = 5;
    b.AddAttribute(Attribute(c.name, c.kind));
    if (c.more) b.AddAttribute(Attribute(u"more"));
    EXPECT_TRUE(a.CompareAttributeList(&b) == c.same && b.CompareAttributeList(&a) == c.same);
  }
}

}  // namespace
}  // namespace kesp::test
