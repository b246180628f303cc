#include "platform/journal.h"

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "tests/helpers/datagram_receiver.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

TEST(Journal, GetsFieldsOfAnyBytesAndAnyLength) {
  const TemporaryRoot root;
  const DatagramReceiver receiver(root / "socket");
  const Journal journal((root / "socket").c_str());
  ASSERT_TRUE(journal.isOpen());
  const std::string twoLines = "a\nPRIORITY=0" + std::string(256, '\xff');
  journal.send(std::vector<JournalField>{{"MESSAGE", twoLines}, {"A", ""}, {"B", "=\xff\x1b"}});
  EXPECT_EQ(receiver.receive(), "MESSAGE\n" + std::string("\x0c\x01\0\0\0\0\0\0", 8) + twoLines +
                                    "\nA=\nB==\xff\x1b\n");
  // What is too long for a datagram.
  const std::string message(600000, 'm');
  journal.send(std::vector<JournalField>{{"MESSAGE", message}});
  int seals = 0;
  EXPECT_EQ(receiver.receive(&seals), "MESSAGE=" + message + "\n");
  EXPECT_EQ(seals, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
}

TEST(Journal, IsNeverWaitedFor) {
  const TemporaryRoot root;
  EXPECT_FALSE(Journal((root / "missing").c_str()).isOpen());
  auto receiver = std::make_unique<DatagramReceiver>(root / "socket");
  const Journal journal((root / "socket").c_str());
  const std::vector<JournalField> entry = {{"MESSAGE", "m"}};
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 20000; ++i) journal.send(entry);
  receiver.reset();
  journal.send(entry);
  // A socket that waited would have done so for five seconds.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

}  // namespace
}  // namespace pallion::test
