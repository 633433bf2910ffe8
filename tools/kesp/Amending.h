// How the sub-commands change records in place: everything is worked out and checked first, and then written, synced
// and read back.
//
//   CKespDataFile file;
//   if (const auto refused = OpenForEditing(file, path, dryRun)) return Refuse(*refused, path, json, out);
//   std::vector<Amendment> amendments;
//   ... if (auto* record = AddAmendment(amendments, file, offset)) record->SetDelete();
//   if (!dryRun && !Carry(file, path, amendments)) return kExitTrouble;
//
// Nothing but the fields and flags that differ is written.
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/kesp/Opening.h"

namespace kesp::tool {

struct Amendment {
  std::unique_ptr<CKespRecord> before;
  std::unique_ptr<CKespRecord> after;
};

// A value that was asked for, as it was and as it is to be.
struct ValueChange {
  std::string name;
  CString from;
  CString to;
};
// "HeaderText1 changed from "a" to "b"", or the document with these.
void ReportChanges(const ReportOptions& options, const std::string& path, bool dryRun, const Verdict& verdict,
                   const std::vector<ValueChange>& changes, Output& out);

// NAME and VALUE out of NAME=VALUE. Nothing, and the reason in `wrong`, when there is no "=" or it is not UTF-8.
struct Assignment {
  std::string name;
  std::string value;  // UTF-8
};
std::optional<Assignment> ParseAssignment(const std::string& argument, std::string& wrong);

// Opens for writing, or read-only for a dry run.
std::optional<Verdict> OpenForEditing(CKespDataFile& file, const std::string& path, bool dryRun);

// Reads the record there and adds an amendment without a change. Returns its later state, to be changed; null when the
// record can't be read.
CKespRecord* AddAmendment(std::vector<Amendment>& amendments, CKespDataFile& file, std::uint32_t offset);

// Writes them in file order, syncs, closes, and reads the file again. False after a complaint.
bool Carry(CKespDataFile& file, const std::string& path, std::vector<Amendment>& amendments);

}  // namespace kesp::tool
