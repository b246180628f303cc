#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>
#include <sstream>

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

  // What is left of a difference without that which the log speaks of. A container whose bundle
  // could not be installed was removed with its data carried over: the placeholder stays, and its
  // groups are not asked for. Group containers that could not be moved stay where they are, and so
  // does the install map when it could not be removed. All data being whole is tested apart.
  static std::string unexplained(const std::string& difference,
                                 const std::vector<std::string>& errors) {
    std::vector<std::string> failed;
    bool groupsStay = false;
    bool mapStays = false;
    static const std::regex kFailure("Migration of (\\S+) at .* failed");
    for (const std::string& line : errors) {
      std::smatch found;
      if (std::regex_search(line, found, kFailure)) failed.push_back(found[1]);
      groupsStay |= contains(line, "Missing source group container") ||
                    contains(line, "Failed to move item") ||
                    contains(line, "Failed to get all urls");
      mapStays |= contains(line, "Failed to remove /private/var/mobile/Library/Caches/");
    }
    const auto isExpected = [&](const std::string& header) {
      const auto isAbout = [&header](const std::string& identifier) {
        return contains(header, identifier.c_str());
      };
      return std::any_of(failed.begin(), failed.end(), isAbout) ||
             (header.starts_with("group ") && (groupsStay || !failed.empty())) ||
             (header.starts_with("the registry says") && !failed.empty()) ||
             (header.starts_with("still there: /Library/Caches") && mapStays);
    };
    // Lines on single items, and what the registry says, belong to the header above them.
    static const std::regex kDetail(
        "|  .*|(missing|unexpected|different): .*|instead of:|com\\..* version .*|harbor .* of "
        "type .*");
    std::string left;
    bool expected = false;
    std::istringstream lines(difference);
    for (std::string line; std::getline(lines, line);) {
      if (!std::regex_match(line, kDetail)) expected = isExpected(line);
      if (!expected) left += line + "\n";
    }
    return left;
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
        const unsigned point = pointAt(i, count, all) + offset;
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
