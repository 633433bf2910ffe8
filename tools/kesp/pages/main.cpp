// Writes the manual pages and the completions of the tool, from its own definitions of sub-commands and options:
//
//   kesp_pages FOLDER YYYY-MM-DD
//
// FOLDER gets what is installed as share/; the date goes into the pages. Runs while the tool is built.
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "tools/kesp/CommandLine.h"
#include "tools/kesp/Help.h"
#include "tools/kesp/pages/Completions.h"
#include "tools/kesp/pages/ManPages.h"

namespace kesp::tool {
namespace {

void Write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) throw std::runtime_error(path.string() + " can't be written");
}

void WriteAll(const std::filesystem::path& folder, const std::string& date) {
  const CommandLine line;
  const CLI::App& app = line.App();
  Write(folder / "man/man1/kesp.1", ManPageOfTool(app, date));
  for (const CLI::App* command : CommandsOf(app)) {
    Write(folder / "man/man1" / ("kesp-" + command->get_name() + ".1"), ManPageOfCommand(app, *command, date));
  }
  Write(folder / "bash-completion/completions/kesp", BashCompletion(app));
  Write(folder / "zsh/site-functions/_kesp", ZshCompletion(app));
  Write(folder / "fish/vendor_completions.d/kesp.fish", FishCompletion(app));
}

}  // namespace
}  // namespace kesp::tool

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: kesp_pages FOLDER YYYY-MM-DD\n";
    return 2;
  }
  try {
    kesp::tool::WriteAll(argv[1], argv[2]);
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "kesp_pages: " << e.what() << '\n';
    return 1;
  }
}
