// A user's program: takes the hex dump out of docs/file-format.md, makes the file of it, and reads that back.
//
//   consumer docs/file-format.md out.kesp
#include <kesp/kesp.h>

#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#define REQUIRE(condition) \
  if (!(condition)) return std::cerr << "not so: " #condition "\n", 1

// The bytes of the lines "0010  20 44 .. 70  text", as long as their offsets follow one another.
static std::string BytesOfDump(std::istream& document) {
  std::string bytes;
  for (std::string line; std::getline(document, line);) {
    if (line.size() < 53 || line.compare(4, 2, "  ") != 0) continue;
    std::istringstream offset(line.substr(0, 4)), columns(line.substr(6, 47));
    std::size_t at = 0;
    if (!(offset >> std::hex >> at) || at != bytes.size()) continue;
    for (unsigned byte = 0; columns >> std::hex >> byte;) bytes += static_cast<char>(byte);
  }
  return bytes;
}

int main(int argc, char** argv) {
  REQUIRE(argc == 3);
  std::ifstream document(argv[1]);
  std::ofstream(argv[2], std::ios::binary) << BytesOfDump(document);

  CKespDataFile file;
  REQUIRE(file.OpenReadOnly(CString(argv[2])) && file.GetLength() == 240 && file.m_version == 1);
  file.SeekToFirstRecord();
  std::unique_ptr<CKespRecord> record;
  const auto next = [&] { return record.reset(file.ReadNextRecord(false)), record.get(); };

  const auto* const feature = dynamic_cast<CKespFeature*>(next());
  REQUIRE(feature && feature->FeatureNumber == 7 && feature->FeatureName == u"Oak");
  REQUIRE(feature->FeatureType == KESP_FEATURE_POINT && feature->Color == 0xFF00 && feature->SymbolIndex == 34);
  const auto* const point = dynamic_cast<CKespPoint*>(next());
  REQUIRE(point && point->FeatureNumber == 7 && point->PointNumber == 1 && point->PointText == u"P1");
  REQUIRE(point->PointTime == 1700000000 && point->GpsValue == 1.5 && point->SignalStatus == 3);
  REQUIRE(point->CoordY == 48.5 && point->CoordX == 9.25 && point->CoordZ == 512);
  const auto* const end = dynamic_cast<CKespFeatureEnd*>(next());
  REQUIRE(end && end->FeatureNumber == 7);
  auto* const tag = dynamic_cast<CKespTag*>(next());
  CString name;
  int age = 0;
  REQUIRE(tag && tag->IsDeleted() && tag->m_flags == 5 && tag->GetInteger(name, age) && name == u"Age" && age == 120);
  REQUIRE(!next() && file.GetError() == KESP_ERROR_NORMAL_EOF);
}
