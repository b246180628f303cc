#include "programs/migration_host/options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <fcntl.h>
#include <map>

#include "programs/common/console.h"
#include "programs/common/option_table.h"
#include "programs/migration_host/exit_status.h"

namespace pallion::host {

namespace {

constexpr const char* kDescription =
    "Runs the application migrator over a device's old layout, or shows what is installed there.";

constexpr const char* kFooter = R"(Examples:
  migration-host                              migrate the running system
  migration-host --root /mnt/device           migrate an attached device image
  migration-host --root /mnt/device --json    the same, with JSON lines on standard output
  migration-host plan --root /mnt/device      show what a migration would do; changes nothing
  migration-host --root /mnt/device --expect-plan ID
                                              migrate only what the plan of that id has shown
  migration-host apps --root /mnt/device      show the applications that are installed there
  migration-host report --root /mnt/device    show the report of the last run there
  migration-host snapshot --root /mnt/device --out before.snapshot
  migration-host verify --root /mnt/device --against before.snapshot
                                              prove that a migration lost no user data

A run that was interrupted is resumed by the next one; SIGUSR1 asks one how far it is. Each run
leaves a report inside the root, /private/var/mobile/Library/Logs/Pallion/migration-report.html
(and .json).

Exit status of migrate:
  0  everything was migrated              2  wrong usage, or the root can't be entered
  1  something was not; see the logs      3  there is no migrator
  4  another run is at work on this root, 128 + N  interrupted by signal N
     or it has another plan than expected
Of plan: what migrate would end with (0, 1 or 3), or 2 as above.
Of snapshot and verify: 0 all was read, nothing is lost or changed; 1 otherwise; 2 wrong usage, or no
(whole) snapshot.

A plan's id covers what will be done, the inodes, sizes and times of every item of the user data,
groups and harbors, and what else was looked at; not the volumes.)";

const std::map<std::string, ProgressMode> kProgressModes = {{"auto", ProgressMode::kAuto},
                                                            {"bar", ProgressMode::kBar},
                                                            {"lines", ProgressMode::kLines},
                                                            {"json", ProgressMode::kJSON},
                                                            {"none", ProgressMode::kNone}};

// Why a word names no descriptor that the program was given for writing; empty when it does.
std::string refusedDescriptor(const std::string& word) {
  int number = -1;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  const bool isNumber = error == std::errc() && end == word.data() + word.size();
  const int flags = isNumber ? fcntl(number, F_GETFL) : -1;
  if (flags < 0) return word + " is no open descriptor";
  return (flags & O_ACCMODE) == O_RDONLY ? word + " is not open for writing" : std::string();
}

}  // namespace

std::variant<Options, int> parseOptions(int argc, char** argv) {
  Options options;
  bool jsonLogs = false;
  CLI::App app(kDescription, "migration-host");
  app.footer(kFooter);
  app.set_version_flag("--version", "migration-host " PALLION_VERSION);
  app.add_option("--root", options.root, "Directory that becomes / for the whole run")
      ->type_name("DIR");
  app.add_option("--plugin", options.plugin,
                 "Migrator's module (default: " PALLION_MODULE_DIRECTORY
                 "/PLAppMigrator.so, seen from the program)")
      ->type_name("FILE");
  app.add_option("--log", options.logFile,
                 "File for the lines of both logs, instead of logs and report inside the root")
      ->check([](const std::string& name) {
        return name == "-" ? "standard output is not for logs" : std::string();
      })
      ->type_name("FILE");
  app.add_option_function<std::string>(
         "--log-format", [&](const std::string& name) { jsonLogs = name == "json"; },
         "Form of the log lines: text (default) or json")
      ->check(CLI::IsMember({"text", "json"}))
      ->type_name("FORM");
  CLI::Option* const output =
      app.add_option("--out", options.output,
                     "snapshot: file outside the root (default: standard output)")
          ->type_name("FILE");
  CLI::Option* const against =
      app.add_option("--against", options.against, "verify: the snapshot from before")
          ->type_name("FILE");
  app.add_option("--expect-plan", options.expectedPlan,
                 "Change nothing, and end with status 4, unless this is the id of the plan")
      ->type_name("ID")
      ->check([](const std::string& id) {
        return id.empty() ? "a plan's id is not empty" : std::string();
      });
  app.add_flag("--json", options.json, "Print JSON on standard output");
  CLI::Option* const verbose = app.add_flag("-v,--verbose", options.verbose, "Log debug lines too");
  app.add_flag("-q,--quiet", options.quiet,
               "Log errors only; no progress on standard error, no table")
      ->excludes(verbose);
  app.add_option_function<std::string>(
         "--progress", [&](const std::string& name) { options.progress = kProgressModes.at(name); },
         "How far it is, on standard error: auto (default; a bar on a terminal, else lines), bar, "
         "lines, json or none")
      ->check(CLI::IsMember(kProgressModes))
      ->type_name("MODE");
  app.add_option("--status-fd", options.statusDescriptor,
                 "Descriptor that gets a line of JSON with every change of the progress")
      ->check(refusedDescriptor)
      ->type_name("N");

  // Options may stand behind the subcommand: what it does not know goes to the program.
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.add_subcommand("migrate", "Migrate every application (what happens without a command)");
  CLI::App* const plan = app.add_subcommand("plan", "Show what a migration would do");
  CLI::App* const apps = app.add_subcommand("apps", "Show the installed applications");
  CLI::App* const report = app.add_subcommand("report", "Show the report of the last run");

  CLI::App* const snapshot =
      app.add_subcommand("snapshot", "Write down what user data the old layout holds");
  CLI::App* const verify = app.add_subcommand(
      "verify", "Compare all user data with a snapshot from before the migration");

  if (printsOptionTable(app, argc, argv)) return kExitSuccess;
  try {
    app.parse(argc, argv);
    if (verify->parsed() != (against->count() > 0)) {
      throw CLI::ValidationError("verify needs --against, which nothing else takes");
    }
    if (output->count() > 0 && !snapshot->parsed()) {
      throw CLI::ValidationError("only snapshot takes --out");
    }
  } catch (const CLI::CallForHelp&) {
    // Once it has forgotten the subcommand it prints the help that has the options.
    app.clear();
    print(app.help());
    return kExitSuccess;
  } catch (const CLI::CallForVersion& version) {
    print(std::string(version.what()) + "\n");
    return kExitSuccess;
  } catch (const CLI::ParseError& error) {
    complain(error.what());
    return kExitUsage;
  }
  options.command = apps->parsed() ? Command::kApps : Command::kMigrate;
  if (report->parsed()) options.command = Command::kReport;
  if (snapshot->parsed()) options.command = Command::kSnapshot;
  if (verify->parsed()) options.command = Command::kVerify;
  if (plan->parsed()) options.command = Command::kPlan;
  options.logFormat = jsonLogs ? LogFormat::kJSON : LogFormat::kText;
  return options;
}

}  // namespace pallion::host
