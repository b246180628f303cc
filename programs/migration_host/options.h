#pragma once

#include <string>
#include <variant>

#include "platform/log_line.h"

namespace pallion::host {

enum class ProgressMode { kAuto, kBar, kLines, kJSON, kNone };
enum class Command { kMigrate, kPlan, kApps, kReport, kSnapshot, kVerify };

struct Options {
  Command command = Command::kMigrate;
  std::string root = "/";
  std::string plugin;   // empty: the one that came with the program
  std::string logFile;  // empty: the logs inside the root
  std::string output;   // of snapshot; empty: standard output
  std::string against;  // the snapshot for verify
  LogFormat logFormat = LogFormat::kText;
  std::string expectedPlan;  // empty: none is expected
  bool json = false;
  bool verbose = false;
  bool quiet = false;
  ProgressMode progress = ProgressMode::kAuto;
  int statusDescriptor = -1;  // open and writable; -1 for none
};

// What the command line asks for, or the status with which the program ends at once: help and
// version have been printed (0), or one line on wrong usage (kExitUsage).
std::variant<Options, int> parseOptions(int argc, char** argv);

}  // namespace pallion::host
