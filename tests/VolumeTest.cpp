#include <gtest/gtest.h>

#include <filesystem>

#include "platform/Disks.h"
#include "platform/Volume.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/OnFileSystem.h"
#include "tests/support/ScratchDirectory.h"

using platform::NameFolding;
using platform::ReadBack;
using platform::Volume;
using platform::volumeOf;

TEST(Volume, OfAFolderThatIsNotThereNothingIsKnown) {
  const Volume volume = volumeOf("/nowhere/at/all");
  EXPECT_EQ(0U, volume.device);
  EXPECT_EQ(0U, volume.blockSize);
  EXPECT_EQ("", volume.fileSystem);
  EXPECT_EQ(ReadBack::unknown, volume.readBack);
}

TEST(Volume, FoldersOfOneFileSystemHaveTheSameDevice) {
  const ScratchDirectory scratch;
  std::filesystem::create_directory(scratch.path() / "folder");
  const Volume volume = volumeOf(scratch.path() / "folder");
  EXPECT_EQ(volumeOf(scratch.path()).device, volume.device);
  EXPECT_NE(volumeOf("/proc").device, volume.device);
  EXPECT_NE(0U, volume.freeBytes);
}

TEST(Volume, TheRootIsOnTheSystemsDiskWhereThatIsKnown) {
  const Volume volume = volumeOf("/");
  if (volume.disk == 0) GTEST_SKIP() << "the disk of the system is not known here";
  EXPECT_TRUE(volume.isOnSystemDisk);
}

TEST(Volume, OnAServerInUserSpaceTheServersCacheIsNotKnown) {
  const auto& availability = FaultyFileSystem::availability();
  if (!availability.usable) GTEST_SKIP() << availability.reason;
  const ScratchDirectory scratch;
  const FaultyFileSystem fs(scratch.path());
  const Volume volume = volumeOf(fs.root());
  EXPECT_EQ("fuse", volume.fileSystem.substr(0, 4));
  EXPECT_EQ(ReadBack::clientCacheBypassed, volume.readBack);
  EXPECT_EQ(NameFolding::unknown, volume.names);
}

using VolumeOnFileSystem = OnFileSystem;
INSTANTIATE_TEST_SUITE_P(Kinds, VolumeOnFileSystem,
                         testing::Values(FileSystemRow{"ext4", "ext4", 16 * MiB},
                                         FileSystemRow{"tmpfs", "tmpfs", 16 * MiB},
                                         FileSystemRow{"ramfs", "ramfs", 16 * MiB}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(VolumeOnFileSystem, KindPlaceAndRoomAreThoseOfTheMount) {
  const Volume found = volumeOf(volume().path());
  EXPECT_EQ(GetParam().type, found.fileSystem);
  EXPECT_EQ(volume().path(), found.mountPoint);
  EXPECT_FALSE(found.isReadOnly);
  EXPECT_EQ(1, found.timeGrain);
  EXPECT_TRUE(found.blockSize == 1024 || found.blockSize == 4096) << found.blockSize;
  const bool isInMemory = GetParam().type != std::string("ext4");
  EXPECT_EQ(isInMemory ? ReadBack::unknown : ReadBack::device, found.readBack);
  if (GetParam().type == std::string("ramfs")) {
    EXPECT_EQ(UINT64_MAX, found.freeBytes);
  } else {
    EXPECT_LE(found.freeBytes, GetParam().size);
  }
}

TEST_P(VolumeOnFileSystem, AnImageIsOnTheDiskThatItsFileIsOn) {
  const Volume found = volumeOf(volume().path());
  const bool isInMemory = GetParam().type != std::string("ext4");
  const ScratchDirectory besideTheImage;
  EXPECT_EQ(isInMemory ? 0 : volumeOf(besideTheImage.path()).disk, found.disk);
}

TEST(Disks, WhatIsNoBlockDeviceHasNoDisk) {
  EXPECT_TRUE(platform::disksOf({.device = 0x21, .source = "tmpfs"}).empty());
  EXPECT_TRUE(platform::disksOf({.device = 0x21, .source = "/dev/null"}).empty());
  EXPECT_TRUE(platform::disksOf({.device = 0x21, .source = "host:/share"}).empty());
}
