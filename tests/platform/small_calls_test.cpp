#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "platform/extended_attributes.h"
#include "platform/make_path.h"
#include "platform/protection_class.h"
#include "platform/set_aside.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"

namespace pallion {
namespace {

using test::exists;
using test::TemporaryRoot;

TEST(MakePath, MakesWhatIsMissing) {
  const TemporaryRoot root;
  root.makeFile("file");
  root.makeDirectory("stands");
  root.makeLink("dangling", "nowhere");
  root.makeLink("link", "stands");
  const struct {
    const char* path;
    int number;
    const char* made = "";
  } cases[] = {{"one", 0, "one"},
               {"a/b2//c///", 0, "a/b2/c"},
               {"link/x/y", 0, "stands/x/y"},
               {"stands/../new/deep", 0, "new/deep"},
               {"stands/", EEXIST},
               {"file", EEXIST},
               {"dangling", EEXIST},
               {"dangling/x/y/z", ENOENT},
               {"file/x/y", ENOTDIR}};
  for (const auto& each : cases) {
    EXPECT_EQ(MakePath::system().make((root / each.path).c_str(), 0750), each.number) << each.path;
    EXPECT_TRUE(std::filesystem::is_directory(root / each.made)) << each.path;
  }
  EXPECT_FALSE(exists(root / "nowhere"));
  EXPECT_EQ(MakePath::system().make("", 0750), ENOENT);
  EXPECT_EQ(MakePath::system().make("/", 0750), EEXIST);
  // Relative, and the mode for every directory made.
  EXPECT_TRUE(test::runInChild([&] {
    ASSERT_EQ(chdir(root.path().c_str()), 0);
    EXPECT_EQ(MakePath::system().make("relative/path", 0700), 0);
  }));
  EXPECT_EQ(std::filesystem::status(root / "relative").permissions(),
            std::filesystem::perms::owner_all);
  if (!test::canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  EXPECT_TRUE(test::runInMountNamespace([&] {
    // Room for the volume's root and one more directory.
    const auto volume = test::Mount::tmpfs(root.path(), "nr_inodes=2");
    EXPECT_EQ(MakePath::system().make((root / "a/b/c/d").c_str(), 0700), ENOSPC);
    EXPECT_TRUE(exists(root / "a"));
  }));
}

TEST(SetAside, RenamesInPlaceUnderANameOfItsOwn) {
  const TemporaryRoot root;
  root.makeFile("dir/file", "content");
  root.makeLink("link", "dir");
  ASSERT_EQ(chdir(root.path().c_str()), 0);
  for (const auto& [path, directory] :
       {std::pair<std::string, std::string>{root / "dir/file", root / "dir/"},
        {root / "link/", root / ""},
        {"dir", ""}}) {
    std::string moved;
    ASSERT_EQ(setAside(path.c_str(), moved), 0) << path;
    ASSERT_TRUE(moved.starts_with(directory)) << moved;
    EXPECT_TRUE(isSetAsideName(moved.substr(directory.size()))) << moved;
    EXPECT_TRUE(exists(moved) && !exists(path)) << moved;
    std::string untouched = "before";
    EXPECT_EQ(setAside(path.c_str(), untouched), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(untouched, "before");
  }
  ASSERT_EQ(chdir("/"), 0);
  for (const char* other : {".com.orlix.pallion.moved.", "F47AC10B-58CC-4372-A567-0E02B2C3D479",
                            ".com.orlix.pallion.moved.F47AC10B-58CC-4372-A567-0E02B2C3D479.plist",
                            ".com.orlix.pallion.moved.f47ac10b-58cc-4372-a567-0e02b2c3d479",
                            ".com.orlix.pallion.moved.F47AC10B-58CC-1372-A567-0E02B2C3D479",
                            ".com.orlix.pallion.moved.F47AC10B-58CC-4372-C567-0E02B2C3D479"})
    EXPECT_FALSE(isSetAsideName(other)) << other;
  // Where renames take no flags, and where they fail.
  for (const auto& [number, outcome] : {std::pair{EINVAL, 0}, {ENOSYS, 0}, {EIO, -1}}) {
    const std::string file = root.makeFile("file");
    EXPECT_TRUE(test::runInChild([&, refused = number, expected = outcome] {
      ASSERT_TRUE(test::refuseCalls({SYS_renameat2}, refused));
      std::string moved;
      EXPECT_EQ(setAside(file.c_str(), moved), expected);
    })) << number;
    EXPECT_EQ(exists(file), outcome != 0) << number;
  }
}

TEST(Attributes, AreReadAndWrittenWithoutFollowingLinks) {
  const TemporaryRoot root;
  const std::string file = root.makeFile("file");
  const std::string link = root.makeLink("link", file);
  ExtendedAttributes& attributes = ExtendedAttributes::system();
  if (attributes.set(file.c_str(), "name", "value", 5) != 0 && errno == ENOTSUP)
    GTEST_SKIP() << "needs a file system with user attributes";
  char buffer[8];
  EXPECT_EQ(getxattr(file.c_str(), "user.name", buffer, sizeof buffer), 5);
  for (const size_t size : {8U, 4U, 0U})
    EXPECT_EQ(attributes.get(file.c_str(), "name", buffer, size), 5) << size;
  const std::tuple<std::string, std::string, int> failures[] = {
      {file, "other", kNoAttribute},
      {link, "name", kNoAttribute},
      {root / "missing", "name", ENOENT},
      {file, std::string(300, 'n'), ERANGE}};
  for (const auto& [path, name, number] : failures) {
    EXPECT_EQ(attributes.get(path.c_str(), name.c_str(), buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, number) << path << " " << name;
  }
  EXPECT_EQ(attributes.set(link.c_str(), "name", "value", 5), -1);

  constexpr const char* kName = "user.com.orlix.pallion.protectionclass";
  const UniqueDescriptor item(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  ProtectionClass& classes = ProtectionClass::system();
  EXPECT_EQ(classes.get(item.get()), 0);
  EXPECT_EQ(classes.set(item.get(), 3), 0);
  EXPECT_EQ(classes.set(item.get(), -1), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(classes.get(item.get()), 3);
  EXPECT_EQ(fgetxattr(item.get(), kName, buffer, sizeof buffer), 4);
  EXPECT_EQ(std::string(buffer, 4), std::string("\3\0\0\0", 4));
  for (const std::string damaged : {"", "123", "12345678", "\xFF\xFF\xFF\xFF"}) {
    ASSERT_EQ(fsetxattr(item.get(), kName, damaged.data(), damaged.size(), 0), 0);
    EXPECT_EQ(classes.get(item.get()), -1);
    EXPECT_EQ(errno, EINVAL) << damaged.size();
  }
  // Without attributes there is no effect.
  for (const auto& [number, outcome] : {std::pair{ENOTSUP, 0}, {EROFS, -1}}) {
    EXPECT_TRUE(test::runInChild([&, refused = number, expected = outcome] {
      ASSERT_TRUE(test::refuseCalls({SYS_fgetxattr, SYS_fsetxattr}, refused));
      EXPECT_EQ(classes.set(item.get(), 4), expected);
      EXPECT_EQ(classes.get(item.get()), expected);
    })) << number;
  }
}

}  // namespace
}  // namespace pallion
