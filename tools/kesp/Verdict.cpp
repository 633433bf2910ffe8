#include "tools/kesp/Verdict.h"

#include <system_error>
#include <utility>

#include "tools/kesp/JsonWriter.h"

namespace kesp::tool {
namespace {

// What the code means for the record at the place where the walk ended.
const char* Meaning(KESP_ERROR_TYPE error) {
  switch (error) {
    case KESP_ERROR_EOF:
      return "the record there is cut short";
    case KESP_ERROR_VERSION:
      return "the record there is of a version that this program doesn't know";
    case KESP_ERROR_RECORD_TYPE:
      return "no record begins there";
    case KESP_ERROR_BAD_RECORD:
      return "the record there has impossible contents";
    case KESP_ERROR_RECORD_HEADER:
      return "the record there states an impossible length";
    case KESP_ERROR_APP_HEADER:
      return "the header record is cut short";
    case KESP_ERROR_UNICODE:
      return "the record there is of a kind that is not in use";
    case KESP_ERROR_ATTRIBUTE_TYPE:
      return "the attribute there is of an unknown kind";
    default:
      return "the record there can't be read";
  }
}

}  // namespace

Verdict Verdict::NotOpened(const CKespDataFile& file, std::string why) {
  Verdict verdict;
  verdict.cause = Cause::kNotOpened;
  verdict.error = file.GetError() != KESP_ERROR_NONE ? file.GetError() : KESP_ERROR_OPEN;
  verdict.message = file.m_errorStrings[verdict.error];
  verdict.why = std::move(why);
  return verdict;
}

Verdict Verdict::TooLong(std::uint64_t length) {
  Verdict verdict;
  verdict.cause = Cause::kTooLong;
  verdict.message = CString("No Error");
  verdict.why = "is " + std::to_string(length) + " bytes long, and positions in a Kesp data file end at 4 GiB";
  return verdict;
}

ExitStatus Verdict::Status() const noexcept {
  switch (cause) {
    case Cause::kWhole:
      return kExitWhole;
    case Cause::kDamaged:
    case Cause::kPastEnd:
    case Cause::kNoHeader:
      return kExitDamaged;
    default:
      return kExitTrouble;
  }
}

std::string Verdict::Describe() const {
  const std::string where = " at offset " + std::to_string(offset) + ": ";
  switch (cause) {
    case Cause::kWhole:
      return {};
    case Cause::kDamaged:
      return "damaged" + where + Meaning(error) +
             (error != KESP_ERROR_NONE ? " (" + message.ToUtf8() + ")" : std::string());
    case Cause::kPastEnd:
      return "damaged" + where + "the record there states a length that goes past the end of the file";
    case Cause::kNoHeader:
      return "damaged" + where + "the first record is missing or no header";
    case Cause::kUnreadable:
      return "can't be read" + where + std::generic_category().message(systemError);
    default:
      return why;
  }
}

std::string Verdict::Advice() const {
  switch (cause) {
    case Cause::kDamaged:
    case Cause::kPastEnd:
      return "kesp repair writes a new file of what comes before the damage, with --salvage also of what comes after";
    case Cause::kTooLong:
      return "kesp repair --first-4gib writes a new file of the records before that";
    default:
      return {};
  }
}

namespace {

void WriteMembers(JsonWriter& json, const CString& path, const Verdict& verdict, const std::string& error) {
  json.Key("path").Text(path.View());
  json.Key("whole").Bool(verdict.IsWhole());
  json.Key("end").BeginObject();
  json.Key("error").Number(std::int64_t{verdict.error});
  json.Key("message").Text(verdict.message.View());
  json.EndObject();
  json.Key("damage");
  if (verdict.IsDamaged()) {
    json.BeginObject();
    json.Key("offset").Number(static_cast<std::int64_t>(verdict.offset));
    json.Key("message").Text(CString(verdict.Describe()).View());
    json.EndObject();
  } else {
    json.Null();
  }
  json.Key("error");
  if (error.empty()) {
    json.Null();
  } else {
    json.Text(CString(error).View());
  }
}

}  // namespace

void WriteVerdict(JsonWriter& json, const CString& path, const Verdict& verdict) {
  WriteMembers(json, path, verdict, verdict.Status() == kExitTrouble ? verdict.Describe() : std::string());
}

void WriteVerdictLine(JsonWriter& json, const CString& path, const Verdict& verdict) {
  json.BeginObject();
  WriteVerdict(json, path, verdict);
  json.EndObject();
  json.EndLine();
}

void WriteFailureLine(JsonWriter& json, const CString& path, const Verdict& verdict, const std::string& error) {
  json.BeginObject();
  WriteMembers(json, path, verdict, error);
  json.EndObject();
  json.EndLine();
}

}  // namespace kesp::tool
