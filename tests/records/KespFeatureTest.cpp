#include "kesp/records/KespFeature.h"

#include <gtest/gtest.h>

#include "kesp/kesp.h"
#include "tests/records/Scratch.h"

namespace kesp::test {
namespace {

CKespPoint* Point(double x, double y) {
  auto* const point = new CKespPoint;
  point->CoordX = x;
  point->CoordY = y;
  return point;
}
CKespAttribute* Attribute(const char16_t* name, int kind = KESP_ATTRIBUTE_STRING) {
  auto* const attribute = new CKespAttribute;
  attribute->AttributeName = name;
  attribute->AttributeKind = kind;
  return attribute;
}

TEST(Feature, AWrongTypeIsReportedAndTheBodyTaken) {
  Scratch scratch;
  for (const unsigned type : {0u, 1u, 3u, 4u, 65535u}) {
    for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 2, 3}) {
      CKespFeature from, to;
      from.FeatureType = static_cast<KESP_FEATURE_TYPE>(type);
      from.Color = 0xFFEEDDCC;
      from.SymbolIndex = 34;
      to.m_recordVersion = version;
      const bool good = type == 1 || type == 3;
      EXPECT_EQ(scratch.Read(to, scratch.Body(from, version)), good) << type << ' ' << version;
      EXPECT_EQ(to.GetError(), good ? KESP_ERROR_NONE : KESP_ERROR_BAD_RECORD);
      EXPECT_EQ(to.FeatureType, type);
      EXPECT_EQ(to.GetColor(), 0xFFEEDDCCu);
      EXPECT_EQ(to.GetSymbolIndex(), 34);
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
  EXPECT_FALSE(feature.GetExtents(extents));
  EXPECT_EQ(extents, CRect2D());
  EXPECT_EQ(feature.DisplayWord1, 1);
  EXPECT_EQ(feature.SymbolIndex, 0);
  EXPECT_EQ(feature.GetFeatureEnd(), nullptr);
  for (CKespPoint* point : {Point(1, 1), Point(5, -2), Point(3, 4)}) EXPECT_TRUE(feature.AddPoint(point));
  EXPECT_TRUE(feature.GetExtents(extents));
  EXPECT_EQ(extents, CRect2D(1, -2, 5, 4));
  EXPECT_TRUE(feature.AddAttribute(Attribute(u"Type")));
  EXPECT_TRUE(feature.AddAttribute(Attribute(u"Height")));
  EXPECT_TRUE(feature.AddAttribute(Attribute(u"TYPE")));
  EXPECT_EQ(feature.GetAttribute(u"type"), feature.GetAttribute(0));
  EXPECT_EQ(feature.GetAttribute(u"HEIGHT"), feature.GetAttribute(1));
  EXPECT_EQ(feature.GetAttribute(u"none"), nullptr);

  const std::unique_ptr<CKespPoint> point(feature.GetPoint(0));
  feature.RemovePoint(0);
  EXPECT_EQ(feature.GetNumPoints(), 2);
  EXPECT_EQ(point->CoordX, 1);
  EXPECT_EQ(feature.GetPoint(0)->CoordX, 5);
  const std::unique_ptr<CKespAttribute> attribute(feature.GetAttribute(2));
  feature.RemoveAttribute(2);
  for (const int outside : {-1, 2}) {
    EXPECT_EQ(feature.GetPoint(outside), nullptr);
    EXPECT_EQ(feature.GetAttribute(outside), nullptr);
    feature.RemovePoint(outside);
    feature.RemoveAttribute(outside);
  }
  EXPECT_EQ(feature.GetNumAttributes(), 2);
  const std::unique_ptr<CKespFeatureEnd> replaced(new CKespFeatureEnd);
  feature.SetFeatureEnd(replaced.get());
  feature.SetFeatureEnd(new CKespFeatureEnd);
  EXPECT_TRUE(feature.RemoveAllAttributes());
  EXPECT_EQ(feature.GetNumAttributes(), 0);
  EXPECT_TRUE(feature.Clear());
  EXPECT_EQ(feature.GetFeatureEnd(), nullptr);
  EXPECT_EQ(feature.GetNumPoints(), 0);
}

TEST(Feature, IsCopiedWholeAndAssignedByItsDescription) {
  CKespFeature from;
  from.SetFeatureNumber(7, 99, true);
  from.m_flags = 2;
  from.FeatureName = u"Oak";
  from.FeatureType = KESP_FEATURE_LINE;
  from.SetColor(3);
  from.SetSymbolIndex(4);
  from.DisplayWord1 = 5;
  from.DisplayWord2 = 6;
  from.DisplayText = u"text";
  from.AddPoint(Point(1, 2));
  from.AddAttribute(Attribute(u"Type"));
  from.SetFeatureEnd(new CKespFeatureEnd);
  from.GetFeatureEnd()->SetFeatureNumber(7);

  const CKespFeature copy(from);
  from.GetPoint(0)->CoordX = 99;
  from.GetAttribute(0)->AttributeName = u"changed";
  from.GetFeatureEnd()->FeatureNumber = 99;
  EXPECT_EQ(copy.GetPoint(0)->CoordX, 1);
  EXPECT_EQ(copy.GetAttribute(0)->AttributeName, CString(u"Type"));
  EXPECT_EQ(copy.GetFeatureEnd()->FeatureNumber, 7u);
  EXPECT_EQ(copy.FeatureNumber, 7u);
  EXPECT_EQ(copy.m_flags, 2u);

  CKespFeature to;
  to.FeatureNumber = 8;
  EXPECT_FALSE(to = static_cast<CKespFeature*>(nullptr));
  EXPECT_TRUE(to = &from);
  EXPECT_EQ(to.FeatureNumber, 8u);
  EXPECT_EQ(to.m_flags, 0u);
  EXPECT_EQ(to.GetNumPoints() + to.GetNumAttributes(), 0);
  EXPECT_EQ(to.GetFeatureEnd(), nullptr);
  for (const CKespFeature* feature : {&copy, static_cast<const CKespFeature*>(&to)}) {
    EXPECT_EQ(feature->FeatureName + feature->DisplayText, CString(u"Oaktext"));
    EXPECT_EQ(feature->FeatureType, KESP_FEATURE_LINE);
    EXPECT_EQ(feature->Color, 3u);
    EXPECT_EQ(feature->SymbolIndex, 4);
    EXPECT_EQ(feature->DisplayWord1, 5);
    EXPECT_EQ(feature->DisplayWord2, 6);
  }
}

TEST(Feature, ComparesTheLayoutOfItsAttributes) {
  CKespFeature a, b;
  EXPECT_TRUE(a.CompareAttributeList(&a) && a.CompareAttributeList(&b));
  EXPECT_FALSE(a.CompareAttributeList(nullptr));
  for (CKespFeature* feature : {&a, &b}) {
    feature->AddAttribute(Attribute(u"Type"));
    feature->AddAttribute(Attribute(u"Height", KESP_ATTRIBUTE_NUMERIC));
  }
  a.GetAttribute(1)->Value = 5;
  EXPECT_TRUE(a.CompareAttributeList(&b));
  b.GetAttribute(1)->AttributeName = u"height";
  EXPECT_FALSE(a.CompareAttributeList(&b));
  b.GetAttribute(1)->AttributeName = u"Height";
  b.GetAttribute(1)->AttributeKind = KESP_ATTRIBUTE_DATE;
  EXPECT_FALSE(a.CompareAttributeList(&b));
  b.GetAttribute(1)->AttributeKind = KESP_ATTRIBUTE_NUMERIC;
  b.AddAttribute(Attribute(u"more"));
  EXPECT_FALSE(a.CompareAttributeList(&b) || b.CompareAttributeList(&a));
}

}  // namespace
}  // namespace kesp::test
