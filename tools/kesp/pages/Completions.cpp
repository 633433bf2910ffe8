#include "tools/kesp/pages/Completions.h"

#include <string_view>
#include <vector>

#include "tools/kesp/Help.h"

namespace kesp::tool {
namespace {

std::string Joined(const std::vector<std::string>& words) { return CLI::detail::join(words, " "); }

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : CommandsOf(app)) names.push_back(command->get_name());
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : OptionsOf(command)) {
    for (const std::string& name : NamesOf(*option)) names.push_back(name);
  }
  return names;
}

// Help takes the name of a command; all other arguments are files.
bool TakesCommand(const CLI::App& command) {
  const auto arguments = PositionalsOf(command);
  return !arguments.empty() && !TakesFile(*arguments.front());
}

// In single quotes, for any of the shells; the texts have none themselves, or they are closed around it.
std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string BashValues(const CLI::App& command) {
  std::string cases;
  for (const CLI::Option* option : OptionsOf(command)) {
    if (ValueOf(*option).empty() || TakesFile(*option)) continue;  // files are the default
    for (const std::string& name : NamesOf(*option)) {
      cases += "    " + command.get_name() + ":" + name + ") choices=" + Quoted(Joined(ChoicesOf(*option))) + " ;;\n";
    }
  }
  return cases;
}

}  // namespace

std::string BashCompletion(const CLI::App& app) {
  std::string options;
  std::string values;
  for (const CLI::App* command : CommandsOf(app)) {
    options += "    " + command->get_name() + ") options=" + Quoted(Joined(OptionNames(*command))) + " ;;\n";
    values += BashValues(*command);
    if (TakesCommand(*command)) {
      values += "    " + command->get_name() + ":*) choices=" + Quoted(Joined(CommandNames(app))) + " ;;\n";
    }
  }
  return R"(# Completion of kesp for bash.
_kesp() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command=${COMP_WORDS[1]} options choices
  COMPREPLY=()
  # --option=value comes as three words.
  if [[ $current == = ]]; then
    current=
  elif [[ $previous == = ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  if ((COMP_CWORD == 1)); then
    compopt +o default
    mapfile -t COMPREPLY < <(compgen -W ')" +
         Joined(CommandNames(app)) + " " + Joined(OptionNames(app)) + R"(' -- "$current")
    return
  fi
  case $command in
)" + options +
         R"(    *) return ;;
  esac
  # The value of an option, unless it is a file.
  case $command:$previous in
)" + values +
         R"(    *) choices=files ;;
  esac
  if [[ $current == -* ]]; then
    choices=$options
  elif [[ $choices == files ]]; then
    return
  fi
  compopt +o default
  mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
}
complete -o default -F _kesp kesp
)";
}

namespace {

// Inside [ ] and between colons, where these mean something.
std::string ZshText(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string ZshAction(const CLI::Option& option) {
  if (TakesFile(option)) return "_files";
  const std::vector<std::string> choices = ChoicesOf(option);
  return choices.empty() ? " " : "(" + Joined(choices) + ")";
}

// Arguments of _arguments, one a line.
std::string ZshOptions(const CLI::App& command, const std::string& indent) {
  std::string lines;
  for (const CLI::Option* option : OptionsOf(command)) {
    const std::string value = ValueOf(*option);
    for (const std::string& name : NamesOf(*option)) {
      std::string line = name;
      if (!value.empty() && name.starts_with("--")) line += "=";
      line += "[" + ZshText(option->get_description()) + "]";
      if (!value.empty()) line += ":" + ZshText(value) + ":" + ZshAction(*option);
      const bool isRepeatable = option->get_expected_max() > 1;
      lines += " \\\n" + indent + Quoted((isRepeatable ? "*" : "") + line);
    }
  }
  return lines;
}

}  // namespace

std::string ZshCompletion(const CLI::App& app) {
  std::string commands;
  std::string cases;
  for (const CLI::App* command : CommandsOf(app)) {
    commands += "    " + Quoted(ZshText(command->get_name()) + ":" + SummaryOf(*command)) + "\n";
    cases += "        " + command->get_name() + ")\n          _arguments -s" + ZshOptions(*command, "            ") +
             " \\\n            " +
             (TakesCommand(*command) ? Quoted("1:command:(" + Joined(CommandNames(app)) + ")") : "'*:file:_files'") +
             " ;;\n";
  }
  return R"(#compdef kesp
# Completion of kesp for zsh.
_kesp() {
  local context state state_descr line
  typeset -A opt_args
  local -a commands
  commands=(
)" + commands +
         R"(  )
  _arguments -C)" +
         ZshOptions(app, "    ") + R"( \
    '1:command:->command' \
    '*::argument:->argument'
  case $state in
    command) _describe command commands ;;
    argument)
      case $words[1] in
)" + cases +
         R"(      esac ;;
  esac
}
_kesp "$@"
)";
}

namespace {

std::string FishOptions(const CLI::App& command, const std::string& condition) {
  std::string lines;
  for (const CLI::Option* option : OptionsOf(command)) {
    lines += "complete -c kesp -n " + Quoted(condition);
    for (const std::string& name : option->get_snames()) lines += " -s " + name;
    for (const std::string& name : option->get_lnames()) lines += " -l " + name;
    if (!ValueOf(*option).empty()) lines += TakesFile(*option) ? " -r" : " -x";
    const std::vector<std::string> choices = ChoicesOf(*option);
    if (!choices.empty()) lines += " -a " + Quoted(Joined(choices));
    lines += " -d " + Quoted(option->get_description()) + "\n";
  }
  return lines;
}

}  // namespace

std::string FishCompletion(const CLI::App& app) {
  std::string lines = "# Completion of kesp for fish.\ncomplete -c kesp -n __fish_use_subcommand -f\n";
  lines += FishOptions(app, "__fish_use_subcommand");
  for (const CLI::App* command : CommandsOf(app)) {
    lines += "complete -c kesp -n __fish_use_subcommand -a " + command->get_name() + " -d " +
             Quoted(SummaryOf(*command)) + "\n";
  }
  for (const CLI::App* command : CommandsOf(app)) {
    const std::string condition = "__fish_seen_subcommand_from " + command->get_name();
    if (TakesCommand(*command)) {
      lines += "complete -c kesp -n " + Quoted(condition) + " -f -a " + Quoted(Joined(CommandNames(app))) + "\n";
    }
    lines += FishOptions(*command, condition);
  }
  return lines;
}

}  // namespace kesp::tool
