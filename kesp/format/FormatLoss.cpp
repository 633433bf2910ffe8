#include "kesp/format/FormatLoss.h"

#include <algorithm>
#include <array>
#include <tuple>
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

// Writes the older body, reads it back into a new record, and compares the fields of the newest body.
template <class Written, class... Bodies, class Record>
void AddTo(FormatLoss::Kind& kind, const Written& written, const std::tuple<Bodies...>& bodies, const Record& record,
           unsigned version) {
  Record kept;
  std::array<std::byte, kMostBytes> bytes;
  WithVersion(written, version, [&](auto body) {
    std::fill_n(bytes.begin(), BodyWidth(body), std::byte{0});
    FieldWriter writer(bytes.data());
    body(writer, record);
  });
  WithVersion(bodies, version, [&](auto body) {
    UncheckedFieldReader reader(bytes);
    body(reader, kept);
  });
  if constexpr (std::is_same_v<Record, CKespTavoHeader>) kept.KespVersion = record.KespVersion;
  if constexpr (std::is_same_v<Record, CKespPoint>) {
    if (version == 1 && kept.SignalStatus > CKespPoint::kHighestOldStatus) kept.SignalStatus = KESP_SIGNAL_STATUS_10;
  }

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
    AddTo(points, kPointBodies, kPointBodies, *point, fileVersion);
  } else if (const auto* const attribute = dynamic_cast<const CKespAttribute*>(&record)) {
    AddTo(attributes, kAttributeBodies, kAttributeBodies, *attribute, fileVersion);
  } else if (const auto* const feature = dynamic_cast<const CKespFeature*>(&record)) {
    AddTo(features, kFeatureBodies, kFeatureBodies, *feature, fileVersion);
  } else if (const auto* const note = dynamic_cast<const CKespNote*>(&record)) {
    AddTo(notes, kNoteBodies, kNoteBodies, *note, fileVersion);
  } else if (const auto* const header = dynamic_cast<const CKespTavoHeader*>(&record)) {
    AddTo(headers, kHeaderBodiesAsWritten, kHeaderBodies, *header, fileVersion);
  }
}

}  // namespace kesp
