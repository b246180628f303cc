#include "programs/migration_host/service_notifier.h"

#include "programs/migration_host/exit_status.h"

namespace pallion::host {

namespace {

const char* meaningOf(int exitStatus) {
  switch (exitStatus) {
    case kExitSuccess:
      return "everything was migrated";
    case kExitFailure:
      return "something was not migrated; a later run goes on from there";
    case kExitUsage:
      return "wrong usage, or the root can't be entered";
    case kExitNoMigrator:
      return "there is no migrator";
    case kExitLocked:
      return "another run is at work on this root";
    default:
      return "interrupted; a later run resumes";
  }
}

}  // namespace

ServiceNotifier::ServiceNotifier(const char* address) {
  if (address) socket_.open(address);
}

void ServiceNotifier::working(const std::string& status) const {
  socket_.send("STATUS=" + status + "\nEXTEND_TIMEOUT_USEC=600000000\n",
               DatagramSocket::Patience::kNone);
}

void ServiceNotifier::ended(int exitStatus) {
  std::call_once(ended_, [&] {
    const std::string status =
        "STATUS=Exit status " + std::to_string(exitStatus) + ": " + meaningOf(exitStatus) + "\n";
    using Patience = DatagramSocket::Patience;
    if (exitStatus == kExitSuccess) socket_.send("READY=1\n" + status, Patience::kSeconds);
    socket_.send("STOPPING=1\n" + status, Patience::kSeconds);
  });
}

}  // namespace pallion::host
