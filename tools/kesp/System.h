// What the tool asks of the system, beyond the library and the standard library.
//
// Paths are in the bytes of CString::ToPathBytes. Errors: a function that fails says so and leaves the reason in errno.
#pragma once
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace kesp::tool {

enum class Stream { kOutput = 1, kErrors = 2 };  // the values are the descriptors

// The arguments of the program, its name first; those of main, where the system has them in these bytes.
std::vector<std::string> ProgramArguments(int argc, char** argv);
// To be called first. Text goes out as it is, in UTF-8; a standard stream that the caller closed takes nothing; and
// failures to write are met as errors, not as signals.
void PrepareStreams();
bool IsTerminal(Stream stream) noexcept;
// Writes some of the bytes, once the stream takes any, and returns how many; -1 when it fails.
std::ptrdiff_t WriteSome(Stream stream, const char* bytes, std::size_t count) noexcept;

std::filesystem::path PathOf(const std::string& path);
std::string BytesOf(const std::filesystem::path& path);

struct PathInfo {
  enum class Kind { kMissing, kFile, kFolder, kOther, kUnknown };
  Kind kind = Kind::kUnknown;  // the last has its reason in errno
  std::uint64_t size = 0;
};
PathInfo Look(const std::string& path);
// The path that a symbolic link leads to; another path as it is. Empty when that can't be told.
std::string FollowLinks(const std::string& path);

// Opens a file for reading such that nobody can open it for writing until LetGo. `isWritten` is whether somebody had it
// open for writing before. -1 when it can't be held.
std::intptr_t Hold(const std::string& path, bool& isWritten);
void LetGo(std::intptr_t held) noexcept;

// Makes an empty file in that folder, whose name begins with `stem`, with the permissions that the file at `like` has,
// and those of new files if there is none. Returns its path, or an empty text.
std::string MakeFile(const std::string& folder, std::string_view stem, const std::string& like);
// Gives a file a new name in the same folder, for good; false with EEXIST if a file has it and is not to be replaced.
bool Rename(const std::string& from, const std::string& to, bool replaces);
// Whether a file that is open here can be replaced.
bool ReplacesOpenFiles() noexcept;
void RemoveFile(const std::string& path) noexcept;
// From now on the file goes away when the user ends the tool.
void TakeAwayWhenEnded(const std::string& path);
// Does not return once the user has ended the tool: what fails from then on is no news.
void PauseIfEnded() noexcept;

}  // namespace kesp::tool
