// Runs the command-line tool and keeps its output. No shell is involved: arguments are passed as they are.
#pragma once
#include <gtest/gtest.h>

#include <iterator>
#include <optional>
#include <sstream>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "tests/support/Bytes.h"

namespace kesp::test {

struct ToolResult {
  int status = -1;  // the exit status; -1 when a signal ended it
  std::string out, err;
  bool operator==(const ToolResult&) const = default;
};
inline void PrintTo(const ToolResult& result, std::ostream* to) {
  *to << result.status << '\n' << result.out << result.err;
}

inline std::string TextOf(const std::filesystem::path& path) {
  const ByteVector bytes = ReadFile(path);
  return {bytes.begin(), bytes.end()};
}

#ifdef _WIN32
// As CommandLineToArgvW takes it apart.
inline std::wstring Quoted(const std::wstring& argument) {
  std::wstring quoted = L"\"";
  std::size_t slashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'"') quoted.append(slashes + 1, L'\\');
    slashes = c == L'\\' ? slashes + 1 : 0;
    quoted += c;
  }
  return quoted.append(slashes, L'\\') + L"\"";
}

inline ToolResult RunTool(const std::vector<std::string>& arguments, std::optional<int> /*output*/ = {}) {
  const TempDir dir;
  std::wstring line = Quoted(std::filesystem::path(KESP_TOOL).wstring());
  for (const std::string& argument : arguments) {
    const CString text(argument);
    line += L' ' + Quoted({text.View().begin(), text.View().end()});
  }
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  const auto create = [&](const std::filesystem::path& path) {
    return ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_NEW, 0, nullptr);
  };
  STARTUPINFOW start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdOutput = create(dir / "out");
  start.hStdError = create(dir / "err");
  PROCESS_INFORMATION tool{};
  DWORD status = 127;
  if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &tool) != 0) {
    ::WaitForSingleObject(tool.hProcess, INFINITE);
    ::GetExitCodeProcess(tool.hProcess, &status);
    ::CloseHandle(tool.hThread);
    ::CloseHandle(tool.hProcess);
  }
  ::CloseHandle(start.hStdOutput);
  ::CloseHandle(start.hStdError);
  return {static_cast<int>(status), TextOf(dir / "out"), TextOf(dir / "err")};
}
#else
// `output` is the descriptor that the tool gets instead of one whose text is kept; with -1 it gets none.
inline ToolResult RunTool(const std::vector<std::string>& arguments, std::optional<int> output = {}) {
  const TempDir dir;
  const std::string out = dir / "out", err = dir / "err";
  std::vector<char*> argv;
  std::istringstream emulator(KESP_EMULATOR);  // empty where the tool runs by itself
  const std::vector<std::string> words{std::istream_iterator<std::string>(emulator), {}};
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(const_cast<char*>(KESP_TOOL));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    const auto create = [](const std::string& path) {
      return ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    };
    ::dup2(output ? *output : create(out), STDOUT_FILENO);
    ::dup2(create(err), STDERR_FILENO);
    if (output == -1) ::close(STDOUT_FILENO);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, TextOf(out), TextOf(err)};
}
#endif

inline std::string Replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
  return text;
}

class Tool : public testing::Test {
 protected:
  // One line, split at spaces. "@" means the test's folder, in what the tool says as well. What it complains of
  // comes without "kesp: " and the line's end.
  ToolResult Run(const std::string& line, std::optional<int> output = {}) const {
    std::vector<std::string> arguments;
    std::istringstream in(line);
    for (std::string word; in >> word;) arguments.push_back(Replaced(word, "@", folder));
    ToolResult got = RunTool(arguments, output);
    const bool isOneComplaint = got.err.starts_with("kesp: ") && got.err.find('\n') + 1 == got.err.size();
    if (isOneComplaint) got.err = got.err.substr(6, got.err.size() - 7);
    return {got.status, Replaced(got.out, folder, "@"), Replaced(got.err, folder, "@")};
  }
  const TempDir dir;
  const std::string folder = (dir / "").generic_string();
};

}  // namespace kesp::test
