// A mapped object: a point feature, a line or an area, with its points, attributes and end mark.
//
// In the file a feature is a record of its own; its points, attributes and end follow as records with its number.
//
// Ownership: the feature owns the points and attributes in its lists and its end, and deletes them in Clear and when
// destroyed. AddPoint, AddAttribute and SetFeatureEnd take ownership; RemovePoint and RemoveAttribute return it with
// the pointer.
// Positions in the lists count from 0; for one outside 0 .. count - 1 the getters and removers return null.
//
// Errors: Read of a body with a type other than 1, 2 or 3 fills all fields, but returns false with
// KESP_ERROR_BAD_RECORD. In Read of a version-1 body and in Write with version 1, a CFileException propagates to the
// caller, also at the end of the file; other versions return false. Write with an unknown version returns true and
// writes nothing.
//
// The name is cut to 20 characters in versions 1 and 2, and to 255 in version 3. No body holds the display values.
#pragma once
#include <cstdint>
#include <memory>

#include "kesp/geometry/Rect2D.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeatureEnd.h"
#include "kesp/records/KespPoint.h"
#include "kesp/records/KespRecord.h"
#include "kesp/records/OwningList.h"

// Written to the file: never renumber.
enum KESP_FEATURE_TYPE : std::uint32_t { KESP_FEATURE_POINT = 1, KESP_FEATURE_LINE = 2, KESP_FEATURE_AREA = 3 };

class KESP_EXPORT CKespFeature : public CKespRecord {
 public:
  CKespFeature() noexcept : CKespRecord(KESP_RECORD_FEATURE, 3) {}
  CKespFeature(const CKespFeature& other);  // deep: copies the points, the attributes and the end
  CKespFeature& operator=(const CKespFeature&) = delete;
  // Moves all members, including the lists and the end. The other feature is then without points, attributes and end.
  CKespFeature(CKespFeature&& other) noexcept = default;
  CKespFeature& operator=(CKespFeature&& other) noexcept = default;
  // Copies the colour, name, type, symbol and display values of the other feature, and nothing else: the number, the
  // common fields, the points, the attributes and the end stay. Returns false for null.
  bool operator=(CKespFeature* other);
  ~CKespFeature() override;

  unsigned long GetFeatureNumber() const noexcept { return FeatureNumber; }
  bool SetFeatureNumber(unsigned long featureNumber, unsigned long = 0, bool = false) noexcept;  // others ignored
  void SetColor(unsigned long color) noexcept { Color = static_cast<std::uint32_t>(color); }
  unsigned long GetColor() const noexcept { return Color; }
  void SetSymbolIndex(unsigned short index) noexcept { SymbolIndex = index; }
  unsigned short GetSymbolIndex() const noexcept { return SymbolIndex; }
  CKespFeatureEnd* GetFeatureEnd() const noexcept { return m_pFeatureEnd.get(); }  // null if there is none
  // Takes ownership of `end`. A previous end is not deleted: the caller must delete it.
  void SetFeatureEnd(CKespFeatureEnd* end) noexcept;

  int GetNumPoints() const noexcept { return static_cast<int>(m_pointList.size()); }
  int GetNumAttributes() const noexcept { return static_cast<int>(m_attributeList.size()); }
  bool AddPoint(CKespPoint* point) {
    m_pointList.push_back(point);
    return true;
  }
  bool AddAttribute(CKespAttribute* attribute) {
    m_attributeList.push_back(attribute);
    return true;
  }
  CKespPoint* GetPoint(int index) const noexcept;
  CKespAttribute* GetAttribute(int index) const noexcept;
  // Returns the first attribute of that name, ignoring case; null if there is none.
  CKespAttribute* GetAttribute(const CString& name) const noexcept;
  CKespPoint* RemovePoint(int index) noexcept;
  CKespAttribute* RemoveAttribute(int index) noexcept;
  bool RemoveAllAttributes();  // deletes them; always true
  bool Clear();                // deletes points, attributes and end; always true

  // Whether both features have the same layout: attributes of exactly the same names and kinds in the same order.
  // Values are not compared.
  bool CompareAttributeList(const CKespFeature* other) const;
  // Returns the extent of the points; four zeros and false when there are none or the first one is null.
  bool GetExtents(CRect2D& extents) const;
  CString GetTypeString() const;  // "Point", "Line", "Area", or empty

  unsigned long GetLength(unsigned short version) override;  // 34, 54 or 524; 0 for an unknown version
  bool Read(CFile& file) override;
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;
  bool IsSameKespRecord(CKespRecord* other) override;  // a feature with the same number
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  std::uint16_t DisplayWord1 = 1;
  std::uint16_t DisplayWord2 = 0;
  CString DisplayText;
  kesp::OwningList<CKespAttribute> m_attributeList;
  kesp::OwningList<CKespPoint> m_pointList;
  CString FeatureName;
  KESP_FEATURE_TYPE FeatureType = KESP_FEATURE_POINT;  // the low 16 bits on disk
  std::uint32_t Color = 0;
  std::uint16_t SymbolIndex = 0;
  std::unique_ptr<CKespFeatureEnd> m_pFeatureEnd;
  std::uint32_t FeatureNumber = 0;

 protected:
  bool ReadVersion1(CFile& file);
  bool ReadVersion2(CFile& file);
  bool ReadVersion3(CFile& file);
  bool WriteVersion1(CFile& file, unsigned short version);
  bool WriteVersion2(CFile& file, unsigned long sourceFlag, unsigned short version);
  bool WriteVersion3(CFile& file, unsigned long sourceFlag, unsigned short version);

 private:
  // Reads the body; returns false if m_recordVersion is greater than `newest`, or unknown.
  bool ReadUpTo(unsigned newest, CFile& file);
  // The same, but resets m_error first and returns false instead of raising a CFileException.
  bool ReadGuarded(unsigned newest, CFile& file);
};
