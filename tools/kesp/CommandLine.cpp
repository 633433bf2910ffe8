#include "tools/kesp/CommandLine.h"

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tools/kesp/Console.h"
#include "tools/kesp/Help.h"
#include "tools/kesp/JsonWriter.h"
#include "tools/kesp/Output.h"
#include "tools/kesp/Suggestion.h"

namespace kesp::tool {
namespace {

constexpr const char* kReading = "Commands that only read";
constexpr const char* kChanging = "Commands that change a file in its place";
constexpr const char* kMaking = "Commands that make a new file";
constexpr const char* kMore = "More";

constexpr const char* kExitStatuses =
    "Exit status:\n"
    "  0  all was done, and the file is whole\n"
    "  1  a file is damaged, or falls short of what was asked\n"
    "  2  wrong usage, a file can't be opened or changed, or output can't be written";

CLI::App& Add(CLI::App& app, const char* name, const std::string& description, const char* group,
              std::initializer_list<const char*> examples) {
  CLI::App* const command = app.add_subcommand(name, description)->group(group);
  std::string footer = "Examples:";
  for (const char* example : examples) footer.append("\n  kesp ").append(example);
  command->footer(footer);
  return *command;
}

// An option with a value, which help calls `what`.
template <class Value>
CLI::Option* AddValue(CLI::App& command, const char* names, const char* what, Value& value, const char* text) {
  return command.add_option(names, value, text)->type_name(what);
}

template <class Value>
CLI::Option* AddChoice(CLI::App& command, const char* names, const std::vector<std::string>& choices, Value& value,
                       const char* text) {
  CLI::Option* const option = AddValue(command, names, CLI::detail::join(choices, "|").c_str(), value, text);
  return option->check(CLI::IsMember(choices).description(""));
}

void AddReport(CLI::App& command, ReportOptions& report, const char* json = "The report as one line of JSON") {
  CLI::Option* const quiet = command.add_flag("-q,--quiet", report.quiet, "No report on standard output");
  command.add_flag("--json", report.json, json)->excludes(quiet);
}

void AddForce(CLI::App& command, bool& force) { command.add_flag("-f,--force", force, "Replace a file that exists"); }

// A new file on standard output leaves no place for a report.
void TakeStandardOutput(const std::string& destination, ReportOptions& report) {
  if (destination != "-") return;
  if (report.json) throw CLI::ValidationError("--json", "the new file itself goes to standard output");
  report.quiet = true;
}

// Programs get a document also where nothing but a complaint was made.
void WriteRefusal(Output& out) {
  if (out.IsUsed()) return;
  JsonWriter json(out);
  json.BeginObject();
  json.Key("error").Text(CString(LastComplaint()).View());
  json.EndObject();
  json.EndLine();
  out.Flush();
}

// Numbers of records are decimal; left to itself, the parser takes 010 for 8.
std::string TakeDecimal(std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return "\"" + text + "\" is no number";
  text.erase(0, std::min(text.find_first_not_of('0'), text.size() - 1));
  return {};
}
const CLI::Validator& Decimal() {
  static const CLI::Validator decimal(TakeDecimal, "");
  return decimal;
}

// As the parser takes them, last to first. Where several files may be named it takes [a,b] for a list of them; ./[a,b]
// is the same file and no list.
std::vector<std::string> ArgumentsOf(const CLI::App& app, const std::vector<std::string>& given) {
  const CLI::App* const command = CommandNamed(app, given[1]);
  const auto files = command != nullptr ? PositionalsOf(*command) : std::vector<const CLI::Option*>();
  const bool takesFiles =
      std::any_of(files.begin(), files.end(), [](const CLI::Option* file) { return TakesMany(*file); });
  std::vector<std::string> arguments;
  for (std::size_t i = given.size() - 1; i > 0; --i) {
    arguments.emplace_back(takesFiles && given[i].starts_with('[') ? "./" + given[i] : given[i]);
  }
  return arguments;
}

std::string DidYouMean(const std::string& typed, const std::vector<std::string>& candidates) {
  const auto closest = Closest(typed, candidates);
  return closest ? "; did you mean " + *closest + "?" : std::string();
}

std::string NoCommand(const CLI::App& app, const std::string& typed) {
  std::vector<std::string> names;
  for (const CLI::App* command : CommandsOf(app)) names.push_back(command->get_name());
  return "there is no command " + PrintablePath(typed) + DidYouMean(typed, names);
}

std::string NoOption(const CLI::App& command, const std::string& typed) {
  std::vector<std::string> names;
  for (const CLI::Option* option : OptionsOf(command)) {
    for (const std::string& name : NamesOf(*option)) {
      if (name.starts_with("--")) names.push_back(name);
    }
  }
  const std::string name = typed.substr(0, typed.find('='));
  return "there is no option " + PrintablePath(name) + DidYouMean(name, names);
}

}  // namespace

CommandLine::CommandLine()
    : m_app(
          "Reads, checks, searches, changes and rebuilds Kesp data files\n\n"
          "kesp help COMMAND shows the options of a command, and examples.",
          "kesp") {
  m_app.formatter(std::make_shared<HelpFormatter>());
  m_app.set_help_flag("-h,--help", "Show this help");
  m_app.set_version_flag("--version", "kesp " KESP_TOOL_VERSION, "Show the version");
  m_app.allow_windows_style_options(false);  // /survey.kesp is a path everywhere
  m_app.require_subcommand(1);
  m_app.footer(kExitStatuses);
  AddInfo();
  AddDump();
  AddValidate();
  AddFind();
  AddHeader();
  AddSet();
  AddDelete();
  AddUndelete();
  AddAppend();
  AddCopy();
  AddMerge();
  AddRepair();
  AddHelp();
}

template <class Options>
void CommandLine::RunWith(CLI::App& command, ExitStatus (*run)(const Options&, Output&), const Options& options,
                          std::function<void()> check) {
  command.callback([this, run, &options, check = std::move(check)] {
    if (check) check();
    m_command = [run, &options](Output& out) {
      const ExitStatus status = run(options, out);
      if constexpr (std::is_base_of_v<ReportOptions, Options>) {
        if (status == kExitTrouble && options.json) WriteRefusal(out);
      }
      return status;
    };
  });
}

void CommandLine::AddInfo() {
  CLI::App& command = Add(m_app, "info",
                          "Show what files hold, and whether they are whole\n\n"
                          "One file is described in full; of several, each has a line in a table.",
                          kReading, {"info park.kesp", "info *.kesp", "info --json park.kesp"});
  command.add_option("FILE", m_info.paths, "The data files")->required();
  command.add_flag("--json", m_info.json, "A line of JSON for each file");
  RunWith(command, Info, m_info);
}

void CommandLine::AddDump() {
  CLI::App& command = Add(m_app, "dump", "Write every record, or the data set, as JSON", kReading,
                          {"dump park.kesp", "dump --include-deleted park.kesp", "dump --dataset park.kesp"});
  command.add_option("FILE", m_dump.path, "The data file")->required();
  CLI::Option* const records = command.add_flag("--records");
  records->description("A line for each record up to the first damage, and one that says how the file ended (default)");
  CLI::Option* const dataset = command.add_flag("--dataset", m_dump.dataset);
  dataset->description("One document: the features, points, notes and tags that the records make up");
  dataset->excludes(records);
  command.add_flag("--include-deleted", m_dump.includeDeleted, "Also records that are marked deleted");
  RunWith(command, Dump, m_dump);
}

void CommandLine::AddValidate() {
  CLI::App& command =
      Add(m_app, "validate",
          "Check that files are whole, and report problems in them\n\n"
          "A file is whole when it begins with a header record and can be read to its end. Problems are "
          "such as features without points, numbers used more than once, points without a feature, and "
          "a header that doesn't tell what the file holds.",
          kReading, {"validate park.kesp", "validate --strict *.kesp", "validate -q park.kesp && echo whole"});
  command.add_option("FILE", m_validate.paths, "The data files")->required();
  command.add_flag("--strict", m_validate.strict, "Exit with 1 also when a whole file has problems");
  AddReport(command, m_validate, "A line of JSON for each file");
  RunWith(command, Validate, m_validate);
}

namespace {

void AddAttributeFilters(CLI::App& command, FindOptions& find) {
  AddValue(command, "--attribute", "NAME", find.attribute, "Features with an attribute of this name");
  CLI::Option* const value =
      AddValue(command, "--value", "TEXT", find.value, "Features with this text in the attribute, or in any one");
  AddValue(command, "--range", "LOW:HIGH", find.range,
           "Features with a number from LOW to HIGH in the attribute, or in any one; LOW: and :HIGH have no other end")
      ->excludes(value);
  command.add_flag("--invert", find.invert, "Values other than --value, or outside --range");
}

void AddPointFilters(CLI::App& command, FindOptions& find) {
  AddValue(command, "--point-text", "TEXT", find.pointText, "Features with a point that has this text");
  AddValue(command, "--from", "TIME", find.from,
           "Points taken at or after this time, UTC unless it has an offset: 2024-05-01, 2024-05-01T12:00, "
           "2024-05-01T14:00:00+02:00");
  AddValue(command, "--to", "TIME", find.to,
           "Points taken at or before this time, UTC unless it has an offset; a day alone counts to its end");
  AddValue(command, "--area", "MINX,MINY,MAXX,MAXY", find.area, "Features with a point in this rectangle");
}

}  // namespace

void CommandLine::AddFind() {
  CLI::App& command =
      Add(m_app, "find",
          "List the features that meet all that is asked\n\n"
          "Without an option, all features are listed.",
          kReading,
          {"find park.kesp --name Tree --name Bush", "find park.kesp --type line --from 2024-05-01 --to 2024-05-31",
           "find park.kesp --attribute Girth --range 2: --json"});
  command.add_option("FILE", m_find.path, "The data file")->required();
  AddValue(command, "--name", "NAME", m_find.names, "Features of this name; given again, of any of the names")
      ->allow_extra_args(false);
  AddChoice(command, "--type", {"point", "line", "area"}, m_find.types,
            "Features of this type; given again, of any of the types")
      ->allow_extra_args(false);
  AddAttributeFilters(command, m_find);
  AddPointFilters(command, m_find);
  command.add_flag("--ignore-case", m_find.ignoreCase,
                   "Take a to z for A to Z in names, in names of attributes and in texts");
  command.add_flag("--partial", m_find.partial,
                   "Names and texts need only contain what is asked; names of attributes are whole all the same");
  command.add_flag("--include-empty", m_find.includeEmpty,
                   "Also features that lack what is asked for, as the library's filter does: without points, or "
                   "without attributes");
  command.add_flag("--include-deleted", m_find.includeDeleted, "Also features that are marked deleted");
  command.add_flag("--json", m_find.json, "A line of JSON for each feature, and a last one for the file");
  RunWith(command, Find, m_find);
}

void CommandLine::AddHeader() {
  CLI::App& command = Add(m_app, "header",
                          "Change texts of the header record\n\n"
                          "When one of them has no room there, nothing is changed.",
                          kChanging,
                          {"header park.kesp --set HeaderText1=Park --set HeaderText2=North",
                           "header park.kesp --set HeaderText7= --dry-run"});
  command.add_option("FILE", m_header.path, "The data file")->required();
  AddValue(command, "--set", "NAME=TEXT", m_header.settings, "The names are HeaderText1 to HeaderText7")->required();
  command.add_flag("--dry-run", m_header.dryRun, "Only say what would be changed");
  AddReport(command, m_header);
  RunWith(command, Header, m_header);
}

namespace {

void AddNumbers(CLI::App& command, DeleteOptions& numbers, const char* dryRun) {
  command.add_option("FILE", numbers.path, "The data file")->required();
  CLI::Option* const features =
      AddValue(command, "--feature", "N", numbers.features, "Features by number, with their points and attributes");
  features->transform(Decimal());
  AddValue(command, "--point", "N", numbers.points, "Points by number")->transform(Decimal())->excludes(features);
  command.add_flag("--dry-run", numbers.dryRun, dryRun);
  AddReport(command, numbers);
}

void RequireNumbers(const DeleteOptions& numbers) {
  if (numbers.features.empty() && numbers.points.empty()) throw CLI::RequiredError("--feature or --point");
}

}  // namespace

void CommandLine::AddSet() {
  CLI::App& command =
      Add(m_app, "set",
          "Change values of a feature's attributes\n\n"
          "A value is a text, a number, a date such as 2024-05-01, or a choice, with a slash before the "
          "one that is made under it: Oak/Sessile. When one of them doesn't fit, nothing is changed.",
          kChanging,
          {"set park.kesp --feature 1 --attribute Girth=2.4 --dry-run",
           "set park.kesp --feature 1 --attribute Girth=2.4 Species=Oak/Sessile"});
  command.add_option("FILE", m_set.path, "The data file")->required();
  AddValue(command, "--feature", "N", m_set.feature, "The feature by number")->required()->transform(Decimal());
  AddValue(command, "--attribute", "NAME=VALUE", m_set.settings, "The attributes by name, and their new values")
      ->required();
  command.add_flag("--dry-run", m_set.dryRun, "Only say what would be changed");
  AddReport(command, m_set);
  RunWith(command, Set, m_set);
}

void CommandLine::AddDelete() {
  CLI::App& command =
      Add(m_app, "delete",
          "Mark features or points as deleted\n\n"
          "A feature is deleted with its points, its attributes and its end. A feature whose points are all deleted is "
          "deleted with them. Records stay in the file, and undelete takes it back. When one of the numbers can't be "
          "found, nothing is deleted.",
          kChanging,
          {"delete park.kesp --feature 3 --dry-run", "delete park.kesp --feature 3 4", "delete park.kesp --point 17"});
  AddNumbers(command, m_delete, "Only say what would be deleted");
  RunWith(command, Delete, m_delete, [this] { RequireNumbers(m_delete); });
}

void CommandLine::AddUndelete() {
  CLI::App& command =
      Add(m_app, "undelete",
          "Restore features or points that are marked as deleted\n\n"
          "kesp find --include-deleted lists deleted features too. When one of the numbers can't be found, nothing "
          "is restored.",
          kChanging, {"undelete park.kesp --feature 3 --dry-run", "undelete park.kesp --feature 3 4"});
  AddNumbers(command, m_undelete, "Only say what would be restored");
  RunWith(command, Undelete, m_undelete, [this] { RequireNumbers(m_undelete); });
}

namespace {

void AddRenumber(CLI::App& command, Collisions& collisions) {
  command.add_flag_callback(
      "--renumber", [&collisions] { collisions = Collisions::kRenumber; },
      "Give new numbers to features and points whose numbers are taken; else nothing is written when one is");
}

}  // namespace

void CommandLine::AddAppend() {
  CLI::App& command =
      Add(m_app, "append", "Append the records of files to another file", kChanging,
          {"append monday.kesp tuesday.kesp park.kesp --dry-run", "append --renumber monday.kesp park.kesp"});
  command.add_option("SRC", m_append.sources, "The data files to append, and last the one that they are appended to")
      ->required()
      ->expected(2, -1)
      ->option_text("SRC... DST");
  AddRenumber(command, m_append.collisions);
  command.add_flag("--dry-run", m_append.dryRun, "Only say what would be appended");
  AddReport(command, m_append);
  RunWith(command, Append, m_append, [this] {
    m_append.destination = m_append.sources.back();
    m_append.sources.pop_back();
  });
}

namespace {

constexpr const char* kDestination = "The new file; in a folder it gets the name of SRC, and - is standard output";

}  // namespace

void CommandLine::AddCopy() {
  CLI::App& command =
      Add(m_app, "copy",
          "Copy a file byte by byte, and check it\n\n"
          "The copy takes its place when it is complete. Damage is copied with the rest.",
          kMaking, {"copy park.kesp backup/", "copy --force park.kesp old.kesp", "copy park.kesp - | gzip > park.gz"});
  command.add_option("SRC", m_copy.source, "The data file")->required();
  command.add_option("DST", m_copy.destination, kDestination)->required();
  AddForce(command, m_copy.force);
  AddReport(command, m_copy);
  RunWith(command, Copy, m_copy, [this] { TakeStandardOutput(m_copy.destination, m_copy); });
}

void CommandLine::AddMerge() {
  CLI::App& command = Add(m_app, "merge",
                          "Make one file of the records of several\n\n"
                          "The new file takes its place when it is complete; the others are never changed.",
                          kMaking,
                          {"merge monday.kesp tuesday.kesp -o week.kesp",
                           "merge --renumber monday.kesp tuesday.kesp -o - | gzip > week.gz"});
  command.add_option("SRC", m_merge.sources, "The data files")->required();
  AddValue(command, "-o,--output", "DST", m_merge.destination, "The new file; - is standard output")->required();
  AddRenumber(command, m_merge.collisions);
  AddForce(command, m_merge.force);
  AddReport(command, m_merge);
  RunWith(command, Merge, m_merge, [this] { TakeStandardOutput(m_merge.destination, m_merge); });
}

void CommandLine::AddRepair() {
  CLI::App& command =
      Add(m_app, "repair",
          "Rebuild a file without its deleted records and its damage\n\n"
          "The new file takes its place when it is complete; SRC is never changed. Without --salvage it "
          "holds what comes before the first damage.",
          kMaking,
          {"repair park.kesp rebuilt.kesp", "repair --salvage broken.kesp saved.kesp",
           "repair --format 2 --lossy park.kesp old.kesp"});
  command.add_option("SRC", m_repair.source, "The data file")->required();
  command.add_option("DST", m_repair.destination, kDestination)->required();
  AddChoice(command, "--format", {"1", "2", "3"}, m_repair.format, "File version to write (default: that of SRC)");
  command.add_flag("--lossy", m_repair.lossy, "Leave out what that version can't hold; else nothing is written");
  CLI::Option* const salvage =
      command.add_flag("--salvage", m_repair.salvage, "Go on after damage, and take each record as it is");
  command.add_flag("--first-4gib", m_repair.first4Gib, "Of a file longer than 4 GiB, take the records before that")
      ->excludes(salvage);
  AddForce(command, m_repair.force);
  AddReport(command, m_repair);
  RunWith(command, Repair, m_repair, [this] { TakeStandardOutput(m_repair.destination, m_repair); });
}

void CommandLine::AddHelp() {
  CLI::App& command = Add(m_app, "help", "Show the help of a command", kMore, {"help", "help find"});
  command.add_option("COMMAND", m_topic, "The command; without it, the list of them");
  command.callback([this] { m_command = [this](Output& out) { return ShowHelp(out); }; });
}

ExitStatus CommandLine::ShowHelp(Output& out) const {
  const CLI::App* const command = CommandNamed(m_app, m_topic);
  if (!m_topic.empty() && command == nullptr) {
    tool::Complain({}, NoCommand(m_app, m_topic));
    return kExitTrouble;
  }
  // The parser's own call would show the help of the command that was given, which is this one.
  const std::string main = m_app.get_formatter()->make_help(&m_app, m_app.get_name(), CLI::AppFormatMode::Normal);
  out.Put(command != nullptr ? command->help(m_app.get_name()) : main).Flush();
  return kExitWhole;
}

ExitStatus CommandLine::Complain(const CLI::ParseError& error) const {
  const auto given = m_app.get_subcommands();
  const CLI::App& command = given.empty() ? m_app : *given.front();
  // What nobody knows is told first: other complaints may only follow from it.
  const std::vector<std::string> unknown = command.remaining();
  std::string what = error.what();
  if (!unknown.empty() && unknown.front().starts_with('-')) {
    what = NoOption(command, unknown.front());
  } else if (!unknown.empty() && given.empty()) {
    what = NoCommand(m_app, unknown.front());
  } else {
    what = PrintablePath(what);
  }
  const std::string help = given.empty() ? "kesp help" : "kesp help " + command.get_name();
  tool::Complain({}, what.ends_with('?') ? what : what + "; try " + help);
  return kExitTrouble;
}

ExitStatus CommandLine::Run(const std::vector<std::string>& arguments, Output& out) {
  if (arguments.size() < 2) return ShowHelp(out);
  try {
    m_app.parse(ArgumentsOf(m_app, arguments));
  } catch (const CLI::Success& asked) {  // --help or --version
    std::ostringstream text;
    (void)m_app.exit(asked, text, text);
    out.Put(text.str()).Flush();
    return kExitWhole;
  } catch (const CLI::ParseError& error) {
    return Complain(error);
  }
  return m_command(out);
}

}  // namespace kesp::tool
