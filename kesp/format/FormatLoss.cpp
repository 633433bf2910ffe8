#include "kesp/format/FormatLoss.h"

#include <algorithm>
#include <array>
#include <type_traits>
#include <utility>

#include "kesp/format/RecordKinds.h"
#include "kesp/records/KespAttribute.h"
#include "kesp/records/KespFeature.h"
#include "kesp/records/KespNote.h"
#include "kesp/records/KespPoint.h"
#include "kesp/records/KespTavoHeader.h"

namespace kesp {
namespace {

constexpr std::size_t kMostBytes = BodyLengthOf(KESP_RECORD_HEADER, 2);

// The body that the class writes for a version.
template <class Record, class Body>
void Write(FieldWriter& writer, const Record& record, Body body) {
  if constexpr (std::is_same_v<Body, std::remove_const_t<decltype(kHeaderVersion1)>>) {
    kHeaderVersion1AsWritten(writer, record);
  } else {
    body(writer, record);
  }
}

// Writes the older body, reads it back into a new record, and compares what the newest body would hold.
template <class... Bodies, class Record>
void AddTo(FormatLoss::Kind& kind, const std::tuple<Bodies...>& bodies, const Record& record, unsigned version) {
  Record kept;
  WithVersion(bodies, version, [&](auto body) {
    std::array<std::byte, kMostBytes> bytes;
    std::fill_n(bytes.begin(), BodyWidth(body), std::byte{0});
    FieldWriter writer(bytes.data());
    Write(writer, record, body);
    UncheckedFieldReader reader(bytes);
    body(reader, kept);
  });
  if constexpr (std::is_same_v<Record, CKespTavoHeader>) kept.KespVersion = record.KespVersion;

  FieldList before;
  FieldList after;
  const auto& newest = std::get<sizeof...(Bodies) - 1>(bodies);
  newest(before, record);
  newest(after, std::as_const(kept));
  std::uint64_t texts = 0;
  std::uint64_t numbers = 0;
  for (std::size_t i = 0; i < before.Fields().size(); ++i) {
    const FieldList::Field& field = before.Fields()[i];
    if (!field.HasValueOf(after.Fields()[i])) ++(field.text != nullptr ? texts : numbers);
  }
  kind.texts += texts;
  kind.numbers += numbers;
  kind.records += texts + numbers != 0 ? 1 : 0;
}

}  // namespace

void FormatLoss::Add(const CKespRecord& record, unsigned short fileVersion) {
  if (fileVersion != 1 && fileVersion != 2) return;
  if (const auto* const point = dynamic_cast<const CKespPoint*>(&record)) {
    AddTo(points, kPointBodies, *point, fileVersion);
  } else if (const auto* const attribute = dynamic_cast<const CKespAttribute*>(&record)) {
    AddTo(attributes, kAttributeBodies, *attribute, fileVersion);
  } else if (const auto* const feature = dynamic_cast<const CKespFeature*>(&record)) {
    AddTo(features, kFeatureBodies, *feature, fileVersion);
  } else if (const auto* const note = dynamic_cast<const CKespNote*>(&record)) {
    AddTo(notes, kNoteBodies, *note, fileVersion);
  } else if (const auto* const header = dynamic_cast<const CKespTavoHeader*>(&record)) {
    AddTo(headers, kHeaderBodies, *header, fileVersion);
  }
}

}  // namespace kesp
