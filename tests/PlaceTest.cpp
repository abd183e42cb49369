#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/Folder.h"
#include "platform/Place.h"
#include "tests/support/ScratchDirectory.h"

using platform::foldersAbove;
using platform::identityOfFile;
using platform::realPathOf;
using testing::Contains;
using testing::Not;

TEST(Place, ARealPathHasNoLinksAndNoDots) {
  const ScratchDirectory scratch;
  const std::string real = *realPathOf(scratch.path());
  std::filesystem::create_directory(scratch.path() / "folder");
  std::filesystem::create_directory_symlink("folder", scratch.path() / "link");
  EXPECT_EQ(real + "/folder", realPathOf(scratch.path() / "link/../folder/."));
  EXPECT_EQ(real + "/folder", realPathOf(scratch.path() / "link"));
  EXPECT_FALSE(realPathOf(scratch.path() / "missing"));
}

TEST(Place, WhatIsMissingOrAFileCannotBeListed) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("file"), "");
  EXPECT_TRUE(platform::canListFolder(scratch.path()));
  EXPECT_FALSE(platform::canListFolder(scratch.path() / "file"));
  EXPECT_FALSE(platform::canListFolder(scratch.path() / "missing"));
  EXPECT_FALSE(platform::canMakeEntriesIn(scratch.path() / "missing"));
}

TEST(Place, ALockIsSeenForAsLongAsItIsHeld) {
  const ScratchDirectory scratch;
  EXPECT_FALSE(platform::isFolderLocked(scratch.path()));
  {
    const auto holder = platform::Folder::open(scratch.path(), nullptr);
    ASSERT_TRUE(holder->lock(nullptr));
    EXPECT_TRUE(platform::isFolderLocked(scratch.path()));
  }
  EXPECT_FALSE(platform::isFolderLocked(scratch.path()));
  EXPECT_FALSE(platform::isFolderLocked(scratch.path() / "missing"));
}

TEST(Place, FoldersAboveGoUpToTheRootAndNotBelow) {
  const ScratchDirectory scratch;
  std::filesystem::create_directories(scratch.path() / "a/b");
  const auto above = foldersAbove(scratch.path() / "a");
  EXPECT_THAT(above, Contains(*identityOfFile("/")));
  EXPECT_THAT(above, Contains(*identityOfFile(scratch.path())));
  EXPECT_THAT(above, Not(Contains(*identityOfFile(scratch.path() / "a"))));
  EXPECT_THAT(above, Not(Contains(*identityOfFile(scratch.path() / "a/b"))));
  EXPECT_TRUE(foldersAbove(scratch.path() / "missing").empty());
}
