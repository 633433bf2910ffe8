#include "tools/kesp/pages/ManPages.h"

#include <string_view>
#include <vector>

#include "tools/kesp/Help.h"

namespace kesp::tool {
namespace {

// Text that roff prints as it is. A bare hyphen may become a dash, and a line that begins with . or ' would be a
// request.
std::string Plain(std::string_view text) {
  std::string plain;
  for (const char c : text) {
    if (c == '-') {
      plain += "\\-";
    } else if (c == '\\') {
      plain += "\\e";
    } else {
      plain += c;
    }
  }
  return plain.starts_with('.') || plain.starts_with('\'') ? "\\&" + plain : plain;
}

std::string Bold(std::string_view text) { return "\\fB" + Plain(text) + "\\fR"; }
std::string Italic(std::string_view text) { return "\\fI" + Plain(text) + "\\fR"; }

std::string Paragraph(std::string_view text) {
  std::string lines;
  for (const std::string& line : Wrapped(text, 70)) lines += Plain(line) + "\n";
  return lines;
}

std::string Upper(std::string ascii) {
  for (char& c : ascii) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  return ascii;
}

std::string Heading(const std::string& name) { return ".SH " + Upper(name) + "\n"; }

std::string Entry(const std::string& name, std::string_view text) { return ".TP\n" + name + "\n" + Paragraph(text); }

std::string Options(const CLI::App& command) {
  std::string list;
  for (const CLI::Option* argument : PositionalsOf(command)) {
    list += Entry(Italic(argument->get_name(true)), argument->get_description());
  }
  for (const CLI::Option* option : OptionsOf(command)) {
    std::string names;
    for (const std::string& name : NamesOf(*option)) names += (names.empty() ? "" : ", ") + Bold(name);
    if (const std::string value = ValueOf(*option); !value.empty()) names += " " + Italic(value);
    list += Entry(TakesMany(*option) ? names + " ..." : names, option->get_description());
  }
  return list;
}

// Lines such as "  0  all was done" become a list; others are printed as they are.
std::string Body(const Section& section) {
  std::string list;
  std::string verbatim;
  for (const std::string& line : section.lines) {
    const std::string text = line.substr(line.find_first_not_of(' '));
    if (const std::size_t gap = text.find("  "); gap != std::string::npos) {
      list += Entry(Bold(text.substr(0, gap)), text.substr(gap + 2));
    } else {
      verbatim += Plain(text) + "\n";
    }
  }
  return verbatim.empty() ? list : list + ".nf\n" + verbatim + ".fi\n";
}

std::string Sections(const CLI::App& command) {
  std::string sections;
  for (const Section& section : SectionsOf(command)) sections += Heading(section.heading) + Body(section);
  return sections;
}

std::string Description(const CLI::App& command) {
  std::string text = Paragraph(SummaryOf(command) + ".");
  for (const std::string& paragraph : DetailsOf(command)) text += ".PP\n" + Paragraph(paragraph);
  return text;
}

// From the title to the description. `page` is as "kesp-find", `call` as "kesp find".
std::string Beginning(const CLI::App& app, const CLI::App& command, const std::string& page, const std::string& call,
                      const std::string& date) {
  std::string summary = SummaryOf(command);
  if (summary[0] >= 'A' && summary[0] <= 'Z') summary[0] = static_cast<char>(summary[0] - 'A' + 'a');
  const std::string arguments = UsageOf(command, "").substr(command.get_name().size() + 1);
  return ".TH " + Plain(Upper(page)) + " 1 " + date + " \"" + app.version() + "\" \"Kesp data files\"\n" +
         Heading("Name") + Plain(page) + " \\- " + Plain(summary) + "\n" + Heading("Synopsis") + Bold(call) + " " +
         Plain(arguments) + "\n" + Heading("Description") + Description(command);
}

std::string SeeAlso(const std::vector<std::string>& pages) {
  std::string list = Heading("See also");
  for (const std::string& page : pages) {
    list += ".BR " + Plain(page) + " (1)" + (page == pages.back() ? "" : ",") + "\n";
  }
  return list;
}

}  // namespace

std::string ManPageOfTool(const CLI::App& app, const std::string& date) {
  std::string page = Beginning(app, app, app.get_name(), app.get_name(), date);
  std::vector<std::string> others;
  std::string group;
  for (const CLI::App* command : CommandsOf(app)) {
    if (command->get_group() != group) page += Heading(group = command->get_group());
    page += Entry(Bold(command->get_name()), SummaryOf(*command) + ".");
    others.push_back(app.get_name() + "-" + command->get_name());
  }
  return page + Heading("Options") + Options(app) + Sections(app) + SeeAlso(others);
}

std::string ManPageOfCommand(const CLI::App& app, const CLI::App& command, const std::string& date) {
  const std::string& name = command.get_name();
  return Beginning(app, command, app.get_name() + "-" + name, app.get_name() + " " + name, date) + Heading("Options") +
         Options(command) + Sections(app) + Sections(command) + SeeAlso({app.get_name()});
}

}  // namespace kesp::tool
