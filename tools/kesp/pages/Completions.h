// What the shells complete after "kesp": sub-commands, options, their choices, and files where a file is taken.
#pragma once
#include <CLI/CLI.hpp>
#include <string>

namespace kesp::tool {

std::string BashCompletion(const CLI::App& app);
std::string ZshCompletion(const CLI::App& app);  // the function _kesp
std::string FishCompletion(const CLI::App& app);

}  // namespace kesp::tool
