// The sub-commands that change a file: delete, header.
#include <gtest/gtest.h>
#include <sys/file.h>

#include <nlohmann/json.hpp>

#include "tests/dataset/DataSet.h"
#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

constexpr std::size_t kFlags = 6;  // in a record header

class ToolEdit : public ::testing::Test {
 protected:
  void Make(const ByteVector& bytes) { WriteFile(m_path, bytes); }
  // Runs it on the file, and once more with --dry-run before, which must say so and change nothing.
  ToolResult Edit(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin() + 1, m_path);
    const ByteVector before = ReadFile(m_path);
    std::vector<std::string> dry = arguments;
    dry.emplace_back("--dry-run");
    m_dry = RunTool(dry);
    EXPECT_EQ(ReadFile(m_path), before);
    return RunTool(arguments);
  }
  TempDir m_dir;
  std::string m_path = m_dir / "a.kesp";
  ToolResult m_dry;
};

// A survey, and where its records stand.
struct Placed {
  ByteVector bytes = FileHeader();
  std::vector<std::size_t> offsets;
  Placed(std::initializer_list<ByteVector> records) {
    for (const ByteVector& record : records) {
      offsets.push_back(bytes.size());
      bytes = bytes + record;
    }
  }
};

const Placed& Garden() {
  // The second record's number is taken by the last feature.
  static const Placed kGarden{Header2{.kespVersion = 3},
                              Feature(9, "Old"),
                              Point(9, 90),
                              Point(9, 91),
                              Feature(1, "Oak"),
                              Attribute(1, "a"),
                              Point(1, 10),
                              End(1),
                              Feature(2, "Path"),
                              Attribute(2, "b"),
                              Point(2, 20),
                              Point(2, 21, {}, 2),
                              Point(2, 22),
                              End(2),
                              Feature(9)};
  return kGarden;
}

TEST_F(ToolEdit, DeleteMarksPointsAndAttributesInPlace) {
  const struct {
    std::vector<std::string> arguments;
    std::vector<std::pair<std::size_t, unsigned>> flags;  // of the records that change: which, and the flags then
    std::string out;
    std::string dry;
  } kCases[] = {
      {{"--feature", "1"},
       {{5, 5}, {6, 5}},
       "feature 1 \"Oak\": 1 point and 1 attribute deleted\n",
       "feature 1 \"Oak\": 1 point and 1 attribute would be deleted\n"},
      {{"--point", "21", "20", "--point", "20"},
       {{10, 5}, {11, 5}},
       "point 20 of feature 2 deleted\npoint 21 of feature 2 deleted\n",
       "point 20 of feature 2 would be deleted\npoint 21 of feature 2 would be deleted\n"},
      {{"--point", "10"},
       {{5, 5}, {6, 5}},
       "feature 1 \"Oak\": 1 point and 1 attribute deleted, since none of its points stays\n",
       "feature 1 \"Oak\": 1 point and 1 attribute would be deleted, since none of its points stays\n"},
      {{"--point", "22", "10", "20", "21"},
       {{5, 5}, {6, 5}, {9, 5}, {10, 5}, {11, 5}, {12, 5}},
       "feature 1 \"Oak\": 1 point and 1 attribute deleted, since none of its points stays\n"
       "feature 2 \"Path\": 3 points and 1 attribute deleted, since none of its points stays\n",
       "feature 1 \"Oak\": 1 point and 1 attribute would be deleted, since none of its points stays\n"
       "feature 2 \"Path\": 3 points and 1 attribute would be deleted, since none of its points stays\n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.out);
    Make(Garden().bytes);
    std::vector<std::string> arguments = c.arguments;
    arguments.insert(arguments.begin(), "delete");
    const ToolResult got = Edit(arguments);
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out, c.out);
    EXPECT_EQ(m_dry.out, c.dry);

    ByteVector want = Garden().bytes;
    for (const auto& [record, flags] : c.flags) Put(want, Garden().offsets[record] + kFlags, flags, 4);
    Put(want, 50 + kFlags, 8, 4);  // the header is marked as closed cleanly,
    Put(want, 64, 1, 4);
    Put(want, 64 + 2868, 2, 4);  // and names the file version of its own layout
    EXPECT_EQ(ReadFile(m_path), want);
  }
}

TEST_F(ToolEdit, DeleteDoesAllOrNothing) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string out;
    std::string err;  // behind the path
  } kCases[] = {
      {{"--feature", "1", "7"}, 2, "", "there is no feature 7\n"},
      {{"--point", "10", "11"}, 2, "", "there is no point 11\n"},
      {{"--point", "90"}, 2, "", "point 90 stands in a feature whose number, 9, a later one took\n"},
      {{"--feature", "9"}, 0, "feature 9 \"Oak\": nothing is left to delete\n", ""},
  };
  for (const auto& c : kCases) {
    Make(Garden().bytes);
    std::vector<std::string> arguments = c.arguments;
    arguments.insert(arguments.begin(), "delete");
    const ToolResult got = Edit(arguments);
    EXPECT_EQ(got.status, c.status);
    EXPECT_EQ(got.out, c.out);
    EXPECT_EQ(got.err, c.err.empty() ? "" : "kesp: " + m_path + ": " + c.err);
    EXPECT_EQ(ReadFile(m_path), Garden().bytes);
  }
  const ByteVector damaged = Garden().bytes + Feature(5, "x", 0, 3, 9);
  Make(damaged);
  const ToolResult got = Edit({"delete", "--feature", "1"});
  EXPECT_EQ(got.status, 1);
  EXPECT_EQ(got.err, "kesp: " + m_path + ": a record can't be read: Bad Record; nothing is deleted\n");
  EXPECT_EQ(ReadFile(m_path), damaged);
}

TEST_F(ToolEdit, HeaderTextsAreWrittenInPlace) {
  Make(Survey({Header2{.kespVersion = 3}, Note("behind")}));
  ByteVector want = ReadFile(m_path);
  const std::string longest(20, 'x');
  const ToolResult got = Edit({"header", "--set", "HeaderText1=" + longest, "HeaderText6=a=\xC3\xA9\xF0\x9F\x8C\xB3"});
  EXPECT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(got.out, "HeaderText1 changed from \"\" to \"" + longest +
                         "\"\nHeaderText6 changed from \"\" to \"a=\xC3\xA9\xF0\x9F\x8C\xB3\"\n");
  EXPECT_EQ(m_dry.out.substr(0, m_dry.out.find(" to ")), "HeaderText1 would change from \"\"");
  Put(want, 50 + kFlags, 8, 4);
  Put(want, 64 + 10, longest, 2);
  const ByteVector text6 = Hex("61 00 3d 00 e9 00 3c d8 33 df");
  std::copy(text6.begin(), text6.end(), want.begin() + 64 + 1844);
  Put(want, 64 + 2868, 2, 4);  // the file version of its own layout
  EXPECT_EQ(ReadFile(m_path), want);

  // Shorter than before: nothing of the old text stays.
  EXPECT_EQ(Edit({"header", "--set", "HeaderText1="}).out, "HeaderText1 changed from \"" + longest + "\" to \"\"\n");
  Put(want, 64 + 10, std::string(20, '\0'), 2);
  EXPECT_EQ(ReadFile(m_path), want);
}

TEST_F(ToolEdit, AVersion1HeaderLosesWhatItsWriterLeavesOut) {
  ByteVector body(928);
  Put(body, 4, 77, 4);  // the time of creation
  Make(Survey({Note("deleted", 1, 1), Record(3, 1, 0, body)}, 1));
  ByteVector want = ReadFile(m_path);
  const ToolResult got = Edit({"header", "--set", "HeaderText5=\xC3\xBF"});
  EXPECT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(got.out, "HeaderText5 changed from \"\" to \"\xC3\xBF\"\nCreationTime changed from 77 to 0\n");
  const std::size_t header = 50 + 14 + 256;  // behind the deleted note
  Put(want, header + kFlags, 8, 4);
  Put(want, header + 14 + 4, 0, 4);
  want[header + 14 + 799] = 0xFF;
  EXPECT_EQ(ReadFile(m_path), want);
}

TEST_F(ToolEdit, HeaderRefusesWhatWouldNotBeKept) {
  const struct {
    bool isVersion1;
    std::vector<std::string> settings;
    std::string err;
  } kCases[] = {
      {false, {"HeaderText1=" + std::string(21, 'x')}, "the text for HeaderText1 is 21 units long, and 20 have room"},
      {false,
       {"HeaderText5=" + std::string(128, 'x')},
       "the text for HeaderText5 is 128 units long, and 127 have room"},
      {false, {"HeaderText2=\xFF"}, "the text for HeaderText2 is not UTF-8"},
      {false, {"HeaderText2=a", "HeaderText2=b"}, "HeaderText2 is set twice"},
      {false, {"HeaderText2"}, "\"HeaderText2\" is not NAME=TEXT"},
      {false,
       {"HeaderText1=a", "LastPointText=b"},
       "there is no \"LastPointText\" to set; there are HeaderText1, HeaderText2, HeaderText3, HeaderText4, "
       "HeaderText5, HeaderText6, HeaderText7"},
      {true, {"HeaderText1=a", "HeaderText7=b"}, ": HeaderText7 has no place in a header of version 1"},
      {true,
       {"HeaderText2=\xC4\x80"},
       ": the text for HeaderText2 has characters that a header of version 1 can't hold"},
  };
  for (const auto& c : kCases) {
    const ByteVector before = c.isVersion1 ? Survey({Header1()}, 1) : Survey({Header2{}});
    Make(before);
    std::vector<std::string> arguments{"header", "--set"};
    arguments.insert(arguments.end(), c.settings.begin(), c.settings.end());
    const ToolResult got = Edit(arguments);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(m_dry.status, 2);
    EXPECT_EQ(got.err, "kesp: " + (c.err[0] == ':' ? m_path : "") + c.err + "\n");
    EXPECT_EQ(ReadFile(m_path), before);
  }
  Make(Survey({Note("first")}));
  EXPECT_EQ(Edit({"header", "--set", "HeaderText1=a"}).status, 1);
}

TEST_F(ToolEdit, AFileThatSomebodyWritesIsLeftAlone) {
  Make(Garden().bytes);
  const int descriptor = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(descriptor, LOCK_EX), 0);
  for (const auto& arguments :
       {std::vector<std::string>{"delete", "--feature", "1"}, {"header", "--set", "HeaderText1=a"}}) {
    const ToolResult got = Edit(arguments);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.err, "kesp: " + m_path + ": Resource temporarily unavailable\n");
    EXPECT_EQ(m_dry.status, 0);
  }
  ::close(descriptor);
  EXPECT_EQ(ReadFile(m_path), Garden().bytes);
}

TEST_F(ToolEdit, WrongUsageChangesNothing) {
  Make(Garden().bytes);
  for (const auto& arguments : {std::vector<std::string>{"delete"},
                                {"delete", "--feature", "1", "--point", "20"},
                                {"delete", "--feature", "-1"},
                                {"delete", "--feature", "4294967297"},
                                {"header"}}) {
    const ToolResult got = Edit(arguments);
    EXPECT_EQ(got.status, 2) << arguments.back();
    EXPECT_EQ(got.out, "");
  }
  EXPECT_EQ(ReadFile(m_path), Garden().bytes);
}

}  // namespace
}  // namespace kesp::test
