#include <string_view>

#include "programs/common/option_table.h"

namespace pallion {

namespace {

constexpr std::string_view kListBegins = ".Bl -tag -width Ds\n";
constexpr std::string_view kListEnds = ".El\n";

// A minus that stays one, so that it can be copied to a command line, and no escapes.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '\\') {
      result += "\\e";
    } else if (c == '-') {
      result += "\\-";
    } else {
      result += c;
    }
  }
  return result;
}

// In lines of a length that the language's checkers don't find fault with, none of which is taken
// for a request.
std::string wrapped(const std::string& text) {
  constexpr size_t kLine = 78;
  std::string result;
  size_t begin = 0;
  const auto addLine = [&](size_t end) {
    if (text[begin] == '.' || text[begin] == '\'') result += "\\&";
    result += text.substr(begin, end - begin) + "\n";
  };
  while (text.size() - begin > kLine) {
    const size_t blank = text.rfind(' ', begin + kLine);
    if (blank == std::string::npos || blank <= begin) break;
    addLine(blank);
    begin = blank + 1;
  }
  addLine(text.size());
  return result;
}

std::string sentence(const std::string& text) {
  return wrapped(escaped(text) + (text.ends_with('.') ? "" : "."));
}

std::string item(const OptionRow& option) {
  std::string text = ".It";
  for (const std::string& name : option.names) {
    if (&name != &option.names.front()) text += " ,";
    text += " Fl " + escaped(name.substr(1));
  }
  if (!option.value.empty()) text += " Ar " + escaped(option.value);
  text += "\n" + sentence(option.description);
  if (option.required) text += "It must be given.\n";
  if (!option.defaultValue.empty())
    text += "The default is " + escaped(option.defaultValue) + ".\n";
  return text;
}

std::string optionList(const std::vector<OptionRow>& options) {
  std::string text(kListBegins);
  for (const OptionRow& option : options) text += item(option);
  return text + std::string(kListEnds);
}

// With the options that not every command has.
std::string item(const CommandRow& command, const CommandRow& program) {
  std::string text = ".It Cm " + escaped(command.path);
  std::vector<OptionRow> own;
  for (const OptionRow& option : command.options) {
    if (!program.hasOption(option.names.back())) own.push_back(option);
  }
  if (!own.empty()) text += " Oo Ar options Oc";
  for (const OptionRow& operand : command.operands) {
    text += (operand.required ? " Ar " : " Oo Ar ") + escaped(operand.value);
    if (operand.repeats) text += " ...";
    if (!operand.required) text += " Oc";
  }
  text += "\n" + sentence(command.description);
  if (!own.empty()) text += optionList(own);
  return text;
}

}  // namespace

std::string manSections(const OptionTable& table) {
  std::string text;
  for (const CommandRow& command : table.commands) {
    // One that only holds others does nothing by itself.
    if (command.path.empty() || !command.subcommands.empty()) continue;
    if (text.empty()) text = ".Sh COMMANDS\n" + std::string(kListBegins);
    text += item(command, table.commands.front());
  }
  if (!text.empty()) text += kListEnds;
  return text + ".Sh OPTIONS\n" + optionList(table.commands.front().options);
}

}  // namespace pallion
