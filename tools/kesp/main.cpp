// The tool kesp: the arguments, the standard streams, and what propagates out of a sub-command.
#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "tools/kesp/CommandLine.h"
#include "tools/kesp/Console.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/System.h"

int main(int argc, char** argv) {
  using kesp::tool::Complain;
  kesp::tool::PrepareStreams();
  try {
    const std::vector<std::string> arguments = kesp::tool::ProgramArguments(argc, argv);
    kesp::tool::Output out(kesp::tool::Stream::kOutput);
    kesp::tool::CommandLine line;
    return line.Run(arguments, out);
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
