// The command line of the tool kesp.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "tools/kesp/Commands.h"
#include "tools/kesp/Opening.h"
#include "tools/kesp/Output.h"

namespace kesp::tool {
namespace {

constexpr const char* kFooter =
    "Exit status: 0 when all was done and the file is whole, 1 when the file is damaged or falls short, 2 for\n"
    "wrong usage, a file that can't be opened or changed, or output that can't be written. Only delete and\n"
    "header change a file, and not with --dry-run; copy and repair make new ones.";

// A standard stream that the caller closed is filled up, so that no data file is opened in its place and written over
// with messages. What was to be output then fails, since it would be lost.
void FillStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) continue;
    (void)::open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY);  // takes the lowest free descriptor
  }
}

// As the parser takes them, last to first. Where several files may stand it takes [a,b] for a list of them; ./[a,b] is
// the same file and no list.
std::vector<std::string> ArgumentsOf(int argc, char** argv) {
  const bool takesFiles = argc > 1 && (std::string_view(argv[1]) == "validate" || std::string_view(argv[1]) == "info");
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {
    arguments.emplace_back(takesFiles && argv[i][0] == '[' ? "./" + std::string(argv[i]) : argv[i]);
  }
  return arguments;
}

// Numbers of records are decimal; left to itself, the parser takes 010 for 8.
std::string TakeDecimal(std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return "\"" + text + "\" is no number";
  text.erase(0, std::min(text.find_first_not_of('0'), text.size() - 1));
  return {};
}

int Run(int argc, char** argv, Output& out) {
  CLI::App app("Looks into Kesp data files and edits them.", "kesp");
  app.set_version_flag("--version", "kesp " KESP_TOOL_VERSION);
  app.require_subcommand(1);
  app.footer(kFooter);
  std::function<ExitStatus()> command;

  InfoOptions info;
  CLI::App* const infoCommand = app.add_subcommand("info", "Tell what a file holds and whether it is whole");
  infoCommand->add_option("FILE", info.paths, "The data files")->required();
  infoCommand->add_flag("--json", info.json, "One JSON document, for programs");
  infoCommand->callback([&] { command = [&] { return Info(info, out); }; });

  DumpOptions dump;
  CLI::App* const dumpCommand = app.add_subcommand("dump", "Write every record, or the data set, as JSON");
  dumpCommand->add_option("FILE", dump.path, "The data file")->required();
  CLI::Option* const records = dumpCommand->add_flag("--records");
  records->description("A line for each record and one for how the walk ended (default)");
  CLI::Option* const dataset = dumpCommand->add_flag("--dataset", dump.dataset);
  dataset->description("One document of what a data set makes of the file")->excludes(records);
  dumpCommand->add_flag("--include-deleted", dump.includeDeleted, "Also the records that are marked deleted");
  dumpCommand->callback([&] { command = [&] { return Dump(dump, out); }; });

  ValidateOptions validate;
  CLI::App* const validateCommand =
      app.add_subcommand("validate", "Check that files can be read and each of their features has a point");
  validateCommand->add_option("FILE", validate.paths, "The data files")->required();
  validateCommand->add_flag("--json", validate.json, "One JSON object a line, for programs");
  validateCommand->add_flag("--strict", validate.strict, "Problems in a whole file count as damage");
  validateCommand->callback([&] { command = [&] { return Validate(validate, out); }; });

  DeleteOptions deletion;
  CLI::App* const deleteCommand = app.add_subcommand(
      "delete",
      "Mark features, with their points and attributes, or points deleted in the file. The record of a\n"
      "feature itself stays behind, without points");
  deleteCommand->add_option("FILE", deletion.path, "The data file")->required();
  const CLI::Validator decimal(TakeDecimal, "");
  CLI::Option* const features = deleteCommand->add_option("--feature", deletion.features, "Features by their numbers");
  features->transform(decimal);
  deleteCommand->add_option("--point", deletion.points, "Points by theirs; a feature goes with its last point")
      ->transform(decimal)
      ->excludes(features);
  deleteCommand->add_flag("--dry-run", deletion.dryRun, "Only say what would be deleted");
  deleteCommand->callback([&] {
    if (deletion.features.empty() && deletion.points.empty()) throw CLI::RequiredError("--feature or --point");
    command = [&] { return Delete(deletion, out); };
  });

  HeaderOptions header;
  CLI::App* const headerCommand = app.add_subcommand("header", "Change texts of the header record in its place");
  headerCommand->add_option("FILE", header.path, "The data file")->required();
  headerCommand->add_option("--set", header.settings, "NAME=TEXT, the names being HeaderText1 to HeaderText7")
      ->required();
  headerCommand->add_flag("--dry-run", header.dryRun, "Only say what would be changed");
  headerCommand->callback([&] { command = [&] { return Header(header, out); }; });

  deleteCommand->add_flag("--json", deletion.json);
  deleteCommand->add_flag("-q", deletion.quiet);
  headerCommand->add_flag("--json", header.json);
  headerCommand->add_flag("-q", header.quiet);
  DeleteOptions undeletion;
  CLI::App* const undeleteCommand = app.add_subcommand("undelete", "Take a deletion back");
  undeleteCommand->add_option("FILE", undeletion.path)->required();
  undeleteCommand->add_option("--feature", undeletion.features);
  undeleteCommand->add_option("--point", undeletion.points);
  undeleteCommand->add_flag("--dry-run", undeletion.dryRun);
  undeleteCommand->add_flag("--json", undeletion.json);
  undeleteCommand->add_flag("-q", undeletion.quiet);
  undeleteCommand->callback([&] { command = [&] { return Undelete(undeletion, out); }; });
  SetOptions set;
  CLI::App* const setCommand = app.add_subcommand("set", "Change values of attributes");
  setCommand->add_option("FILE", set.path)->required();
  setCommand->add_option("--feature", set.feature)->required();
  setCommand->add_option("--attribute", set.settings)->required();
  setCommand->add_flag("--dry-run", set.dryRun);
  setCommand->add_flag("--json", set.json);
  setCommand->add_flag("-q", set.quiet);
  setCommand->callback([&] { command = [&] { return Set(set, out); }; });
  AppendOptions append;
  CLI::App* const appendCommand = app.add_subcommand("append", "Append files to another");
  appendCommand->add_option("FILES", append.sources)->required()->expected(2, -1);
  appendCommand->add_flag_callback("--renumber", [&] { append.collisions = Collisions::kRenumber; });
  appendCommand->add_flag("--dry-run", append.dryRun);
  appendCommand->add_flag("--json", append.json);
  appendCommand->add_flag("-q", append.quiet);
  appendCommand->callback([&] {
    append.destination = append.sources.back();
    append.sources.pop_back();
    command = [&] { return Append(append, out); };
  });
  MergeOptions merge;
  CLI::App* const mergeCommand = app.add_subcommand("merge", "Make one file of several");
  mergeCommand->add_option("-o", merge.destination)->required();
  mergeCommand->add_option("SRC", merge.sources)->required();
  mergeCommand->add_flag_callback("--renumber", [&] { merge.collisions = Collisions::kRenumber; });
  mergeCommand->add_flag("--force", merge.force);
  mergeCommand->add_flag("--json", merge.json);
  mergeCommand->add_flag("-q", merge.quiet);
  mergeCommand->callback([&] { command = [&] { return Merge(merge, out); }; });

  FindOptions find;
  CLI::App* const findCommand =
      app.add_subcommand("find",
                         "List the features that meet all that is asked. One without any point meets what is asked of\n"
                         "points, one without any attribute what is asked of attributes");
  findCommand->add_option("FILE", find.path, "The data file")->required();
  findCommand->add_option("--name", find.names, "One of the names that will do")->allow_extra_args(false);
  findCommand->add_option("--type", find.types, "One of the types that will do")
      ->allow_extra_args(false)
      ->check(CLI::IsMember({"point", "line", "area"}));
  findCommand->add_option("--attribute", find.attribute, "The attribute that has the value; else any");
  CLI::Option* const value = findCommand->add_option("--value", find.value, "The text of an attribute");
  findCommand->add_option("--range", find.range, "LOW:HIGH, both included, of a numeric attribute")->excludes(value);
  findCommand->add_option("--point-text", find.pointText, "The text of a point");
  findCommand->add_option("--from", find.from, "The first time of a point, as 2024-05-01T12:00:00Z or 2024-05-01");
  findCommand->add_option("--to", find.to, "The last one");
  findCommand->add_option("--area", find.area, "MINX,MINY,MAXX,MAXY, that a point lies in");
  findCommand->add_flag("--ignore-case", find.ignoreCase, "For texts and names of attributes, not names of features");
  findCommand->add_flag("--partial", find.partial, "Texts need only contain what is asked");
  findCommand->add_flag("--invert", find.invert, "Values that differ from the value or range");
  findCommand->add_flag("--include-empty", find.includeEmpty, "Also features without points or attributes to ask");
  findCommand->add_flag("--include-deleted", find.includeDeleted, "Also features that are marked deleted");
  findCommand->add_flag("--json", find.json, "A feature a line as JSON, for programs");
  findCommand->callback([&] { command = [&] { return Find(find, out); }; });

  CopyOptions copy;
  CLI::App* const copyCommand = app.add_subcommand("copy", "Copy a data file byte by byte");
  copyCommand->add_option("SRC", copy.source, "The data file")->required();
  copyCommand->add_option("DST", copy.destination, "Its copy")->required();
  copyCommand->add_flag("--force", copy.force, "Replace a file that exists");
  copyCommand->add_flag("--json", copy.json, "One JSON document, for programs");
  copyCommand->callback([&] { command = [&] { return Copy(copy, out); }; });

  RepairOptions repair;
  CLI::App* const repairCommand = app.add_subcommand(
      "repair", "Rebuild a data file without its deleted records, up to the first damage or beyond it");
  repairCommand->add_option("SRC", repair.source, "The data file")->required();
  repairCommand->add_option("DST", repair.destination, "The rebuilt file")->required();
  repairCommand->add_option("--format", repair.format, "File version to write (default: that of SRC)")
      ->check(CLI::Range(1, 3));
  repairCommand->add_flag("--lossy", repair.lossy, "Leave out what that version can't hold");
  repairCommand->add_flag("--first-4gib", repair.first4Gib, "Of a longer file, the records in its first 4 GiB");
  repairCommand->add_flag("--json", repair.json, "One JSON document, for programs");
  repairCommand->add_flag("--salvage", repair.salvage, "Go on after damage, with each record as it is");
  repairCommand->add_flag("--force", repair.force, "Replace a file that exists");
  repairCommand->callback([&] { command = [&] { return Repair(repair, out); }; });

  try {
    app.parse(ArgumentsOf(argc, argv));
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
  (void)std::signal(SIGXFSZ, SIG_IGN);  // and a limit on the length of files as EFBIG
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
