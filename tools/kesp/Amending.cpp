#include "tools/kesp/Amending.h"

#include <algorithm>

#include "tools/kesp/Inventory.h"
#include "tools/kesp/JsonWriter.h"

namespace kesp::tool {
namespace {

bool WriteAll(CKespDataFile& file, const std::vector<Amendment>& amendments) {
  try {
    return std::all_of(amendments.begin(), amendments.end(),
                       [&](const Amendment& a) { return file.AmendRecord(*a.before, *a.after); }) &&
           file.Flush() && file.Close();
  } catch (const CFileException&) {
    return false;  // the container has the reason
  }
}

// As everyone else reads it. What is to be changed still can't be in a file that is open read-only, so that it succeeds
// only where nothing is left to change.
bool IsCarriedOut(const std::string& path, const std::vector<Amendment>& amendments) {
  CKespDataFile file;
  if (OpenForReading(file, path)) return false;
  const auto isThere = [&](const Amendment& amendment) {
    const std::unique_ptr<CKespRecord> now = ReadAt(file, amendment.after->m_filePosition);
    return now && file.AmendRecord(*now, *amendment.after);
  };
  if (!std::all_of(amendments.begin(), amendments.end(), isThere)) return false;
  RecordWalk walk(file, DeletedRecords::kPassOver);
  while (walk.Next() != RecordWalk::Step::kEnd) {
  }
  return walk.End().IsWhole();
}

std::string Quoted(const CString& text) { return "\"" + Printable(text) + "\""; }

bool IsUtf8(const std::string& text) { return CString::FromUtf8(text).ToUtf8() == text; }

}  // namespace

void ReportChanges(const ReportOptions& options, const std::string& path, bool dryRun, const Verdict& verdict,
                   const std::vector<ValueChange>& changes, Output& out) {
  if (options.json) {
    JsonWriter json(out);
    json.BeginObject();
    WriteVerdict(json, CString::FromPathBytes(path), verdict);
    json.Key("dryRun").Bool(dryRun);
    json.Key("changed").BeginArray();
    for (const auto& [name, from, to] : changes) {
      if (from == to) continue;
      json.BeginObject();
      json.Key("name").Text(CString(name).View());
      json.Key("from").Text(from.View());
      json.Key("to").Text(to.View());
      json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    json.EndLine();
  } else if (!options.quiet) {
    for (const auto& [name, from, to] : changes) {
      out.Put(Printable(CString(name)));
      if (from == to) {
        out.Put(" is " + Quoted(from) + " already\n");
      } else {
        out.Put(dryRun ? " would change from " : " changed from ").Put(Quoted(from) + " to " + Quoted(to) + "\n");
      }
    }
  }
  out.Flush();
}

std::optional<Assignment> ParseAssignment(const std::string& argument, std::string& wrong) {
  const std::size_t equals = argument.find('=');
  if (equals == std::string::npos) {
    wrong = "\"" + PrintablePath(argument) + R"(" has no "=" between a name and a value)";
    return std::nullopt;
  }
  Assignment assignment{argument.substr(0, equals), argument.substr(equals + 1)};
  if (IsUtf8(assignment.name) && IsUtf8(assignment.value)) return assignment;
  wrong = "the text for " + PrintablePath(assignment.name) + " is not UTF-8";
  return std::nullopt;
}

std::optional<Verdict> OpenForEditing(CKespDataFile& file, const std::string& path, bool dryRun) {
  return dryRun ? OpenForReading(file, path) : OpenForWriting(file, path);
}

CKespRecord* AddAmendment(std::vector<Amendment>& amendments, CKespDataFile& file, std::uint32_t offset) {
  Amendment amendment{ReadAt(file, offset), ReadAt(file, offset)};
  if (!amendment.before || !amendment.after) return nullptr;
  amendments.push_back(std::move(amendment));
  return amendments.back().after.get();
}

bool Carry(CKespDataFile& file, const std::string& path, std::vector<Amendment>& amendments) {
  std::sort(amendments.begin(), amendments.end(),
            [](const Amendment& a, const Amendment& b) { return a.before->m_filePosition < b.before->m_filePosition; });
  if (!WriteAll(file, amendments)) {
    Complain(path, "not all could be written: " + WhyNotWritten(file));
    return false;
  }
  if (!IsCarriedOut(path, amendments)) {
    Complain(path, "what was written does not read back");
    return false;
  }
  return true;
}

}  // namespace kesp::tool
