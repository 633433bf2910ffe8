// Makes records with the library's defaults and the caller's values.
#include <memory>

#include "kesp/dataset/KespFile.h"

namespace {

constexpr unsigned short kNewFeatureSymbol = 34;
constexpr std::uint32_t kNoSpareValue = 0xFFFFFFFF;

CKespAttribute* MakeAttribute(const CString& name, unsigned long featureNumber, KESP_ATTRIBUTE_KIND kind) {
  auto attribute = std::make_unique<CKespAttribute>();
  attribute->SetFeatureNumber(featureNumber);
  attribute->AttributeName = name;
  attribute->AttributeKind = kind;
  return attribute.release();
}

CKespAttribute* MakeTextAttribute(const CString& name, unsigned long featureNumber, CString& value,
                                  KESP_ATTRIBUTE_KIND kind) {
  CKespAttribute* const attribute = MakeAttribute(name, featureNumber, kind);
  attribute->TextValue = std::move(value);
  return attribute;
}

CKespAttribute* MakeNumberAttribute(const CString& name, unsigned long featureNumber, double value,
                                    KESP_ATTRIBUTE_KIND kind) {
  CKespAttribute* const attribute = MakeAttribute(name, featureNumber, kind);
  attribute->Value = value;
  return attribute;
}

template <class... Arguments>
CKespTag* MakeTag(const Arguments&... arguments) {
  auto tag = std::make_unique<CKespTag>();
  tag->Set(arguments...);
  return tag.release();
}

float AsFloat(unsigned long value) { return static_cast<float>(static_cast<std::uint32_t>(value)); }

}  // namespace

CKespFeature* CKespFile::CreateFeature(CString name, KESP_FEATURE_TYPE type, unsigned long featureNumber) {
  auto* const feature = new CKespFeature;
  feature->SetFeatureNumber(featureNumber, 0, true);
  feature->FeatureName = std::move(name);
  feature->FeatureType = type;
  feature->SymbolIndex = kNewFeatureSymbol;
  return feature;
}

CKespPoint* CKespFile::CreatePoint(unsigned long pointNumber, CString text, std::int32_t time, double coordY,
                                   double coordX, double coordZ, unsigned long featureNumber) {
  auto* const point = new CKespPoint;
  point->PointNumber = static_cast<std::uint32_t>(pointNumber);
  point->PointText = std::move(text);
  point->PointTime = time;
  point->CoordY = coordY;
  point->CoordX = coordX;
  point->CoordZ = coordZ;
  point->SetFeatureNumber(featureNumber, 0, false);
  return point;
}

CKespNote* CKespFile::CreateNote(CString text) {
  auto* const note = new CKespNote;
  note->NoteText = std::move(text);
  return note;
}

CKespFeatureEnd* CKespFile::CreateFeatureEnd(unsigned long featureNumber) {
  auto* const end = new CKespFeatureEnd;
  end->SetFeatureNumber(featureNumber);
  return end;
}

CKespAttribute* CKespFile::CreateStringAttribute(CString name, unsigned long featureNumber, CString value) {
  return MakeTextAttribute(name, featureNumber, value, KESP_ATTRIBUTE_STRING);
}

CKespAttribute* CKespFile::CreateMenuAttribute(CString name, unsigned long featureNumber, CString value) {
  return MakeTextAttribute(name, featureNumber, value, KESP_ATTRIBUTE_MENU);
}

CKespAttribute* CKespFile::CreateNumericAttribute(CString name, unsigned long featureNumber, double value,
                                                  double /*second*/, double /*third*/) {
  return MakeNumberAttribute(name, featureNumber, value, KESP_ATTRIBUTE_NUMERIC);
}

CKespAttribute* CKespFile::CreateDateAttribute(CString name, unsigned long featureNumber, double date,
                                               double /*second*/, double /*third*/) {
  return MakeNumberAttribute(name, featureNumber, date, KESP_ATTRIBUTE_DATE);
}

CKespTag* CKespFile::CreateTag(CString name, unsigned long featureNumber, unsigned long pointNumber,
                               unsigned long timeFirstPart, unsigned long timeSecondPart) {
  return MakeTag(name, featureNumber, pointNumber, timeFirstPart, timeSecondPart);
}
CKespTag* CKespFile::CreateTag(unsigned long color, CString name) { return MakeTag(name, color); }
CKespTag* CKespFile::CreateTag(CString name, unsigned long color) { return MakeTag(name, color); }
CKespTag* CKespFile::CreateTag(CString name, std::uint32_t color) { return MakeTag(name, color); }
CKespTag* CKespFile::CreateTag(CString name, CRect2D rect) { return MakeTag(name, rect); }
CKespTag* CKespFile::CreateTag(CString name, CPoint3D point) { return MakeTag(name, point); }
CKespTag* CKespFile::CreateTag(CString name, CString value) { return MakeTag(name, value); }
CKespTag* CKespFile::CreateTag(CString name, double value) { return MakeTag(name, value); }
CKespTag* CKespFile::CreateTag(CString name, int value) { return MakeTag(name, value); }

CKespTag* CKespFile::CreateTagGps(unsigned long number, unsigned long value1, unsigned long value2,
                                  unsigned long value3, unsigned long value4) {
  return MakeTag(number, AsFloat(value1), AsFloat(value2), AsFloat(value3), AsFloat(value4));
}

CKespTag* CKespFile::CreateTagGpsEx(unsigned long number, float value1, float value2, float value3, float value4,
                                    int integer) {
  return MakeTag(number, value1, value2, value3, value4, integer);
}

CKespTag* CKespFile::CreateTagFeatureLink(unsigned long featureNumber1, unsigned long qualifier1,
                                          unsigned long featureNumber2, unsigned long qualifier2,
                                          unsigned long linkValue) {
  CKespFeatureLink link;
  link.m_featureNumber1 = static_cast<std::uint32_t>(featureNumber1);
  link.m_qualifier1 = static_cast<std::uint32_t>(qualifier1);
  link.m_featureNumber2 = static_cast<std::uint32_t>(featureNumber2);
  link.m_qualifier2 = static_cast<std::uint32_t>(qualifier2);
  link.m_linkValue = static_cast<std::uint32_t>(linkValue);
  link.m_spare = kNoSpareValue;
  return MakeTag(link);
}

CKespTag* CKespFile::CreateTagBlob(CString name, const void* data, int length) {
  auto tag = std::make_unique<CKespTag>();
  tag->Set(KESP_TAG_BLOB, name, data, static_cast<unsigned long>(length));
  return tag.release();
}

ErrorEnum CKespFile::AddGpsInfoToPoint(CKespPoint& point, double value, int number, KESP_SIGNAL_STATUS status) {
  point.GpsValue = value;
  point.GpsNumber = number;
  point.SignalStatus = status;
  return ERR_NONE;
}

ErrorEnum CKespFile::AddOffsetToPoint(CKespPoint& point, double first, double second) {
  point.SetOffset(first, second);
  return ERR_NONE;
}

ErrorEnum CKespFile::AddDisplayInfoToFeature(CKespFeature* feature, unsigned long color, unsigned short symbolIndex,
                                             unsigned short displayWord1, unsigned short displayWord2,
                                             CString displayText) {
  feature->SetColor(color);
  feature->SetSymbolIndex(symbolIndex);
  feature->DisplayWord1 = displayWord1;
  feature->DisplayWord2 = displayWord2;
  feature->DisplayText = std::move(displayText);
  return ERR_NONE;
}
