#include "programs/palliontool/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>

#include "programs/common/console.h"
#include "programs/common/exit_status.h"
#include "programs/common/option_table.h"
#include "programs/palliontool/commands.h"
#include "programs/palliontool/whole_number.h"

namespace pallion::tool {

namespace {

constexpr const char* kDescription = "The operations of the installer product from a shell.";

constexpr const char* kFooter = R"(Examples:
  palliontool digest notes.archive | sha256sum -c
  palliontool info-plist Sample.app --key QXBundleIdentifier --to json
  palliontool config --root /mnt/device
  palliontool SUBCOMMAND --help               options and examples of one of them

Exit status:
  0  done, or yes
  1  failed, or no; one line on standard error says why
  2  wrong usage, or the root can't be entered)";

// Makes the subcommands. Every one has its own --root, so that its help shows it.
class Parser {
 public:
  Parser(CLI::App& app, Options& options) : app_(app), options_(options) {
    app_.set_version_flag("--version", "palliontool " PALLION_VERSION);
    app_.footer(kFooter);
    app_.require_subcommand(1);
    addRoot(app_);
    addFileCommands();
    addAttributeCommands();
    addListCommands();
    addConfigurationCommands();
  }

 private:
  void addRoot(CLI::App& app) {
    notEmpty(app.add_option("--root", options_.root,
                            "Directory that becomes /; then every path is one inside it"))
        ->type_name("DIR");
  }

  CLI::App& add(CLI::App& parent, const char* name, int (*command)(const Options&),
                const char* description, const char* examples) {
    CLI::App* const added = parent.add_subcommand(name, description);
    addRoot(*added);
    added->footer(std::string("Examples:\n") + examples);
    added->callback([this, command] { options_.command = command; });
    return *added;
  }
  CLI::App& add(const char* name, int (*command)(const Options&), const char* description,
                const char* examples) {
    return add(app_, name, command, description, examples);
  }

  static CLI::Option* notEmpty(CLI::Option* option) {
    return option->type_name("")->check(
        [](const std::string& text) { return text.empty() ? "empty" : std::string(); });
  }
  static CLI::Option* text(CLI::App& app, const char* name, std::string& value,
                           const char* description) {
    return notEmpty(app.add_option(name, value, description))->required();
  }

  template <class T, class Target>
  static CLI::Option* number(CLI::App& app, const char* name, Target& target,
                             const char* description, T most = std::numeric_limits<T>::max()) {
    const auto read = [name, &target, most](const std::string& digits) {
      const std::optional<T> value = wholeNumber<T>(digits);
      if (!value || *value > most)
        throw CLI::ValidationError(name, "no number that fits: " + digits);
      target = *value;
    };
    return app.add_option_function<std::string>(name, read, description)->type_name("");
  }

  void addFileCommands() {
    CLI::App& digestCommand = add("digest", digest, "SHA-256 digests, as sha256sum prints them",
                                  "  palliontool digest *.archive > SHA256SUMS\n"
                                  "  palliontool digest notes.archive | sha256sum -c");
    notEmpty(digestCommand.add_option("FILE", options_.files, "Files"))->required();

    CLI::App& realPathCommand =
        add("real-path", realPath,
            "The path without links, \".\" and \"..\", if it lies inside a directory",
            "  palliontool real-path --base /srv/app/ /srv/app/link\n"
            "A BASE or PATH without a / at the end is not marked as a directory.");
    text(realPathCommand, "--base", options_.base, "Directory that must hold it")
        ->type_name("BASE");
    text(realPathCommand, "PATH", options_.path, "Begins with the base's path");

    CLI::App& ownership =
        add("standardize-ownership", standardizeOwnership,
            "Give a whole tree one owner and group, and the modes 0755 and 0644",
            "  palliontool standardize-ownership --uid 33 --gid 33 --validate-symlinks Sample.app");
    // The highest number of each means "leave it" to the kernel.
    constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max() - 1;
    number<uint32_t>(ownership, "--uid", options_.uid, "User", kMost)->required()->type_name("N");
    number<uint32_t>(ownership, "--gid", options_.gid, "Group", kMost)->required()->type_name("N");
    ownership.add_flag("--validate-symlinks", options_.validateSymlinks,
                       "Stop at a link that leads out of the tree");
    text(ownership, "PATH", options_.path, "The tree");

    CLI::App& moveCommand = add("move", moveItem, "Move an item with everything in it",
                                "  palliontool move Documents /srv/new/Documents");
    CLI::App& copyCommand = add("copy", copyItem, "Copy an item with everything in it",
                                "  palliontool copy Documents /srv/new/Documents");
    for (CLI::App* const command : {&moveCommand, &copyCommand}) {
      text(*command, "SRC", options_.path, "The item; a link stays a link");
      text(*command, "DST", options_.destination, "Its new path, not the directory to put it into");
    }
    CLI::App& removeCommand = add("remove", removeItem, "Remove an item with everything in it",
                                  "  palliontool remove Documents");
    text(removeCommand, "PATH", options_.path, "The item; it need not be there");
    CLI::App& listCommand =
        add("list", listDirectory, "The entries of a directory, directories with a / at the end",
            "  palliontool list /Applications\n"
            "  palliontool list --ignore-links /Applications");
    text(listCommand, "DIR", options_.path, "The directory");
    listCommand.add_flag("--ignore-links", options_.ignoreLinks, "Leave out symbolic links");
  }

  void addAttributeCommands() {
    CLI::App& placeholderCommand =
        add("placeholder", placeholder, "Whether a bundle is a placeholder: the exit status says",
            "  palliontool placeholder Sample.app && echo yes\n"
            "  palliontool placeholder --mark Sample.app");
    text(placeholderCommand, "BUNDLE", options_.path, "The bundle");
    placeholderCommand.add_flag("--mark", options_.mark, "Make it one");

    CLI::App& installTypeCommand =
        add("install-type", installType, "Show a bundle's install type; with a number set it first",
            "  palliontool install-type Sample.app\n"
            "  palliontool install-type Sample.app 2");
    text(installTypeCommand, "BUNDLE", options_.path, "The bundle");
    number<uint64_t>(installTypeCommand, "N", options_.installType, "Its new install type");

    CLI::App& classCommand = add("protection-class", protectionClass,
                                 "Show an item's data-protection class; with a number set it first",
                                 "  palliontool protection-class Documents\n"
                                 "  palliontool protection-class Documents 4");
    text(classCommand, "PATH", options_.path, "File or directory");
    number<int32_t>(classCommand, "N", options_.protectionClass, "Its new class");
  }

  void addForm(CLI::App& app) {
    app.add_option_function<std::string>(
           "--to",
           [this](const std::string& name) {
             options_.form = name == "json"     ? ListForm::kJSON
                             : name == "binary" ? ListForm::kBinary
                                                : ListForm::kXML;
           },
           "Form: xml (default), binary or json")
        ->check(CLI::IsMember({"xml", "binary", "json"}))
        ->type_name("FORM");
  }

  void addListCommands() {
    CLI::App& infoCommand =
        add("info-plist", infoPlist, "Information property list of a bundle",
            "  palliontool info-plist Sample.app\n"
            "  palliontool info-plist Sample.app --key QXBundleIdentifier --key QXBundleVersion");
    text(infoCommand, "BUNDLE", options_.path, "The bundle");
    // One word each, which is taken as it stands.
    notEmpty(infoCommand.add_option("--key", options_.keys, "Show these keys only"))
        ->allow_extra_args(false)
        ->type_name("KEY");
    addForm(infoCommand);
    CLI::App& plistCommand = add("plist", plist, "A property list in another form",
                                 "  palliontool plist Info.plist\n"
                                 "  palliontool plist Info.plist --to binary > Info.bplist\n"
                                 "In JSON data is base64, dates are RFC 3339 and sets are arrays.");
    text(plistCommand, "FILE", options_.path, "XML or binary property list");
    addForm(plistCommand);
  }

  void addConfigurationCommands() {
    CLI::App& configuration = add("config", showConfiguration,
                                  "Every location, list and preference of the product; makes its "
                                  "working directories, as asking for them does",
                                  "  palliontool config\n"
                                  "  palliontool config --root /mnt/device --json");
    CLI::App& builtIn =
        add("built-in", showBuiltIn, "Built-in applications and frameworks, and disk images",
            "  palliontool built-in\n"
            "  palliontool built-in --root /mnt/device --json");
    for (CLI::App* const command : {&configuration, &builtIn}) {
      command->add_flag("--json", options_.json, "Print JSON");
    }
    CLI::App* const prefs = app_.add_subcommand("prefs", "The product's preferences");
    prefs->require_subcommand(1);
    addRoot(*prefs);
    prefs->footer(
        "Examples:\n"
        "  palliontool prefs get SkipThinningCheck\n"
        "  palliontool prefs set SkipThinningCheck true");
    CLI::App& get = add(*prefs, "get", getPreference, "Print a value",
                        "  palliontool prefs get SkipThinningCheck");
    CLI::App& set = add(*prefs, "set", setPreference, "Store a value",
                        "  palliontool prefs set SkipThinningCheck true\n"
                        "  palliontool prefs set SimultaneousInstallsNumber 2");
    for (CLI::App* const command : {&get, &set}) text(*command, "KEY", options_.key, "Its name");
    set.add_option("VALUE", options_.value, "true, false or an integer; anything else is a string")
        ->required()
        ->type_name("");
  }

  CLI::App& app_;
  Options& options_;
};

// A word "[...]" means a list to the parser, and would be taken apart where there may be several: a
// mark in front keeps it whole.
constexpr char kMark = '\x01';

std::vector<std::string> words(int argc, char** argv) {
  std::vector<std::string> all(argv + std::min(argc, 1), argv + argc);
  for (std::string& word : all) {
    if (word.starts_with('[') || word.starts_with(kMark)) word.insert(word.begin(), kMark);
  }
  return {all.rbegin(), all.rend()};  // the last one first, as the parser wants them
}

void removeMark(std::string& word) {
  if (word.starts_with(kMark)) word.erase(0, 1);
}

}  // namespace

std::variant<Options, int> parseOptions(int argc, char** argv) {
  Options options;
  CLI::App app(kDescription, "palliontool");
  const Parser parser(app, options);
  if (printsOptionTable(app, argc, argv)) return kExitSuccess;
  try {
    app.parse(words(argc, argv));
  } catch (const CLI::CallForHelp&) {
    print(app.help());
    return kExitSuccess;
  } catch (const CLI::CallForVersion& version) {
    print(std::string(version.what()) + "\n");
    return kExitSuccess;
  } catch (const CLI::ParseError& error) {
    const bool unknown = app.get_subcommands().empty() && app.remaining_size() != 0;
    complain(unknown ? "no such subcommand: " + app.remaining().front() : error.what());
    return kExitUsage;
  }
  for (auto* const list : {&options.files, &options.keys}) {
    for (std::string& word : *list) removeMark(word);
  }
  for (std::string* const word : {&options.root, &options.path, &options.destination, &options.base,
                                  &options.key, &options.value}) {
    removeMark(*word);
  }
  return options;
}

}  // namespace pallion::tool
