// The command line of the tool: which sub-commands and options there are, what their help says, and what they run.
//
//   CommandLine line;
//   return line.Run(arguments, out);
//
// Help, manual pages and completions are made from these definitions (Help.h says how they are read).
#pragma once
#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "tools/kesp/Commands.h"

namespace kesp::tool {

class CommandLine {
 public:
  CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Runs the sub-command and returns its exit status. Wrong usage is complained about. Passes on what the sub-command
  // throws, as OutputError.
  ExitStatus Run(const std::vector<std::string>& arguments, Output& out);  // the name of the program first
  const CLI::App& App() const noexcept { return m_app; }

 private:
  void AddInfo();
  void AddDump();
  void AddValidate();
  void AddFind();
  void AddHeader();
  void AddSet();
  void AddDelete();
  void AddUndelete();
  void AddAppend();
  void AddCopy();
  void AddMerge();
  void AddRepair();
  void AddHelp();

  // Once all is parsed, `check` may still refuse it by a CLI::ParseError.
  template <class Options>
  void RunWith(CLI::App& command, ExitStatus (*run)(const Options&, Output&), const Options& options,
               std::function<void()> check = {});
  ExitStatus ShowHelp(Output& out) const;
  ExitStatus Complain(const CLI::ParseError& error) const;

  CLI::App m_app;
  std::function<ExitStatus(Output&)> m_command;  // the sub-command that was given

  InfoOptions m_info;
  DumpOptions m_dump;
  ValidateOptions m_validate;
  FindOptions m_find;
  HeaderOptions m_header;
  SetOptions m_set;
  DeleteOptions m_delete;
  DeleteOptions m_undelete;
  AppendOptions m_append;
  CopyOptions m_copy;
  MergeOptions m_merge;
  RepairOptions m_repair;
  std::string m_topic;  // of help
};

}  // namespace kesp::tool
