#include "foundation/volume_order.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "foundation/unique_descriptor.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

TEST(VolumeOrder, IsKeptByJournalsAlone) {
  if (!canMountImages()) GTEST_SKIP() << "needs loop devices and mkfs.ext4";
  const struct {
    const char* what;
    std::vector<std::string> maker;  // of an image; none for a volume in memory
    bool keeps;
  } cases[] = {
      {"memory", {}, true},
      {"ext4", {"/sbin/mkfs.ext4"}, true},
      {"ext4 without a journal", {"/sbin/mkfs.ext4", "-O", "^has_journal"}, false},
      {"ext2", {"/sbin/mkfs.ext2"}, false},
      {"ext4 again", {"/sbin/mkfs.ext4"}, true},
  };
  const TemporaryRoot root;
  const std::string place = root.makeDirectory("place");
  const std::string image = root / "image";
  EXPECT_TRUE(runInMountNamespace([&] {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      std::vector<std::string> maker = c.maker;
      if (!maker.empty()) {
        maker.insert(maker.end(), {"-q", image, "16M"});
        ASSERT_EQ(runProcess({.arguments = maker}).status, 0);
      }
      const Mount mount = maker.empty() ? Mount::tmpfs(place) : Mount::image(image, place);
      ASSERT_TRUE(mount.mounted());
      const UniqueDescriptor directory(open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      EXPECT_EQ(keepsOrder(directory.get()), c.keeps);
      VolumeOrder volume;
      EXPECT_FALSE(volume.isKept((place + "/missing").c_str()));
      EXPECT_EQ(volume.isKept(place.c_str()), c.keeps);
      EXPECT_EQ(volume.isKept(-1), c.keeps) << "asked a second time";
      unlink(image.c_str());
    }
  }));
}

}  // namespace
}  // namespace pallion::test
