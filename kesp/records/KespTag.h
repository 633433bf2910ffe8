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
// Errors: a getter answers false and leaves its outputs alone when the kind is another one (GetPosErrMark alone has
//   set its three floats to 0 then); also when the name or the payload lies partly outside the block, the payload is
//   empty or shorter than its kind's, or there is no block; the name may have been assigned by then. Nothing outside
//   the block is read. Setters raise CMemoryException when the block can't be allocated, and have changed nothing then.
//
// The number of the quality and position-error marks, and the integer of the extended quality mark, are stored as
// single-precision floats: above 2^24 they come back rounded. A float that fits no integer comes back as 0.
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

  // Copies the common fields and the tag. A source of length 0 leaves the block of this tag in place. Always true.
  bool Set(const CKespTag& other);
  // The setter that all others call; always true. Null data leaves a payload of `length` zeros. A payload of more than
  // 2^31 - 1 bytes, or one whose block would make a body of 2^32 bytes or more with the name, is refused: raises
  // CMemoryException and changes nothing.
  bool Set(KESP_TAG type, const CString& name, const void* data, unsigned long length);
  bool Set(KESP_TAG type, const CString& name) = delete;  // would pass for a file link whose number is the kind

  // Kinds 1 to 13 in their order. A plain literal and a std::uint32_t both choose as the type says.
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
                CPoint3D& point) const;  // x and y only: the caller's z stays, as hosts with 2D points expect
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

  unsigned long GetLength(unsigned short version) override;  // 8 more than m_dataLength, in every version
  // A block length that goes past the end of the file is KESP_ERROR_EOF before anything is allocated.
  bool Read(CFile& file) override;
  bool Write(CFile& file, unsigned long sourceFlag, unsigned short version) override;  // false without a block
  // The tag that was read from the same place of a file; a tag that was not read from one is the same as none.
  bool IsSameKespRecord(CKespRecord* other) override;
  unsigned short GetRecordVersionFromKespVersion(unsigned short kespVersion) override;
  bool GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) override;

  KESP_TAG m_tagType;
  std::uint32_t m_dataLength;    // bytes of the block; 8 in a new tag, which has none
  std::uint32_t m_dataPosition;  // offset of the block in the file it was read from, low 32 bits, else 0
  unsigned char* m_pData = nullptr;

 protected:
  // Hands out the name and a copy of the payload, which the caller releases with array delete.
  bool GetBinary(CString& name, void** data, int& length) const;

 private:
  void Init() noexcept;
  void ReplaceBlock(unsigned char* block) noexcept;
};

namespace kesp {

// The parts of a tag's block, each as far as it is inside the block; neither without one. The payload borrows the tag's
// bytes until they change. Raises std::bad_alloc.
struct TagParts {
  std::optional<CString> name;
  std::optional<std::span<const std::byte>> payload;
};
KESP_EXPORT TagParts PartsOf(const CKespTag& tag);
// Name and bytes of a tag of kind KESP_TAG_BLOB, which may be none. False, with both unchanged, for a tag of another
// kind, without a block, or whose name or payload is partly outside the block. Raises std::bad_alloc.
KESP_EXPORT bool GetBlob(const CKespTag& tag, CString& name, std::vector<std::byte>& bytes);

}  // namespace kesp
