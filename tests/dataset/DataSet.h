// Small surveys, their records spelled byte for byte, and what a data set says it holds.
#pragma once
#include <gtest/gtest.h>

#include <bit>
#include <memory>
#include <random>

#include "kesp/dataset/KespFile.h"
#include "tests/support/Bytes.h"

struct CKespFileTestAccess {
  static void DeletePoint(CKespFile& file, CKespPoint* point) { file.DeletePoint(point); }
  static int DeletePointInFeature(CKespFile& file, CKespPoint* point, CKespFeature* feature) {
    return file.DeletePointInFeature(point, feature);
  }
};

namespace kesp::test {

inline void Put(ByteVector& body, std::size_t offset, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i)
    body[offset + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> 8 * i);
}
inline void Put(ByteVector& body, std::size_t offset, double value) {
  Put(body, offset, std::bit_cast<std::uint64_t>(value), 8);
}
inline void Put(ByteVector& body, std::size_t offset, std::string_view text, int unitBytes) {
  for (const char c : text) {
    Put(body, offset, static_cast<unsigned char>(c), unitBytes);
    offset += static_cast<std::size_t>(unitBytes);
  }
}

class Random {
 public:
  explicit Random(unsigned seed) : m_engine(seed) {}
  unsigned operator()(unsigned below) { return static_cast<unsigned>(m_engine() % below); }

 private:
  std::mt19937 m_engine;
};

// Records in a file. `version` is the record's.
struct Header2 {
  std::uint32_t kespVersion = 2;
  double minX = 0, maxX = 0, minY = 0, maxY = 0;
  std::uint32_t status = 0;
  ByteVector Body() const {
    ByteVector body(4086);
    Put(body, 0, status, 4);
    Put(body, 4, 1'000'000'000, 4);
    Put(body, 2868, kespVersion, 4);
    const double extent[] = {minX, maxX, minY, maxY};
    for (std::size_t i = 0; i < 4; ++i) Put(body, 2872 + 8 * i, extent[i]);
    return body;
  }
  operator ByteVector() const { return Record(3, 2, 0, Body()); }
};
inline ByteVector Header1() { return Record(3, 1, 0, ByteVector(928)); }
inline ByteVector Feature(std::uint32_t number, std::string_view name = "Oak", std::uint32_t flags = 0,
                          std::uint16_t version = 3, std::uint16_t type = 1) {
  const std::size_t behindName[] = {0, 26, 46, 516};
  ByteVector body(behindName[version] + 8);
  Put(body, 0, number, 4);
  Put(body, 4, name, version == 1 ? 1 : 2);
  Put(body, behindName[version], type, 2);
  return Record(1, version, flags, body);
}
struct At {
  std::int32_t time = 1000;
  double x = 0, y = 0;
  std::string_view text = "";
};
inline ByteVector Point(std::uint32_t feature, std::uint32_t number, At at = {}, std::uint32_t flags = 0,
                        std::uint16_t version = 2) {
  const std::size_t behindText = version == 1 ? 30 : 50;
  ByteVector body(version == 1 ? 68 : 108);
  Put(body, 0, feature, 4);
  Put(body, 4, number, 4);
  Put(body, 8, at.text, version);
  Put(body, behindText, static_cast<std::uint32_t>(at.time), 4);
  Put(body, behindText + 4, at.y);
  Put(body, behindText + 12, at.x);
  return Record(2, version, flags, body);
}
inline ByteVector Attribute(std::uint32_t feature, std::string_view name, std::string_view text = "",
                            std::uint32_t flags = 0, std::uint16_t version = 3, double value = 0) {
  const std::size_t kindAt[] = {0, 26, 46, 516};
  const std::size_t valueAt[] = {0, 90, 172, 1542};
  const std::size_t lengths[] = {0, 138, 240, 1712};
  ByteVector body(lengths[version]);
  Put(body, 0, feature, 4);
  Put(body, 4, name, version == 1 ? 1 : 2);
  Put(body, kindAt[version], 1, 2);
  Put(body, kindAt[version] + 2, text, version == 1 ? 1 : 2);
  Put(body, valueAt[version], value);
  return Record(5, version, flags, body);
}
inline ByteVector End(std::uint32_t feature, std::uint32_t flags = 0) {
  ByteVector body(4);
  Put(body, 0, feature, 4);
  return Record(4, 1, flags, body);
}
inline ByteVector Note(std::string_view text, std::uint32_t flags = 0, std::uint16_t version = 2) {
  ByteVector body(version == 1 ? 256 : 512);
  Put(body, 0, text, version);
  return Record(6, version, flags, body);
}
// The block of a tag, which is also what it holds in memory.
inline ByteVector Block(std::string_view name, const ByteVector& payload) {
  const std::size_t nameBytes = (2 * name.size() + 5) / 4 * 4;
  ByteVector block(8 + nameBytes);
  Put(block, 0, nameBytes, 4);
  Put(block, 4, name, 2);
  Put(block, 4 + nameBytes, payload.size(), 4);
  return block + payload;
}
inline ByteVector Tag(std::uint32_t kind, std::string_view name, const ByteVector& payload, std::uint32_t flags = 0) {
  const ByteVector block = Block(name, payload);
  ByteVector body(8);
  Put(body, 0, kind, 4);
  Put(body, 4, block.size(), 4);
  return Record(9, 2, flags, body + block);
}
inline ByteVector Words(std::initializer_list<std::uint32_t> words) {
  ByteVector bytes;
  for (const std::uint32_t word : words) Append(bytes, word, 4);
  return bytes;
}
inline ByteVector Floats(std::initializer_list<float> values) {
  ByteVector bytes;
  for (const float value : values) Append(bytes, std::bit_cast<std::uint32_t>(value), 4);
  return bytes;
}
inline ByteVector Survey(std::initializer_list<ByteVector> records, std::uint16_t version = 3) {
  ByteVector bytes = FileHeader(version);
  for (const ByteVector& record : records) Append(bytes, record);
  return bytes;
}

// "H F7 P7/3 A7:Girth E7 N:rain T3"
inline std::string Name(const CKespRecord* record) {
  if (record == nullptr) return "null";
  if (const auto* const f = dynamic_cast<const CKespFeature*>(record)) return "F" + std::to_string(f->FeatureNumber);
  if (const auto* const p = dynamic_cast<const CKespPoint*>(record))
    return "P" + std::to_string(p->FeatureNumber) + "/" + std::to_string(p->PointNumber);
  if (const auto* const a = dynamic_cast<const CKespAttribute*>(record))
    return "A" + std::to_string(a->FeatureNumber) + ":" + a->AttributeName.ToUtf8();
  if (const auto* const e = dynamic_cast<const CKespFeatureEnd*>(record)) return "E" + std::to_string(e->FeatureNumber);
  if (const auto* const n = dynamic_cast<const CKespNote*>(record)) return "N:" + n->NoteText.ToUtf8();
  if (const auto* const t = dynamic_cast<const CKespTag*>(record)) return "T" + std::to_string(t->GetType());
  return "H";
}
template <class Range>
std::string Names(const Range& records) {
  std::string names;
  for (const CKespRecord* record : records) names += (names.empty() ? "" : " ") + Name(record);
  return names;
}
// What a query answered, which is released.
template <class RecordType>
std::string Names(RecordType** array, int count) {
  EXPECT_NE(array, nullptr);
  const std::unique_ptr<RecordType*[]> own(array);
  return Names(std::span<RecordType*>(array, static_cast<std::size_t>(count)));
}
// A data set and a file of the given bytes, opened.
class DataSet {
 public:
  explicit DataSet(const ByteVector& bytes) {
    WriteFile(path, bytes);
    CString message;
    opened = file.OpenKesp(Text(path), message);
  }
  CKespFeature* Feature(std::uint32_t number) const { return *file.m_featureIndex.Find(number); }
  CKespPoint* Point(std::uint32_t number) const { return *file.m_pointIndex.Find(number); }

  TempDir dir;
  std::filesystem::path path = dir / "survey.kesp";
  CKespFile file;
  ErrorEnum opened;
};

}  // namespace kesp::test
