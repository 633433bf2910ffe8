// The command line of the tool kesp.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <system_error>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"

namespace kesp::tool {
namespace {

constexpr const char* kFooter =
    "Exit status: 0 when the file is whole, 1 when it is damaged, 2 for wrong usage, a file that can't\n"
    "be opened or output that can't be written. Files are only looked at, never changed.";

// A standard stream that the caller closed is filled up, so that no data file is opened in its place and written over
// with messages. What was to be output then fails, since it would be lost.
void FillStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) continue;
    (void)::open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY);  // takes the lowest free descriptor
  }
}

int Run(int argc, char** argv, Output& out) {
  CLI::App app("Looks into Kesp data files.", "kesp");
  app.set_version_flag("--version", "kesp " KESP_TOOL_VERSION);
  app.require_subcommand(1);
  app.footer(kFooter);
  std::function<ExitStatus()> command;

  InfoOptions info;
  CLI::App* const infoCommand = app.add_subcommand("info", "Tell what a file holds and whether it is whole");
  infoCommand->add_option("FILE", info.path, "The data file")->required();
  infoCommand->add_flag("--json", info.json, "One JSON document, for programs");
  infoCommand->callback([&] { command = [&] { return Info(info, out); }; });

  DumpOptions dump;
  CLI::App* const dumpCommand = app.add_subcommand("dump", "Write every record as a line of JSON");
  dumpCommand->add_option("FILE", dump.path, "The data file")->required();
  dumpCommand->add_flag("--records")->description("A line for each record and one for how the walk ended (default)");
  dumpCommand->add_flag("--include-deleted", dump.includeDeleted, "Also the records that are marked deleted");
  dumpCommand->callback([&] { command = [&] { return Dump(dump, out); }; });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    std::ostringstream text;
    std::ostringstream complaint;
    if (app.exit(e, text, complaint) != 0) {
      const bool isUnknown = app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-';
      Complain({},
               (isUnknown ? "there is no command " + std::string(argv[1]) : e.what()) + std::string("; try --help"));
      return kExitTrouble;
    }
    out.Put(text.str()).Flush();  // the answer to --help or --version
    return kExitWhole;
  }
  return command();
}

}  // namespace
}  // namespace kesp::tool

int main(int argc, char** argv) {
  using kesp::tool::Complain;
  kesp::tool::FillStandardStreams();
  (void)std::signal(SIGPIPE, SIG_IGN);  // a reader who has enough is met as EPIPE
  try {
    kesp::tool::Output out(STDOUT_FILENO);
    return kesp::tool::Run(argc, argv, out);
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
