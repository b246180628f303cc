#include "programs/common/link_guard.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>

#include "tests/helpers/mounts.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

const std::string kOld = "private/var/mobile/Applications";
const std::string kNew = "private/var/palliond/Containers/Incoming";

int errorOfOpening(const char* path) {
  const UniqueDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
  return file ? 0 : errno;
}

int errorOfRenaming(const std::string& from, const std::string& to) {
  return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

TEST(LinkGuard, HasLinksRefusedWhereApplicationsStandAndLeavesRenamesPossible) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  struct Link {
    std::string path;
    std::string target;
  };
  const struct {
    const char* what;
    std::optional<Link> link;  // that the root has
    bool presentRoot;          // the root is "/" already
    int error;
    int throughLink;  // what comes of a way through a link in an old container
  } cases[] = {
      {"a root", Link{"var", "private/var"}, false, 0, ELOOP},
      {"the system's root", {}, true, 0, ELOOP},
      {"links on the way", Link{"private/var/mobile/Library", "/elsewhere"}, false, ELOOP, 0},
      {"a link above", Link{"private", "elsewhere"}, false, ELOOP, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const TemporaryRoot base;
    base.makeFile("root/elsewhere/file", "");
    base.makeLink("root/beside", "/elsewhere");
    if (c.link) base.makeLink("root/" + c.link->path, c.link->target);
    base.makeFile("root/" + kOld + "/item", "");
    base.makeLink("root/" + kOld + "/link", "/elsewhere");
    base.makeDirectory("root/" + kNew);
    EXPECT_TRUE(runInMountNamespace([&] {
      const std::string path = base / "root";
      const Mount present = Mount::bind(path, path);
      if (c.presentRoot) {
        ASSERT_EQ(chroot(path.c_str()), 0);
        ASSERT_EQ(chdir("/"), 0);
      }
      const std::string root = c.presentRoot ? "/" : path;
      const UniqueDescriptor directory(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      UniqueDescriptor entrance;
      EXPECT_EQ(guardAgainstLinks(directory.get(), root, entrance), c.error);
      ASSERT_EQ(fchdir(entrance ? entrance.get() : directory.get()), 0);
      ASSERT_EQ(chroot("."), 0);
      EXPECT_EQ(errorOfOpening(("/" + kOld + "/link/file").c_str()), c.throughLink);
      EXPECT_EQ(errorOfOpening("/beside/file"), 0);
      EXPECT_EQ(errorOfRenaming("/" + kOld + "/item", "/" + kNew + "/item"), 0);
    }));
    // Nothing of it is seen from here.
    EXPECT_EQ(errorOfOpening((base / "root/private/var").c_str()), 0);
    EXPECT_EQ(errorOfOpening((base / ("root/" + kNew + "/item")).c_str()), 0);
  }
}

}  // namespace
}  // namespace pallion::test
