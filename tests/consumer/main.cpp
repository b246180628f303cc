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

class RecordedLog : public LogHandle {
 public:
  RecordedLog() : LogHandle(kLogError) {}
  void write(int, std::string_view function, std::string_view message) override {
    lines += std::string(function) + "|" + std::string(message) + "\n";
  }
  std::string lines;
};

class RecordedMonitor : public CPUUsageMonitor {
 public:
  int disable(pid_t) override { return calls += 'd', 0; }
  int setDefaults(pid_t) override { return calls += 's', 0; }
  std::string calls;
};

void writeFile(const std::string& path, const char* text) {
  std::ofstream(path, std::ios::binary) << text;
}

void checkErrors() {
  RecordedLog log;
  gLogHandle = &log;
  const Error plain = _CreateError("f", 7, PLInstallerErrorDomain, 4, "bad %s", "luck");
  CHECK(plain.domain() == "PLInstallerErrorDomain" && plain.code() == 4);
  CHECK(plain.localizedDescription() == "bad luck");
  CHECK(log.lines.empty());

  ErrorDetails extra;
  extra.set(PLFunctionNameErrorKey, Value::string("the caller's"));
  extra.set(PLPathArgumentErrorKey, URL::fileURL("/a"));
  extra.set(PLLibPLSErrorNumberKey, Value::integer(3));
  const Error logged =
      _CreateAndLogError("g", 8, PLInstallerErrorDomain, 24, plain, &extra, "worse %d", 2);
  CHECK(log.lines == "g|8: worse 2 (PLInstallerErrorDomain 4: bad luck)\n");
  CHECK(logged.underlyingError().code() == 4);
  CHECK(std::get<Value>(*logged.details().find(PLFunctionNameErrorKey)) == Value::string("g"));
  CHECK(std::get<Value>(*logged.details().find(PLSourceFileLineErrorKey)) == Value::integer(8));
  CHECK(std::get<URL>(*logged.details().find("PathArgument")) == URL::fileURL("/a"));
  CHECK(std::get<Value>(*logged.details().find("LibPLSErrorNumber")) == Value::integer(3));
  gLogHandle = nullptr;
}

void checkFiles(const std::string& directory) {
  writeFile(directory + "/abc", "abc");
  CHECK(PLCreateSHA256Digest(URL::fileURL(directory + "/abc")) ==
        "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  std::filesystem::create_directory(directory + "/X.app");
  writeFile(directory + "/X.app/Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
            "<key>Name</key><string>x</string><key>Other</key><true/></dict></plist>");
  const URL bundle = URL::fileURL(directory + "/X.app/");
  const std::optional<Dictionary> whole = PLLoadInfoPlist(bundle);
  CHECK(whole && whole->size() == 2);
  CHECK(PLLoadInfoPlist(bundle, Value::set({Value::string("Name")})) ==
        Dictionary({{"Name", Value::string("x")}}));
}

void checkValues() {
  const Value one = Value::integer(1);
  const Value text = Value::string("1");
  CHECK(PLStringifyObject(one) == text);
  CHECK(PLArrayContainsOnlyClass(Value::array({text, text}), Value::Class::kString));
  CHECK(!PLArrayContainsOnlyClass(Value::array({text, one}), Value::Class::kString));
  CHECK(PLBooleanValue(one, false) && !PLBooleanValue(text, false));
  CHECK(PLArrayifyThing(text, Value::Class::kString) == Value::array({text}));
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
  checkErrors();
  checkFiles(argv[1]);
  checkValues();
  checkProcess();
  checkPlugin();
  return failures == 0 ? 0 : 1;
}
