// How every sub-command opens a file.
//
//   CKespDataFile file;
//   if (const auto refused = OpenForReading(file, path)) return Refuse(*refused, path, json, out);
//
// Files longer than 4 GiB are refused: nothing in them can be found again by its position.
#pragma once
#include <optional>
#include <string>

#include "tools/kesp/Console.h"
#include "tools/kesp/Verdict.h"

namespace kesp::tool {

class Output;

// Opens read-only. Nothing when the file is open; otherwise why it is not, and it is closed.
std::optional<Verdict> OpenForReading(CKespDataFile& file, const std::string& path);
std::optional<Verdict> OpenForReading(CKespFile& file, const std::string& path);
// The same for changing: nobody else may write the file meanwhile.
std::optional<Verdict> OpenForWriting(CKespDataFile& file, const std::string& path);
std::optional<Verdict> OpenForWriting(CKespFile& file, const std::string& path);

// Says that nothing can be done: a complaint with advice, with `json` also a document. Returns the exit status.
ExitStatus Refuse(const Verdict& verdict, const std::string& path, bool json, Output& out);

// Says the same of a file that was judged, when something else fails. With an empty `path` the complaint was made.
ExitStatus Fail(const Verdict& verdict, const std::string& source, const std::string& path, const std::string& why,
                bool json, Output& out);

// For a command that reads one file and ends: a data set that is never taken apart, which would take half as long as
// reading it. Its memory goes back to the system all at once.
CKespFile& DatasetOfThisRun();

// Why a file that is open could not be written.
std::string WhyNotWritten(const CKespDataFile& file);

}  // namespace kesp::tool
