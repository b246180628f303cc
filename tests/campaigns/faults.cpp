#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>

#include "tests/campaigns/campaigns.h"

namespace pallion::test {

namespace {

// One of everything that is migrated differently, and as little of it as possible: every call of
// the run fails once for each error.
const std::vector<std::string> kLayout = {
    "--apps",         "2", "--vpn",   "1", "--groups",    "1", "--harbors", "1",
    "--placeholders", "1", "--files", "1", "--file-size", "50"};

constexpr std::array kErrors = {EIO, ENOSPC, EDQUOT, EACCES, EMFILE, ENOMEM, EROFS, EINTR};

constexpr unsigned kLongestBurst = 150;

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

class Faults {
 public:
  explicit Faults(Volumes volumes) : device_(volumes, kLayout) {}

  [[nodiscard]] unsigned calls() const { return device_.undisturbed().calls; }

  // Empty when a run in which the call of that number fails, and every one after it with `forGood`,
  // does what it should, and so does the next.
  std::string problemOf(unsigned point, int error, bool forGood) {
    device_.reset();
    device_.clearLog();
    unsigned number = 0;
    unsigned interrupted = 0;
    call_.clear();
    const GatedProcess::Outcome disturbed = device_.migrate([&](const GatedProcess::Call& call) {
      ++number;
      if (number < point || (number > point && !forGood)) return 0;
      if (number == point) call_ = call.name;
      // SQLite makes an interrupted call again for as long as it takes, so signals come in bursts.
      if (error == EINTR && ++interrupted % kLongestBurst == 0) return 0;
      return error;
    });
    const std::vector<std::string> errors = device_.errorsLogged();
    std::string problem;
    if (disturbed.hung) problem += "hangs\n";
    if (disturbed.status < 0)
      problem += "dies of signal " + std::to_string(-disturbed.status) + "\n";
    if (disturbed.descriptors > device_.undisturbed().descriptors)
      problem += std::to_string(disturbed.descriptors) + " descriptors are open at the end\n";
    if (disturbed.status != 0 && !isExplained(disturbed, errors))
      problem += "no message says what failed\n";
    problem += device_.missing(DeviceState::Whole::kUserData);

    const GatedProcess::Outcome next = device_.migrateUndisturbed();
    problem += device_.missing(DeviceState::Whole::kUserData);
    if (next.status != 0 && next.status != 1)
      problem += "the next run ends with " + std::to_string(next.status) + "\n";
    if (const std::string left = unexplained(device_.differenceAfterMigration(), errors);
        !left.empty()) {
      problem +=
          "after the next run, which ended with " + std::to_string(next.status) + ":\n" + left;
    }
    if (!problem.empty()) {
      for (const std::string& line : errors) problem += "  " + line + "\n";
      problem += disturbed.out + next.out;
    }
    return problem;
  }

  // Of the call that failed last.
  [[nodiscard]] const std::string& call() const { return call_; }

 private:
  // A message names the item and what was being done with it.
  static bool isExplained(const GatedProcess::Outcome& outcome,
                          const std::vector<std::string>& errors) {
    const auto isAbout = [](const std::string& line) {
      return !contains(line, "Returning migration failed") &&
             (contains(line, "/") || contains(line, "com.example."));
    };
    return std::any_of(errors.begin(), errors.end(), isAbout) ||
           (errors.empty() && contains(outcome.out, ": "));
  }

  // What may differ after a container whose bundle could not be installed: it was removed with its
  // data carried over, so the placeholder stays and its groups are not asked for; and group
  // containers that could not be moved stay where they are. All data being whole is tested apart.
  static std::string unexplained(const std::string& difference,
                                 const std::vector<std::string>& errors) {
    const auto logged = [&errors](const char* text) {
      return std::any_of(errors.begin(), errors.end(),
                         [text](const std::string& line) { return contains(line, text); });
    };
    if (difference.empty()) return "";
    // Whoever reads the log is told that these stay.
    if (difference == "still there: /Library/Caches/com.orlix.pallion.plist\n" &&
        logged("Failed to remove /private/var/mobile/Library/Caches/com.orlix.pallion.plist")) {
      return "";
    }
    const bool notInstalled = logged("Failed to install file") || logged("Failed to create file") ||
                              logged("Failed to move bundle") ||
                              logged("Failed to move vpn bundle");
    if (notInstalled || logged("Missing source group container") || logged("Failed to move item") ||
        logged("Failed to get all urls"))
      return "";
    return difference;
  }

  CampaignDevice device_;
  std::string call_;
};

}  // namespace

unsigned runFaults(const CampaignOptions& options) {
  Faults faults(options.volumes);
  const unsigned all = faults.calls();
  unsigned findings = 0;
  unsigned injected = 0;
  for (size_t e = 0; e < kErrors.size(); ++e) {
    for (const bool forGood : {false, true}) {
      const unsigned count = options.points == 0 ? all : std::min(options.points, all);
      for (unsigned i = 0; i < count; ++i) {
        // With few points every error has others.
        const auto offset = static_cast<unsigned>((e * 2 + (forGood ? 1 : 0)) * (all / count) / 16);
        const unsigned point = 1 + static_cast<unsigned>(uint64_t{i} * all / count) + offset;
        const std::string problem = faults.problemOf(point, kErrors[e], forGood);
        ++injected;
        if (problem.empty()) continue;
        ++findings;
        report("fault",
               " " + std::string(strerrorname_np(kErrors[e])) + (forGood ? " from" : " at") +
                   " call " + std::to_string(point) + " (" + faults.call() + ") on",
               problem);
      }
    }
  }
  std::printf("fault: %u calls a run, %u runs with a failing call: %u findings\n", all, injected,
              findings);
  return findings;
}

}  // namespace pallion::test
