#include "programs/common/option_table.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <utility>

#include "programs/common/console.h"

namespace pallion {

namespace {

ValueKind kindOfValue(const std::string& name) {
  for (const char* file : {"FILE", "PATH", "SRC", "DST"}) {
    if (name == file) return ValueKind::kFile;
  }
  for (const char* directory : {"DIR", "BASE", "BUNDLE"}) {
    if (name == directory) return ValueKind::kDirectory;
  }
  return ValueKind::kAny;
}

// From "FORM:{text,json}": the parser adds to the type's name what its checks say of themselves.
std::vector<std::string> choicesOf(const std::string& typeName) {
  std::vector<std::string> choices;
  const size_t begin = typeName.find(":{");
  if (begin == std::string::npos) return choices;
  const size_t end = typeName.find('}', begin);
  for (size_t at = begin + 2; at < end;) {
    const size_t comma = std::min(typeName.find(',', at), end);
    choices.push_back(typeName.substr(at, comma - at));
    at = comma + 1;
  }
  return choices;
}

OptionRow rowOf(const CLI::Option& option) {
  OptionRow row;
  const std::string type = option.get_type_name();
  row.choices = choicesOf(type);
  if (option.nonpositional()) {
    for (const std::string& name : option.get_snames()) row.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) row.names.push_back("--" + name);
    if (option.get_items_expected_max() != 0) row.value = type.substr(0, type.find(':'));
  } else {
    row.names.push_back(option.get_single_name());
    row.value = row.names.front();
  }
  row.kind = kindOfValue(row.value);
  row.defaultValue = option.get_default_str();
  row.description = option.get_description();
  row.required = option.get_required();
  row.repeats = option.get_items_expected_max() > 1;
  return row;
}

void addCommand(const CLI::App& app, const std::string& path, std::vector<OptionRow> inherited,
                std::vector<CommandRow>& commands) {
  CommandRow command;
  command.path = path;
  command.description = app.get_description();
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty()) continue;  // hidden
    (option->nonpositional() ? command.options : command.operands).push_back(rowOf(*option));
  }
  std::erase_if(inherited,
                [&](const OptionRow& row) { return command.hasOption(row.names.back()); });
  command.inherited = inherited;
  const std::vector<const CLI::App*> subcommands =
      app.get_subcommands([](const CLI::App*) { return true; });
  for (const CLI::App* subcommand : subcommands)
    command.subcommands.push_back(subcommand->get_name());

  if (!app.get_fallthrough()) {
    inherited.clear();
  } else {
    inherited.insert(inherited.begin(), command.options.begin(), command.options.end());
  }
  commands.push_back(std::move(command));
  for (const CLI::App* subcommand : subcommands) {
    addCommand(*subcommand, path + (path.empty() ? "" : " ") + subcommand->get_name(), inherited,
               commands);
  }
}

}  // namespace

std::vector<OptionRow> CommandRow::allOptions() const {
  std::vector<OptionRow> all = options;
  all.insert(all.end(), inherited.begin(), inherited.end());
  return all;
}

bool CommandRow::hasOption(const std::string& name) const {
  return std::any_of(options.begin(), options.end(), [&](const OptionRow& row) {
    return std::find(row.names.begin(), row.names.end(), name) != row.names.end();
  });
}

OptionTable optionTable(const CLI::App& app) {
  OptionTable table;
  table.program = app.get_name();
  addCommand(app, "", {}, table.commands);
  return table;
}

bool printsOptionTable(const CLI::App& app, int argc, char** argv) {
  static constexpr std::array<std::pair<const char*, std::string (*)(const OptionTable&)>, 4>
      kForms = {{{"man", manSections},
                 {"bash", bashCompletion},
                 {"zsh", zshCompletion},
                 {"fish", fishCompletion}}};
  if (argc != 3 || argv[1] != std::string("--print-options")) return false;
  for (const auto& [name, form] : kForms) {
    if (argv[2] == std::string(name)) return print(form(optionTable(app)));
  }
  return false;
}

}  // namespace pallion
