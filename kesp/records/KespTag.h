// A typed name/value record: integers, doubles, texts, points, rectangles and colours under a host's name, binary
// blobs, and the marks that a data set interprets (GPS marks, quality marks, feature links, named flags).
//
//   CKespTag tag;
//   tag.Set("Depth", 2.5);
//   CString name;
//   double value = 0;
//   if (tag.GetDouble(name, value)) ...
//
// Body on disk, the same in both record versions: kind (4 bytes), length of the block (4), then the block:
//
//   0              4             nameBytes: (name length + 1) * 2, rounded up to a multiple of 4
//   4              nameBytes     the name in UTF-16, a zero unit, zeros
//   4 + nameBytes  4             payloadLength
//   8 + nameBytes  payloadLength the payload
//
// Ownership: the tag owns m_pData, allocated with array new. Copying a tag copies the block.
// Errors: a getter returns false and leaves its outputs unchanged when the tag is of another kind; only GetPosErrMark
// sets its three floats to 0 first. It also returns false when there is no block, when the name or the payload is
// partly outside it, or when the payload is empty or too short for its kind; the name may be assigned by then. Nothing
// outside the block is read. Setters raise CMemoryException when the block can't be allocated, and then change nothing.
//
// The number of the quality and position-error marks, and the integer of the extended quality mark, are stored as
// single-precision floats: above 2^24 they are rounded. A float that fits no integer is read as 0.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kesp/geometry/Point3D.h"
#include "kesp/geometry/Rect2D.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespFeatureLink.h"
#include "kesp/records/KespRecord.h"

// Kinds of value. Written to the file: never renumber.
enum KESP_TAG : std::uint32_t {
  KESP_TAG_BLOB = 0,              // any bytes
  KESP_TAG_INTEGER = 1,           // 4 bytes, signed
  KESP_TAG_DOUBLE = 2,            // 8
  KESP_TAG_STRING = 3,            // UTF-16 units and a zero
  KESP_TAG_POINT = 4,             // 24: x, y, z
  KESP_TAG_RECT = 5,              // 32: minX, minY, maxX, maxY
  KESP_TAG_COLOR = 6,             // 4, unsigned
  KESP_TAG_GPS_MARK = 7,          // 16: feature number, point number, the two parts of the GPS time
  KESP_TAG_FILE_LINK = 8,         // 4: a number; the file's name is the tag's name
  KESP_TAG_QUALITY_MARK = 9,      // 20: five floats
  KESP_TAG_FEATURE_LINK = 10,     // 24: the first six members of a CKespFeatureLink
  KESP_TAG_QUALITY_MARK_EX = 11,  // 24: six floats
  KESP_TAG_POS_ERR_MARK = 12,     // 16: four floats
  KESP_TAG_NAMED_FLAG = 13        // 8: two numbers; the flag's name is the tag's name
};

class KESP_EXPORT CKespTag : public CKespRecord {
 public:
  CKespTag() noexcept : CKespRecord(KESP_RECORD_TAG, 2) { Init(); }
  CKespTag(const CKespTag& other);
  CKespTag& operator=(const CKespTag& other);
  ~CKespTag() override;

  KESP_TAG GetType() const noexcept { return m_tagType; }

  // Copies the common fields and the tag. A source with a block length of 0 leaves this tag's block in place. Always
  // true.
  bool Set(const CKespTag& other);
  // The setter that all others call; always true. If `data` is null, the payload is `length` zeros. Raises
  // CMemoryException and changes nothing for a payload of more than 2^31 - 1 bytes, or when the body would reach 2^32
  // bytes.
  bool Set(KESP_TAG type, const CString& name, const void* data, unsigned long length);
  bool Set(KESP_TAG type, const CString& name) = delete;  // would be taken for a file link whose number is the kind

  // Setters for kinds 1 to 13, in their order. A plain literal and a std::uint32_t both choose the overload of their
  // type.
  bool Set(const CString& name, int value);
  bool Set(const CString& name, double value);
  bool Set(const CString& name, const CString& value);
  bool Set(const CString& name, const CPoint3D& point);
  bool Set(const CString& name, const CRect2D& rect);
  bool Set(const CString& name, const unsigned long& color);
  bool Set(const CString& name, const std::uint32_t& color);
  bool Set(const CString& name, unsigned long featureNumber, unsigned long pointNumber, unsigned long timeFirstPart,
           unsigned long timeSecondPart);
  bool Set(unsigned long number, const CString& fileName);
  bool Set(unsigned long number, float value1, float value2, float value3, float value4);
  bool Set(const CKespFeatureLink& link);
  bool Set(unsigned long number, float value1, float value2, float value3, float value4, int integer);
  bool Set(unsigned long number, float value1, float value2, float value3);
  bool Set(unsigned long first, unsigned long second, CString& name);
  bool Set(unsigned long first, unsigned long second, const CString& name);

  bool GetInteger(CString& name, int& value) const;
  bool GetDouble(CString& name, double& value) const;
  bool GetString(CString& name, CString& value) const;
  bool GetPoint(CString& name,
                CPoint3D& point) const;  // only x and y: z stays, as hosts with 2D points expect
  bool GetRect(CString& name, CRect2D& rect) const;
  bool GetColor(CString& name, unsigned long& color) const;
  bool GetColor(CString& name, std::uint32_t& color) const;
  bool GetGPSMark(CString& name, unsigned long& featureNumber, unsigned long& pointNumber, unsigned long& timeFirstPart,
                  unsigned long& timeSecondPart) const;
  bool GetGPSMark(CString& name, std::uint32_t& featureNumber, std::uint32_t& pointNumber, std::uint32_t& timeFirstPart,
                  std::uint32_t& timeSecondPart) const;
  bool GetFileLink(unsigned long& number, CString& fileName) const;
  bool GetFileLink(std::uint32_t& number, CString& fileName) const;
  bool GetQualityMark(unsigned long& number, float& value1, float& value2, float& value3, float& value4) const;
  bool GetQualityMark(std::uint32_t& number, float& value1, float& value2, float& value3, float& value4) const;
  // The link's m_tagRecordPosition becomes this tag's m_filePosition.
  bool GetFeatureLink(CKespFeatureLink& link) const;
  bool GetQualityMarkEx(unsigned long& number, float& value1, float& value2, float& value3, float& value4,
                        int& integer) const;
  bool GetQualityMarkEx(std::uint32_t& number, float& value1, float& value2, float& value3, float& value4,
                        int& integer) const;
  bool GetPosErrMark(unsigned long& number, float& value1, float& value2, float& value3) const;
  bool GetPosErrMark(std::uint32_t& number, float& value1, float& value2, float& value3) const;
  bool GetNamedFlag(unsigned long& first, unsigned long& second, CString& name) const;
  bool GetNamedFlag(std::uint32_t& first, std::uint32_t& second, CString& name) const;

  unsigned long GetLength(unsigned short version) override;  // m_dataLength + 8, in every version
  // A block that goes past the end of the file is KESP_ERROR_EOF; nothing is allocated for it.
  bool Read(CFile& file) override;
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;  // false without a block
  // Whether the other tag has the same kind, block length and m_dataPosition, so was read from the same place of a
  // file. A tag that was not read from a file equals none that was.
  bool IsSameKespRecord(CKespRecord* other) override;
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  KESP_TAG m_tagType;
  std::uint32_t m_dataLength;    // length of the block in bytes; 8 in a new tag, which has no block
  std::uint32_t m_dataPosition;  // offset of the block in the file that it was read from, low 32 bits; else 0
  unsigned char* m_pData = nullptr;

 protected:
  // Returns the name and a copy of the payload; the caller deletes the copy with delete[]. False for an empty payload.
  bool GetBinary(CString& name, void** data, int& length) const;

 private:
  void Init() noexcept;
  void ReplaceBlock(unsigned char* block) noexcept;
};

namespace kesp {

// The parts of a tag's block, each set if it lies inside the block. The payload borrows the tag's bytes and is valid
// until they change. PartsOf raises std::bad_alloc.
struct TagParts {
  std::optional<CString> name;
  std::optional<std::span<const std::byte>> payload;
};
KESP_EXPORT TagParts PartsOf(const CKespTag& tag);
// Gets the name and the bytes of a tag of kind KESP_TAG_BLOB; there may be no bytes. Returns false, with both
// unchanged, for a tag of another kind, one without a block, or one whose name or payload is partly outside the block.
// Raises std::bad_alloc.
KESP_EXPORT bool GetBlob(const CKespTag& tag, CString& name, std::vector<std::byte>& bytes);

}  // namespace kesp
