// Each allocation of an operation on a file fails in turn. The operation then says so, by its result and ENOMEM, raises
// nothing, and leaves the file whole. Under the address sanitizer each record and text is an allocation; without it
// those that come out of the library's pool are not counted.
#include <cerrno>
#include <functional>

#include "kesp/records/KespAttribute.h"
#include "kesp/salvage/Salvage.h"
#include "tests/dataset/DataSet.h"
#include "tests/recordfile/Survey.h"
#include "tests/support/FaultyMemory.h"

using namespace kesp::test;

namespace {

const ByteVector kPictureTag = Tag(0, "blob", ByteVector(150'000, 1));
const ByteVector kStored =
    Survey({Header2{}, Feature(7, "a name of more than eleven"), Point(7, 1), Point(7, 2),
            Attribute(7, "Girth", "a text of more than eleven"), EndOf(7), kPictureTag, Note("rain and more rain")});

constexpr std::size_t kSecond = kFirst + 4100;  // after the header record
const ByteVector kDamaged = Part(kStored, 0, kSecond) + ByteVector(40) + Part(kStored, kSecond);

struct Place {
  explicit Place(const TempDir& dir)
      : path(Text(dir / "a.kesp")), copy(Text(dir / "b.kesp")), fresh(Text(dir / "c.kesp")) {
    for (const CString& name : {copy, fresh}) std::filesystem::remove(name.ToUtf8());
    WriteFile(dir / "a.kesp", kStored);
    note.NoteText = "rain and no more rain";
    tag.Set("a name of more than eleven", 1);
  }
  CString path, copy, fresh;
  CKespDataFile file;
  CKespFile set;
  CKespFeatureEnd end = EndRecord(9);
  CKespNote note;
  CKespTag tag;
};

bool WalkAll(CKespDataFile& file) {
  int count = 0;
  while (const std::unique_ptr<CKespRecord> record{file.ReadNextRecord(false)}) ++count;
  return count == 8 && file.GetError() == KESP_ERROR_NORMAL_EOF;
}

const struct {
  const char* name;
  char open;  // (o)pen for writing, (r)ead-only, (d)amaged, - not at all; in capitals for the data set
  std::function<bool(Place&)> run;
  // clang-format off
} kAllocating[] = {
    {"open", '-', [](Place& p) { return p.file.Open(p.path); }},
    {"open read-only", '-', [](Place& p) { return p.file.OpenReadOnly(p.path); }},
    {"create", '-', [](Place& p) { return p.file.Create(p.fresh); }},
    {"walk", 'r', [](Place& p) { return p.file.SeekToFirstRecord() && WalkAll(p.file); }},
    {"append", 'o', [](Place& p) { return p.file.AppendRecord(&p.note, 2) && p.file.AppendRecord(&p.tag, 2); }},
    {"overwrite", 'o', [](Place& p) { return p.file.SeekToFirstRecord() && p.file.UpdateRecord(&p.note, 8, true); }},
    {"delete", 'o', [](Place& p) { return p.file.Seek(kSecond) && p.file.DeleteRecord(kSecond, 0); }},
    {"copy", 'o', [](Place& p) { return p.file.Copy(p.copy); }},
    {"rebuild", 'o', [](Place& p) { return p.file.CopyVerify(p.copy, 2) && p.file.GetError() == KESP_ERROR_NORMAL_EOF; }},
    {"rebuild by path", '-', [](Place& p) { return p.file.CopyVerify(p.path, p.copy, 2); }},
    {"salvage", 'r', [](Place& p) {
      kesp::SalvageReport report;
      return kesp::Salvage(p.file, p.copy, 2, report) && report.kept == 8 && report.gapCount == 0; }},
    {"salvage after damage", 'd', [](Place& p) {
      kesp::SalvageReport report;
      return kesp::Salvage(p.file, p.copy, 0, report) && report.kept == 8 && report.gapBytes == 40; }},
    {"look at the end", 'r', [](Place& p) {
      (void)p.file.Seek(kFirst);
      const bool whole = p.file.EndsWhole();
      EXPECT_EQ(p.file.GetPosition(), kFirst);
      return whole; }},
    {"update the header", 'O', [](Place& p) {
      return p.set.UpdateKespHeader({}, {}, {}, {}, {}, {}, 0, 1, 0, 1, true) == ERR_NONE &&
             p.set.m_pDataFile->GetSystemError() == 0; }},
    {"close", 'o', [](Place& p) { return p.file.Close(); }},
    {"open a data set", '-', [](Place& p) {
      CString message;
      return p.set.OpenKesp(std::move(p.path), message) == ERR_NONE && p.set.m_pDataFile->IsOpen(); }},
    {"read a data set", 'R', [](Place& p) { return p.set.ReadKespFile(false) == ERR_NONE && p.set.WasReadToEnd(); }},
    {"append a queue", 'O', [](Place& p) {
      return p.set.AppendToKespFileFromQueue(std::move(p.path)) == ERR_NONE && p.set.m_pDataFile->GetSystemError() == 0; }},
    {"write a queue", '-', [](Place& p) {
      return p.set.WriteNewKespFileFromQueue(std::move(p.fresh)) == ERR_NONE && p.set.m_pDataFile->IsOpen() &&
             p.set.m_pDataFile->GetSystemError() == 0; }}};
// clang-format on

TEST(ShortMemory, IsToldAndHarmsNoFile) {
  const TempDir dir;
  int points = 0;
  for (const auto& operation : kAllocating) {
    bool struck = true;
    for (int at = 1; struck; ++at) {
      SCOPED_TRACE(testing::Message() << operation.name << ": allocation " << at);
      Place place(dir);
      CString message;
      if (operation.open == 'o') place.file.Open(place.path);
      if (operation.open == 'd') WriteFile(dir / "d.kesp", kDamaged), place.file.OpenReadOnly(Text(dir / "d.kesp"));
      if (operation.open == 'r') place.file.OpenReadOnly(place.path);
      if (operation.open == 'O') place.set.OpenKesp(place.path, message);
      if (operation.open == 'R') place.set.OpenKespReadOnly(place.path, message);
      ASSERT_EQ(place.file.IsOpen() || place.set.m_pDataFile->IsOpen(), operation.open != '-');
      place.set.AddNoteToWriteQueue(&place.note);
      bool good = false;
      {
        const IdleDisk disk;
        const FaultyMemory memory(at);
        EXPECT_NO_THROW(good = operation.run(place));
        struck = FaultyMemory::Struck();
      }
      points += struck;
      const int error = std::max(place.file.GetSystemError(), place.set.m_pDataFile->GetSystemError());
      EXPECT_TRUE(good || struck);  // some can be done without, such as a thread that reads ahead
      EXPECT_EQ(error, good ? 0 : ENOMEM);
      place.file.Close();
      place.set.m_pDataFile->Close();
      // What was there still is; an append or an edit is there or is not.
      const ByteVector now = ReadFile(dir / "a.kesp");
      const Walked walked = Walk(dir / "a.kesp");
      EXPECT_EQ(walked.error, KESP_ERROR_NORMAL_EOF);
      EXPECT_GE(walked.positions.size(), 8u);
      EXPECT_TRUE(good || now.size() == kStored.size() || Part(now, 0, kStored.size()) == kStored);
      EXPECT_TRUE(CKespDataFile().Open(Text(dir / "a.kesp"))) << "still locked";
      if (HasFailure()) return;
    }
  }
  std::printf("%d allocations in %zu operations\n", points, std::size(kAllocating));
}

}  // namespace
