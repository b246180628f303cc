#pragma once

#include <functional>
#include <string>

// Volumes for tests, made in a mount namespace of their own so that nothing of them is seen outside
// or left behind.

namespace pallion::test {

// Whether this process may make a mount namespace and mount a tmpfs in it. Tests that need it begin
// with
//   if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
bool canMount();
// Likewise for file system images: loop devices and mkfs.ext4 as well.
bool canMountImages();

// Runs `body` in a forked child with a private mount namespace. Assertions inside report as usual;
// false when any failed, when the child died, or when there could be no namespace:
// EXPECT_TRUE(runInMountNamespace(...)). What `body` changes in memory stays in the child.
[[nodiscard]] bool runInMountNamespace(const std::function<void()>& body);

// One mounted volume, unmounted on destruction. Only to be made inside runInMountNamespace.
class Mount {
 public:
  // `directory` has to exist. `options` as for mount(8), such as "size=1m".
  static Mount tmpfs(const std::string& directory, const std::string& options = "");
  // Makes the file `image` with an empty ext4 file system of `mebibytes` and mounts it through a
  // loop device.
  static Mount ext4Image(const std::string& image, const std::string& directory, int mebibytes);
  // Mounts the file system of an image through a loop device.
  static Mount image(const std::string& image, const std::string& directory);
  static Mount bind(const std::string& source, const std::string& directory);

  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;
  ~Mount();

  // False when mounting failed; the reason went to stderr.
  [[nodiscard]] bool mounted() const { return mounted_; }

 private:
  Mount(const std::string& directory, bool mounted) : directory_(directory), mounted_(mounted) {}

  std::string directory_;
  bool mounted_;
};

}  // namespace pallion::test
