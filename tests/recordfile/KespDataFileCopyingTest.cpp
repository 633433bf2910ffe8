#include <filesystem>

#include "tests/recordfile/Survey.h"

using namespace kesp::test;

namespace {

namespace fs = std::filesystem;

// As a rebuild writes it: the stated length is the one of record version `lengthVersion`.
ByteVector Rebuilt(const Stored& stored, std::size_t length) {
  ByteVector bytes = stored.Bytes();
  for (int i = 0; i < 4; ++i) bytes[10 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(length >> 8 * i);
  return bytes;
}
ByteVector End7() { return Stored{4, 1, EndBody(7)}.Bytes(); }
ByteVector End8() { return Stored{4, 1, EndBody(8)}.Bytes(); }

class Copying : public ::testing::Test {
 protected:
  fs::path Make(const ByteVector& bytes) {
    WriteFile(m_source, bytes);
    return m_source;
  }
  // Answers what CopyVerify answers; the object is left open for its errors.
  bool Rebuild(const ByteVector& bytes, unsigned short version = 2) {
    Make(bytes);
    m_file.Close();
    fs::remove(m_copy);
    EXPECT_TRUE(m_file.OpenReadOnly(Text(m_source)));
    const bool good = m_file.CopyVerify(Text(m_copy), version);
    EXPECT_EQ(ReadFile(m_source), bytes);
    return good;
  }
  TempDir m_dir;
  fs::path m_source = m_dir / "a.kesp";
  fs::path m_copy = m_dir / "b.kesp";
  CKespDataFile m_file;
};

TEST_F(Copying, CopyIsEqualByteForByte) {
  ByteVector large = FileHeader(3, 16) + Hex("aa*14");
  large.resize(3'000'001, 0x5A);  // damaged, which is no business of a copy
  for (const ByteVector& bytes : {FileHeader(), large}) {
    for (const bool readOnly : {true, false}) {
      Make(bytes);
      WriteFile(m_copy, ByteVector(5'000'000));
      ASSERT_TRUE(readOnly ? m_file.OpenReadOnly(Text(m_source)) : m_file.Open(Text(m_source)));
      EXPECT_TRUE(m_file.Copy(Text(m_copy)));
      EXPECT_EQ(m_file.GetPosition(), bytes.size());
      EXPECT_TRUE(m_file.Close());
      EXPECT_EQ(ReadFile(m_copy), bytes);
    }
  }
  EXPECT_FALSE(m_file.Copy(Text(m_copy)));  // nothing is open
  EXPECT_FALSE(fs::exists(m_copy));
  EXPECT_FALSE(m_file.Copy(static_cast<const wchar_t*>(nullptr)));
}

TEST_F(Copying, AFileIsNeverCopiedOntoItself) {
  const ByteVector bytes = FileHeader() + End7();
  Make(bytes);
  fs::create_hard_link(m_source, m_dir / "hard");
  fs::create_symlink(m_source, m_dir / "soft");
  fs::create_symlink(m_dir / "soft", m_dir / "softer");
  for (const bool readOnly : {true, false}) {
    ASSERT_TRUE(readOnly ? m_file.OpenReadOnly(Text(m_source)) : m_file.Open(Text(m_source)));
    for (const char* const name : {"a.kesp", "./a.kesp", "hard", "soft", "softer"}) {
      EXPECT_FALSE(m_file.Copy(Text(m_dir / name))) << name;
      EXPECT_FALSE(m_file.CopyVerify(Text(m_dir / name), 2)) << name;
      EXPECT_EQ(ReadFile(m_source), bytes) << name;
    }
    // Nor when the system can't tell one from the other: the first two calls ask that.
    for (const int call : {1, 2}) {
      const FaultySystem system(call, FaultySystem::Fault::Error);
      EXPECT_FALSE(m_file.Copy(Text(m_dir / "hard")));
      EXPECT_EQ(ReadFile(m_source), bytes);
    }
    m_file.Close();
  }
  for (const char* const name : {"a.kesp", "hard", "soft"}) {
    CKespDataFile file;
    EXPECT_FALSE(file.CopyVerify(Text(m_source), Text(m_dir / name), 2)) << name;
  }
  EXPECT_EQ(ReadFile(m_source), bytes);
}

TEST_F(Copying, WhatSomebodyHoldsOrIsNoFileStays) {
  Make(FileHeader() + End7());
  WriteFile(m_copy, FileHeader() + End8());
  CKespDataFile holder;
  ASSERT_TRUE(holder.Open(Text(m_copy)));
  fs::create_directory(m_dir / "folder");
  ASSERT_TRUE(m_file.OpenReadOnly(Text(m_source)));
  for (const fs::path& path : {m_copy, m_dir / "folder", fs::path("/dev/full"), m_dir / "missing" / "b"}) {
    const bool existed = fs::exists(path);
    EXPECT_FALSE(m_file.Copy(Text(path))) << path;
    EXPECT_FALSE(m_file.CopyVerify(Text(path), 2)) << path;
    EXPECT_EQ(fs::exists(path), existed) << path;
  }
  EXPECT_EQ(ReadFile(m_copy), FileHeader() + End8());
  EXPECT_FALSE(CKespDataFile().CopyVerify(Text(m_source), 2));
  EXPECT_FALSE(CKespDataFile().CopyVerify(Text(m_dir / "missing"), m_copy.c_str(), 2));
}

TEST_F(Copying, RebuildsInTheVersionsOneAndTwo) {
  ByteVector source = FileHeader(3, 2);
  source[48] = 0x2A;  // the header word, and the version, go over
  const ByteVector header(source);
  for (const Stored& stored : EveryClass()) {
    Append(source, stored.Bytes());
    Append(source, stored.Bytes(1));                     // deleted
    Append(source, Record(200, 9, 0, Hex("01 02 03")));  // of a type that nobody knows
  }
  const ByteVector feature1 = Hex("07 00*3 \"Oak\" 00*506 01 00 11 22 33 00 05 00");
  const ByteVector point1 = Hex("07 00*3 03 00*3 \"A1\" 00*38 00*36 04 00 00*20");
  ByteVector header2(4086);
  for (std::size_t i = 0; i < 3; ++i) header2[10 + 2 * i] = static_cast<std::uint8_t>("Job"[i]);
  header2[2868] = 2;  // the file version that it is written for
  const ByteVector attribute3 = Hex("07 00*3 \"Girth\" 00*502 01 00 \"thick\" 00*502 00*512 00*24 02 00 00*128 00*16");
  const ByteVector inVersion2 =
      header + Rebuilt({3, 2, header2}, 4086) + Rebuilt({1, 3, feature1}, 54) + Rebuilt({2, 2, point1}, 108) +
      Rebuilt({5, 3, attribute3}, 240) + End7() + Rebuilt({6, 2, NoteBody2()}, 512) + Rebuilt({9, 2, TagBody()}, 24) +
      Rebuilt({1, 3, FeatureBody3()}, 54) + Rebuilt({2, 2, PointBody2()}, 108) + Rebuilt({6, 2, NoteBody2()}, 512);
  const ByteVector lastFeature1 = Hex("07 00*3 'Oak' 00*19 02 00 11 22 33 00 05 00");
  const ByteVector inVersion1 = header + Rebuilt({3, 1, HeaderBody1()}, 928) + Rebuilt({1, 1, FeatureBody1()}, 34) +
                                Rebuilt({2, 1, PointBody1()}, 68) + Rebuilt({5, 1, AttributeBody1()}, 138) + End7() +
                                Rebuilt({6, 1, NoteBody1()}, 256) + Rebuilt({9, 1, TagBody()}, 24) +
                                Rebuilt({1, 1, lastFeature1}, 34) + Rebuilt({2, 1, PointBody1()}, 68) +
                                Rebuilt({6, 1, NoteBody1()}, 256);
  for (const std::uint16_t version : std::initializer_list<std::uint16_t>{1, 0, 2, 7}) {
    EXPECT_TRUE(Rebuild(source, version));
    EXPECT_EQ(m_file.GetError(), KESP_ERROR_NORMAL_EOF);
    EXPECT_EQ(ReadFile(m_copy), version == 1 ? inVersion1 : inVersion2) << version;
    EXPECT_EQ(Walk(m_copy).positions.size(), EveryClass().size());
  }
  CKespDataFile other;
  EXPECT_TRUE(other.CopyVerify(Text(m_source), Text(m_copy), 1));
  EXPECT_EQ(ReadFile(m_copy), inVersion1);
  EXPECT_FALSE(CKespDataFile().Open(Text(m_source)));  // held until it is closed
}

TEST_F(Copying, ARebuildBeginsAtOffsetFiftyWhateverTheHeaderSays) {
  const ByteVector source = FileHeader(3, 2 + 18) + End7() + End8();
  EXPECT_TRUE(Rebuild(source));
  EXPECT_EQ(ReadFile(m_copy), source);
  WriteFile(m_source, Hex("'Corvanthe'"));  // not looked at when it is named by its path
  EXPECT_TRUE(m_file.CopyVerify(Text(m_source), Text(m_copy), 2));
  EXPECT_EQ(ReadFile(m_copy), Hex("'Corvanthe'"));
  EXPECT_EQ(m_file.GetError(), KESP_ERROR_NORMAL_EOF);
}

TEST_F(Copying, ARebuildKeepsWhatIsBeforeTheFirstDamage) {
  const ByteVector badType = Hex("07 00*3 'Oak' 00*19 04 00 11 22 33 00 05 00");
  ByteVector badKind = AttributeBody1();
  badKind[26] = 6;
  const ByteVector emptyTag = Record(9, 2, 0, Hex("05 00*3 00*4"));
  ByteVector wrapping = Record(200, 1, 0, Hex("00"));
  for (std::size_t i = 10; i < 14; ++i) wrapping[i] = 0xFF;
  const struct {
    ByteVector damage;
    KESP_ERROR_TYPE error;
    bool good = true;
    ByteVector more = {};  // what the damaged file still gives behind the first two records
  } kCases[] = {
      {{}, KESP_ERROR_NORMAL_EOF},
      {emptyTag, KESP_ERROR_NORMAL_EOF, true, emptyTag},
      {wrapping, KESP_ERROR_NORMAL_EOF},
      {Record(4, 1, 0, {}) + End7(), KESP_ERROR_RECORD_HEADER},
      {Record(4, 1, 1, {}) + End7(), KESP_ERROR_RECORD_HEADER},
      {Record(0, 1, 0, Hex("00")) + End7(), KESP_ERROR_RECORD_TYPE},
      {Record(11, 1, 0, Hex("00")) + End7(), KESP_ERROR_UNICODE},
      {Record(6, 3, 0, NoteBody2()) + End7(), KESP_ERROR_VERSION},
      {Record(6, 0, 0, NoteBody2()) + End7(), KESP_ERROR_NONE},
      {Record(1, 1, 0, badType) + End7(), KESP_ERROR_BAD_RECORD},
      {Record(5, 1, 0, badKind) + End7(), KESP_ERROR_ATTRIBUTE_TYPE},
      {Record(9, 2, 0, Hex("00*4 ff*4")) + End7(), KESP_ERROR_EOF},
      {Record(6, 2, 0, Hex("00")), KESP_ERROR_EOF},
      {Record(3, 2, 0, Hex("00")), KESP_ERROR_APP_HEADER},
      {Record(1, 1, 0, Hex("00")), KESP_ERROR_NONE, false},  // raised as the end of the file
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(&c - kCases);
    EXPECT_EQ(Rebuild(FileHeader() + End7() + End8() + c.damage), c.good);
    EXPECT_EQ(m_file.GetError(), c.error);
    EXPECT_EQ(ReadFile(m_copy), FileHeader() + End7() + End8() + c.more);
  }
}

TEST_F(Copying, ARebuildOfACutFileHoldsEveryCompleteRecord) {
  ByteVector source = FileHeader();
  ByteVector copy = FileHeader();
  std::vector<std::pair<std::size_t, std::size_t>> ends{{source.size(), copy.size()}};  // of each record
  for (const Stored& stored : EveryClass()) {
    Append(source, stored.Bytes());
    ByteVector alone = FileHeader() + stored.Bytes();
    ASSERT_TRUE(Rebuild(alone));
    alone = ReadFile(m_copy);
    copy.insert(copy.end(), alone.begin() + kFirst, alone.end());
    ends.emplace_back(source.size(), copy.size());
  }
  const IdleDisk disk;
  std::size_t complete = 0;
  for (std::size_t cut = kFirst; cut <= source.size(); ++cut) {
    if (complete + 1 < ends.size() && cut >= ends[complete + 1].first) ++complete;
    (void)Rebuild({source.begin(), source.begin() + static_cast<std::ptrdiff_t>(cut)});
    ASSERT_EQ(ReadFile(m_copy),
              ByteVector(copy.begin(), copy.begin() + static_cast<std::ptrdiff_t>(ends[complete].second)))
        << cut;
    ASSERT_EQ(m_file.GetError() == KESP_ERROR_NORMAL_EOF, cut == ends[complete].first) << cut;
  }
}

TEST_F(Copying, WhateverTheSystemDoesTheSourceStaysAndAnAnswerIsTrue) {
  using Fault = FaultySystem::Fault;
  ByteVector source = FileHeader();
  while (source.size() < 140'000) Append(source, Stored{6, 2, NoteBody2()}.Bytes());
  Make(source);
  for (const bool rebuild : {false, true}) {
    for (const auto& [fault, forGood] : {std::pair{Fault::Error, false},
                                         {Fault::Full, false},
                                         {Fault::Full, true},
                                         {Fault::Interrupted, false},
                                         {Fault::Short, false},
                                         {Fault::Short, true}}) {
      bool struck = true;
      for (int n = 1; struck; ++n) {
        SCOPED_TRACE(testing::Message() << rebuild << " fault " << static_cast<int>(fault) << " at " << n);
        fs::remove(m_copy);
        CKespDataFile file;
        ASSERT_TRUE(file.OpenReadOnly(Text(m_source)));
        bool good = false;
        {
          const FaultySystem system(n, fault, forGood);
          good = rebuild ? file.CopyVerify(Text(m_copy), 2) : file.Copy(Text(m_copy));
          struck = system.Struck();
        }
        EXPECT_EQ(ReadFile(m_source), source);
        if (good) {
          EXPECT_EQ(ReadFile(m_copy), source);
        } else if (!rebuild) {
          EXPECT_TRUE(!fs::exists(m_copy) || fs::file_size(m_copy) == 0);
        }
        EXPECT_TRUE(good || fault != Fault::Short);
      }
    }
  }
}

}  // namespace
