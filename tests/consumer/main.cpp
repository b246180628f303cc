// Calls everything that the installed module exports, once, and checks one answer of each. The
// argument is a directory to write in.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "file_operations/error_makers.h"
#include "platform/cpu_usage_monitor.h"
#include "platform/migration_plugin.h"
#include "platform/product_log.h"
#include "platform/service_transactions.h"
#include "support/bundle_metadata.h"
#include "support/file_digest.h"
#include "support/process_helpers.h"
#include "support/value_helpers.h"

extern "C" const pallion::MigrationPluginDescriptor* PallionMigrationPlugin();

using namespace pallion;

namespace {

int failures = 0;

#define CHECK(condition)                                           \
  do {                                                             \
    if (!(condition)) {                                            \
      std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
      ++failures;                                                  \
    }                                                              \
  } while (false)

class RecordedMonitor : public CPUUsageMonitor {
 public:
  int disable(pid_t) override { return calls += 'd', 0; }
  int setDefaults(pid_t) override { return calls += 's', 0; }
  std::string calls;
};

// One call of each exported unit, with an answer that only the installed code gives: what they do
// in all cases is the business of their own tests.
void checkCalls(const std::string& directory) {
  ErrorDetails extra;
  extra.set(PLPathArgumentErrorKey, URL::fileURL("/a"));
  const Error error = _CreateAndLogError("g", 8, PLInstallerErrorDomain, 24,
                                         _CreateError("f", 7, PLInstallerErrorDomain, 4, "bad"),
                                         &extra, "worse %d", 2);
  CHECK(error.localizedDescription() == "worse 2" && error.underlyingError().code() == 4);
  CHECK(std::get<URL>(*error.details().find("PathArgument")) == URL::fileURL("/a"));

  std::ofstream(directory + "/abc") << "abc";
  CHECK(PLCreateSHA256Digest(URL::fileURL(directory + "/abc")) ==
        "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  CHECK(!PLLoadInfoPlist(URL::fileURL(directory + "/")));

  const Value text = PLStringifyObject(Value::integer(1));
  CHECK(PLArrayContainsOnlyClass(Value::array({text}), Value::Class::kString));
  CHECK(PLArrayifyThing(text, Value::Class::kString) == Value::array({Value::string("1")}));
  CHECK(!PLBooleanValue(text, false));
}

void checkProcess() {
  RecordedMonitor monitor;
  CPUUsageMonitor::replace(&monitor);
  PLAssertHighResourceUsage();
  CHECK(monitor.calls == "d");
  PLClearResourceAssertion();
  CHECK(monitor.calls == "ds");
  CPUUsageMonitor::replace(nullptr);

  int open = -1;
  {
    TaskQueue queue;
    PLRunTransactionalTask(queue, [&] { open = ServiceTransactions::openTransactions(); });
  }
  CHECK(open == 1 && ServiceTransactions::openTransactions() == 0);
}

// Tells the parent what the crash reporter would find.
int crashPipe[2];
void writeCrashReport(int) {
  const char* const text = reinterpret_cast<const char*>(crashAnnotation.message);
  if (write(crashPipe[1], text, std::strlen(text)) < 0) _exit(3);
}

void checkCrash() {
  // The very record of the module, no copy that the linker made for this program.
  Dl_info place{};
  CHECK(dladdr(&crashAnnotation, &place) != 0 && std::strstr(place.dli_fname, "PLAppMigrator.so"));
  CHECK(crashAnnotation.version == 5 && crashAnnotation.message == 0);

  CHECK(pipe(crashPipe) == 0);
  const pid_t child = fork();
  if (child == 0) {
    std::signal(SIGABRT, writeCrashReport);
    PLCrashOnException({"Name", "reason", {"frame 0"}});
  }
  close(crashPipe[1]);
  char report[512] = {};
  CHECK(read(crashPipe[0], report, sizeof report - 1) > 0);
  CHECK(std::strstr(report, "Name: reason\nStack:\nframe 0"));
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child);
  CHECK(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

void checkPlugin() {
  const MigrationPluginDescriptor* const descriptor = PallionMigrationPlugin();
  CHECK(descriptor->abiVersion == kMigrationPluginABIVersion);
  MigrationPluginBase* const plugin = descriptor->create();
  CHECK(plugin->dataClassName() == "PLAppMigrator");
  descriptor->destroy(plugin);
}

}  // namespace

int main(int, char* argv[]) {
  checkCrash();  // before there is a thread that a child would lack
  checkCalls(argv[1]);
  checkProcess();
  checkPlugin();
  return failures == 0 ? 0 : 1;
}
