// The surveys that the benchmarks read: a header record, then features of 16 records each (a feature, 4 attributes, 10
// points, an end; 8680 bytes). They are the same in every run.
#pragma once
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include "bench/Measure.h"
#include "kesp/kesp.h"
#include "kesp/memory/AlignedBytes.h"
#include "kesp/recordfile/RecordHeader.h"

namespace bench {

constexpr long kRecordsEach = 16;
constexpr long kBytesEach = 8680;
constexpr long kBlock = 1 << 20;  // bytes

// Writes the header and the features of a typical survey, the same in every run.
class Surveyor {
 public:
  explicit Surveyor(CFile& file) : m_file(file) {}

  void WriteHeader() {
    CKespTavoHeader header;
    header.KespVersion = 3;
    Write(header);
  }

  void WriteFeature(std::uint32_t number, std::uint32_t points = 10) {
    CKespFeature feature;
    feature.FeatureNumber = number;
    feature.FeatureName = CString(std::string(OneOf(kThings)) + " no. " + std::to_string(number));
    feature.FeatureType = KESP_FEATURE_LINE;
    Write(feature);
    WriteAttribute(number, KESP_ATTRIBUTE_STRING, u"observation", Sentence(), 0);
    WriteAttribute(number, KESP_ATTRIBUTE_NUMERIC, u"girth_cm", {}, Between(5, 400));
    WriteAttribute(number, KESP_ATTRIBUTE_DATE, u"inspected", {}, 43000 + number % 2000);
    WriteAttribute(number, KESP_ATTRIBUTE_MENU, u"state", OneOf(kStates), 0);
    CKespPoint point;
    point.FeatureNumber = number;
    point.CoordX = Between(6, 15);
    point.CoordY = Between(47, 55);
    for (std::uint32_t i = 0; i < points; ++i) {
      point.PointNumber = points * number + i;
      point.PointTime = static_cast<std::int32_t>(1600000000 + points * number + i);
      point.CoordX += Between(-1e-5, 1e-5);
      point.CoordY += Between(-1e-5, 1e-5);
      point.CoordZ = Between(100, 101);
      point.SignalStatus = KESP_SIGNAL_STATUS_9;
      Write(point);
    }
    CKespFeatureEnd end;
    end.FeatureNumber = number;
    Write(end);
  }

 private:
  using Words = std::array<const char*, 8>;
  static constexpr Words kThings{"Maple", "Hedge", "Boundary stone", "Drain", "Gate", "Lamp", "Kerb", "Footpath"};
  static constexpr Words kStates{"sound",   "to be watched",    "hollow",  "felled in spring",
                                 "leaning", "behind the fence", "unclear", "mended last year"};
  static constexpr Words kPhrases{"bark damaged", "roots lift the paving", "second stem", "too close to the road",
                                  "ivy",          "seen from the gate",    "ask owner",   "Höhe geschätzt"};

  const char* OneOf(const Words& words) { return words[m_random() % words.size()]; }
  double Between(double low, double high) { return low + (high - low) * 0x1p-32 * static_cast<double>(m_random()); }
  std::string Sentence() {
    std::string text = OneOf(kPhrases);
    for (auto more = m_random() % 3; more != 0; --more) text += std::string(", ") + OneOf(kPhrases);
    return text;
  }
  void WriteAttribute(std::uint32_t number, KESP_ATTRIBUTE_KIND kind, const char16_t* name, const std::string& text,
                      double value) {
    CKespAttribute attribute;
    attribute.FeatureNumber = number;
    attribute.AttributeKind = kind;
    attribute.AttributeName = name;
    attribute.TextValue = text;
    attribute.Value = value;
    Write(attribute);
  }
  // Through the file object: an append would wait for the disk, which this file does not need.
  void Write(CKespRecord& record) {
    const auto header = kesp::EncodeRecordHeader(
        {record.m_recordType, record.m_recordVersion, record.m_flags, static_cast<std::uint32_t>(record.GetLength(0))});
    m_file.Write(header.data(), header.size());
    if (!record.Write(m_file, 0, 0)) throw std::runtime_error("a record is not written");
  }

  CFile& m_file;
  std::mt19937 m_random{20240229};
};

// The file with that many features of so many points; made at the first call.
inline const std::string& FileOf(long features, std::uint32_t points = 10) {
  static const ScratchFolder folder;
  static std::map<std::pair<long, std::uint32_t>, std::string> files;
  std::string& path = files[{features, points}];
  if (!path.empty()) return path;
  path = folder / (std::to_string(features) + "x" + std::to_string(points));
  CKespDataFile created;
  created.m_version = 3;
  if (!created.Create(CString(path)) || !created.Close()) throw std::runtime_error("can't create " + path);
  CFile file(CString(path), CFile::modeReadWrite);
  file.SeekToEnd();
  Surveyor surveyor(file);
  surveyor.WriteHeader();
  // In long writes, so that the page cache holds the file in large pieces: the plain read is fastest then.
  for (long i = 0; i < features;) {
    CFile::Gather gather(file);
    for (const long end = std::min(features, i + kBlock / kBytesEach); i < end;) {
      surveyor.WriteFeature(static_cast<std::uint32_t>(++i), points);
    }
    gather.Commit();
  }
  file.Flush();  // else the system would write it to the disk while the clock runs
  return path;
}

// Reads all bytes and does nothing with them.
inline void ReadPlain(const std::string& path) {
  static kesp::AlignedBytes block(kBlock);
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) throw std::runtime_error("can't open " + path);
  while (::read(fd, block.Data(), kBlock) > 0) benchmark::ClobberMemory();
  ::close(fd);
}

// Makes and deletes an object for each record.
inline void Walk(const std::string& path, long features) {
  CKespDataFile file;
  if (!file.OpenReadOnly(CString(path)) || !file.SeekToFirstRecord()) throw std::runtime_error("can't open " + path);
  long records = 0;
  while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(true)}) ++records;
  if (file.GetError() != KESP_ERROR_NORMAL_EOF || records != features * kRecordsEach + 1) {
    throw std::runtime_error("the walk over " + path + " went wrong");
  }
}

}  // namespace bench
