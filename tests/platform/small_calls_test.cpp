#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "platform/extended_attributes.h"
#include "platform/make_path.h"
#include "platform/protection_class.h"
#include "platform/set_aside.h"
#include "platform/temporary_directory.h"
#include "platform/uuid.h"
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
  struct Case {
    const char* path;
    int number;
    const char* made;
  };
  const std::vector<Case> cases = {
      {"one", 0, "one"},
      {"a/b/c/d", 0, "a/b/c/d"},
      {"a/b2//c///", 0, "a/b2/c"},
      {"link/x/y", 0, "stands/x/y"},
      {"stands/../new/deep", 0, "new/deep"},
      {"stands", EEXIST, nullptr},
      {"stands/", EEXIST, nullptr},
      {"file", EEXIST, nullptr},
      {"dangling", EEXIST, nullptr},
      {"dangling/x", ENOENT, nullptr},
      {"dangling/x/y/z", ENOENT, nullptr},
      {"file/x", ENOTDIR, nullptr},
      {"file/x/y", ENOTDIR, nullptr},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.path);
    EXPECT_EQ(MakePath::system().make((root / each.path).c_str(), 0750), each.number);
    EXPECT_TRUE(!each.made || std::filesystem::is_directory(root / each.made));
  }
  EXPECT_FALSE(exists(root / "nowhere"));
  EXPECT_EQ(MakePath::system().make("", 0750), ENOENT);
  EXPECT_EQ(MakePath::system().make("/", 0750), EEXIST);
  // Relative, and the mode for every directory made.
  ASSERT_EQ(chdir(root.path().c_str()), 0);
  EXPECT_EQ(MakePath::system().make("relative/path", 0700), 0);
  ASSERT_EQ(chdir("/"), 0);
  for (const char* made : {"relative", "relative/path"}) {
    struct stat status {};
    ASSERT_EQ(stat((root / made).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U) << made;
  }
}

TEST(MakePath, AnswersTheErrorOfTheFirstDirectoryThatFails) {
  if (!test::canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  EXPECT_TRUE(test::runInMountNamespace([&] {
    // Room for the volume's root and one more directory.
    const auto volume = test::Mount::tmpfs(root.path(), "nr_inodes=2");
    EXPECT_EQ(MakePath::system().make((root / "a/b/c/d").c_str(), 0700), ENOSPC);
    EXPECT_TRUE(exists(root / "a"));
  }));
}

TEST(UUID, IsNewAndOfTheExactForm) {
  std::set<std::string> seen;
  for (int i = 0; i < 2000; ++i) {
    const std::string made = makeUUID();
    EXPECT_TRUE(isUUID(made)) << made;
    EXPECT_TRUE(seen.insert(made).second) << made;
  }
  // Every digit turns up at the first place, and no other than the four variants at theirs.
  std::set<char> first;
  std::set<char> variants;
  for (const std::string& each : seen) {
    first.insert(each[0]);
    variants.insert(each[19]);
  }
  EXPECT_EQ(first.size(), 16U);
  EXPECT_EQ(variants, (std::set<char>{'8', '9', 'A', 'B'}));
  for (const char* other :
       {"", "F47AC10B-58CC-4372-A567-0E02B2C3D47", "F47AC10B-58CC-4372-A567-0E02B2C3D4799",
        "f47ac10b-58cc-4372-a567-0e02b2c3d479", "F47AC10B-58CC-1372-A567-0E02B2C3D479",
        "F47AC10B-58CC-4372-C567-0E02B2C3D479", "F47AC10B-58CC-4372-7567-0E02B2C3D479",
        "F47AC10B058CC-4372-A567-0E02B2C3D479", "G47AC10B-58CC-4372-A567-0E02B2C3D479"}) {
    EXPECT_FALSE(isUUID(other)) << other;
  }
  EXPECT_TRUE(isUUID("F47AC10B-58CC-4372-A567-0E02B2C3D479"));
}

TEST(SetAside, RenamesInPlaceUnderANameOfItsOwn) {
  const TemporaryRoot root;
  root.makeFile("dir/file", "content");
  root.makeLink("link", "dir");
  ASSERT_EQ(chdir(root.path().c_str()), 0);
  struct Case {
    std::string path;
    std::string directory;
  };
  for (const Case& each :
       {Case{root / "dir/file", root / "dir/"}, Case{root / "link/", root / ""}, Case{"dir", ""}}) {
    SCOPED_TRACE(each.path);
    std::string moved;
    ASSERT_EQ(setAside(each.path.c_str(), moved), 0);
    ASSERT_TRUE(moved.starts_with(each.directory));
    EXPECT_TRUE(isSetAsideName(moved.substr(each.directory.size())));
    EXPECT_TRUE(exists(moved));
    EXPECT_FALSE(exists(each.path));
    std::string untouched = "before";
    EXPECT_EQ(setAside(each.path.c_str(), untouched), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(untouched, "before");
  }
  ASSERT_EQ(chdir("/"), 0);
  for (const char* other : {"", ".com.orlix.pallion.moved.", "F47AC10B-58CC-4372-A567-0E02B2C3D479",
                            ".com.orlix.pallion.moved.F47AC10B-58CC-4372-A567-0E02B2C3D479.plist",
                            "x.com.orlix.pallion.moved.F47AC10B-58CC-4372-A567-0E02B2C3D479"}) {
    EXPECT_FALSE(isSetAsideName(other)) << other;
  }
}

TEST(SetAside, WorksWhereRenamesTakeNoFlags) {
  if (!test::canMount()) GTEST_SKIP() << "needs a child of its own";
  const TemporaryRoot root;
  for (const auto& [number, outcome] : {std::pair{EINVAL, 0}, {ENOSYS, 0}, {EIO, -1}}) {
    const std::string file = root.makeFile("file");
    EXPECT_TRUE(test::runInMountNamespace([&, refused = number, expected = outcome] {
      ASSERT_TRUE(test::refuseCalls({SYS_renameat2}, refused));
      std::string moved;
      EXPECT_EQ(setAside(file.c_str(), moved), expected);
    })) << number;
    EXPECT_EQ(exists(file), outcome != 0) << number;
  }
}

TEST(ExtendedAttributes, GetAndSet) {
  const TemporaryRoot root;
  const std::string file = root.makeFile("file");
  const std::string link = root.makeLink("link", file);
  ExtendedAttributes& attributes = ExtendedAttributes::system();
  if (attributes.set(file.c_str(), "name", "first value", 11) != 0 && errno == ENOTSUP) {
    GTEST_SKIP() << "needs a file system with user attributes";
  }
  ASSERT_EQ(attributes.set(file.c_str(), "name", "value", 5), 0);
  struct Case {
    const char* name;
    size_t size;
    ssize_t result;
    std::string stored;
  };
  for (const Case& each : {Case{"name", 5, 5, "value"},
                           {"name", 8, 5, "value"},
                           {"name", 4, 5, ""},
                           {"name", 0, 5, ""}}) {
    std::string buffer(10, '\0');
    EXPECT_EQ(attributes.get(file.c_str(), each.name, buffer.data(), each.size), each.result);
    EXPECT_STREQ(buffer.c_str(), each.stored.c_str()) << each.size;
  }
  char buffer[8];
  EXPECT_EQ(getxattr(file.c_str(), "user.name", buffer, sizeof buffer), 5);
  struct Failure {
    std::string path;
    std::string name;
    int number;
  };
  for (const Failure& each : {Failure{file, "other", kNoAttribute},
                              {link, "name", kNoAttribute},
                              {root / "missing", "name", ENOENT},
                              {file, std::string(size_t{300}, 'n'), ERANGE}}) {
    EXPECT_EQ(attributes.get(each.path.c_str(), each.name.c_str(), buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, each.number) << each.path << " " << each.name;
  }
  EXPECT_EQ(attributes.set(link.c_str(), "name", "value", 5), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST(ProtectionClass, IsKeptInAnAttribute) {
  const TemporaryRoot root;
  constexpr const char* kName = "user.com.orlix.pallion.protectionclass";
  const int file = open(root.makeFile("file").c_str(), O_RDONLY | O_CLOEXEC);
  ProtectionClass& classes = ProtectionClass::system();
  EXPECT_EQ(classes.get(file), 0);
  if (fsetxattr(file, kName, "", 0, 0) != 0) GTEST_SKIP() << "needs user attributes";
  for (const int each : {4, 0, 0x12345678, 3}) {
    EXPECT_EQ(classes.set(file, each), 0);
    EXPECT_EQ(classes.get(file), each);
  }
  std::string bytes(4, '\xFF');
  EXPECT_EQ(fgetxattr(file, kName, bytes.data(), bytes.size()), 4);
  EXPECT_EQ(bytes, std::string("\3\0\0\0", 4));
  EXPECT_EQ(classes.set(file, -1), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(classes.get(file), 3);
  for (const std::string& damaged : {std::string(), std::string("123"), std::string("12345678"),
                                     std::string("\xFF\xFF\xFF\xFF")}) {
    ASSERT_EQ(fsetxattr(file, kName, damaged.data(), damaged.size(), 0), 0);
    EXPECT_EQ(classes.get(file), -1);
    EXPECT_EQ(errno, EINVAL) << damaged.size();
  }
  close(file);
  EXPECT_EQ(classes.get(file), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(classes.set(file, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(ProtectionClass, SettingHasNoEffectWithoutAttributes) {
  if (!test::canMount()) GTEST_SKIP() << "needs a child of its own";
  const TemporaryRoot root;
  const int file = open(root.makeFile("file").c_str(), O_RDONLY | O_CLOEXEC);
  for (const auto& [number, outcome] : {std::pair{ENOTSUP, 0}, {EROFS, -1}}) {
    EXPECT_TRUE(test::runInMountNamespace([&, refused = number, expected = outcome] {
      ASSERT_TRUE(test::refuseCalls({SYS_fgetxattr, SYS_fsetxattr}, refused));
      EXPECT_EQ(ProtectionClass::system().set(file, 4), expected);
      EXPECT_EQ(ProtectionClass::system().get(file), expected);
    })) << number;
  }
  close(file);
}

TEST(TemporaryDirectory, FollowsTheEnvironment) {
  const char* before = std::getenv("TMPDIR");
  const std::string saved = before ? before : "";
  struct Case {
    const char* value;
    const char* path;
  };
  for (const Case& each :
       {Case{nullptr, "/tmp/"}, Case{"", "/tmp/"}, Case{"relative", "/tmp/"},
        Case{"/elsewhere", "/elsewhere/"}, Case{"/with/slash/", "/with/slash/"}}) {
    each.value ? setenv("TMPDIR", each.value, 1) : unsetenv("TMPDIR");
    EXPECT_EQ(temporaryDirectory().path(), each.path);
  }
  before ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR");
}

TEST(Replaceable, PutsAnotherImplementationInPlaceUntilItIsTakenAway) {
  class Fake : public MakePath {
   public:
    int make(const char*, mode_t) override { return EDQUOT; }
  } outer, inner;
  EXPECT_EQ(&MakePath::current(), &MakePath::system());
  MakePath* const before = MakePath::replace(&outer);
  EXPECT_EQ(before, &MakePath::system());
  EXPECT_EQ(MakePath::replace(&inner), &outer);
  EXPECT_EQ(MakePath::current().make("/", 0), EDQUOT);
  EXPECT_EQ(MakePath::system().make("/", 0), EEXIST);
  EXPECT_EQ(MakePath::replace(before), &inner);
  EXPECT_EQ(&MakePath::current(), &MakePath::system());
  MakePath::replace(&outer);
  MakePath::replace(nullptr);
  EXPECT_EQ(&MakePath::current(), &MakePath::system());
}

}  // namespace
}  // namespace pallion
