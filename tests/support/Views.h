// Compares views of records with the objects read from the same bytes, and the walk that returns views with the walk
// that returns objects.
#pragma once
#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <type_traits>

#include "kesp/format/RecordView.h"
#include "kesp/platform/Exception.h"
#include "kesp/recordfile/KespDataFile.h"
#include "kesp/records/KespFeatureEnd.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespTavoHeader.h"
#include "tests/support/Bytes.h"

namespace kesp::test {

inline bool IsEqual(std::span<const std::byte> a, std::span<const std::byte> b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}
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
  return view.empty() ? object == std::array<std::uint8_t, kSize>{} : IsEqual(bytes, view);
}
inline bool IsSame(const CString& object, const TextView& view) {
  const std::string kept = object.ToUtf8();
  std::string room(view.MostUtf8(), '\0');
  room.resize(static_cast<std::size_t>(view.PutUtf8(room.data()) - room.data()));
  return view == object.View() && view.Size() == object.Size() && view.IsEmpty() == object.IsEmpty() &&
         view.ToString() == object && view.ToUtf8() == kept && room == ValidUtf8(object);
}

// The names of the fields that differ, each after a space.
#define KESP_SAME(field) (IsSame(object.field, view.field()) ? "" : " " #field)
inline std::string Differing(const CKespFeature& object, const FeatureView& view) {
  return std::string() + KESP_SAME(FeatureNumber) + KESP_SAME(FeatureName) + KESP_SAME(FeatureType) + KESP_SAME(Color) +
         KESP_SAME(SymbolIndex);
}
inline std::string Differing(const CKespPoint& object, const PointView& view) {
  return std::string() + KESP_SAME(FeatureNumber) + KESP_SAME(PointNumber) + KESP_SAME(PointText) +
         KESP_SAME(PointTime) + KESP_SAME(CoordX) + KESP_SAME(CoordY) + KESP_SAME(CoordZ) + KESP_SAME(GpsValue) +
         KESP_SAME(GpsNumber) + KESP_SAME(SignalStatus) + KESP_SAME(Offset1) + KESP_SAME(Offset2) +
         KESP_SAME(HasOffset);
}
inline std::string Differing(const CKespAttribute& object, const AttributeView& view) {
  return std::string() + KESP_SAME(FeatureNumber) + KESP_SAME(AttributeName) + KESP_SAME(AttributeKind) +
         KESP_SAME(TextValue) + KESP_SAME(SubValue) + KESP_SAME(Value) + KESP_SAME(Decimals) + KESP_SAME(AuxNumber1) +
         KESP_SAME(AuxNumber2) + KESP_SAME(AuxNumber3) + KESP_SAME(AuxNumber4) + KESP_SAME(AuxText);
}
inline std::string Differing(const CKespFeatureEnd& object, const FeatureEndView& view) {
  return KESP_SAME(FeatureNumber);
}
inline std::string Differing(const CKespNote& object, const NoteView& view) { return KESP_SAME(NoteText); }
inline std::string Differing(const CKespTavoHeader& object, const HeaderView& view) {
  return std::string() + KESP_SAME(StatusFlags) + KESP_SAME(CreationTime) + KESP_SAME(HeaderShort) +
         KESP_SAME(HeaderText1) + KESP_SAME(HeaderText2) + KESP_SAME(HeaderText3) + KESP_SAME(HeaderText4) +
         KESP_SAME(HeaderText5) + KESP_SAME(HeaderText6) + KESP_SAME(HeaderText7) + KESP_SAME(KespVersion) +
         KESP_SAME(ExtentMinX) + KESP_SAME(ExtentMaxX) + KESP_SAME(ExtentMinY) + KESP_SAME(ExtentMaxY) +
         KESP_SAME(DataExtent1) + KESP_SAME(DataExtent2) + KESP_SAME(DataExtent3) + KESP_SAME(DataExtent4) +
         KESP_SAME(PointCount) + KESP_SAME(FeatureCount) + KESP_SAME(SpareCount) + KESP_SAME(FirstPointTime) +
         KESP_SAME(LastPointTime) + KESP_SAME(LastPointText) + KESP_SAME(SlotWord1) + KESP_SAME(SlotText1) +
         KESP_SAME(SlotWord2) + KESP_SAME(SlotText2) + KESP_SAME(SlotWord3) + KESP_SAME(SlotBytes3) +
         KESP_SAME(SlotWord4) + KESP_SAME(SlotBytes4);
}
#undef KESP_SAME

inline std::string Differing(const CKespTag& object, const TagView& view) {
  const std::span block(reinterpret_cast<const std::byte*>(object.m_pData), object.m_pData ? object.m_dataLength : 0);
  const std::size_t held = std::min(block.size(), TagView::kMostBlock);
  const TagParts parts = PartsOf(object);
  const bool hasName = parts.name && TagBlockLayout::kName + LoadLittle<std::uint32_t>(block.data()) <= held;
  const bool hasPayload = parts.payload && parts.payload->data() + parts.payload->size() <= block.data() + held;
  const auto name = view.Name();
  const auto payload = view.Payload();
  std::string differing;
  if (object.m_tagType != view.Type()) differing += " kind";
  if (object.m_dataLength != view.BlockLength() || view.IsWhole() != (held == block.size())) differing += " length";
  if (!IsEqual(block.first(held), view.Block())) differing += " block";
  if (name.has_value() != hasName || (hasName && !IsSame(*parts.name, *name))) differing += " name";
  if (payload.has_value() != hasPayload || (hasPayload && !IsEqual(*parts.payload, *payload))) {
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
  const auto type = view.Type();
  if (type == KESP_RECORD_FEATURE)
    return common + Differing(static_cast<const CKespFeature&>(object), view.AsFeature());
  if (type == KESP_RECORD_POINT) return common + Differing(static_cast<const CKespPoint&>(object), view.AsPoint());
  if (type == KESP_RECORD_HEADER)
    return common + Differing(static_cast<const CKespTavoHeader&>(object), view.AsHeader());
  if (type == KESP_RECORD_ATTRIBUTE)
    return common + Differing(static_cast<const CKespAttribute&>(object), view.AsAttribute());
  if (type == KESP_RECORD_NOTE) return common + Differing(static_cast<const CKespNote&>(object), view.AsNote());
  if (type == KESP_RECORD_TAG) return common + Differing(static_cast<const CKespTag&>(object), view.AsTag());
  return common + Differing(static_cast<const CKespFeatureEnd&>(object), view.AsFeatureEnd());
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
// `read` returns whether there is a record.
template <class Read>
Step StepOf(CKespDataFile& file, Read read) {
  Step step;
  try {
    step.hasRecord = read(step.header);
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
  return StepOf(file, [&](std::uint32_t& header) {
    record.reset();
    record.reset(file.ReadNextRecord(header, skipDeleted));
    return record != nullptr;
  });
}
inline Step NextView(CKespDataFile& file, bool skipDeleted, RecordView& view) {
  Step step = StepOf(file, [&](std::uint32_t&) { return file.ReadNextView(view, skipDeleted); });
  step.header = static_cast<std::uint32_t>(view.Position());
  return step;
}

// Walks on through two files of the same content, one with objects and one with views. At each set bit of `objects`,
// which are used over and over, the second reads an object too. Returns what differs first; empty when nothing does.
inline std::string DifferenceOfWalks(CKespDataFile& file, CKespDataFile& viewed, bool skipDeleted,
                                     std::uint32_t objects = 0) {
  std::unique_ptr<CKespRecord> record, other;
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
