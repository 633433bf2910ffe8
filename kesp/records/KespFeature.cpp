#include "kesp/records/KespFeature.h"

#include <algorithm>

#include "kesp/format/BodyIo.h"
#include "kesp/format/RecordKinds.h"
#include "kesp/util/StringTable.h"
#include "kesp/util/Utilities.h"

namespace {

template <class Item>
Item* At(const kesp::OwningList<Item>& list, int index) noexcept {
  return index >= 0 && static_cast<std::size_t>(index) < list.size() ? list[static_cast<std::size_t>(index)] : nullptr;
}

template <class Item>
Item* Unlink(kesp::OwningList<Item>& list, int index) noexcept {
  const bool isThere = index >= 0 && static_cast<std::size_t>(index) < list.size();
  return isThere ? list.release(static_cast<std::size_t>(index)) : nullptr;
}

template <class Item>
void CopyList(const kesp::OwningList<Item>& from, kesp::OwningList<Item>& to) {
  to.reserve(from.size());
  for (const Item* item : from) to.push_back(item != nullptr ? new Item(*item) : nullptr);
}

}  // namespace

CKespFeature::CKespFeature(const CKespFeature& other)
    : CKespRecord(other),
      DisplayWord1(other.DisplayWord1),
      DisplayWord2(other.DisplayWord2),
      DisplayText(other.DisplayText),
      FeatureName(other.FeatureName),
      FeatureType(other.FeatureType),
      Color(other.Color),
      SymbolIndex(other.SymbolIndex),
      m_pFeatureEnd(other.m_pFeatureEnd ? std::make_unique<CKespFeatureEnd>(*other.m_pFeatureEnd) : nullptr),
      FeatureNumber(other.FeatureNumber) {
  CopyList(other.m_attributeList, m_attributeList);
  CopyList(other.m_pointList, m_pointList);
}

bool CKespFeature::operator=(CKespFeature* other) {
  if (other == nullptr) return false;
  Color = other->Color;
  FeatureName = other->FeatureName;
  FeatureType = other->FeatureType;
  SymbolIndex = other->SymbolIndex;
  DisplayWord1 = other->DisplayWord1;
  DisplayWord2 = other->DisplayWord2;
  DisplayText = other->DisplayText;
  return true;
}

// The order of Clear: the destructors of points and attributes that hosts derive may depend on it.
CKespFeature::~CKespFeature() {
  m_attributeList.clear();
  m_pointList.clear();
}

bool CKespFeature::SetFeatureNumber(unsigned long featureNumber, unsigned long, bool) noexcept {
  FeatureNumber = static_cast<std::uint32_t>(featureNumber);
  return true;
}

void CKespFeature::SetFeatureEnd(CKespFeatureEnd* end) noexcept {
  (void)m_pFeatureEnd.release();
  m_pFeatureEnd.reset(end);
}

CKespPoint* CKespFeature::GetPoint(int index) const noexcept { return At(m_pointList, index); }

CKespAttribute* CKespFeature::GetAttribute(int index) const noexcept { return At(m_attributeList, index); }

CKespAttribute* CKespFeature::GetAttribute(const CString& name) const noexcept {
  for (CKespAttribute* attribute : m_attributeList) {
    if (attribute != nullptr && attribute->AttributeName.CompareNoCase(name) == 0) return attribute;
  }
  return nullptr;
}

CKespPoint* CKespFeature::RemovePoint(int index) noexcept { return Unlink(m_pointList, index); }

CKespAttribute* CKespFeature::RemoveAttribute(int index) noexcept { return Unlink(m_attributeList, index); }

bool CKespFeature::RemoveAllAttributes() {
  m_attributeList.clear();
  return true;
}

bool CKespFeature::Clear() {
  m_attributeList.clear();
  m_pointList.clear();
  m_pFeatureEnd.reset();
  return true;
}

bool CKespFeature::CompareAttributeList(const CKespFeature* other) const {
  if (other == this) return true;
  if (other == nullptr) return false;
  return std::equal(m_attributeList.begin(), m_attributeList.end(), other->m_attributeList.begin(),
                    other->m_attributeList.end(), [](const CKespAttribute* a, const CKespAttribute* b) {
                      if (a == nullptr || b == nullptr) return a == b;
                      return a->AttributeName == b->AttributeName && a->AttributeKind == b->AttributeKind;
                    });
}

bool CKespFeature::GetExtents(CRect2D& extents) const {
  extents = CRect2D();
  if (m_pointList.empty() || m_pointList.front() == nullptr) return false;
  const CKespPoint& first = *m_pointList.front();
  extents = CRect2D(first.CoordX, first.CoordY, first.CoordX, first.CoordY);
  for (const CKespPoint* point : m_pointList) {
    if (point == nullptr) continue;
    // A NaN after the first point is skipped.
    extents.maxX = point->CoordX > extents.maxX ? point->CoordX : extents.maxX;
    extents.minX = point->CoordX < extents.minX ? point->CoordX : extents.minX;
    extents.maxY = point->CoordY > extents.maxY ? point->CoordY : extents.maxY;
    extents.minY = point->CoordY < extents.minY ? point->CoordY : extents.minY;
  }
  return true;
}

CString CKespFeature::GetTypeString() const {
  if (FeatureType < KESP_FEATURE_POINT || FeatureType > KESP_FEATURE_AREA) return {};
  return GetStringRes(kesp::kFirstFeatureTypeText + static_cast<int>(FeatureType) - 1);
}

unsigned long CKespFeature::GetLength(unsigned short version) {
  return kesp::BodyLengthOf(KESP_RECORD_FEATURE, OwnVersionIfZero(version));
}

bool CKespFeature::Read(CFile& file) {
  // Called directly, without FalseWhenFileFails and without resetting m_error: hosts rely on the exception to detect
  // the end of an old file.
  if (m_recordVersion == 1) return ReadVersion1(file);
  return ReadGuarded(m_recordVersion, file);
}

bool CKespFeature::ReadVersion3(CFile& file) { return ReadGuarded(3, file); }

bool CKespFeature::ReadVersion2(CFile& file) { return ReadGuarded(2, file); }

bool CKespFeature::ReadVersion1(CFile& file) { return ReadUpTo(1, file); }

bool CKespFeature::ReadGuarded(unsigned newest, CFile& file) {
  m_error = KESP_ERROR_NONE;
  return kesp::FalseWhenFileFails([&] { return ReadUpTo(newest, file); });
}

bool CKespFeature::ReadUpTo(unsigned newest, CFile& file) {
  if (m_recordVersion > newest) return false;
  if (!kesp::ReadBody(file, *this, kesp::kFeatureBodies, m_recordVersion)) return false;
  if (FeatureType < KESP_FEATURE_POINT || FeatureType > KESP_FEATURE_AREA) m_error = KESP_ERROR_BAD_RECORD;
  return m_error == KESP_ERROR_NONE;
}

bool CKespFeature::Write(CFile& file, unsigned long sourceFlag, unsigned short version) {
  if (version == 1) return WriteVersion1(file, version);  // exceptions propagate, as in Read
  return WriteVersion3(file, sourceFlag, version);
}

bool CKespFeature::WriteVersion3(CFile& file, unsigned long /*sourceFlag*/, unsigned short version) {
  return kesp::FalseWhenFileFails([&] {
    // An unknown version has no body, so nothing to write.
    (void)kesp::WriteBody(file, *this, kesp::kFeatureBodies, OwnVersionIfZero(version));
    return true;
  });
}

bool CKespFeature::WriteVersion2(CFile& file, unsigned long sourceFlag, unsigned short version) {
  return WriteVersion3(file, sourceFlag, version);
}

bool CKespFeature::WriteVersion1(CFile& file, unsigned short version) {
  return version == 1 && kesp::WriteBody(file, *this, kesp::kFeatureBodies, version);
}

bool CKespFeature::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const feature = dynamic_cast<const CKespFeature*>(other);
  return feature != nullptr && feature->FeatureNumber == FeatureNumber;
}

unsigned short CKespFeature::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionFor(KESP_RECORD_FEATURE, kespVersion);
}

bool CKespFeature::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  return kesp::OldestFileVersion(KESP_RECORD_FEATURE, OwnVersionIfZero(recordVersion), kespVersion);
}
