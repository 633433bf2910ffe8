// Reads and writes the body of a record in any of its versions, given the tuple of descriptions by version (see
// kesp/format/Bodies.h). A new version is one more entry in that tuple.
//
//   return FalseWhenFileFails([&] { return ReadBody(file, *this, kNoteBodies, m_recordVersion); });
#pragma once
#include <array>
#include <cstddef>
#include <span>
#include <tuple>

#include "kesp/format/Bodies.h"
#include "kesp/platform/File.h"
#include "kesp/records/KespError.h"
#include "kesp/util/Fields.h"

namespace kesp {

namespace detail {

template <class Record, class Body>
inline void ReadBodyAs(CFile& file, Record& record, const Body& body, KESP_ERROR_TYPE shortBodyError) {
  constexpr std::size_t kLength = BodyWidth(Body{});
  const std::span<const std::byte> bytes = file.ReadView(kLength);
  if (bytes.size() < kLength) {
    record.m_error = shortBodyError;
    throw CFileException(CFileException::endOfFile, file.GetFilePath());
  }
  UncheckedFieldReader reader(bytes);
  body(reader, record);
}

// Not inlined, so that the code for the newest version, which nearly every record has, stays small.
template <class... Bodies, class Record>
[[gnu::noinline]] bool ReadOlderBody(CFile& file, Record& record, const std::tuple<Bodies...>& bodies, unsigned version,
                                     KESP_ERROR_TYPE shortBodyError) {
  return WithVersion(bodies, version, [&](const auto& body) { ReadBodyAs(file, record, body, shortBodyError); });
}

}  // namespace detail

// Reads the fields of `record`. Returns false and reads nothing if there is no such version. If the file ends inside
// the body, it stores only `shortBodyError` in m_error, leaves the file at its end and raises an end-of-file
// CFileException.
template <class... Bodies, class Record>
bool ReadBody(CFile& file, Record& record, const std::tuple<Bodies...>& bodies, unsigned version,
              KESP_ERROR_TYPE shortBodyError = KESP_ERROR_EOF) {
  if (version != NewestOf(bodies)) return detail::ReadOlderBody(file, record, bodies, version, shortBodyError);
  detail::ReadBodyAs(file, record, std::get<sizeof...(Bodies) - 1>(bodies), shortBodyError);
  return true;
}

// Writes the body. Returns false and writes nothing if there is no such version. Raises what the file object raises.
template <class... Bodies, class Record>
bool WriteBody(CFile& file, const Record& record, const std::tuple<Bodies...>& bodies, unsigned version) {
  return WithVersion(bodies, version, [&]<class Body>(const Body& body) {
    std::array<std::byte, BodyWidth(Body{})> bytes{};
    FieldWriter writer(bytes.data());
    body(writer, record);
    file.Write(bytes.data(), bytes.size());
  });
}

// Returns what `work` returns, or false if it raises a CFileException.
template <class Work>
bool FalseWhenFileFails(Work work) {
  try {
    return work();
  } catch (const CFileException&) {
    return false;
  }
}

}  // namespace kesp
