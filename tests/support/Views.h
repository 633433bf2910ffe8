// Compares views of records with the objects read from the same bytes, and the walk that returns views with the walk
// that returns objects.
#pragma once
#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>

#include "kesp/format/RecordView.h"
#include "kesp/platform/Exception.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/records/KespFeatureEnd.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespTavoHeader.h"

namespace kesp::test {

// An accessor has the type of its member.
template <class T>
requires std::integral<T> || std::is_enum_v<T>
bool IsSame(T object, T view) { return object == view; }
inline bool IsSame(double object, double view) {
  return std::bit_cast<std::uint64_t>(object) == std::bit_cast<std::uint64_t>(view);
}
// A version without the field has no bytes, and zeros in the object.
template <std::size_t kSize>
bool IsSame(const std::array<std::uint8_t, kSize>& object, std::span<const std::byte> view) {
  const auto bytes = std::as_bytes(std::span(object));
  return view.empty() ? object == std::array<std::uint8_t, kSize>{} : std::ranges::equal(bytes, view);
}
inline bool IsSame(const CString& object, const TextView& view) {
  const std::string kept = object.ToUtf8();
  std::string valid = kept;  // a lone surrogate is ED A0 80 to ED BF BF there
  for (std::size_t i = 0; i + 2 < valid.size(); ++i) {
    if (valid[i] == '\xED' && static_cast<unsigned char>(valid[i + 1]) >= 0xA0) valid.replace(i, 3, "\xEF\xBF\xBD");
  }
  std::string room(view.MostUtf8(), '\0');
  room.resize(static_cast<std::size_t>(view.PutUtf8(room.data()) - room.data()));
  return view == object.View() && view.Size() == object.Size() && view.IsEmpty() == object.IsEmpty() &&
         view.ToString() == object && view.ToUtf8() == kept && room == valid;
}

// The names of the fields that differ, each after a space.
#define KESP_COMPARE(field) (IsSame(object.field, view.field()) ? "" : " " #field)
inline std::string Differing(const CKespFeature& object, const FeatureView& view) {
  return std::string() + KESP_COMPARE(FeatureNumber) + KESP_COMPARE(FeatureName) + KESP_COMPARE(FeatureType) +
         KESP_COMPARE(Color) + KESP_COMPARE(SymbolIndex);
}
inline std::string Differing(const CKespPoint& object, const PointView& view) {
  return std::string() + KESP_COMPARE(FeatureNumber) + KESP_COMPARE(PointNumber) + KESP_COMPARE(PointText) +
         KESP_COMPARE(PointTime) + KESP_COMPARE(CoordX) + KESP_COMPARE(CoordY) + KESP_COMPARE(CoordZ) +
         KESP_COMPARE(GpsValue) + KESP_COMPARE(GpsNumber) + KESP_COMPARE(SignalStatus) + KESP_COMPARE(Offset1) +
         KESP_COMPARE(Offset2) + KESP_COMPARE(HasOffset);
}
inline std::string Differing(const CKespAttribute& object, const AttributeView& view) {
  return std::string() + KESP_COMPARE(FeatureNumber) + KESP_COMPARE(AttributeName) + KESP_COMPARE(AttributeKind) +
         KESP_COMPARE(TextValue) + KESP_COMPARE(SubValue) + KESP_COMPARE(Value) + KESP_COMPARE(Decimals) +
         KESP_COMPARE(AuxNumber1) + KESP_COMPARE(AuxNumber2) + KESP_COMPARE(AuxNumber3) + KESP_COMPARE(AuxNumber4) +
         KESP_COMPARE(AuxText);
}
inline std::string Differing(const CKespFeatureEnd& object, const FeatureEndView& view) {
  return KESP_COMPARE(FeatureNumber);
}
inline std::string Differing(const CKespNote& object, const NoteView& view) { return KESP_COMPARE(NoteText); }
inline std::string Differing(const CKespTavoHeader& object, const HeaderView& view) {
  return std::string() + KESP_COMPARE(StatusFlags) + KESP_COMPARE(CreationTime) + KESP_COMPARE(HeaderShort) +
         KESP_COMPARE(HeaderText1) + KESP_COMPARE(HeaderText2) + KESP_COMPARE(HeaderText3) + KESP_COMPARE(HeaderText4) +
         KESP_COMPARE(HeaderText5) + KESP_COMPARE(HeaderText6) + KESP_COMPARE(HeaderText7) + KESP_COMPARE(KespVersion) +
         KESP_COMPARE(ExtentMinX) + KESP_COMPARE(ExtentMaxX) + KESP_COMPARE(ExtentMinY) + KESP_COMPARE(ExtentMaxY) +
         KESP_COMPARE(DataExtent1) + KESP_COMPARE(DataExtent2) + KESP_COMPARE(DataExtent3) + KESP_COMPARE(DataExtent4) +
         KESP_COMPARE(PointCount) + KESP_COMPARE(FeatureCount) + KESP_COMPARE(SpareCount) +
         KESP_COMPARE(FirstPointTime) + KESP_COMPARE(LastPointTime) + KESP_COMPARE(LastPointText) +
         KESP_COMPARE(SlotWord1) + KESP_COMPARE(SlotText1) + KESP_COMPARE(SlotWord2) + KESP_COMPARE(SlotText2) +
         KESP_COMPARE(SlotWord3) + KESP_COMPARE(SlotBytes3) + KESP_COMPARE(SlotWord4) + KESP_COMPARE(SlotBytes4);
}
#undef KESP_COMPARE

inline std::string Differing(const CKespTag& object, const TagView& view) {
  const std::span block(reinterpret_cast<const std::byte*>(object.m_pData), object.m_pData ? object.m_dataLength : 0);
  const std::size_t held = std::min(block.size(), TagView::kMostBlock);
  const auto isHeld = [&](const std::byte* end) { return static_cast<std::size_t>(end - block.data()) <= held; };
  const TagParts parts = PartsOf(object);
  const std::size_t nameBytes = parts.name ? LoadLittle<std::uint32_t>(block.data()) : 0;
  const bool hasName = parts.name && isHeld(block.data() + TagBlockLayout::kName + nameBytes);
  const bool hasPayload = parts.payload && isHeld(parts.payload->data() + parts.payload->size());
  const auto name = view.Name();
  const auto payload = view.Payload();
  std::string differing;
  if (object.m_tagType != view.Type()) differing += " kind";
  if (object.m_dataLength != view.BlockLength() || view.IsWhole() != (held == block.size())) differing += " length";
  if (!std::ranges::equal(block.first(held), view.Block())) differing += " block";
  if (name.has_value() != hasName || (hasName && !IsSame(*parts.name, *name))) differing += " name";
  if (payload.has_value() != hasPayload || (hasPayload && !std::ranges::equal(*parts.payload, *payload))) {
    differing += " payload";
  }
  return differing;
}

inline std::string Differing(const CKespRecord& object, const RecordView& view) {
  if (object.m_recordType != view.Type()) return " type";
  if (object.m_recordVersion != view.Version()) return " version";
  const bool isInPlace = object.m_filePosition == static_cast<std::uint32_t>(view.Position());
  const bool hasFlags = object.m_flags == view.Flags() && object.IsDeleted() == view.IsDeleted();
  const std::string common = std::string(isInPlace ? "" : " position") + (hasFlags ? "" : " flags");
  switch (view.Type()) {
    case KESP_RECORD_FEATURE:
      return common + Differing(static_cast<const CKespFeature&>(object), view.AsFeature());
    case KESP_RECORD_POINT:
      return common + Differing(static_cast<const CKespPoint&>(object), view.AsPoint());
    case KESP_RECORD_HEADER:
      return common + Differing(static_cast<const CKespTavoHeader&>(object), view.AsHeader());
    case KESP_RECORD_FEATURE_END:
      return common + Differing(static_cast<const CKespFeatureEnd&>(object), view.AsFeatureEnd());
    case KESP_RECORD_ATTRIBUTE:
      return common + Differing(static_cast<const CKespAttribute&>(object), view.AsAttribute());
    case KESP_RECORD_NOTE:
      return common + Differing(static_cast<const CKespNote&>(object), view.AsNote());
    default:
      return common + Differing(static_cast<const CKespTag&>(object), view.AsTag());
  }
}

// What one call of a walk returned, and how it left the file.
struct Step {
  bool hasRecord = false;
  bool raised = false;
  KESP_ERROR_TYPE error = KESP_ERROR_NONE;
  int systemError = 0;
  std::uint32_t header = 0;  // offset of the last record header read
  std::uint64_t end = 0;     // where the file is then
  bool operator==(const Step&) const = default;
};
template <class Read>
Step StepOf(CKespDataFile& file, Read read) {
  Step step;
  try {
    step.hasRecord = read();
  } catch (const CFileException&) {
    step.raised = true;
  }
  step.error = file.GetError();
  step.systemError = file.GetSystemError();
  // A read that fails leaves the file anywhere in what was to be read.
  if (step.hasRecord || step.systemError == 0) step.end = file.m_file.GetPosition();
  return step;
}
inline Step NextObject(CKespDataFile& file, bool skipDeleted, std::unique_ptr<CKespRecord>& record) {
  std::uint32_t header = 0;
  record.reset();
  Step step = StepOf(file, [&] {
    record.reset(file.ReadNextRecord(header, skipDeleted));
    return record != nullptr;
  });
  step.header = header;
  return step;
}
inline Step NextView(CKespDataFile& file, bool skipDeleted, RecordView& view) {
  Step step = StepOf(file, [&] { return file.ReadNextView(view, skipDeleted); });
  step.header = static_cast<std::uint32_t>(view.Position());
  return step;
}

// Walks on through two files of the same content, one with objects and one with views. At each set bit of `objects`,
// which are used over and over, the second reads an object too. Returns what differs first; empty when nothing does.
inline std::string DifferenceOfWalks(CKespDataFile& file, CKespDataFile& viewed, bool skipDeleted,
                                     std::uint32_t objects = 0) {
  std::unique_ptr<CKespRecord> record;
  std::unique_ptr<CKespRecord> other;
  RecordView view;
  for (;; objects = std::rotr(objects, 1)) {
    const bool isView = (objects & 1) == 0;
    const Step step = NextObject(file, skipDeleted, record);
    const Step same = isView ? NextView(viewed, skipDeleted, view) : NextObject(viewed, skipDeleted, other);
    const std::string at = "record at " + std::to_string(step.header) + ":";
    if (step != same) return at + " the call";
    if (!step.hasRecord) return {};
    const std::string differing = isView ? Differing(*record, view) : "";
    if (!differing.empty()) return at + differing;
  }
}

}  // namespace kesp::test
