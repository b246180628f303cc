#pragma once

#include <string>
#include <vector>

// What a program's command line takes, read from the parser that makes its --help, in forms for
// manual pages and for the completion of shells. The build asks each program for them with
// `--print-options`, which stands in no help.

namespace CLI {  // NOLINT(readability-identifier-naming): the library's
class App;
}

namespace pallion {

enum class ValueKind { kAny, kFile, kDirectory };

struct OptionRow {
  std::vector<std::string> names;  // as they are typed, "-v" and "--verbose"; an operand has one
  std::string value;               // what its value is called; empty for a flag
  ValueKind kind = ValueKind::kAny;
  std::vector<std::string> choices;  // every value there is; empty where any will do
  std::string defaultValue;          // empty for none
  std::string description;
  bool required = false;
  bool repeats = false;  // takes several values
};

struct CommandRow {
  std::string path;  // the words behind the program's name, "" or "prefs get"
  std::string description;
  std::vector<std::string> subcommands;
  std::vector<OptionRow> options;
  std::vector<OptionRow> inherited;  // of the program, where they may stand behind a command too
  std::vector<OptionRow> operands;

  [[nodiscard]] std::vector<OptionRow> allOptions() const;
  [[nodiscard]] bool hasOption(const std::string& name) const;  // its own
};

struct OptionTable {
  std::string program;
  std::vector<CommandRow> commands;  // the program itself first, each followed by its own
};

OptionTable optionTable(const CLI::App& app);

// Sections COMMANDS and OPTIONS of a manual page, in mdoc.
std::string manSections(const OptionTable& table);
// Files that teach a shell to complete the program's command lines.
std::string bashCompletion(const OptionTable& table);
std::string zshCompletion(const OptionTable& table);
std::string fishCompletion(const OptionTable& table);

// Whether the command line is `--print-options man|bash|zsh|fish`; then that is printed.
bool printsOptionTable(const CLI::App& app, int argc, char** argv);

}  // namespace pallion
