#pragma once

#include <string>
#include <string_view>

#include "foundation/url.h"

namespace pallion::test {

// A fresh directory below TMPDIR (or /tmp) that stands in for a device's root; removed with
// everything in it at the end.
class TemporaryRoot {
 public:
  TemporaryRoot();
  TemporaryRoot(const TemporaryRoot&) = delete;
  TemporaryRoot& operator=(const TemporaryRoot&) = delete;
  ~TemporaryRoot();

  [[nodiscard]] const std::string& path() const { return path_; }  // without a slash at the end
  [[nodiscard]] URL url() const { return URL::fileURL(path_, URL::Kind::kDirectory); }
  // Absolute path of an item below the root.
  [[nodiscard]] std::string operator/(std::string_view relative) const;

  // Each makes missing parents and answers the absolute path; a failure ends the test program.
  std::string makeDirectory(std::string_view relative) const;
  std::string makeFile(std::string_view relative, std::string_view content = "") const;
  std::string makeLink(std::string_view relative, std::string_view target) const;

 private:
  std::string path_;
};

bool exists(const std::string& path);  // lstat
std::string readAll(const std::string& path);
bool isRoot();

}  // namespace pallion::test
