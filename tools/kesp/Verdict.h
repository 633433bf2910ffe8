// Whether a file is whole: the one judgement that every sub-command gives, in its exit status, its messages and its
// JSON.
//
//   Verdict verdict = walk.End();
//   if (!verdict.IsWhole()) Complain(path, verdict.Describe());
//   return verdict.Status();
//
// A file is whole when a walk over its records, without those marked deleted, comes to its end, and when the first of
// them is a header record. Nothing else counts: what the records say is for kesp validate.
#pragma once
#include <cstdint>
#include <string>

#include "kesp/kesp.h"
#include "tools/kesp/Commands.h"

namespace kesp::tool {

class JsonWriter;

struct Verdict {
  enum class Cause {
    kWhole,
    kDamaged,     // the walk ended in the middle
    kPastEnd,     // the last record states a length that goes past the end of the file
    kNoHeader,    // the first record is missing or no header
    kUnreadable,  // the system failed, or memory ran out
    kChanged,     // by somebody, between two walks
    kTooLong,     // positions in the format end at 4 GiB
    kNotOpened    // not there, not to be opened, or not a Kesp data file
  };

  // Of a file that could not be opened. `why` is for a person.
  static Verdict NotOpened(const CKespDataFile& file, std::string why);
  static Verdict TooLong(std::uint64_t length);

  bool IsWhole() const noexcept { return cause == Cause::kWhole; }
  bool IsDamaged() const noexcept { return Status() == kExitDamaged; }
  ExitStatus Status() const noexcept;
  // For a person, and empty for a whole file: "damaged at offset 90: the record there is cut short (EOF Error)".
  std::string Describe() const;
  // What can be done about it; empty where nothing can.
  std::string Advice() const;

  Cause cause = Cause::kWhole;
  KESP_ERROR_TYPE error = KESP_ERROR_NONE;  // how the walk ended; 0 when a class refused a body without a code
  CString message;                          // the library's text for the code
  std::uint64_t offset = 0;                 // of the record header where the walk ended
  int systemError = 0;                      // errno, for kUnreadable
  std::string why;                          // for kChanged, kTooLong and kNotOpened
};

// The members that every JSON document about one file begins with: "path", "whole", "end", "damage" and "error".
void WriteVerdict(JsonWriter& json, const CString& path, const Verdict& verdict);
// A whole document, for a file that nothing else can be said of.
void WriteVerdictLine(JsonWriter& json, const CString& path, const Verdict& verdict);
// The same when the file was judged and something else then failed; `error` says what.
void WriteFailureLine(JsonWriter& json, const CString& path, const Verdict& verdict, const std::string& error);

}  // namespace kesp::tool
