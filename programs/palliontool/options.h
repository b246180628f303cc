#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <variant>
#include <vector>

namespace pallion::tool {

enum class ListForm { kXML, kBinary, kJSON };

struct Options {
  int (*command)(const Options& options) = nullptr;
  std::string root = "/";
  // What the subcommand works on, as it was typed; never empty.
  std::vector<std::string> files;
  std::string path;
  std::string destination;
  std::string base;
  std::vector<std::string> keys;
  std::string key;
  std::string value;
  ListForm form = ListForm::kXML;
  uid_t uid = 0;
  gid_t gid = 0;
  std::optional<uint64_t> installType;
  std::optional<int32_t> protectionClass;
  bool validateSymlinks = false;
  bool mark = false;
  bool ignoreLinks = false;
  bool json = false;
};

// What the command line asks for, or the status with which the program ends at once: help and
// version have been printed (0), or one line on wrong usage (kExitUsage).
std::variant<Options, int> parseOptions(int argc, char** argv);

}  // namespace pallion::tool
