#include "kesp/format/FormatLoss.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <span>
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

constexpr std::size_t kMostFields = 48;
constexpr std::size_t kMostBytes = BodyLengthOf(KESP_RECORD_HEADER, 2);

// The fields of a record in the order of a description. Borrows the record.
class FieldList {
 public:
  struct Field {
    const CString* text = nullptr;  // null unless it is a text
    std::span<const std::uint8_t> bytes;
    std::uint64_t number = 0;

    bool operator==(const Field& other) const {
      if (text != nullptr) return *text == *other.text;
      return number == other.number && std::ranges::equal(bytes, other.bytes);
    }
  };

  template <class T>
  void U16(const T& field) {
    Put({nullptr, {}, static_cast<std::uint16_t>(field)});
  }
  template <class T>
  void Choice16(const T& field, std::uint16_t /*least*/, std::uint16_t /*most*/) {
    U16(field);
  }
  template <class T>
  void U32(const T& field) {
    Put({nullptr, {}, static_cast<std::uint32_t>(field)});
  }
  void F64(const double& field) { Put({nullptr, {}, std::bit_cast<std::uint64_t>(field)}); }
  void Text16(const CString& field, std::size_t /*units*/) { Put({&field, {}, 0}); }
  void Raw(std::span<const std::uint8_t> field) { Put({nullptr, field, 0}); }

  std::span<const Field> Fields() const { return std::span(m_fields).first(m_count); }

 private:
  void Put(const Field& field) {
    assert(m_count < kMostFields);
    m_fields[m_count++] = field;
  }

  std::array<Field, kMostFields> m_fields;
  std::size_t m_count = 0;
};

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

  FieldList before;
  FieldList after;
  const auto& newest = std::get<sizeof...(Bodies) - 1>(bodies);
  newest(before, record);
  newest(after, std::as_const(kept));
  std::uint64_t texts = 0;
  std::uint64_t numbers = 0;
  for (std::size_t i = 0; i < before.Fields().size(); ++i) {
    const FieldList::Field& field = before.Fields()[i];
    if (!(field == after.Fields()[i])) ++(field.text != nullptr ? texts : numbers);
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
