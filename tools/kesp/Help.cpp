#include "tools/kesp/Help.h"

#include <algorithm>
#include <array>

namespace kesp::tool {
namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kTextColumn = 26;

// Two columns; a long name has the first line to itself.
std::string Row(const std::string& name, const std::string& text) {
  std::string row = "  " + name;
  if (row.size() + 2 > kTextColumn)
    row += "\n" + std::string(kTextColumn, ' ');
  else
    row.resize(kTextColumn, ' ');
  const std::vector<std::string> lines = Wrapped(text, kWidth - kTextColumn);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i != 0) row += "\n" + std::string(kTextColumn, ' ');
    row += lines[i];
  }
  return row + "\n";
}

std::string Spelling(const CLI::Option& option) {
  if (!option.get_option_text().empty()) return option.get_option_text();
  std::string spelling = CLI::detail::join(NamesOf(option), ", ");
  if (spelling.empty()) spelling = option.get_name(true);
  if (const std::string value = ValueOf(option); !value.empty()) spelling += " " + value;
  return TakesMany(option) ? spelling + "..." : spelling;
}

std::string Rows(const std::string& heading, const std::vector<const CLI::Option*>& options) {
  if (options.empty()) return {};
  std::string rows = "\n" + heading + ":\n";
  for (const CLI::Option* option : options) rows += Row(Spelling(*option), option->get_description());
  return rows;
}

std::string Paragraph(std::string_view text) { return CLI::detail::join(Wrapped(text, kWidth), "\n") + "\n"; }

}  // namespace

std::string HelpFormatter::make_help(const CLI::App* app, std::string name, CLI::AppFormatMode /*mode*/) const {
  const std::string path = name.substr(0, name.size() - app->get_name().size());
  std::string help = SummaryOf(*app) + ".\n";
  help += "\nUsage: " + UsageOf(*app, path) + "\n";
  for (const std::string& paragraph : DetailsOf(*app)) help += "\n" + Paragraph(paragraph);
  std::string group;
  for (const CLI::App* command : CommandsOf(*app)) {
    if (command->get_group() != group) help += "\n" + (group = command->get_group()) + ":\n";
    help += Row(command->get_name(), SummaryOf(*command));
  }
  help += Rows("Arguments", PositionalsOf(*app)) + Rows("Options", OptionsOf(*app));
  for (const Section& section : SectionsOf(*app)) {
    help += "\n" + section.heading + ":\n" + CLI::detail::join(section.lines, "\n") + "\n";
  }
  return help;
}

std::string UsageOf(const CLI::App& command, std::string_view path) {
  std::string usage = std::string(path) + command.get_name();
  if (!CommandsOf(command).empty()) return usage + " COMMAND [ARGUMENT]...";
  for (const CLI::Option* argument : PositionalsOf(command)) {
    const std::string spelling = Spelling(*argument);
    usage += argument->get_required() ? " " + spelling : " [" + spelling + "]";
  }
  for (const CLI::Option* option : OptionsOf(command)) {
    if (!option->get_required()) continue;
    usage += " " + NamesOf(*option).front() + " " + ValueOf(*option) + (TakesMany(*option) ? "..." : "");
  }
  return usage + " [OPTION]...";
}

std::string SummaryOf(const CLI::App& command) { return Split(command.get_description(), '\n').front(); }

std::vector<std::string> DetailsOf(const CLI::App& command) {
  std::vector<std::string> paragraphs = Split(command.get_description(), '\n');
  paragraphs.erase(paragraphs.begin());
  std::erase(paragraphs, "");
  return paragraphs;
}

std::vector<Section> SectionsOf(const CLI::App& command) {
  std::vector<Section> sections;
  for (const std::string& line : Split(command.get_footer(), '\n')) {
    if (line.ends_with(':')) {
      sections.push_back({line.substr(0, line.size() - 1), {}});
    } else if (!line.empty()) {
      sections.back().lines.push_back(line);
    }
  }
  return sections;
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* CommandNamed(const CLI::App& app, std::string_view name) {
  const auto commands = app.get_subcommands([&](const CLI::App* command) { return command->get_name() == name; });
  return commands.empty() ? nullptr : commands.front();
}

std::vector<const CLI::Option*> OptionsOf(const CLI::App& command) {
  std::vector<const CLI::Option*> options =
      command.get_options([](const CLI::Option* option) { return option->nonpositional(); });
  // What is the same everywhere comes last.
  std::stable_partition(options.begin(), options.end(), [&](const CLI::Option* option) {
    return option != command.get_help_ptr() && option->get_name() != "--version";
  });
  return options;
}

std::vector<const CLI::Option*> PositionalsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

std::vector<std::string> NamesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

std::string ValueOf(const CLI::Option& option) {
  return option.get_positional() || option.get_type_size() == 0 ? std::string() : option.get_type_name();
}

std::vector<std::string> ChoicesOf(const CLI::Option& option) {
  const std::string value = ValueOf(option);
  return value.find('|') == std::string::npos ? std::vector<std::string>() : Split(value, '|');
}

bool TakesMany(const CLI::Option& option) { return option.get_allow_extra_args(); }

bool TakesFile(const CLI::Option& option) {
  constexpr std::array<std::string_view, 3> kFiles{"FILE", "SRC", "DST"};
  const std::string what = option.get_positional() ? option.get_name(true) : ValueOf(option);
  return std::any_of(kFiles.begin(), kFiles.end(), [&](std::string_view file) { return what.starts_with(file); });
}

std::vector<std::string> Wrapped(std::string_view text, std::size_t width) {
  std::vector<std::string> lines(1);
  for (const std::string& word : Split(text, ' ')) {
    if (!lines.back().empty() && lines.back().size() + 1 + word.size() > width) lines.emplace_back();
    lines.back() += (lines.back().empty() ? "" : " ") + word;
  }
  return lines;
}

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

}  // namespace kesp::tool
