#include <filesystem>

#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

namespace fs = std::filesystem;

class Copying : public OneFile {
 protected:
  bool Rebuild(const ByteVector& bytes, unsigned short version = 2) {
    file.Close();
    WriteFile(path, bytes);
    EXPECT_TRUE(file.OpenReadOnly(Text(path)));
    return file.CopyVerify(Text(copy), version);
  }
  const fs::path copy = dir / "b.kesp";
};

TEST_F(Copying, CopyIsEqualByteForByte) {
  ByteVector large = FileHeader(3, 16) + Hex("aa*14");
  large.resize(3'000'001, 0x5A);  // no records, which a copy does not look at
  for (const ByteVector& bytes : {large, FileHeader()}) {
    WriteFile(path, bytes);
    WriteFile(copy, ByteVector(5'000'000));
    ASSERT_TRUE(file.Close() && file.OpenReadOnly(Text(path)));
    EXPECT_TRUE(file.Copy(Text(copy)));
    EXPECT_EQ(file.GetPosition(), bytes.size());
    EXPECT_EQ(ReadFile(copy), bytes);
  }
  EXPECT_FALSE(file.Copy(static_cast<const wchar_t*>(nullptr)));
}

TEST_F(Copying, NothingIsWrittenOverThatIsInUse) {
  const ByteVector bytes = FileHeader() + EndOf(7), inUse = FileHeader() + EndOf(8);
  WriteFile(path, bytes);
  for (const char* const name : {"b.kesp", "read", "shared"}) WriteFile(dir / name, inUse);
  const bool hasFull = fs::exists("/dev/full");
  CKespDataFile holder, reader;
  CFile writer;  // one of several
  ASSERT_TRUE(holder.Open(Text(copy)) && reader.OpenReadOnly(Text(dir / "read")));
  ASSERT_TRUE(writer.Open(Text(dir / "shared"), CFile::modeWrite | CFile::shareDenyNone));
  fs::create_hard_link(path, dir / "hard");
  MakeSoftLink(path, dir / "soft");
  for (const bool readOnly : {true, false}) {
    ASSERT_TRUE(readOnly ? file.OpenReadOnly(Text(path)) : file.Open(Text(path)));
    for (const char* const name : {"a.kesp", "hard", "soft", "b.kesp", "read", "shared", "", "none/b", "/dev/full"}) {
      EXPECT_FALSE(file.Copy(Text(dir / name))) << name;
      EXPECT_FALSE(file.CopyVerify(Text(dir / name), 2)) << name;
    }
    for (const int call : {1, 2}) {  // nor when the system can't tell one from the other
      const FaultySystem system(call, FaultySystem::Fault::Error);
      EXPECT_FALSE(file.Copy(Text(dir / "hard"))) << call;
    }
    file.Close();
  }
  for (const char* const name : {"a.kesp", "hard", "soft"})
    EXPECT_FALSE(CKespDataFile().CopyVerify(Text(path), Text(dir / name), 2)) << name;
  EXPECT_FALSE(CKespDataFile().CopyVerify(Text(dir / "missing"), Text(dir / "new"), 2));
  for (const char* const name : {"b.kesp", "read", "shared"}) EXPECT_EQ(ReadFile(dir / name), inUse) << name;
  EXPECT_EQ(ReadFile(path), bytes);
  EXPECT_EQ(fs::exists("/dev/full"), hasFull);
  reader.Close();
  ASSERT_TRUE(file.OpenReadOnly(Text(path)) && file.Copy(Text(dir / "read")));
}

TEST_F(Copying, RebuildsInTheVersionsOneAndTwo) {
  ByteVector header = FileHeader();
  header[48] = 0x2A;  // the header word and the version are copied
  ByteVector source = header;
  for (const auto& [type, version] : kEveryClass) {  // each also deleted, and one of an unknown type
    source = source + Sample(type, version) + Sample(type, version, 1) + Record(200, 9, 0, Hex("01 02 03"));
  }
  // Features and attributes state the length of record version 2, and have the body of version 3.
  const ByteVector area = WithLength(Sample(1, 3), 54);
  ByteVector oak = area;
  oak[14 + 516] = 1;  // its kind
  const ByteVector inVersion2 = header + Record(3, 2, 0, Body(3, 2, {{"t1", "Job"}, {"kespVersion", 2}})) + oak +
                                Sample(2, 2) + WithLength(Sample(5, 3), 240) + EndOf(7) + Sample(6, 2) + Sample(9, 2) +
                                area + Sample(2, 2) + Sample(6, 2);
  const ByteVector inVersion1 =
      header + Sample(3, 1) + Sample(1, 1) + Sample(2, 1) + Sample(5, 1) + EndOf(7) + Sample(6, 1) + Sample(9, 1) +
      Record(1, 1, 0, Hex("07 00*3 'Oak' 00*19 02 00 11 22 33 00 05 00")) + Sample(2, 1) + Sample(6, 1);
  for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 0, 2, 3}) {
    EXPECT_TRUE(Rebuild(source, version));
    EXPECT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
    EXPECT_EQ(ReadFile(copy), version == 1 ? inVersion1 : inVersion2) << version;
  }
  EXPECT_TRUE(file.CopyVerify(file.m_file.GetFilePath(), Text(copy), 1));
  EXPECT_EQ(ReadFile(copy), inVersion1);
  // It is locked until it is closed.
  EXPECT_FALSE(CKespDataFile().Open(Text(path)));
  EXPECT_FALSE(CKespDataFile().CopyVerify(Text(path), Text(dir / "c"), 1));
  // The records are taken to begin at offset 50, and the header of a file named by its path is not checked.
  EXPECT_TRUE(Rebuild(FileHeader(3, 2 + 18) + EndOf(7)));
  EXPECT_EQ(ReadFile(copy), FileHeader(3, 2 + 18) + EndOf(7));
  WriteFile(path, Hex("'Corvanthe'"));
  EXPECT_TRUE(file.CopyVerify(Text(path), Text(copy), 2));
  EXPECT_EQ(file.GetError(), KESP_ERROR_NORMAL_EOF);
  EXPECT_EQ(ReadFile(copy), Hex("'Corvanthe'"));
  // A feature that is cut short raises, as if the file ended.
  EXPECT_FALSE(Rebuild(FileHeader() + EndOf(7) + Record(1, 1, 0, Hex("00"))));
  EXPECT_EQ(file.GetError(), KESP_ERROR_NONE);
  EXPECT_EQ(ReadFile(copy), FileHeader() + EndOf(7));
}

}  // namespace
