#pragma once

#include <cstdint>
#include <string>

#include "tests/campaigns/campaign_device.h"

namespace pallion::test {

struct CampaignOptions {
  Volumes volumes = Volumes::kOne;
  unsigned points = 0;   // at most so many, spread evenly; 0 for all
  unsigned doubles = 0;  // sampled pairs of kills
  uint64_t seed = 1;
  std::string fileSystem = "ext4";  // of the volumes whose power is cut
  bool after = false;               // also cut the power at times after the run, up to 45 s
};

// Each runs one campaign, prints its figures and what it found, and answers the number of findings.

// Kills the host before each call that changes something, and runs it again.
unsigned runKills(const CampaignOptions& options);
// Lets each call of the host fail, once and from then on, with every error of a list.
unsigned runFaults(const CampaignOptions& options);
// Cuts the power of two ext4 volumes during and after a run.
unsigned runPowerCuts(const CampaignOptions& options);

// Of `count` points that are spread evenly over 1 to `all`, the one with that index.
inline unsigned pointAt(unsigned index, unsigned count, unsigned all) {
  return 1 + static_cast<unsigned>(uint64_t{index} * all / count);
}

// Prints one finding.
void report(const char* campaign, const std::string& where, const std::string& what);

}  // namespace pallion::test
