#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/helpers/temporary_root.h"

// What the tests of the recursive remove share.

namespace pallion::test {

using Reports = std::vector<std::pair<std::string, int>>;

// One removal: the errno it ended with (0: success), and what it reported in the order of the
// paths.
struct Removal {
  int number = 0;
  Reports reports;
};

// `onReport` answers whether the removal is to go on.
Removal removeAt(
    const std::string& path, const std::function<bool()>& onReport = [] { return true; });

// Keeps a file from being removed for as long as it lives.
class Immutable {
 public:
  explicit Immutable(std::string path) : path_(std::move(path)) { works_ = set(true); }
  Immutable(const Immutable&) = delete;
  Immutable& operator=(const Immutable&) = delete;
  ~Immutable() { release(); }

  [[nodiscard]] bool works() const { return works_; }
  // The file was moved.
  void moved(std::string path) { path_ = std::move(path); }
  void release() { works_ = works_ && !set(false); }

 private:
  [[nodiscard]] bool set(bool immutable) const;

  std::string path_;
  bool works_ = false;
};

// A directory outside every tree that is removed, to which links in the trees lead.
struct Canary {
  explicit Canary(const TemporaryRoot& root)
      : directory(root.makeDirectory("canary")), file(root.makeFile("canary/sub/file", "alive")) {}
  [[nodiscard]] bool isWhole() const { return readAll(file) == "alive"; }

  std::string directory;
  std::string file;
};

// An empty file.
void touch(const std::string& path);
// Directories named "level" in each other below `top`, with a file beside each.
void makeChain(const std::string& top, int levels);
// The path from `top` to the last of so many levels, with a slash before it.
std::string chainPath(int levels);
// Regular files in the tree.
size_t countFiles(const std::string& top);

}  // namespace pallion::test
