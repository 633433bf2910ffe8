// A user's program: takes the hex dump out of docs/file-format.md, makes the file of it, and reads that back.
//
//   consumer docs/file-format.md out.kesp
#include <kesp/kesp.h>

#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

namespace {

int g_failures = 0;

void Check(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "not so: " << what << '\n';
  ++g_failures;
}

// The bytes of the lines "0010  20 44 .. 70  text", as long as their offsets follow one another.
std::string BytesOfDump(std::istream& document) {
  std::string bytes;
  for (std::string line; std::getline(document, line);) {
    if (line.size() < 53 || line.compare(4, 2, "  ") != 0) continue;
    std::istringstream offset(line.substr(0, 4));
    std::size_t at = 0;
    if (!(offset >> std::hex >> at) || at != bytes.size()) continue;
    std::istringstream columns(line.substr(6, 47));
    for (unsigned byte = 0; columns >> std::hex >> byte;) bytes += static_cast<char>(byte);
  }
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::ifstream document(argv[1]);
  std::ofstream(argv[2], std::ios::binary) << BytesOfDump(document);

  CKespDataFile file;
  Check(file.OpenReadOnly(CString(argv[2])), "the file opens");
  Check(file.GetLength() == 240 && file.m_version == 1, "240 bytes, of file version 1");
  file.SeekToFirstRecord();
  std::unique_ptr<CKespRecord> record;
  const auto next = [&] { return record.reset(file.ReadNextRecord(false)), record.get(); };

  const auto* const feature = dynamic_cast<CKespFeature*>(next());
  Check(feature && feature->FeatureNumber == 7 && feature->FeatureName == u"Oak" &&
            feature->FeatureType == KESP_FEATURE_POINT && feature->Color == 0xFF00 && feature->SymbolIndex == 34,
        "a feature named Oak");
  const auto* const point = dynamic_cast<CKespPoint*>(next());
  Check(point && point->FeatureNumber == 7 && point->PointNumber == 1 && point->PointText == u"P1" &&
            point->PointTime == 1700000000 && point->CoordY == 48.5 && point->CoordX == 9.25 && point->CoordZ == 512 &&
            point->GpsValue == 1.5 && point->SignalStatus == 3,
        "its point");
  const auto* const end = dynamic_cast<CKespFeatureEnd*>(next());
  Check(end && end->FeatureNumber == 7, "its end");
  auto* const tag = dynamic_cast<CKespTag*>(next());
  CString name;
  int age = 0;
  Check(tag && tag->IsDeleted() && tag->m_flags == 5 && tag->GetInteger(name, age) && name == u"Age" && age == 120,
        "a deleted tag");
  Check(!next() && file.GetError() == KESP_ERROR_NORMAL_EOF, "and nothing behind it");
  return g_failures == 0 ? 0 : 1;
}
