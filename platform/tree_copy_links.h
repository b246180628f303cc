#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace pallion {

// Where the first copy of every item with several hard links stands. A place is a directory's
// number and a name; directories know their parents, so that places deep down cost no long paths.
class CopiedLinks {
 public:
  using Directory = uint32_t;
  static constexpr Directory kNone = UINT32_MAX;

  struct DirectoryPlace {
    Directory parent = kNone;
    uint32_t depth = 0;  // 0: the top
    std::string name;
  };
  struct Place {
    Directory directory = kNone;
    std::string name;
  };

  Directory addDirectory(Directory parent, std::string name) {
    const uint32_t depth = parent == kNone ? 0 : directories_[parent].depth + 1;
    directories_.push_back({parent, depth, std::move(name)});
    return static_cast<Directory>(directories_.size() - 1);
  }
  [[nodiscard]] const DirectoryPlace& directory(Directory number) const {
    return directories_[number];
  }

  void add(ino_t source, Directory directory, std::string name) {
    places_.try_emplace(source, Place{directory, std::move(name)});
  }
  // Null when the item was not copied yet.
  [[nodiscard]] const Place* find(ino_t source) const {
    auto found = places_.find(source);
    return found == places_.end() ? nullptr : &found->second;
  }

 private:
  std::vector<DirectoryPlace> directories_;
  std::unordered_map<ino_t, Place> places_;
};

}  // namespace pallion
