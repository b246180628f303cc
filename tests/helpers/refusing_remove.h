#pragma once

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "platform/recursive_remove.h"

namespace pallion::test {

// As long as it lives, removals of paths that end in `end` are refused (EPERM); none when empty.
class RefusingRemove : public RecursiveRemove {
 public:
  explicit RefusingRemove(std::string end) : end_(std::move(end)) { replace(this); }
  ~RefusingRemove() override { replace(nullptr); }

  int remove(const char* path, RemovalState& state) override {
    if (!end_.empty() && std::string_view(path).ends_with(end_)) return errno = EPERM, -1;
    return system().remove(path, state);
  }

 private:
  std::string end_;
};

}  // namespace pallion::test
