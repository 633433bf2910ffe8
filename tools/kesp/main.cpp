// The tool kesp: signals, the standard streams, and what propagates out of a sub-command.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <new>
#include <system_error>

#include "tools/kesp/CommandLine.h"
#include "tools/kesp/Console.h"
#include "tools/kesp/Output.h"

namespace kesp::tool {
namespace {

// A standard stream that the caller closed is filled up, so that no data file is opened in its place and written over
// with messages. What was to be output then fails, since it would be lost.
void FillStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) continue;
    (void)::open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY);  // takes the lowest free descriptor
  }
}

}  // namespace
}  // namespace kesp::tool

int main(int argc, char** argv) {
  using kesp::tool::Complain;
  kesp::tool::FillStandardStreams();
  (void)std::signal(SIGPIPE, SIG_IGN);  // a reader who has enough is met as EPIPE
  (void)std::signal(SIGXFSZ, SIG_IGN);  // and a limit on the length of files as EFBIG
  try {
    kesp::tool::Output out(STDOUT_FILENO);
    kesp::tool::CommandLine line;
    return line.Run(argc, argv, out);
  } catch (const kesp::tool::OutputError& e) {
    if (e.OsError() == EPIPE) return kesp::tool::kExitWhole;
    Complain("standard output", std::generic_category().message(e.OsError()));
  } catch (const std::bad_alloc&) {
    Complain({}, "Out of memory");
  } catch (const std::exception& e) {
    Complain({}, e.what());
  }
  return kesp::tool::kExitTrouble;
}
