// Manual pages, in the macros of man(7). `date` is as 2024-05-01.
#pragma once
#include <CLI/CLI.hpp>
#include <string>

namespace kesp::tool {

std::string ManPageOfTool(const CLI::App& app, const std::string& date);                              // kesp.1
std::string ManPageOfCommand(const CLI::App& app, const CLI::App& command, const std::string& date);  // kesp-find.1

}  // namespace kesp::tool
