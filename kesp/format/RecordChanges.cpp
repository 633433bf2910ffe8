#include "kesp/format/RecordChanges.h"

#include <span>
#include <tuple>

#include "kesp/format/Bodies.h"
#include "kesp/format/TagBlock.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespFeatureEnd.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespPoint.h"
#include "kesp/records/KespTag.h"
#include "kesp/records/KespTavoHeader.h"
#include "kesp/util/Fields.h"

namespace kesp {
namespace {

// With the block as one field, whose length is not to change.
constexpr auto kTagBody = [](auto& v, auto& tag) {
  v.U32(tag.m_tagType);
  v.Skip(kTagLengthField);
  v.Raw(std::span<const std::uint8_t>(tag.m_pData, tag.m_pData != nullptr ? tag.m_dataLength : 0));
};
constexpr std::tuple kTagBodies{kTagBody, kTagBody};

// One that the field can't hold may look the same where it is cut.
bool Differs(const FieldList::Field& now, const FieldList::Field& old) {
  return !now.HasValueOf(old) || now.fits != old.fits;
}

// The fields that differ, in the layout of one body. Nothing when one of them can't hold its new value.
template <class Record, class Body>
std::optional<RecordChanges> ChangesIn(const Record& before, const Record& after, Body body) {
  FieldList old;
  FieldList now;
  body(old, before);
  body(now, after);
  RecordChanges changes;
  for (std::size_t i = 0; i < now.Fields().size(); ++i) {
    const FieldList::Field& field = now.Fields()[i];
    if (!Differs(field, old.Fields()[i])) continue;
    if (!field.fits || field.width != old.Fields()[i].width) return std::nullopt;
    changes.fields.push_back({field.offset, field.width});
  }
  if (changes.fields.empty()) return changes;
  changes.body.resize(now.Length());
  FieldWriter writer(changes.body.data());
  body(writer, after);
  return changes;
}

template <class Record, class Body>
std::size_t CountDifferences(const Record& before, const Record& after, Body body) {
  FieldList old;
  FieldList now;
  body(old, before);
  body(now, after);
  std::size_t count = 0;
  for (std::size_t i = 0; i < now.Fields().size(); ++i) count += Differs(now.Fields()[i], old.Fields()[i]) ? 1 : 0;
  return count;
}

template <class Record, class... Bodies>
std::optional<RecordChanges> ChangesAs(const CKespRecord& one, const CKespRecord& other,
                                       const std::tuple<Bodies...>& bodies) {
  const auto* const before = dynamic_cast<const Record*>(&one);
  const auto* const after = dynamic_cast<const Record*>(&other);
  if (before == nullptr || after == nullptr) return std::nullopt;
  std::optional<RecordChanges> changes = RecordChanges{};
  WithVersion(bodies, before->m_recordVersion, [&](auto body) { changes = ChangesIn(*before, *after, body); });
  // The newest layout has all members: one that differs and is missing here has no place in the older one.
  const auto& newest = std::get<sizeof...(Bodies) - 1>(bodies);
  if (changes && changes->fields.size() != CountDifferences(*before, *after, newest)) changes.reset();
  return changes;
}

}  // namespace

std::optional<RecordChanges> ChangesOf(const CKespRecord& before, const CKespRecord& after) {
  switch (before.m_recordType) {
    case KESP_RECORD_FEATURE:
      return ChangesAs<CKespFeature>(before, after, kFeatureBodies);
    case KESP_RECORD_POINT:
      return ChangesAs<CKespPoint>(before, after, kPointBodies);
    case KESP_RECORD_HEADER:
      return ChangesAs<CKespTavoHeader>(before, after, kHeaderBodies);
    case KESP_RECORD_FEATURE_END:
      return ChangesAs<CKespFeatureEnd>(before, after, kFeatureEndBodies);
    case KESP_RECORD_ATTRIBUTE:
      return ChangesAs<CKespAttribute>(before, after, kAttributeBodies);
    case KESP_RECORD_NOTE:
      return ChangesAs<CKespNote>(before, after, kNoteBodies);
    case KESP_RECORD_TAG:
      return ChangesAs<CKespTag>(before, after, kTagBodies);
    default:
      return std::nullopt;
  }
}

}  // namespace kesp
