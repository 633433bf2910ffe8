// How every sub-command opens a file and talks to the person.
#pragma once
#include <string>
#include <string_view>

#include "kesp/kesp.h"

namespace kesp::tool {

// Opens for looking only. When it can't, complains with the reason and answers false; the code is in file.GetError().
bool OpenForReading(CKespDataFile& file, const std::string& path);
bool OpenForReading(CKespFile& file, const std::string& path);
// The same for changing: nobody else may write the file meanwhile.
bool OpenForWriting(CKespDataFile& file, const std::string& path);
bool OpenForWriting(CKespFile& file, const std::string& path);
// For a command that reads one file and ends: a data set that is never taken apart, which would take half as long as
// reading it. Its memory goes back to the system all at once.
CKespFile& DatasetOfThisRun();
// The reason without the complaint; and why a file that is open could not be written.
std::string WhyNotOpen(const CKespDataFile& file);
std::string WhyNotWritten(const CKespDataFile& file);

// "kesp: PATH: what" on standard error; without a path, "kesp: what".
void Complain(std::string_view path, std::string_view what);

// For a terminal: control characters, which could steer it, and lone surrogates stand as escapes.
std::string Printable(const CString& text);

}  // namespace kesp::tool
