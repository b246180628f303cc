#include <algorithm>
#include <csignal>
#include <string_view>
#include <sys/stat.h>

#include "programs/common/console.h"
#include "programs/common/standard_descriptors.h"
#include "programs/migration_host/commands.h"
#include "programs/migration_host/exit_status.h"
#include "programs/migration_host/json_output.h"
#include "programs/migration_host/plan.h"

namespace {

// Who asked for JSON gets the summary also when the rest of the command line can't be
// understood.
std::string summaryOfWrongUsage(int argc, char** argv) {
  const auto has = [&](std::string_view word) {
    return std::any_of(argv + 1, argv + argc,
                       [word](const char* argument) { return word == argument; });
  };
  if (!has("--json")) return {};
  if (has("plan")) return pallion::host::planJSON({}, pallion::kExitUsage);
  if (!has("snapshot") && !has("verify")) {
    return pallion::host::summaryJSON({}, pallion::kExitUsage);
  }
  return "{\"version\":1,\"type\":\"summary\",\"exitStatus\":" +
         std::to_string(pallion::kExitUsage) + "}\n";
}

// Of no command's business until there is something to tell (ProgressDisplay); other threads
// inherit that it is blocked.
void blockStatusSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace pallion;
  using namespace pallion::host;
  openStandardDescriptors();
  // Whoever reads our output may go away; that must not end a run.
  std::signal(SIGPIPE, SIG_IGN);
  blockStatusSignal();
  openStatus();
  umask(022);
  const auto parsed = parseOptions(argc, argv);
  if (const int* status = std::get_if<int>(&parsed)) {
    if (*status == kExitUsage) print(summaryOfWrongUsage(argc, argv));
    return *status;
  }
  const Options& options = std::get<Options>(parsed);
  switch (options.command) {
    case Command::kPlan:
      return showPlan(options);
    case Command::kApps: {
      const int status = showApps(options);
      // The document is all that standard output gets, but where there is none.
      if (options.json && status != kExitSuccess) print(summaryJSON({}, status));
      return status;
    }
    case Command::kReport:
      return showReport(options);
    case Command::kSnapshot:
      return snapshot(options);
    case Command::kVerify:
      return verify(options);
    case Command::kMigrate:
      break;
  }
  return migrate(options);
}
