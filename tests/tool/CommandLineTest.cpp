// The command line itself: help, complaints about wrong usage, and what is made from the definitions.
#include <regex>
#include <set>

#include "tests/tool/RunTool.h"

namespace kesp::test {
namespace {

std::set<std::string> AllIn(const std::string& text, const char* pattern) {
  const std::regex wanted(pattern);
  std::set<std::string> found;
  for (std::sregex_iterator i(text.begin(), text.end(), wanted), end; i != end; ++i) found.insert((*i)[1]);
  return found;
}

TEST_F(Tool, HelpFitsTheScreenAndEveryPageAndCompletionNamesAllThatItNames) {
  const std::filesystem::path share = KESP_TOOL_SHARE;
  const std::string main = Run("").out;
  for (const char* const line : {"--help", "help"}) EXPECT_EQ(Run(line), (ToolResult{0, main, ""}));
  const std::set<std::string> commands = AllIn(main, "\n  ([a-z]+)  ");
  EXPECT_GE(commands.size(), 9u) << main;
  for (const std::string& command : commands) {
    const ToolResult help = Run(command + " --help");
    EXPECT_EQ(Run("help " + command), help);
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_NE(help.out.find("\nExamples:\n  kesp " + command), std::string::npos) << help.out;
    EXPECT_TRUE(AllIn(main + help.out, "(?:^|\n)([^\n]{81,})").empty()) << help.out;
    if (*KESP_TOOL_SHARE == 0) continue;  // not made for this system
    // Unescaped: the page's hyphens, and what separates the options of fish.
    const std::string page = Replaced(TextOf(share / ("man/man1/kesp-" + command + ".1")), "\\-", "-");
    const std::string bash = TextOf(share / "bash-completion/completions/kesp");
    const std::string zsh = TextOf(share / "zsh/site-functions/_kesp");
    const std::string fish = TextOf(share / "fish/vendor_completions.d/kesp.fish");
    EXPECT_NE(TextOf(share / "man/man1/kesp.1").find("\\fB" + command + "\\fR"), std::string::npos) << command;
    for (const std::string& option : AllIn(help.out, "\n  (?:-[a-z], )?--([a-z0-9-]+)")) {
      EXPECT_NE(page.find("--" + option + "\\fR"), std::string::npos) << command << option;
      EXPECT_TRUE(std::regex_search(bash, std::regex(command + "\\) options='[^']*--" + option + "[ ']"))) << option;
      EXPECT_TRUE(std::regex_search(zsh, std::regex(command + "\\)\n( {10,}[^\n]*\n)*? {12}'\\*?--" + option + "[=[]")))
          << command << option;
      EXPECT_TRUE(std::regex_search(fish, std::regex("from " + command + "'( -s .)? -l " + option + " "))) << option;
    }
  }
}

TEST_F(Tool, SaysWhatIsWrongAndWhatWasLikelyMeant) {
  const std::pair<const char*, const char*> kCases[] = {
      {"frob @a", "there is no command frob; try kesp help"},
      {"fnid @a", "there is no command fnid; did you mean find?"},
      {"help valdate", "there is no command valdate; did you mean validate?"},
      {"find @a --nmae=Oak", "there is no option --nmae; did you mean --name?"},
      {"find @a --frobnicate", "there is no option --frobnicate; try kesp help find"},
      {"info", "FILE is required; try kesp help info"},
      {"dump a b", "The following argument was not expected: b; try kesp help dump"},
      {"repair @a - --json", "--json: the new file itself goes to standard output; try kesp help repair"}};
  for (const auto& [line, complaint] : kCases) EXPECT_EQ(Run(line), (ToolResult{2, "", complaint})) << line;
}

}  // namespace
}  // namespace kesp::test
