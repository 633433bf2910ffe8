// Reads and writes the body of a record, given the body's description (see kesp/format/Bodies.h).
#pragma once
#include <array>
#include <cstddef>

#include "kesp/platform/File.h"
#include "kesp/records/KespRecord.h"
#include "kesp/util/Fields.h"

namespace kesp {

// The longest fixed body, the header record's.
constexpr std::size_t kLongestBody = 4086;

template <class Record, class Describe>
unsigned long BodyLength(const Record& record, Describe describe) {
  FieldCounter counter;
  describe(counter, record);
  return static_cast<unsigned long>(counter.Length());
}

// Reads the fields of `record`. If the file ends inside the body, it stores only `shortBodyError` in m_error, leaves
// the file at its end and raises an end-of-file CFileException.
template <class Record, class Describe>
void ReadBody(CFile& file, Record& record, Describe describe, KESP_ERROR_TYPE shortBodyError) {
  const std::size_t length = BodyLength(record, describe);
  const std::span<const std::byte> bytes = file.ReadView(length);
  if (bytes.size() < length) {
    record.m_error = shortBodyError;
    throw CFileException(CFileException::endOfFile, file.GetFilePath());
  }
  UncheckedFieldReader reader(bytes);
  describe(reader, record);
}

// Writes the body. Raises what the file object raises.
template <class Record, class Describe>
void WriteBody(CFile& file, const Record& record, Describe describe) {
  std::array<std::byte, kLongestBody> body;
  const std::size_t length = BodyLength(record, describe);
  std::fill_n(body.begin(), length, std::byte{0});
  FieldWriter writer(body.data());
  describe(writer, record);
  file.Write(body.data(), length);
}

}  // namespace kesp
