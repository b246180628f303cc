#include "platform/registry.h"
#include "programs/common/console.h"
#include "programs/common/root_directory.h"
#include "programs/common/text_table.h"
#include "programs/migration_host/commands.h"
#include "programs/migration_host/exit_status.h"
#include "programs/migration_host/host_logs.h"
#include "programs/migration_host/json_output.h"

namespace pallion::host {

namespace {

std::string stateOf(const BundleProxy& application) {
  if (application.isPlaceholder()) return "placeholder";
  if (application.isBuiltIn()) return "built in";
  return application.bundleURL() ? "installed" : "data only";
}

std::string appsTable(const std::vector<BundleProxy>& applications,
                      const std::vector<SafeHarborRecord>& harbors) {
  TextTable table;
  for (const BundleProxy& application : applications) {
    const auto& place =
        application.bundleURL() ? application.bundleURL() : application.dataContainerURL();
    table.addRow({application.bundleIdentifier(), application.bundleType(), stateOf(application),
                  application.version().empty() ? "-" : application.version(),
                  place ? place->fileSystemRepresentation() : "-"});
  }
  for (const SafeHarborRecord& harbor : harbors) {
    table.addRow({harbor.identifier, "-", "safe harbor", "-", harbor.path});
  }
  return table.text() + std::to_string(applications.size()) + " applications, " +
         std::to_string(harbors.size()) + " safe harbors\n";
}

}  // namespace

int showApps(const Options& options) {
  const int log = openLogOfQuestion(options);
  RootDirectory root;
  if (!root.openAndEnter(options.root)) return kExitUsage;
  const HostLogs logs(options, log, nullptr, nullptr);
  const std::unique_ptr<Registry> registry = Registry::atRoot(URL(), Registry::Access::kReadOnly);
  Error cause;
  const auto applications = registry->allProxies(&cause);
  const auto harbors = applications ? registry->allSafeHarbors(&cause)
                                    : std::optional<std::vector<SafeHarborRecord>>();
  if (!harbors) {
    const std::string text(cause.localizedDescription());
    complain(options.root +
             ": the registry can't be read: " + (text.empty() ? description(cause) : text));
    return kExitFailure;
  }
  print(options.json ? appsJSON(*applications, *harbors) : appsTable(*applications, *harbors));
  return kExitSuccess;
}

}  // namespace pallion::host
