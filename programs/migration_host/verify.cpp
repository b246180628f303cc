#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fcntl.h>

#include "foundation/unique_descriptor.h"
#include "platform/text_escape.h"
#include "programs/common/console.h"
#include "programs/migration_host/commands.h"
#include "programs/migration_host/exit_status.h"
#include "programs/migration_host/host_logs.h"
#include "programs/migration_host/owner_view.h"
#include "programs/migration_host/snapshot_file.h"
#include "programs/migration_host/verify_comparison.h"
#include "programs/migration_host/verify_places.h"
#include "programs/migration_host/verify_progress.h"

namespace pallion::host {

namespace {

struct Outcome {
  SnapshotTotals expected;
  uint64_t equal = 0;
  uint64_t differences = 0;
  uint64_t inOldLayout = 0;  // items
  uint64_t extra = 0;
  uint64_t bytesRead = 0;
};

std::string differenceLine(const UserDataItem& item, const Difference& difference) {
  std::string line = "{\"version\":1,\"type\":\"difference\"";
  appendTextMember(line, "kind", kindName(item.kind));
  appendTextMember(line, "identifier", item.identifier);
  appendTextMember(line, "path", difference.path);
  appendTextMember(line, "what", difference.what);
  appendTextMember(line, "expected", difference.expected);
  appendTextMember(line, "found", difference.found);
  return line + "}\n";
}

std::string differenceText(const UserDataItem& item, const Difference& difference) {
  const auto orNothing = [](const std::string& text) { return text.empty() ? "nothing" : text; };
  std::string text = item.identifier + ": " + difference.path + ": ";
  if (difference.what == "oldLayout") {
    text += "still in the old layout";
  } else if (difference.what == "missing") {
    text += "missing";
  } else {
    text += difference.what + " is " + orNothing(difference.found) + ", was " +
            orNothing(difference.expected);
  }
  return terminalText(text) + "\n";
}

class Verification {
 public:
  Verification(const Options& options, int snapshot, Outcome& outcome)
      : options_(options), snapshot_(snapshot), outcome_(outcome) {}

  int verify(const OwnerView& owners) {
    const std::unique_ptr<Registry> registry = Registry::atRoot(URL(), Registry::Access::kReadOnly);
    UserDataPlaces places;
    Error cause;
    if (!places.load(*registry, &cause)) {
      const std::string text(cause.localizedDescription());
      complain(options_.root +
               ": the registry can't be read: " + (text.empty() ? description(cause) : text));
      return kExitFailure;
    }
    if (!compare(places, owners)) {
      complain(options_.against + ": is damaged");
      return kExitUsage;
    }
    if (outcome_.expected.problems != 0) {
      complain("the snapshot has gaps: " + std::to_string(outcome_.expected.problems) +
               " things could not be read when it was taken");
    }
    return outcome_.differences + outcome_.inOldLayout + outcome_.expected.problems == 0
               ? kExitSuccess
               : kExitFailure;
  }

 private:
  void report(const UserDataItem& item, const Difference& difference) {
    if (difference.what != "oldLayout") ++outcome_.differences;
    print(options_.json ? differenceLine(item, difference) : differenceText(item, difference));
  }

  // False when the snapshot can't be understood.
  bool compare(const UserDataPlaces& places, const OwnerView& owners) {
    struct Placed {
      UserDataItem item;
      UserDataPlaces::Place place;
    };
    std::deque<Placed> walked;  // items whose entries are to come
    SnapshotLines lines(snapshot_);
    const auto nextItem = [&]() -> std::optional<std::string> {
      std::string_view line;
      while (lines.next(line)) {
        if (lineType(line) != LineType::kItem) continue;
        std::optional<UserDataItem> item = parseItem(line);
        if (!item) return std::nullopt;
        UserDataPlaces::Place place = places.placeOf(*item);
        walked.push_back({std::move(*item), std::move(place)});
        return walked.back().place.path;
      }
      return std::nullopt;
    };
    ReadingProgress progress(options_.quiet, outcome_.expected.bytes);
    SnapshotWalk walk(owners, nextItem, [&progress](uint64_t bytes) { progress.show(bytes); });
    SnapshotComparison comparison(snapshot_,
                                  [this](const UserDataItem& item, const Difference& difference) {
                                    report(item, difference);
                                  });
    bool isUnderstood = true;
    while (const SnapshotWalk::Found* found = isUnderstood ? walk.next() : nullptr) {
      isUnderstood = comparison.take(*found);
      if (found->kind != SnapshotWalk::Found::Kind::kItem) continue;
      const Placed& placed = walked.front();
      if (placed.place.layout == UserDataPlaces::Layout::kOld) {
        ++outcome_.inOldLayout;
        report(placed.item, {placed.item.path, "oldLayout", "", placed.place.path});
      }
      walked.pop_front();
    }
    isUnderstood = isUnderstood && comparison.finish();
    outcome_.equal = comparison.equal();
    outcome_.extra = comparison.extra();
    outcome_.bytesRead = walk.bytesRead();
    return isUnderstood;
  }

  const Options& options_;
  const int snapshot_;
  Outcome& outcome_;
};

int run(const Options& options, Outcome& outcome) {
  // All that stands outside the root comes before the root changes.
  const int log = openLogOfQuestion(options);
  const UniqueDescriptor snapshot(
      open(options.against.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!snapshot) {
    complain(options.against, errno);
    return kExitUsage;
  }
  std::string reason;
  const std::optional<SnapshotTotals> expected = checkSnapshot(snapshot.get(), reason);
  if (!expected) {
    complain(options.against + ": " + reason);
    return kExitUsage;
  }
  outcome.expected = *expected;
  OwnerView owners;
  const int entered = enterForReading(options.root, owners);
  if (entered != kExitSuccess) return entered;
  const HostLogs logs(options, log, nullptr, nullptr);
  return Verification(options, snapshot.get(), outcome).verify(owners);
}

std::string summaryLine(const Outcome& outcome, int status, double seconds) {
  std::string line = "{\"version\":1,\"type\":\"summary\",\"exitStatus\":" + std::to_string(status);
  const std::pair<const char*, uint64_t> kNumbers[] = {{"items", outcome.expected.items},
                                                       {"entries", outcome.expected.entries},
                                                       {"equal", outcome.equal},
                                                       {"differences", outcome.differences},
                                                       {"stillInOldLayout", outcome.inOldLayout},
                                                       {"extra", outcome.extra},
                                                       {"notCovered", outcome.expected.notCovered},
                                                       {"problems", outcome.expected.problems},
                                                       {"bytesRead", outcome.bytesRead}};
  for (const auto& [key, number] : kNumbers) {
    line.append(",\"").append(key).append("\":").append(std::to_string(number));
  }
  char text[48];
  std::snprintf(text, sizeof text, ",\"seconds\":%.3f}\n", seconds);
  return line + text;
}

std::string summaryText(const Outcome& outcome) {
  return std::to_string(outcome.equal) + " of " + std::to_string(outcome.expected.entries) +
         " entries are as they were; differences: " + std::to_string(outcome.differences) +
         "; items still in the old layout: " + std::to_string(outcome.inOldLayout) +
         "; entries that are new: " + std::to_string(outcome.extra) +
         "; not covered by the snapshot: " + std::to_string(outcome.expected.notCovered) + "\n";
}

}  // namespace

int verify(const Options& options) {
  const auto beginning = std::chrono::steady_clock::now();
  Outcome outcome;
  const int status = run(options, outcome);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - beginning;
  if (options.json) {
    print(summaryLine(outcome, status, elapsed.count()));
  } else if (!options.quiet && (status == kExitSuccess || status == kExitFailure)) {
    print(summaryText(outcome));
  }
  return status;
}

}  // namespace pallion::host
