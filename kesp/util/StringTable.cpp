#include "kesp/util/StringTable.h"

#include <array>
#include <cstddef>
#include <span>

namespace kesp {
namespace {

constexpr std::array kFeatureTypeTexts = {u"Point", u"Line", u"Area"};

constexpr std::array kErrorTexts = {
    u"No Error",
    u"Normal EOF",
    u"EOF Error",
    u"Cannot Read Version",
    u"Bad Record Type",
    u"Bad Record",
    u"Corrupt Record Header",
    u"Cannot Open File",
    u"Bad KESP Header",
    u"Bad KESP Signature",
    u"Bad Application Header",
    u"Cannot Use Unicode",
    u"Unsupported or Bad Attribute Type",
};

constexpr std::array kSignalStatusTexts = {
    u"null",   u"RTK-Code",      u"RTK-Float",  u"RTK-Fixed", u"Unknown",   u"Post-Processed",
    u"MANUAL", u"Corrected GPS", u"Calculated", u"GPS",       u"No Signal",
};

constexpr std::array kWarnings = {
    u"WARNING!\n\nA KESP record was found (in file '%s') which contains Wide-Character (Unicode) text data.  Modifying "
    u"this KESP file will likely result in the loss of that data, because this program was not created to use "
    u"Wide-Character text.\n\nDo you want to continue to show this warning message for other records with this same "
    u"problem?\n",
};

struct Group {
  int first;
  std::span<const char16_t* const> texts;
};

constexpr std::array<Group, 4> kGroups = {{
    {kFirstFeatureTypeText, kFeatureTypeTexts},
    {kFirstErrorText, kErrorTexts},
    {kFirstSignalStatusText, kSignalStatusTexts},
    {kWideCharacterWarningText, kWarnings},
}};

}  // namespace

const char16_t* FindText(int id) noexcept {
  for (const Group& group : kGroups) {
    if (id >= group.first && id - group.first < static_cast<int>(group.texts.size())) {
      return group.texts[static_cast<std::size_t>(id - group.first)];
    }
  }
  return nullptr;
}

}  // namespace kesp
