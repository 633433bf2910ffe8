// kesp header: changes texts of the header record in its place.
#include <array>
#include <memory>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"

namespace kesp::tool {
namespace {

struct HeaderText {
  const char* name;
  CString CKespTavoHeader::*member;
  std::size_t limit;  // units
  bool inVersion1;
};
constexpr std::array<HeaderText, 7> kTexts{{{"HeaderText1", &CKespTavoHeader::HeaderText1, 20, true},
                                            {"HeaderText2", &CKespTavoHeader::HeaderText2, 255, true},
                                            {"HeaderText3", &CKespTavoHeader::HeaderText3, 255, true},
                                            {"HeaderText4", &CKespTavoHeader::HeaderText4, 255, true},
                                            {"HeaderText5", &CKespTavoHeader::HeaderText5, 127, true},
                                            {"HeaderText6", &CKespTavoHeader::HeaderText6, 255, false},
                                            {"HeaderText7", &CKespTavoHeader::HeaderText7, 255, false}}};

struct Setting {
  const HeaderText* field;
  CString text;
};

// What is wrong with one NAME=TEXT, or nothing; the setting is then added.
std::string Take(std::vector<Setting>& settings, const std::string& argument) {
  const std::size_t equals = argument.find('=');
  const std::string name = argument.substr(0, equals);
  if (equals == std::string::npos) return "\"" + argument + "\" is not NAME=TEXT";
  for (const HeaderText& field : kTexts) {
    if (name != field.name) continue;
    for (const Setting& earlier : settings) {
      if (earlier.field == &field) return name + " is set twice";
    }
    const std::string utf8 = argument.substr(equals + 1);
    const CString text = CString::FromUtf8(utf8);
    if (text.ToUtf8() != utf8) return "the text for " + name + " is not UTF-8";
    if (text.Size() > field.limit) {
      return "the text for " + name + " is " + std::to_string(text.Size()) + " units long, and " +
             std::to_string(field.limit) + " have room";
    }
    settings.push_back({&field, text});
    return {};
  }
  std::string names;
  for (const HeaderText& field : kTexts) names.append(names.empty() ? "" : ", ").append(field.name);
  return "there is no \"" + name + "\" to set; there are " + names;
}

// What a version-1 header has no room for, or nothing.
std::string WhyNotInVersion1(const Setting& setting) {
  const std::string name = setting.field->name;
  if (!setting.field->inVersion1) return name + " has no place in a header of version 1";
  for (const char16_t unit : setting.text.View()) {
    if (unit > 0xFF) return "the text for " + name + " has characters that a header of version 1 can't hold";
  }
  return {};
}

void Report(Output& out, bool dryRun, const std::string& name, const std::string& old, const std::string& now) {
  if (old == now) {
    out.Put(name).Put(" is ").Put(old).Put(" already\n");
  } else {
    out.Put(name).Put(dryRun ? " would change from " : " changed from ").Put(old).Put(" to ").Put(now).Put("\n");
  }
}

std::string Quoted(const CString& text) { return "\"" + Printable(text) + "\""; }

// What else becomes different when a header is written back: the writer of a version-1 body leaves two numbers zero,
// and that of a version-2 body names the file version of its own layout.
void ReportSideEffects(Output& out, bool dryRun, const CKespTavoHeader& header) {
  const auto report = [&](const char* name, std::uint32_t old, std::uint32_t now) {
    if (old != now) Report(out, dryRun, name, std::to_string(old), std::to_string(now));
  };
  if (header.m_recordVersion == 1) {
    report("CreationTime", header.CreationTime, 0);
    report("HeaderShort", header.HeaderShort, 0);
  } else {
    report("KespVersion", header.KespVersion, 2);
  }
}

bool WriteBack(CKespDataFile& file, CKespTavoHeader& header, std::uint32_t position) {
  try {
    return file.Seek(position) && file.OverwriteRecord(&header, KESP_SRC_MODIFIED) && file.Flush() && file.Close();
  } catch (const CFileException&) {
    return false;  // the container has the reason
  }
}

}  // namespace

ExitStatus Header(const HeaderOptions& options, Output& out) {
  std::vector<Setting> settings;
  for (const std::string& argument : options.settings) {
    if (const std::string wrong = Take(settings, argument); !wrong.empty()) {
      Complain({}, wrong);
      return kExitTrouble;
    }
  }
  CKespDataFile file;
  const auto refused = options.dryRun ? OpenForReading(file, options.path) : OpenForWriting(file, options.path);
  if (refused) return Refuse(*refused, options.path, options.json, out);
  std::uint32_t position = 0;
  const bool isThere = file.SeekToFirstRecord();
  const std::unique_ptr<CKespRecord> first(isThere ? file.ReadNextRecord(position, true) : nullptr);
  if (!first || first->m_recordType != KESP_RECORD_HEADER) {
    Complain(options.path, "the first record is missing or no header");
    return kExitDamaged;
  }
  auto& header = static_cast<CKespTavoHeader&>(*first);
  if (header.m_recordVersion == 1) {
    for (const Setting& setting : settings) {
      if (const std::string wrong = WhyNotInVersion1(setting); !wrong.empty()) {
        Complain(options.path, wrong);
        return kExitTrouble;
      }
    }
  }
  CKespTavoHeader changed(header);
  bool differs = false;
  for (const Setting& setting : settings) {
    CString& text = changed.*(setting.field->member);
    differs = differs || text != setting.text;
    text = setting.text;
  }
  if (differs && !options.dryRun && !WriteBack(file, changed, position)) {
    Complain(options.path, "the header can't be written: " + WhyNotWritten(file));
    return kExitTrouble;
  }
  for (const Setting& setting : settings) {
    Report(out, options.dryRun, setting.field->name, Quoted(header.*(setting.field->member)), Quoted(setting.text));
  }
  if (differs) ReportSideEffects(out, options.dryRun, header);
  out.Flush();
  return kExitWhole;
}

}  // namespace kesp::tool
