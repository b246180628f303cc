#include <CLI/CLI.hpp>
#include <cstdio>
#include <sched.h>
#include <sys/mount.h>

#include "tests/campaigns/campaigns.h"

// Campaigns against migration-host: each ends with one line of figures, and with status 1 when it
// found something. Needs root and mount namespaces; 77 without, which ctest takes for "skipped".

namespace pallion::test {

void report(const char* campaign, const std::string& where, const std::string& what) {
  std::printf("%s:%s\n%s\n", campaign, where.c_str(), what.c_str());
  std::fflush(stdout);
}

namespace {

int run(int count, char** arguments) {
  CLI::App parser("Disturbs migration-host in every way and looks whether anything was lost.");
  CampaignOptions options;
  bool acrossVolumes = false;
  parser.add_flag("--across-volumes", acrossVolumes,
                  "old, group and new containers on volumes of their own");
  parser.add_option("--points", options.points, "at most so many points, spread evenly (all)");
  parser.add_option("--doubles", options.doubles, "pairs of kills, sampled");
  parser.add_option("--seed", options.seed, "of the samples");
  parser.add_option("--file-system", options.fileSystem, "of the volumes whose power is cut")
      ->check(CLI::IsMember({"ext4", "xfs", "btrfs"}));
  parser.add_flag("--after", options.after, "cut the power also 0 to 45 seconds after a run");
  parser.require_subcommand(1);
  unsigned (*campaign)(const CampaignOptions&) = nullptr;
  const auto add = [&](const char* name, const char* text,
                       unsigned (*chosen)(const CampaignOptions&)) {
    parser.add_subcommand(name, text)->fallthrough()->callback([&campaign, chosen] {
      campaign = chosen;
    });
  };
  add("kill", "killed before every change, and run again", runKills);
  add("fault", "every call fails, once and from then on", runFaults);
  add("power", "power cut during and after a run", runPowerCuts);
  CLI11_PARSE(parser, count, arguments);
  if (!isRoot() || !canMount() || !GatedProcess::isPossible()) {
    std::puts("skipped: needs root, mount namespaces and call filters with notification");
    return 77;
  }
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    std::perror("mount namespace");
    return 2;
  }
  if (acrossVolumes) options.volumes = Volumes::kThree;
  return campaign(options) == 0 ? 0 : 1;
}

}  // namespace
}  // namespace pallion::test

int main(int count, char** arguments) { return pallion::test::run(count, arguments); }
