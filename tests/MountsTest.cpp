#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "platform/FileDescriptor.h"
#include "platform/Mounts.h"

using platform::Mount;
using platform::mountNumberOf;
using platform::mounts;
using platform::mountWithNumber;
using platform::parseMounts;

TEST(Mounts, ALineHasPlaceKindAndSource) {
  const auto found = parseMounts(
      "36 35 98:7 /sub /mnt/my\\040disk rw,noatime master:1 shared:2 - fuse.sshfs host:/share rw,errors=continue\n");
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ(36U, found[0].number);
  EXPECT_EQ(::makedev(98, 7), found[0].device);
  EXPECT_EQ("/sub", found[0].root);
  EXPECT_EQ("/mnt/my disk", found[0].mountPoint);
  EXPECT_EQ("fuse.sshfs", found[0].fileSystem);
  EXPECT_EQ("host:/share", found[0].source);
}

TEST(Mounts, LinesThatAreNotUnderstoodArePassedOver) {
  for (const std::string line :
       {"", "\n", "1 2 3", "x 35 98:0 / /mnt rw - ext4 /dev/sda rw", "36 35 98 / /mnt rw - ext4 a b",
        "36 35 98:0 / /mnt rw ext4 /dev/sda rw", "36 35 98:0 / /mnt rw - ext4"}) {
    EXPECT_TRUE(parseMounts(line + "\n").empty()) << line;
  }
  EXPECT_EQ(1U, parseMounts("nonsense\n36 35 98:0 / /mnt rw - ext4 /dev/sda rw").size());
}

TEST(Mounts, ABackslashThatIsNoCodeStays) {
  const auto found = parseMounts("36 35 98:0 / /mnt/a\\9\\ rw - ext4 /dev/sda rw\n");
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ("/mnt/a\\9\\", found[0].mountPoint);
}

TEST(Mounts, AnOpenFolderIsFoundAmongTheMountsOfTheSystem) {
  const platform::FileDescriptor folder(::open("/proc", O_PATH | O_CLOEXEC));
  const std::vector<Mount> all = mounts();
  const Mount* mount = mountWithNumber(all, mountNumberOf(folder.get()));
  ASSERT_NE(nullptr, mount);
  EXPECT_EQ("/proc", mount->mountPoint);
  EXPECT_EQ("proc", mount->fileSystem);
  EXPECT_EQ(nullptr, mountWithNumber(all, std::nullopt));
}
