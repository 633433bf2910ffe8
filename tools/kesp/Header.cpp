// kesp header: changes texts of the header record in its place.
#include <algorithm>
#include <array>

#include "tools/kesp/Amending.h"
#include "tools/kesp/Commands.h"
#include "tools/kesp/Inventory.h"

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
  std::string wrong;
  const auto assignment = ParseAssignment(argument, wrong);
  if (!assignment) return wrong;
  const std::string& name = assignment->name;
  for (const HeaderText& field : kTexts) {
    if (name != field.name) continue;
    if (std::any_of(settings.begin(), settings.end(), [&](const Setting& s) { return s.field == &field; })) {
      return name + " is set twice";
    }
    const CString text = CString::FromUtf8(assignment->value);
    if (text.Size() > field.limit) {
      return "the text for " + name + " is " + std::to_string(text.Size()) + " units long, and " +
             std::to_string(field.limit) + " have room";
    }
    settings.push_back({&field, text});
    return {};
  }
  std::string names;
  for (const HeaderText& field : kTexts) names.append(names.empty() ? "" : ", ").append(field.name);
  return "there is no \"" + PrintablePath(name) + "\" to set; there are " + names;
}

// What a version-1 header has no room for, or nothing.
std::string WhyNotInVersion1(const Setting& setting) {
  const std::string name = setting.field->name;
  if (!setting.field->inVersion1) return name + " has no place in a header of version 1";
  const std::u16string_view text = setting.text.View();
  if (std::any_of(text.begin(), text.end(), [](char16_t unit) { return unit > 0xFF; })) {
    return "the text for " + name + " has characters that a header of version 1 can't hold";
  }
  return {};
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
  if (const auto refused = OpenForEditing(file, options.path, options.dryRun)) {
    return Refuse(*refused, options.path, options.json, out);
  }
  const Inventory inventory = TakeInventory(file, DeletedRecords::kPassOver);
  if (!inventory.end.IsWhole()) return Refuse(inventory.end, options.path, options.json, out);
  std::vector<Amendment> amendments;
  auto* const header = static_cast<CKespTavoHeader*>(AddAmendment(amendments, file, inventory.firstLive));
  if (header == nullptr) {
    Complain(options.path, "the header can't be read any more");
    return kExitTrouble;
  }
  std::vector<ValueChange> changes;
  for (const Setting& setting : settings) {
    const std::string wrong = header->m_recordVersion == 1 ? WhyNotInVersion1(setting) : std::string();
    if (!wrong.empty()) {
      Complain(options.path, wrong);
      return kExitTrouble;
    }
    CString& text = header->*(setting.field->member);
    changes.push_back({setting.field->name, text, setting.text});
    text = setting.text;
  }
  const bool differs = std::any_of(changes.begin(), changes.end(), [](const ValueChange& c) { return c.from != c.to; });
  if (differs && !options.dryRun && !Carry(file, options.path, amendments)) return kExitTrouble;
  ReportChanges(options, options.path, options.dryRun, inventory.end, changes, out);
  return kExitWhole;
}

}  // namespace kesp::tool
