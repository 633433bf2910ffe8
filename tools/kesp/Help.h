// The help of the tool, and the pieces of it that its manual pages and completions are made of as well.
//
// A command's description is a line of what it does and then, after an empty line, paragraphs that tell more. Its
// footer is sections, each a line that ends with a colon and the lines under it. An option's type name is the name
// of its value: a word in capitals, or the choices with bars between them.
#pragma once
#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace kesp::tool {

// Help that is at most 80 columns wide.
class HelpFormatter : public CLI::FormatterBase {
 public:
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;
};

// "find FILE [OPTION]...", with the options that are required; `path` is what comes before: "kesp ".
std::string UsageOf(const CLI::App& command, std::string_view path);
std::string SummaryOf(const CLI::App& command);               // one line, without a full stop
std::vector<std::string> DetailsOf(const CLI::App& command);  // paragraphs; often none

struct Section {
  std::string heading;  // "Examples"
  std::vector<std::string> lines;
};
std::vector<Section> SectionsOf(const CLI::App& command);

std::vector<const CLI::App*> CommandsOf(const CLI::App& app);              // in the order of their definition
const CLI::App* CommandNamed(const CLI::App& app, std::string_view name);  // null when there is none
std::vector<const CLI::Option*> OptionsOf(const CLI::App& command);
std::vector<const CLI::Option*> PositionalsOf(const CLI::App& command);

std::vector<std::string> NamesOf(const CLI::Option& option);    // "-f", "--force"
std::string ValueOf(const CLI::Option& option);                 // "NAME"; empty for one without a value
std::vector<std::string> ChoicesOf(const CLI::Option& option);  // empty when any value will do
bool TakesMany(const CLI::Option& option);                      // several values one after another
bool TakesFile(const CLI::Option& option);

// The text in lines of at most `width` bytes, broken at spaces.
std::vector<std::string> Wrapped(std::string_view text, std::size_t width);
std::vector<std::string> Split(std::string_view text, char separator);

}  // namespace kesp::tool
