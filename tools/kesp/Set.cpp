// kesp set: changes values of a feature's attributes in their places, all that were asked for or none.
#include <algorithm>
#include <cmath>

#include "tools/kesp/Amending.h"
#include "tools/kesp/Commands.h"
#include "tools/kesp/Inventory.h"
#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/Numbers.h"
#include "tools/kesp/Times.h"

namespace kesp::tool {
namespace {

// A number in full, where display text has as many places as Decimals says.
CString ValueOf(const CKespAttribute& attribute) {
  if (attribute.AttributeKind == KESP_ATTRIBUTE_NUMERIC) return {ShortestText(attribute.Value)};
  return attribute.GetAsFormatedString(true);
}

// Days since 30 December 1899. That day itself is what means no date, and display text ends at the year 100.
std::optional<double> ParseDay(const std::string& text) {
  constexpr std::size_t kDayAlone = 10;  // YYYY-MM-DD
  constexpr std::int64_t kSecondsPerDay = 86400;
  constexpr std::int64_t kEpoch = 25569;  // 1 January 1970
  const auto seconds = text.size() == kDayAlone && text >= "0100" ? ParseTime(text, false) : std::nullopt;
  if (!seconds || *seconds == -kEpoch * kSecondsPerDay) return std::nullopt;
  const std::int64_t days = *seconds / kSecondsPerDay + kEpoch;
  return static_cast<double>(days);
}

// What is wrong with the value, or nothing.
std::string Assign(CKespAttribute& attribute, const std::string& value) {
  const std::size_t slash = value.find('/');
  std::optional<double> number;
  switch (attribute.AttributeKind) {
    case KESP_ATTRIBUTE_STRING:
      attribute.TextValue = CString::FromUtf8(value);
      return {};
    case KESP_ATTRIBUTE_MENU:
      attribute.TextValue = CString::FromUtf8(value.substr(0, slash));
      attribute.SubValue = slash == std::string::npos ? CString() : CString::FromUtf8(value.substr(slash + 1));
      return {};
    case KESP_ATTRIBUTE_NUMERIC:
      number = ParseNumber(value);
      if (!number) return "is a number, and \"" + PrintablePath(value) + "\" is none that fits";
      attribute.Value = *number;
      return {};
    case KESP_ATTRIBUTE_DATE:
      number = ParseDay(value);
      if (!number) return "is a date, and \"" + PrintablePath(value) + "\" is no day such as 2024-05-01";
      attribute.Value = *number;
      return {};
    default:
      return "is of a kind without a value";
  }
}

std::string WhyNotStored(const CKespAttribute& attribute) {
  const auto isWide = [](std::u16string_view text) {
    return std::any_of(text.begin(), text.end(), [](char16_t unit) { return unit > 0xFF; });
  };
  const bool hasWide = isWide(attribute.TextValue.View()) || isWide(attribute.SubValue.View());
  const std::string version = "an attribute of version " + std::to_string(attribute.m_recordVersion);
  return attribute.m_recordVersion == 1 && hasWide ? "has characters that " + version + " can't hold"
                                                   : "is longer than " + version + " can hold";
}

class Setter {
 public:
  Setter(CKespDataFile& file, const SetOptions& options, const Inventory::Feature& feature)
      : m_file(file), m_options(options), m_feature(feature) {}

  // False after a complaint.
  bool Take(const std::string& argument) {
    std::string wrong;
    const auto assignment = ParseAssignment(argument, wrong);
    if (assignment) wrong = Amend(*assignment);
    if (!wrong.empty()) Complain(m_options.path, wrong);
    return wrong.empty();
  }

  std::vector<Amendment> amendments;
  std::vector<ValueChange> changes;

 private:
  std::string Amend(const Assignment& assignment) {
    const std::string name = "attribute \"" + PrintablePath(assignment.name) + "\"";
    const std::string whose = "feature " + std::to_string(m_options.feature);
    if (std::any_of(changes.begin(), changes.end(), [&](const ValueChange& c) { return c.name == assignment.name; })) {
      return name + " is set twice";
    }
    std::string names;
    std::vector<std::uint32_t> found;
    for (const Inventory::Item& item : m_feature.attributes) {
      const auto attribute = ReadAt(m_file, item.offset);
      if (!attribute) return "the record at offset " + std::to_string(item.offset) + " can't be read any more";
      const CString& own = static_cast<const CKespAttribute&>(*attribute).AttributeName;
      if (own == CString::FromUtf8(assignment.name)) found.push_back(item.offset);
      names.append(names.empty() ? "; there are " : ", ").append(Printable(own));
    }
    if (found.empty()) return whose + " has no " + name + names;
    if (found.size() > 1) return whose + " has " + std::to_string(found.size()) + " attributes of that name: " + name;

    CKespRecord* const record = AddAmendment(amendments, m_file, found.front());
    if (record == nullptr) return name + " can't be read any more";
    auto& after = static_cast<CKespAttribute&>(*record);
    const CString before = ValueOf(after);
    if (const std::string wrong = Assign(after, assignment.value); !wrong.empty()) return name + " " + wrong;
    if (!CKespDataFile::CanAmend(*amendments.back().before, after)) {
      return "the value for " + name + " " + WhyNotStored(after);
    }
    changes.push_back({assignment.name, before, ValueOf(after)});
    if (changes.back().from == changes.back().to) amendments.pop_back();  // a date keeps its time of day
    return {};
  }

  CKespDataFile& m_file;
  const SetOptions& m_options;
  const Inventory::Feature& m_feature;
};

}  // namespace

ExitStatus Set(const SetOptions& options, Output& out) {
  CKespDataFile file;
  if (const auto refused = OpenForEditing(file, options.path, options.dryRun)) {
    return Refuse(*refused, options.path, options.json, out);
  }
  const Inventory inventory = TakeInventory(file, DeletedRecords::kPassOver);
  if (!inventory.end.IsWhole()) return Refuse(inventory.end, options.path, options.json, out);
  const Inventory::Feature* const feature = inventory.FindFeature(options.feature);
  if (feature == nullptr) {
    Complain(options.path, "there is no feature " + std::to_string(options.feature));
    return kExitTrouble;
  }
  Setter setter(file, options, *feature);
  bool isGood = true;
  for (const std::string& argument : options.settings) isGood = setter.Take(argument) && isGood;
  if (!isGood) return kExitTrouble;
  const bool writes = !options.dryRun && !setter.amendments.empty();
  if (writes && !Carry(file, options.path, setter.amendments)) return kExitTrouble;
  ReportChanges(options, options.path, options.dryRun, inventory.end, setter.changes, out);
  return kExitWhole;
}

}  // namespace kesp::tool
