// Records seen where they lie in the read buffer: nothing is allocated or copied, and a field is decoded when it is
// asked for. For programs that want values and not objects.
//
//   CKespDataFile file;
//   if (!file.OpenReadOnly(L"survey.kesp") || !file.SeekToFirstRecord()) return Complain(file.GetErrorString());
//   file.ReadAhead();
//   for (kesp::RecordView record; file.ReadNextView(record, true);) {
//     if (record.Type() == KESP_RECORD_POINT) Plot(record.AsPoint().CoordX(), record.AsPoint().CoordY());
//   }
//   if (file.GetError() != KESP_ERROR_NORMAL_EOF) return Complain(file.GetErrorString());
//
// An accessor returns what the member of the same name has in the object that ReadNextRecord makes. A field that the
// record's version does not have is 0 or empty. Texts are views too.
//
// Lifetime: a view, and each view and span that it returns, is valid until the next operation on the file.
// Errors: none, except that functions that make a text raise std::bad_alloc.
// The accessors are inline, so the descriptions of the bodies that they use are installed with this header.
#pragma once
#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kesp/format/Bodies.h"
#include "kesp/format/FieldPlaces.h"
#include "kesp/format/TagBlock.h"
#include "kesp/platform/Export.h"
#include "kesp/platform/String.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespPoint.h"
#include "kesp/records/KespRecord.h"
#include "kesp/records/KespTag.h"
#include "kesp/util/Fields.h"

class CKespDataFile;

namespace kesp {

// A text in a body: units up to the first zero unit or the end of the field. Any sequence of units, as in a CString; a
// text of a version-1 record has 8-bit characters, each the unit of the same value. In the file the units may be at odd
// addresses, so there is no pointer to them.
class TextView {
 public:
  constexpr TextView() noexcept = default;
  TextView(const std::byte* at, std::size_t units, bool isWide) noexcept
      : m_at(at), m_room(static_cast<std::uint32_t>(units)), m_isWide(isWide) {}

  bool IsEmpty() const noexcept { return m_room == 0 || (*this)[0] == 0; }
  // The number of units. Looks for the end each time.
  std::size_t Size() const noexcept {
    if (m_isWide) return TextLength16(m_at, m_room);
    return static_cast<std::size_t>(std::find(m_at, m_at + m_room, std::byte{0}) - m_at);
  }
  // Below Size().
  char16_t operator[](std::size_t index) const noexcept {
    return m_isWide ? static_cast<char16_t>(LoadLittle<std::uint16_t>(m_at + 2 * index))
                    : static_cast<char16_t>(m_at[index]);
  }
  // Whether the texts are equally long and `same` is true for each pair of units. Ends at the first that differ.
  template <class Same>
  bool Equals(std::u16string_view other, Same same) const noexcept {
    if (other.size() > m_room) return false;
    for (std::size_t i = 0; i < other.size(); ++i) {
      const char16_t unit = (*this)[i];
      if (unit == 0 || !same(unit, other[i])) return false;
    }
    return other.size() == m_room || (*this)[other.size()] == 0;
  }
  friend bool operator==(const TextView& a, std::u16string_view b) noexcept { return a.Equals(b, std::equal_to()); }

  // Copies as many units as `room` holds, and returns them there. No text of a body is longer than kMostUnits; the name
  // of a tag may be.
  static constexpr std::size_t kMostUnits = 256;
  std::u16string_view CopyTo(std::span<char16_t> room) const noexcept {
    const std::size_t size = std::min(Size(), room.size());
    if (m_isWide && std::endian::native == std::endian::little) {
      if (m_at != nullptr) std::memcpy(room.data(), m_at, 2 * size);  // a missing field has no place
    } else {
      for (std::size_t i = 0; i < size; ++i) room[i] = (*this)[i];
    }
    return {room.data(), size};
  }
  void CopyTo(CString& text) const {
    if (m_isWide) return LoadText16(text, m_at, m_room);
    text = CString::FromLatin1({reinterpret_cast<const char*>(m_at), Size()});
  }
  CString ToString() const {
    CString text;
    CopyTo(text);
    return text;
  }
  // Replaces or returns the text as UTF-8. A surrogate that is not part of a pair is encoded like other units, as
  // CString::ToUtf8 does.
  KESP_EXPORT void CopyTo(std::string& utf8) const;
  std::string ToUtf8() const {
    std::string text;
    CopyTo(text);
    return text;
  }
  // Writes the text as valid UTF-8, with U+FFFD for each such surrogate, and returns the place after it. There must be
  // room for MostUtf8() bytes, all of which may be overwritten.
  KESP_EXPORT char* PutUtf8(char* out) const noexcept;
  std::size_t MostUtf8() const noexcept { return std::size_t{m_room} * (m_isWide ? 3 : 2); }
  // The whole field as it is in the file, with what comes after the text.
  std::span<const std::byte> Field() const noexcept { return {m_at, std::size_t{m_room} * (m_isWide ? 2 : 1)}; }
  bool IsWide() const noexcept { return m_isWide; }  // 16-bit units, not 8-bit characters

 private:
  const std::byte* m_at = nullptr;
  std::uint32_t m_room = 0;  // units
  bool m_isWide = true;
};

// Decodes fields of a body. `kBodies` has the descriptions by version.
template <const auto& kBodies>
class BodyView {
 public:
  std::uint16_t Version() const noexcept { return m_version; }  // of the layout

 protected:
  BodyView(const std::byte* body, std::uint16_t version) noexcept : m_body(body), m_version(version) {}

  template <auto kField>
  std::uint16_t U16() const noexcept {
    return Number<std::uint16_t, kField>();
  }
  template <auto kField>
  std::uint32_t U32() const noexcept {
    return Number<std::uint32_t, kField>();
  }
  template <auto kField>
  double F64() const noexcept {
    return std::bit_cast<double>(Number<std::uint64_t, kField>());
  }
  template <auto kField>
  TextView Text() const noexcept {
    static constexpr auto kPlaces = PlacesOf<kField>(kBodies);
    const FieldPlace& place = kPlaces[m_version];
    static_assert(std::all_of(kPlaces.begin(), kPlaces.end(), [](const FieldPlace& p) {
      return p.width <= TextView::kMostUnits * (p.kind == FieldPlace::Kind::kText16 ? 2 : 1);
    }));
    if (place.kind == FieldPlace::Kind::kNone) return {};
    const bool isWide = place.kind == FieldPlace::Kind::kText16;
    return {m_body + place.offset, isWide ? place.width / 2U : place.width, isWide};
  }
  template <auto kField>
  std::span<const std::byte> Bytes() const noexcept {
    static constexpr auto kPlaces = PlacesOf<kField>(kBodies);
    const FieldPlace& place = kPlaces[m_version];
    return {m_body + place.offset, place.width};
  }

 private:
  template <class Stored, auto kField>
  Stored Number() const noexcept {
    static constexpr auto kPlaces = PlacesOf<kField>(kBodies);
    static_assert(std::all_of(kPlaces.begin(), kPlaces.end(), [](const FieldPlace& place) {
      return place.width == 0 || (place.kind == FieldPlace::Kind::kNumber && place.width == sizeof(Stored));
    }));
    // Nearly every record has the newest version; for it the offset is a constant.
    constexpr FieldPlace kNewest = kPlaces.back();
    if (m_version == kPlaces.size() - 1) return LoadLittle<Stored>(m_body + kNewest.offset);
    const FieldPlace& place = kPlaces[m_version];
    return place.width != 0 ? LoadLittle<Stored>(m_body + place.offset) : Stored{0};
  }

  const std::byte* m_body;
  std::uint16_t m_version;
};

class FeatureView : public BodyView<kFeatureBodies> {
 public:
  FeatureView(const std::byte* body, std::uint16_t version) noexcept : BodyView(body, version) {}
  std::uint32_t FeatureNumber() const noexcept { return U32<&BodyFields::FeatureNumber>(); }
  TextView FeatureName() const noexcept { return Text<&BodyFields::FeatureName>(); }
  KESP_FEATURE_TYPE FeatureType() const noexcept {
    return static_cast<KESP_FEATURE_TYPE>(U16<&BodyFields::FeatureType>());
  }
  std::uint32_t Color() const noexcept { return U32<&BodyFields::Color>(); }
  std::uint16_t SymbolIndex() const noexcept { return U16<&BodyFields::SymbolIndex>(); }
};

class PointView : public BodyView<kPointBodies> {
 public:
  PointView(const std::byte* body, std::uint16_t version) noexcept : BodyView(body, version) {}
  std::uint32_t FeatureNumber() const noexcept { return U32<&BodyFields::FeatureNumber>(); }
  std::uint32_t PointNumber() const noexcept { return U32<&BodyFields::PointNumber>(); }
  TextView PointText() const noexcept { return Text<&BodyFields::PointText>(); }
  std::int32_t PointTime() const noexcept { return static_cast<std::int32_t>(U32<&BodyFields::PointTime>()); }
  double CoordX() const noexcept { return F64<&BodyFields::CoordX>(); }
  double CoordY() const noexcept { return F64<&BodyFields::CoordY>(); }
  double CoordZ() const noexcept { return F64<&BodyFields::CoordZ>(); }
  double GpsValue() const noexcept { return F64<&BodyFields::GpsValue>(); }
  std::int32_t GpsNumber() const noexcept { return U16<&BodyFields::GpsNumber>(); }
  KESP_SIGNAL_STATUS SignalStatus() const noexcept {
    const std::uint16_t status = U16<&BodyFields::SignalStatus>();
    constexpr std::uint16_t kHighestOld = KESP_SIGNAL_STATUS_10;  // a higher one of version 1 is read as this
    return static_cast<KESP_SIGNAL_STATUS>(Version() == 1 ? std::min(status, kHighestOld) : status);
  }
  double Offset1() const noexcept { return F64<&BodyFields::Offset1>(); }
  double Offset2() const noexcept { return F64<&BodyFields::Offset2>(); }
  std::uint16_t HasOffset() const noexcept { return U16<&BodyFields::HasOffset>(); }
};

class AttributeView : public BodyView<kAttributeBodies> {
 public:
  AttributeView(const std::byte* body, std::uint16_t version) noexcept : BodyView(body, version) {}
  std::uint32_t FeatureNumber() const noexcept { return U32<&BodyFields::FeatureNumber>(); }
  TextView AttributeName() const noexcept { return Text<&BodyFields::AttributeName>(); }
  // A KESP_ATTRIBUTE_KIND. An unknown one is read as a number; the walk ends at one of version 1.
  std::int32_t AttributeKind() const noexcept {
    if (Version() == 0) return KESP_ATTRIBUTE_STRING;
    const std::int32_t kind = StoredKind();
    const bool isKnown = kind >= KESP_ATTRIBUTE_STRING && kind <= KESP_ATTRIBUTE_OTHER;
    return isKnown ? kind : std::int32_t{KESP_ATTRIBUTE_NUMERIC};
  }
  std::uint16_t StoredKind() const noexcept { return U16<&BodyFields::AttributeKind>(); }
  TextView TextValue() const noexcept { return Text<&BodyFields::TextValue>(); }
  TextView SubValue() const noexcept { return Text<&BodyFields::SubValue>(); }
  double Value() const noexcept { return F64<&BodyFields::Value>(); }
  std::uint16_t Decimals() const noexcept { return U16<&BodyFields::Decimals>(); }
  double AuxNumber1() const noexcept { return F64<&BodyFields::AuxNumber1>(); }
  double AuxNumber2() const noexcept { return F64<&BodyFields::AuxNumber2>(); }
  double AuxNumber3() const noexcept { return F64<&BodyFields::AuxNumber3>(); }
  double AuxNumber4() const noexcept { return F64<&BodyFields::AuxNumber4>(); }
  TextView AuxText() const noexcept { return Text<&BodyFields::AuxText>(); }
};

class FeatureEndView : public BodyView<kFeatureEndBodies> {
 public:
  // Of any record version: there is one layout.
  explicit FeatureEndView(const std::byte* body) noexcept : BodyView(body, 1) {}
  std::uint32_t FeatureNumber() const noexcept { return U32<&BodyFields::FeatureNumber>(); }
};

class NoteView : public BodyView<kNoteBodies> {
 public:
  NoteView(const std::byte* body, std::uint16_t version) noexcept : BodyView(body, version) {}
  TextView NoteText() const noexcept { return Text<&BodyFields::NoteText>(); }
};

class HeaderView : public BodyView<kHeaderBodies> {
 public:
  HeaderView(const std::byte* body, std::uint16_t version) noexcept : BodyView(body, version) {}
  std::uint32_t StatusFlags() const noexcept { return U32<&BodyFields::StatusFlags>(); }
  std::uint32_t CreationTime() const noexcept { return U32<&BodyFields::CreationTime>(); }
  std::uint16_t HeaderShort() const noexcept { return U16<&BodyFields::HeaderShort>(); }
  TextView HeaderText1() const noexcept { return Text<&BodyFields::HeaderText1>(); }
  TextView HeaderText2() const noexcept { return Text<&BodyFields::HeaderText2>(); }
  TextView HeaderText3() const noexcept { return Text<&BodyFields::HeaderText3>(); }
  TextView HeaderText4() const noexcept { return Text<&BodyFields::HeaderText4>(); }
  TextView HeaderText5() const noexcept { return Text<&BodyFields::HeaderText5>(); }
  TextView HeaderText6() const noexcept { return Text<&BodyFields::HeaderText6>(); }
  TextView HeaderText7() const noexcept { return Text<&BodyFields::HeaderText7>(); }
  std::uint32_t KespVersion() const noexcept { return Version() == 1 ? 1 : U32<&BodyFields::KespVersion>(); }
  double ExtentMinX() const noexcept { return F64<&BodyFields::ExtentMinX>(); }
  double ExtentMaxX() const noexcept { return F64<&BodyFields::ExtentMaxX>(); }
  double ExtentMinY() const noexcept { return F64<&BodyFields::ExtentMinY>(); }
  double ExtentMaxY() const noexcept { return F64<&BodyFields::ExtentMaxY>(); }
  double DataExtent1() const noexcept { return F64<&BodyFields::DataExtent1>(); }
  double DataExtent2() const noexcept { return F64<&BodyFields::DataExtent2>(); }
  double DataExtent3() const noexcept { return F64<&BodyFields::DataExtent3>(); }
  double DataExtent4() const noexcept { return F64<&BodyFields::DataExtent4>(); }
  std::uint32_t PointCount() const noexcept { return U32<&BodyFields::PointCount>(); }
  std::uint32_t FeatureCount() const noexcept { return U32<&BodyFields::FeatureCount>(); }
  std::uint32_t SpareCount() const noexcept { return U32<&BodyFields::SpareCount>(); }
  std::uint32_t FirstPointTime() const noexcept { return U32<&BodyFields::FirstPointTime>(); }
  std::uint32_t LastPointTime() const noexcept { return U32<&BodyFields::LastPointTime>(); }
  TextView LastPointText() const noexcept { return Text<&BodyFields::LastPointText>(); }
  std::uint32_t SlotWord1() const noexcept { return U32<&BodyFields::SlotWord1>(); }
  TextView SlotText1() const noexcept { return Text<&BodyFields::SlotText1>(); }
  std::uint32_t SlotWord2() const noexcept { return U32<&BodyFields::SlotWord2>(); }
  TextView SlotText2() const noexcept { return Text<&BodyFields::SlotText2>(); }
  std::uint32_t SlotWord3() const noexcept { return U32<&BodyFields::SlotWord3>(); }
  std::span<const std::byte> SlotBytes3() const noexcept { return Bytes<&BodyFields::SlotBytes3>(); }
  std::uint32_t SlotWord4() const noexcept { return U32<&BodyFields::SlotWord4>(); }
  std::span<const std::byte> SlotBytes4() const noexcept { return Bytes<&BodyFields::SlotBytes4>(); }
};

// A tag, with as much of its block as a view can hold: all of it up to kMostBlock bytes. Of a longer one IsWhole() is
// false, and a name or a payload that is not in the part at hand is missing; ReadNextRecord at the view's position
// reads the whole block.
class TagView {
 public:
  static constexpr std::size_t kMostBlock = 60 * 1024;

  explicit TagView(std::span<const std::byte> body) noexcept : m_body(body) {}
  KESP_TAG Type() const noexcept { return static_cast<KESP_TAG>(LoadLittle<std::uint32_t>(m_body.data())); }
  std::uint32_t BlockLength() const noexcept { return LoadLittle<std::uint32_t>(m_body.data() + 4); }
  std::span<const std::byte> Block() const noexcept { return m_body.subspan(kTagFixedPart); }
  bool IsWhole() const noexcept { return Block().size() == BlockLength(); }
  std::optional<TextView> Name() const noexcept {
    const TagBlockLayout layout = Layout();
    if (!layout.nameBytes || TagBlockLayout::kName + *layout.nameBytes > Block().size()) return std::nullopt;
    return TextView(Block().data() + TagBlockLayout::kName, *layout.nameBytes / 2, true);
  }
  std::optional<std::span<const std::byte>> Payload() const noexcept {
    const TagBlockLayout layout = Layout();
    if (!layout.payloadLength || layout.Payload() + *layout.payloadLength > Block().size()) return std::nullopt;
    return Block().subspan(static_cast<std::size_t>(layout.Payload()), *layout.payloadLength);
  }

 private:
  TagBlockLayout Layout() const noexcept {
    return LayoutOfTagBlock(BlockLength(), [this](std::uint64_t offset) -> std::optional<std::uint32_t> {
      if (offset + kTagLengthField > Block().size()) return std::nullopt;
      return LoadLittle<std::uint32_t>(Block().data() + offset);
    });
  }

  std::span<const std::byte> m_body;
};

// One record. A typed view may only be asked for when Type() is that type and the record was not skipped.
class RecordView {
 public:
  KESP_RECORD_TYPE Type() const noexcept { return m_type; }
  std::uint16_t Version() const noexcept { return m_version; }
  // KESP_FLAG bits in their canonical form, as in m_flags of the object.
  std::uint32_t Flags() const noexcept { return m_storedFlags == 0 ? 0 : CanonicalFlags(m_storedFlags); }
  std::uint32_t StoredFlags() const noexcept { return m_storedFlags; }
  bool IsDeleted() const noexcept { return (m_storedFlags & KESP_FLAG_DELETED) != 0; }
  bool IsSkipped() const noexcept { return m_isSkipped; }                 // see CKespDataFile::ReadNextStep
  std::uint64_t Position() const noexcept { return m_position; }          // offset of the record header in the file
  std::uint32_t StatedLength() const noexcept { return m_statedLength; }  // of the body, as the record header has it
  // The body as its version lays it out, whatever the record header states; of a long tag only its first part.
  std::span<const std::byte> Body() const noexcept { return m_body; }

  FeatureView AsFeature() const noexcept { return {m_body.data(), m_version}; }
  PointView AsPoint() const noexcept { return {m_body.data(), m_version}; }
  HeaderView AsHeader() const noexcept { return {m_body.data(), m_version}; }
  FeatureEndView AsFeatureEnd() const noexcept { return FeatureEndView(m_body.data()); }
  AttributeView AsAttribute() const noexcept { return {m_body.data(), m_version}; }
  NoteView AsNote() const noexcept { return {m_body.data(), m_version}; }
  TagView AsTag() const noexcept { return TagView(m_body); }

 private:
  friend class ::CKespDataFile;
  KESP_RECORD_TYPE m_type = KESP_RECORD_NONE;
  std::uint16_t m_version = 0;
  bool m_isSkipped = false;
  std::uint32_t m_storedFlags = 0;
  std::uint32_t m_statedLength = 0;
  std::uint64_t m_position = 0;
  std::span<const std::byte> m_body;
};

// Points that lie one after another, all of the newest version and without flags. Valid as long as a view.
class PointRun {
 public:
  std::size_t Size() const noexcept { return m_size; }
  // Below Size().
  PointView operator[](std::size_t index) const noexcept { return {m_body + index * m_stride, m_version}; }
  // The offset of its record in the file, in bytes.
  std::uint64_t PositionOf(std::size_t index) const noexcept { return m_position + index * m_stride; }

 private:
  friend class ::CKespDataFile;
  const std::byte* m_body = nullptr;  // of the first
  std::size_t m_size = 0;
  std::size_t m_stride = 0;  // bytes from one to the next
  std::uint64_t m_position = 0;
  std::uint16_t m_version = 0;
};

}  // namespace kesp
