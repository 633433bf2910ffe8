#include "kesp/records/KespTag.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <utility>

#include "kesp/format/RecordKinds.h"
#include "kesp/format/TagBlock.h"
#include "kesp/platform/File.h"
#include "kesp/util/Fields.h"

namespace {

constexpr std::uint32_t kEmptyDataLength = 8;

std::unique_ptr<unsigned char[]> AllocateBytes(std::size_t count) {
  std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[count]);
  if (!bytes) throw CMemoryException();
  return bytes;
}

std::byte* Bytes(unsigned char* at) { return reinterpret_cast<std::byte*>(at); }

// A value that fits no integer, NaN included, becomes 0; others lose their fraction.
std::uint32_t ToUnsigned(float value) {
  return value > -1.0F && value < 4294967296.0F ? static_cast<std::uint32_t>(std::max(value, 0.0F)) : 0;
}
std::int32_t ToSigned(float value) {
  return value >= -2147483648.0F && value < 2147483648.0F ? static_cast<std::int32_t>(value) : 0;
}

// Returns the little-endian bytes of 32-bit words.
template <std::size_t Count>
std::array<std::byte, 4 * Count> Pack(const std::array<std::uint32_t, Count>& words) {
  std::array<std::byte, 4 * Count> bytes;
  for (std::size_t i = 0; i < Count; ++i) kesp::StoreLittle(bytes.data() + 4 * i, words[i]);
  return bytes;
}
template <std::size_t Count>
std::array<std::byte, 4 * Count> PackFloats(const std::array<float, Count>& values) {
  std::array<std::uint32_t, Count> words;
  std::transform(values.begin(), values.end(), words.begin(), [](float f) { return std::bit_cast<std::uint32_t>(f); });
  return Pack(words);
}
template <std::size_t Count>
std::array<std::byte, 8 * Count> PackDoubles(const std::array<double, Count>& values) {
  std::array<std::byte, 8 * Count> bytes;
  for (std::size_t i = 0; i < Count; ++i) {
    kesp::StoreLittle(bytes.data() + 8 * i, std::bit_cast<std::uint64_t>(values[i]));
  }
  return bytes;
}
std::uint32_t WordAt(const std::byte* payload, std::size_t index) {
  return kesp::LoadLittle<std::uint32_t>(payload + 4 * index);
}
float FloatAt(const std::byte* payload, std::size_t index) { return std::bit_cast<float>(WordAt(payload, index)); }
double DoubleAt(const std::byte* payload, std::size_t index) {
  return std::bit_cast<double>(kesp::LoadLittle<std::uint64_t>(payload + 8 * index));
}

std::span<const std::byte> BlockOf(const CKespTag& tag) {
  return {Bytes(tag.m_pData), tag.m_pData != nullptr ? tag.m_dataLength : 0};
}

// Returns the payload if it lies inside the block. Assigns the name if that does, even when the payload does not.
std::optional<std::span<const std::byte>> PayloadAndName(const CKespTag& tag, CString* name) {
  const std::span<const std::byte> block = BlockOf(tag);
  const kesp::TagBlockLayout layout = kesp::LayoutOfTagBlock(block);
  if (layout.nameBytes && name != nullptr) {
    kesp::LoadText16(*name, block.data() + kesp::TagBlockLayout::kName, *layout.nameBytes / 2);
  }
  if (!layout.payloadLength) return std::nullopt;
  return block.subspan(static_cast<std::size_t>(layout.Payload()), *layout.payloadLength);
}

// Returns the payload if the tag is of the wanted kind and has at least `size` bytes, else null.
const std::byte* PayloadOf(const CKespTag& tag, KESP_TAG kind, std::size_t size, CString* name) {
  if (tag.m_tagType != kind) return nullptr;
  const auto payload = PayloadAndName(tag, name);
  return payload && !payload->empty() && payload->size() >= size ? payload->data() : nullptr;
}

// Calls a getter that stores numbers as unsigned long, and stores them in 32 bits.
template <class Get, class... Narrow>
bool GetNarrow(Get get, Narrow&... out) {
  std::array<unsigned long, sizeof...(Narrow)> wide{static_cast<unsigned long>(out)...};
  const bool good = std::apply(get, wide);
  std::size_t i = 0;
  ((out = static_cast<std::uint32_t>(wide[i++])), ...);
  return good;
}

}  // namespace

CKespTag::CKespTag(const CKespTag& other) : CKespRecord(other) {
  Init();
  Set(other);
}

CKespTag& CKespTag::operator=(const CKespTag& other) {
  if (this != &other) Set(other);
  return *this;
}

CKespTag::~CKespTag() { delete[] m_pData; }

void CKespTag::Init() noexcept {
  m_recordType = KESP_RECORD_TAG;
  m_recordVersion = 2;
  m_flags = 0;
  m_tagType = KESP_TAG_BLOB;
  m_dataLength = kEmptyDataLength;
  m_dataPosition = 0;
}

void CKespTag::ReplaceBlock(unsigned char* block) noexcept {
  delete[] m_pData;
  m_pData = block;
}

bool CKespTag::Set(const CKespTag& other) {
  if (this == &other) return true;
  std::unique_ptr<unsigned char[]> block;
  if (other.m_dataLength != 0 && other.m_pData != nullptr) {
    block = AllocateBytes(other.m_dataLength);
    std::memcpy(block.get(), other.m_pData, other.m_dataLength);
  }
  CKespRecord::operator=(other);
  m_dataPosition = other.m_dataPosition;
  m_dataLength = other.m_dataLength;
  m_tagType = other.m_tagType;
  if (m_dataLength != 0) ReplaceBlock(block.release());
  return true;
}

bool CKespTag::Set(KESP_TAG type, const CString& name, const void* data, unsigned long length) {
  // GetBinary returns the length as an int, and the record header has 32 bits for the length of the whole body.
  constexpr std::uint64_t kLargestPayload = std::numeric_limits<std::int32_t>::max();
  constexpr std::uint64_t kLargestBlock = std::numeric_limits<std::uint32_t>::max() - kesp::kTagFixedPart;
  if (length > kLargestPayload || kesp::TagBlockLength(name.Size(), length) > kLargestBlock) throw CMemoryException();
  const auto blockLength = static_cast<std::uint32_t>(kesp::TagBlockLength(name.Size(), length));
  std::unique_ptr<unsigned char[]> block = AllocateBytes(blockLength);
  std::memset(block.get(), 0, blockLength);
  const auto payload = kesp::ComposeTagBlock({Bytes(block.get()), blockLength}, name, kesp::Low32(length));
  if (length != 0 && data != nullptr) std::memcpy(payload.data(), data, payload.size());
  m_tagType = type;
  m_dataLength = blockLength;
  ReplaceBlock(block.release());
  return true;
}

bool CKespTag::Set(const CString& name, int value) {
  const auto payload = Pack<1>({static_cast<std::uint32_t>(value)});
  return Set(KESP_TAG_INTEGER, name, payload.data(), payload.size());
}

bool CKespTag::Set(const CString& name, double value) {
  const auto payload = PackDoubles<1>({value});
  return Set(KESP_TAG_DOUBLE, name, payload.data(), payload.size());
}

bool CKespTag::Set(const CString& name, const CString& value) {
  const auto length = static_cast<unsigned long>(2 * (value.Size() + 1));
  (void)Set(KESP_TAG_STRING, name, nullptr, length);
  kesp::StoreUnits(Bytes(m_pData) + (m_dataLength - length), value.GetString(), value.Size());  // before its zero
  return true;
}

bool CKespTag::Set(const CString& name, const CPoint3D& point) {
  const auto payload = PackDoubles<3>({point.x, point.y, point.z});
  return Set(KESP_TAG_POINT, name, payload.data(), payload.size());
}

bool CKespTag::Set(const CString& name, const CRect2D& rect) {
  const auto payload = PackDoubles<4>({rect.minX, rect.minY, rect.maxX, rect.maxY});
  return Set(KESP_TAG_RECT, name, payload.data(), payload.size());
}

bool CKespTag::Set(const CString& name, const unsigned long& color) {
  const auto payload = Pack<1>({kesp::Low32(color)});
  return Set(KESP_TAG_COLOR, name, payload.data(), payload.size());
}

bool CKespTag::Set(const CString& name, const std::uint32_t& color) {
  return Set(name, static_cast<unsigned long>(color));
}

bool CKespTag::Set(const CString& name, unsigned long featureNumber, unsigned long pointNumber,
                   unsigned long timeFirstPart, unsigned long timeSecondPart) {
  const auto payload = Pack<4>(
      {kesp::Low32(featureNumber), kesp::Low32(pointNumber), kesp::Low32(timeFirstPart), kesp::Low32(timeSecondPart)});
  return Set(KESP_TAG_GPS_MARK, name, payload.data(), payload.size());
}

bool CKespTag::Set(unsigned long number, const CString& fileName) {
  const auto payload = Pack<1>({kesp::Low32(number)});
  return Set(KESP_TAG_FILE_LINK, fileName, payload.data(), payload.size());
}

bool CKespTag::Set(unsigned long number, float value1, float value2, float value3, float value4) {
  const auto payload = PackFloats<5>({static_cast<float>(kesp::Low32(number)), value1, value2, value3, value4});
  return Set(KESP_TAG_QUALITY_MARK, CString(), payload.data(), payload.size());
}

bool CKespTag::Set(const CKespFeatureLink& link) {
  const auto payload = Pack<6>({link.m_featureNumber1, link.m_qualifier1, link.m_featureNumber2, link.m_qualifier2,
                                link.m_linkValue, link.m_spare});
  return Set(KESP_TAG_FEATURE_LINK, CString(), payload.data(), payload.size());
}

bool CKespTag::Set(unsigned long number, float value1, float value2, float value3, float value4, int integer) {
  const auto payload = PackFloats<6>(
      {static_cast<float>(kesp::Low32(number)), value1, value2, value3, value4, static_cast<float>(integer)});
  return Set(KESP_TAG_QUALITY_MARK_EX, CString(), payload.data(), payload.size());
}

bool CKespTag::Set(unsigned long number, float value1, float value2, float value3) {
  const auto payload = PackFloats<4>({static_cast<float>(kesp::Low32(number)), value1, value2, value3});
  return Set(KESP_TAG_POS_ERR_MARK, CString(), payload.data(), payload.size());
}

bool CKespTag::Set(unsigned long first, unsigned long second, const CString& name) {
  const auto payload = Pack<2>({kesp::Low32(first), kesp::Low32(second)});
  return Set(KESP_TAG_NAMED_FLAG, name, payload.data(), payload.size());
}

bool CKespTag::Set(unsigned long first, unsigned long second, CString& name) {
  return Set(first, second, static_cast<const CString&>(name));
}

bool CKespTag::GetBinary(CString& name, void** data, int& length) const {
  if (data == nullptr) return false;
  *data = nullptr;
  length = 0;
  const auto payload = PayloadAndName(*this, &name);
  constexpr auto kLargest = static_cast<std::size_t>(std::numeric_limits<int>::max());
  if (!payload || payload->empty() || payload->size() > kLargest) return false;
  std::unique_ptr<unsigned char[]> copy = AllocateBytes(payload->size());
  std::memcpy(copy.get(), payload->data(), payload->size());
  length = static_cast<int>(payload->size());
  *data = copy.release();
  return true;
}

kesp::TagParts kesp::PartsOf(const CKespTag& tag) {
  TagParts parts;
  if (LayoutOfTagBlock(BlockOf(tag)).nameBytes) parts.name.emplace();
  parts.payload = PayloadAndName(tag, parts.name ? &*parts.name : nullptr);
  return parts;
}

bool kesp::GetBlob(const CKespTag& tag, CString& name, std::vector<std::byte>& bytes) {
  if (tag.m_tagType != KESP_TAG_BLOB) return false;
  TagParts parts = PartsOf(tag);
  if (!parts.payload) return false;
  bytes.assign(parts.payload->begin(), parts.payload->end());
  name = std::move(*parts.name);
  return true;
}

bool CKespTag::GetInteger(CString& name, int& value) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_INTEGER, 4, &name);
  if (payload == nullptr) return false;
  value = static_cast<int>(WordAt(payload, 0));
  return true;
}

bool CKespTag::GetDouble(CString& name, double& value) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_DOUBLE, 8, &name);
  if (payload == nullptr) return false;
  value = DoubleAt(payload, 0);
  return true;
}

bool CKespTag::GetString(CString& name, CString& value) const {
  if (PayloadOf(*this, KESP_TAG_STRING, 2, &name) == nullptr) return false;
  const std::span<const std::byte> payload = *PayloadAndName(*this, nullptr);
  kesp::LoadText16(value, payload.data(), payload.size() / 2);
  return true;
}

bool CKespTag::GetPoint(CString& name, CPoint3D& point) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_POINT, 24, &name);
  if (payload == nullptr) return false;
  point.x = DoubleAt(payload, 0);
  point.y = DoubleAt(payload, 1);
  return true;
}

bool CKespTag::GetRect(CString& name, CRect2D& rect) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_RECT, 32, &name);
  if (payload == nullptr) return false;
  rect = CRect2D(DoubleAt(payload, 0), DoubleAt(payload, 1), DoubleAt(payload, 2), DoubleAt(payload, 3));
  return true;
}

bool CKespTag::GetColor(CString& name, unsigned long& color) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_COLOR, 4, &name);
  if (payload == nullptr) return false;
  color = WordAt(payload, 0);
  return true;
}

bool CKespTag::GetColor(CString& name, std::uint32_t& color) const {
  return GetNarrow([&](unsigned long& c) { return GetColor(name, c); }, color);
}

bool CKespTag::GetGPSMark(CString& name, unsigned long& featureNumber, unsigned long& pointNumber,
                          unsigned long& timeFirstPart, unsigned long& timeSecondPart) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_GPS_MARK, 16, &name);
  if (payload == nullptr) return false;
  featureNumber = WordAt(payload, 0);
  pointNumber = WordAt(payload, 1);
  timeFirstPart = WordAt(payload, 2);
  timeSecondPart = WordAt(payload, 3);
  return true;
}

bool CKespTag::GetGPSMark(CString& name, std::uint32_t& featureNumber, std::uint32_t& pointNumber,
                          std::uint32_t& timeFirstPart, std::uint32_t& timeSecondPart) const {
  return GetNarrow([&](auto&... out) { return GetGPSMark(name, out...); }, featureNumber, pointNumber, timeFirstPart,
                   timeSecondPart);
}

bool CKespTag::GetFileLink(unsigned long& number, CString& fileName) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_FILE_LINK, 4, &fileName);
  if (payload == nullptr) return false;
  number = WordAt(payload, 0);
  return true;
}

bool CKespTag::GetFileLink(std::uint32_t& number, CString& fileName) const {
  return GetNarrow([&](unsigned long& n) { return GetFileLink(n, fileName); }, number);
}

bool CKespTag::GetQualityMark(unsigned long& number, float& value1, float& value2, float& value3, float& value4) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_QUALITY_MARK, 20, nullptr);
  if (payload == nullptr) return false;
  number = ToUnsigned(FloatAt(payload, 0));
  value1 = FloatAt(payload, 1);
  value2 = FloatAt(payload, 2);
  value3 = FloatAt(payload, 3);
  value4 = FloatAt(payload, 4);
  return true;
}

bool CKespTag::GetQualityMark(std::uint32_t& number, float& value1, float& value2, float& value3, float& value4) const {
  return GetNarrow([&](unsigned long& n) { return GetQualityMark(n, value1, value2, value3, value4); }, number);
}

bool CKespTag::GetFeatureLink(CKespFeatureLink& link) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_FEATURE_LINK, 24, nullptr);
  if (payload == nullptr) return false;
  link.m_featureNumber1 = WordAt(payload, 0);
  link.m_qualifier1 = WordAt(payload, 1);
  link.m_featureNumber2 = WordAt(payload, 2);
  link.m_qualifier2 = WordAt(payload, 3);
  link.m_linkValue = WordAt(payload, 4);
  link.m_spare = WordAt(payload, 5);
  link.m_tagRecordPosition = m_filePosition;
  return true;
}

bool CKespTag::GetQualityMarkEx(unsigned long& number, float& value1, float& value2, float& value3, float& value4,
                                int& integer) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_QUALITY_MARK_EX, 24, nullptr);
  if (payload == nullptr) return false;
  number = ToUnsigned(FloatAt(payload, 0));
  value1 = FloatAt(payload, 1);
  value2 = FloatAt(payload, 2);
  value3 = FloatAt(payload, 3);
  value4 = FloatAt(payload, 4);
  integer = ToSigned(FloatAt(payload, 5));
  return true;
}

bool CKespTag::GetQualityMarkEx(std::uint32_t& number, float& value1, float& value2, float& value3, float& value4,
                                int& integer) const {
  return GetNarrow([&](unsigned long& n) { return GetQualityMarkEx(n, value1, value2, value3, value4, integer); },
                   number);
}

bool CKespTag::GetPosErrMark(unsigned long& number, float& value1, float& value2, float& value3) const {
  value1 = value2 = value3 = 0.0F;
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_POS_ERR_MARK, 16, nullptr);
  if (payload == nullptr) return false;
  number = ToUnsigned(FloatAt(payload, 0));
  value1 = FloatAt(payload, 1);
  value2 = FloatAt(payload, 2);
  value3 = FloatAt(payload, 3);
  return true;
}

bool CKespTag::GetPosErrMark(std::uint32_t& number, float& value1, float& value2, float& value3) const {
  return GetNarrow([&](unsigned long& n) { return GetPosErrMark(n, value1, value2, value3); }, number);
}

bool CKespTag::GetNamedFlag(unsigned long& first, unsigned long& second, CString& name) const {
  const std::byte* const payload = PayloadOf(*this, KESP_TAG_NAMED_FLAG, 8, &name);
  if (payload == nullptr) return false;
  first = WordAt(payload, 0);
  second = WordAt(payload, 1);
  return true;
}

bool CKespTag::GetNamedFlag(std::uint32_t& first, std::uint32_t& second, CString& name) const {
  return GetNarrow([&](unsigned long& a, unsigned long& b) { return GetNamedFlag(a, b, name); }, first, second);
}

unsigned long CKespTag::GetLength(unsigned short /*version*/) {
  return static_cast<std::uint32_t>(m_dataLength + kesp::kTagFixedPart);
}

bool CKespTag::Read(CFile& file) {
  m_error = KESP_ERROR_NONE;
  try {
    const auto endOfFile = [&] {
      m_error = KESP_ERROR_EOF;
      file.SeekToEnd();
      return CFileException(CFileException::endOfFile, file.GetFilePath());
    };
    const std::span<const std::byte> fixed = file.ReadView(kesp::kTagFixedPart);
    if (fixed.size() < kesp::kTagFixedPart) throw endOfFile();
    m_tagType = static_cast<KESP_TAG>(kesp::LoadLittle<std::uint32_t>(fixed.data()));
    m_dataLength = kesp::LoadLittle<std::uint32_t>(fixed.data() + 4);
    const std::uint64_t start = file.GetPosition();
    m_dataPosition = static_cast<std::uint32_t>(start);
    if (m_dataLength != 0) {
      ReplaceBlock(nullptr);
      if (!file.ReachesTo(start + m_dataLength)) throw endOfFile();
      std::unique_ptr<unsigned char[]> block = AllocateBytes(m_dataLength);
      if (file.Read(block.get(), m_dataLength) < m_dataLength) throw endOfFile();
      ReplaceBlock(block.release());
    }
    return true;
  } catch (const CFileException&) {
    return false;
  } catch (const std::bad_alloc&) {
    file.NoteOutOfMemory();
    return false;
  }
}

bool CKespTag::Write(CFile& file, unsigned long /*sourceFlag*/, unsigned short /*version*/) {
  if (m_pData == nullptr) return false;
  try {
    const auto fixed = Pack<2>({m_tagType, m_dataLength});
    file.Write(fixed.data(), fixed.size());
    file.Write(m_pData, m_dataLength);
    return true;
  } catch (const CFileException&) {
    return false;
  } catch (const std::bad_alloc&) {
    file.NoteOutOfMemory();
    return false;
  }
}

bool CKespTag::IsSameKespRecord(CKespRecord* other) {
  if (other == nullptr || other->m_recordType != m_recordType) return false;
  const auto* const tag = dynamic_cast<const CKespTag*>(other);
  return tag != nullptr && tag->m_dataLength == m_dataLength && tag->m_tagType == m_tagType &&
         tag->m_dataPosition == m_dataPosition;
}

unsigned short CKespTag::GetRecordVersionFromKespVersion(unsigned short kespVersion) {
  return kesp::RecordVersionFor(KESP_RECORD_TAG, kespVersion);
}

bool CKespTag::GetMinimumKespVersionFromRecordVersion(unsigned short& kespVersion, unsigned short recordVersion) {
  return kesp::OldestFileVersion(KESP_RECORD_TAG, OwnVersionIfZero(recordVersion), kespVersion);
}
