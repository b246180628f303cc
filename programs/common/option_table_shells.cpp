#include <map>
#include <string_view>

#include "programs/common/option_table.h"

// What the files do is the same for each shell: behind an option its value, behind a "-" options,
// elsewhere commands or, where a command is complete, its operands.

namespace pallion {

namespace {

constexpr std::string_view kOrigin = " completion, made from the options that the program knows\n";

std::string joined(const std::vector<std::string>& words, std::string_view between) {
  std::string text;
  for (const std::string& word : words) {
    if (!text.empty()) text += between;
    text += word;
  }
  return text;
}

std::string replaced(std::string_view text, std::string_view characters, std::string_view prefix) {
  std::string result;
  for (const char c : text) {
    if (characters.find(c) != std::string_view::npos) result += prefix;
    result += c;
  }
  return result;
}

std::string functionName(const std::string& program, const std::string& path) {
  std::string name = "_" + program + (path.empty() ? "" : "_") + path;
  for (char& c : name) {
    if (c == '-' || c == ' ') c = '_';
  }
  return name;
}

// The first operand that a shell can say something about.
const OptionRow* operandToComplete(const CommandRow& command) {
  for (const OptionRow& operand : command.operands) {
    if (operand.kind != ValueKind::kAny || !operand.choices.empty()) return &operand;
  }
  return nullptr;
}

// --- bash

std::string bashAction(const OptionRow& row) {
  if (!row.choices.empty()) return "words " + joined(row.choices, " ");
  if (row.kind == ValueKind::kFile) return "-f";
  return row.kind == ValueKind::kDirectory ? "-d" : "none";
}

// --- zsh

std::string zshQuoted(std::string_view text) {
  std::string quoted;
  for (const char c : replaced(text, "[]:\\", "\\"))
    quoted += c == '\'' ? "'\\''" : std::string(1, c);
  return quoted;
}

std::string zshValue(const OptionRow& row) {
  std::string action = " ";
  if (!row.choices.empty()) action = "(" + joined(row.choices, " ") + ")";
  if (row.kind == ValueKind::kFile) action = "_files";
  if (row.kind == ValueKind::kDirectory) action = "_files -/";
  return ":" + zshQuoted(row.value) + ":" + action;
}

std::string zshOption(const OptionRow& option) {
  const std::string text =
      "[" + zshQuoted(option.description) + "]" + (option.value.empty() ? "" : zshValue(option));
  std::string arguments;
  for (const std::string& name : option.names) {
    arguments += " \\\n    '";
    arguments += option.repeats ? "*" : "(" + joined(option.names, " ") + ")";
    arguments += name;
    if (!option.value.empty()) arguments += name.starts_with("--") ? "=" : "+";
    arguments += text + "'";
  }
  return arguments;
}

std::string zshFunction(const OptionTable& table, const CommandRow& command) {
  std::string text = functionName(table.program, command.path) +
                     "() {\n"
                     "  local curcontext=$curcontext state line\n"
                     "  local -A opt_args\n"
                     "  _arguments -C -S :";
  for (const OptionRow& option : command.allOptions()) text += zshOption(option);
  int position = 0;
  for (const OptionRow& operand : command.operands) {
    text += " \\\n    '";
    text += operand.repeats ? "*" : std::to_string(++position) + (operand.required ? "" : ":");
    text += zshValue(operand) + "'";
  }
  if (command.subcommands.empty()) return text + "\n}\n";

  std::string descriptions;
  std::string calls;
  for (const std::string& name : command.subcommands) {
    const std::string path = command.path + (command.path.empty() ? "" : " ") + name;
    for (const CommandRow& other : table.commands) {
      if (other.path == path)
        descriptions += " \\\n        '" + name + ":" + zshQuoted(other.description) + "'";
    }
    calls += "        " + name + ") " + functionName(table.program, path) + " ;;\n";
  }
  return text +
         " \\\n    '1: :->command' '*:: :->rest'\n"
         "  case $state in\n"
         "    command)\n"
         "      local -a commands=(" +
         descriptions +
         ")\n"
         "      _describe command commands ;;\n"
         "    rest)\n"
         "      case $words[1] in\n" +
         calls +
         "      esac ;;\n"
         "  esac\n"
         "}\n";
}

// --- fish

std::string fishQuoted(std::string_view text) { return "'" + replaced(text, "'\\", "\\") + "'"; }

// Whether the words so far are those of `command` and of none of its own.
std::string fishCondition(const CommandRow& command) {
  std::string text;
  std::string_view path = command.path;
  while (!path.empty()) {
    const size_t end = std::min(path.find(' '), path.size());
    if (!text.empty()) text += "; and ";
    text += "__fish_seen_subcommand_from " + std::string(path.substr(0, end));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  if (!command.subcommands.empty()) {
    text += text.empty() ? "" : "; and ";
    text += "not __fish_seen_subcommand_from " + joined(command.subcommands, " ");
  }
  return text.empty() ? text : " -n '" + text + "'";
}

std::string fishValue(const OptionRow& row) {
  if (!row.choices.empty()) return " -a " + fishQuoted(joined(row.choices, " "));
  if (row.kind == ValueKind::kFile) return " -F";
  if (row.kind == ValueKind::kDirectory)
    return " -a '(__fish_complete_directories (commandline -ct))'";
  return "";
}

}  // namespace

std::string bashCompletion(const OptionTable& table) {
  const std::string function = functionName(table.program, "");
  std::vector<std::string> commandWords;                   // "prefs get" behind "prefs"
  std::map<std::string, std::vector<std::string>> values;  // action -> options in their commands
  std::vector<std::string> optionsWithValue;
  std::string cases;
  for (const CommandRow& command : table.commands) {
    for (const std::string& name : command.subcommands) {
      commandWords.push_back("'" + command.path + " " + name + "'");
    }
    std::vector<std::string> names;
    for (const OptionRow& option : command.allOptions()) {
      for (const std::string& name : option.names) {
        names.push_back(name);
        if (option.value.empty()) continue;
        const std::string word = "'" + command.path + " " + name + "'";
        values[bashAction(option)].push_back(word);
        optionsWithValue.push_back(word);
      }
    }
    const OptionRow* const operand = operandToComplete(command);
    std::string operands = operand ? bashAction(*operand) : "none";
    if (!command.subcommands.empty()) operands = "words " + joined(command.subcommands, " ");
    cases += "    '" + command.path + "') options='" + joined(names, " ") + "' operands='" +
             operands + "' ;;\n";
  }

  std::string text =
      "# bash" + std::string(kOrigin) + function +
      "() {\n"
      "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
      "  local command= word i action= options= operands=\n"
      "  COMPREPLY=()\n"
      "  # \"--option=value\" comes as three words.\n"
      "  if [[ $current == = ]]; then\n"
      "    current=\n"
      "  elif [[ $previous == = ]]; then\n"
      "    previous=${COMP_WORDS[COMP_CWORD - 2]}\n"
      "  fi\n"
      "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
      "    word=${COMP_WORDS[i]}\n"
      "    case \"$command $word\" in\n";
  if (!commandWords.empty()) {
    text += "      " + joined(commandWords, " | ") + ") command=${command:+$command }$word ;;\n";
  }
  if (!optionsWithValue.empty()) {
    text +=
        "      " + joined(optionsWithValue, " | ") +
        ")\n        if [[ ${COMP_WORDS[i + 1]-} == = ]]; then ((++i)); fi\n        ((++i)) ;;\n";
  }
  text +=
      "    esac\n"
      "  done\n"
      "  case \"$command $previous\" in\n";
  for (const auto& [action, words] : values) {
    text += "    " + joined(words, " | ") + ") action='" + action + "' ;;\n";
  }
  return text +
         "  esac\n"
         "  case $command in\n" +
         cases +
         "  esac\n"
         "  if [[ -z $action && $current == -* ]]; then action=\"words $options\"; fi\n"
         "  action=${action:-$operands}\n"
         "  case $action in\n"
         "    -f | -d)\n"
         "      compopt -o filenames 2>/dev/null\n"
         "      mapfile -t COMPREPLY < <(compgen \"$action\" -- \"$current\") ;;\n"
         "    words*) mapfile -t COMPREPLY < <(compgen -W \"${action#words}\" -- \"$current\") ;;\n"
         "  esac\n"
         "}\n"
         "complete -F " +
         function + " " + table.program + "\n";
}

std::string zshCompletion(const OptionTable& table) {
  std::string text = "#compdef " + table.program + "\n# zsh" + std::string(kOrigin);
  for (const CommandRow& command : table.commands) text += "\n" + zshFunction(table, command);
  return text + "\n" + functionName(table.program, "") + " \"$@\"\n";
}

std::string fishCompletion(const OptionTable& table) {
  const std::string complete = "complete -c " + table.program;
  std::string text = "# fish" + std::string(kOrigin) + complete + " -f\n";
  for (const CommandRow& command : table.commands) {
    const std::string condition = fishCondition(command);
    for (const CommandRow& other : table.commands) {
      const size_t space = other.path.rfind(' ');
      const bool nested = space != std::string::npos;
      if (other.path.empty() || other.path.substr(0, nested ? space : 0) != command.path) continue;
      text += complete + condition + " -a " + other.path.substr(nested ? space + 1 : 0) + " -d " +
              fishQuoted(other.description) + "\n";
    }
    for (const OptionRow& option : command.allOptions()) {
      text += complete + condition;
      for (const std::string& name : option.names) {
        text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      }
      if (!option.value.empty()) text += " -r" + fishValue(option);
      text += " -d " + fishQuoted(option.description) + "\n";
    }
    if (const OptionRow* const operand = operandToComplete(command))
      text += complete + condition + fishValue(*operand) + "\n";
  }
  return text;
}

}  // namespace pallion
