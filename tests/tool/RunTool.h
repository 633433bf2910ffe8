// Runs the command-line tool and keeps what it answers. No shell is involved: arguments are passed as they are.
#pragma once
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"

namespace kesp::test {

struct ToolResult {
  int status = -1;  // the exit status; -1 when a signal ended it
  std::string out;
  std::string err;
};

enum class ToolOutput { kKept, kFullDisk, kNobodyReads, kClosed };

inline ToolResult RunTool(const std::vector<std::string>& arguments, ToolOutput output = ToolOutput::kKept) {
  const TempDir dir;
  const std::string outPath = dir / "out";
  const std::string errPath = dir / "err";
  std::vector<char*> argv{const_cast<char*>(KESP_TOOL)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  const pid_t child = ::fork();
  if (child == 0) {
    int pipeEnds[2] = {-1, -1};
    int out = -1;
    if (output == ToolOutput::kNobodyReads) {
      if (::pipe(pipeEnds) == 0) ::close(pipeEnds[0]);
      out = pipeEnds[1];
    } else {
      const char* const path = output == ToolOutput::kFullDisk ? "/dev/full" : outPath.c_str();
      out = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    }
    ::dup2(out, STDOUT_FILENO);
    ::dup2(::open(errPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
    if (output == ToolOutput::kClosed) ::close(STDOUT_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  const auto text = [](const std::string& path) {
    const ByteVector bytes = ReadFile(path);
    return std::string(bytes.begin(), bytes.end());
  };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text(outPath), text(errPath)};
}

// One line, split at spaces; "@" stands for the path.
inline ToolResult RunTool(const std::string& line, const std::string& path) {
  std::vector<std::string> arguments;
  std::istringstream in(line);
  for (std::string word; in >> word;) arguments.push_back(word == "@" ? path : word);
  return RunTool(arguments);
}

}  // namespace kesp::test
