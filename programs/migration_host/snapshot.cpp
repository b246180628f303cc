#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "programs/common/console.h"
#include "programs/common/root_directory.h"
#include "programs/migration_host/commands.h"
#include "programs/migration_host/exit_status.h"
#include "programs/migration_host/host_logs.h"
#include "programs/migration_host/owner_view.h"
#include "programs/migration_host/snapshot_file.h"
#include "programs/migration_host/snapshot_walk.h"
#include "programs/migration_host/user_data_sources.h"
#include "programs/migration_host/verify_progress.h"

namespace pallion::host {

namespace {

// From here on every volume is read-only for this process, so that not even reading leaves a trace
// (access times). Where that is not permitted, the walk asks for the same file by file. What was
// opened before stays writable.
void seeEverythingReadOnly() {
  if (unshare(CLONE_NEWNS) != 0) return;
  mount_attr attributes{};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  attributes.propagation = MS_PRIVATE;
  mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &attributes, sizeof attributes);
}

class Taking {
 public:
  Taking(const Options& options, SnapshotWriter& writer) : options_(options), writer_(writer) {}

  // 0, or the errno of what failed in writing.
  int take(const OwnerView& owners) {
    const PLGlobalConfiguration configuration{URL()};
    UserDataSources data = findUserData(configuration);
    writer_.write(snapshotHeader());
    for (const NotCovered& left : data.notCovered) leaveOut(left);
    for (const std::string& problem : data.problems) complainOf(problem);
    walk(data.sources, configuration, owners);
    return writer_.finish(totals_);
  }

  [[nodiscard]] const SnapshotTotals& totals() const { return totals_; }

 private:
  void leaveOut(const NotCovered& left) {
    totals_.notCovered += left.entries;
    writer_.write(notCoveredLine(left));
    if (!options_.quiet && !options_.json) {
      complain("not covered: " + left.path + " " + left.reason + " (" +
               std::to_string(left.entries) + " entries)");
    }
  }

  void complainOf(const std::string& problem) {
    ++totals_.problems;
    writer_.write(problemLine(problem));
    complain(problem);
  }

  void walk(const std::vector<UserDataSource>& sources, const PLGlobalConfiguration& configuration,
            const OwnerView& owners) {
    std::vector<std::string> problems;
    size_t nextSource = 0;
    std::deque<UserDataItem> listed;  // items of the source at hand that are still to be walked
    std::deque<UserDataItem> walked;  // ones whose entries are to come
    const auto nextItem = [&]() -> std::optional<std::string> {
      while (listed.empty() && nextSource < sources.size()) {
        for (UserDataItem& item : itemsOf(sources[nextSource++], configuration, problems)) {
          listed.push_back(std::move(item));
        }
      }
      if (listed.empty()) return std::nullopt;
      walked.push_back(std::move(listed.front()));
      listed.pop_front();
      return walked.back().path;
    };
    ReadingProgress progress(options_.quiet);
    SnapshotWalk found(owners, nextItem, [&progress](uint64_t bytes) { progress.show(bytes); });
    std::string path;  // of the item at hand
    std::string line;
    while (const SnapshotWalk::Found* next = found.next()) {
      const SnapshotEntry& entry = next->entry;
      if (next->kind == SnapshotWalk::Found::Kind::kItem) {
        ++totals_.items;
        path = walked.front().path;
        writer_.write(itemLine(walked.front()));
        walked.pop_front();
        continue;
      }
      if (next->kind == SnapshotWalk::Found::Kind::kEntry) {
        ++totals_.entries;
        totals_.bytes += entry.size;
        line.clear();
        appendEntryLine(line, entry);
        writer_.write(line);
      }
      if (entry.errorNumber != 0) {
        complainOf(path + (entry.path.empty() ? "" : "/") + entry.path + ": " +
                   std::strerror(entry.errorNumber));
      }
    }
    for (const std::string& problem : problems) complainOf(problem);
  }

  const Options& options_;
  SnapshotWriter& writer_;
  SnapshotTotals totals_;
};

int run(const Options& options, SnapshotTotals& totals) {
  // All that stands outside the root comes before the root changes.
  const int log = openLogOfQuestion(options);
  SnapshotWriter writer;
  int error = options.output.empty() ? 0 : writer.open(options.output);
  if (error == 0 && writer.isBelow(options.root)) {
    complain(options.output + ": a snapshot does not belong into the root that it is taken of");
    return kExitUsage;
  }
  if (error == 0) error = writer.begin();
  if (error != 0) {
    complain(options.output, error);
    return kExitUsage;
  }
  seeEverythingReadOnly();
  OwnerView owners;
  const int entered = enterForReading(options.root, owners);
  if (entered != kExitSuccess) return entered;
  const HostLogs logs(options, log, nullptr, nullptr);

  Taking taking(options, writer);
  error = taking.take(owners);
  totals = taking.totals();
  if (error != 0) {
    complain(options.output.empty() ? "standard output" : options.output, error);
    return kExitFailure;
  }
  return totals.problems == 0 ? kExitSuccess : kExitFailure;
}

std::string summaryLine(const SnapshotTotals& totals, int status, double seconds) {
  char text[256];
  std::snprintf(text, sizeof text,
                "{\"version\":1,\"type\":\"summary\",\"exitStatus\":%d,\"items\":%llu,"
                "\"entries\":%llu,\"bytes\":%llu,\"notCovered\":%llu,\"problems\":%llu,"
                "\"seconds\":%.3f}\n",
                status, static_cast<unsigned long long>(totals.items),
                static_cast<unsigned long long>(totals.entries),
                static_cast<unsigned long long>(totals.bytes),
                static_cast<unsigned long long>(totals.notCovered),
                static_cast<unsigned long long>(totals.problems), seconds);
  return text;
}

}  // namespace

int snapshot(const Options& options) {
  const auto beginning = std::chrono::steady_clock::now();
  SnapshotTotals totals;
  int status = kExitUsage;
  if (options.json && options.output.empty()) {
    complain("--json needs --out: standard output is for the snapshot");
  } else {
    status = run(options, totals);
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - beginning;
  if (options.json) {
    print(summaryLine(totals, status, elapsed.count()));
  } else if (!options.quiet && !options.output.empty() && status != kExitUsage) {
    print(std::to_string(totals.entries) + " entries in " + std::to_string(totals.items) +
          " items, " + std::to_string(totals.bytes) +
          " bytes; not covered: " + std::to_string(totals.notCovered) +
          " entries; problems: " + std::to_string(totals.problems) + "\n");
  }
  return status;
}

}  // namespace pallion::host
