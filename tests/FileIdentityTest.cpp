// How a file is recognised whatever happened to its name or its number.

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/FileIdentity.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

namespace {

namespace fs = std::filesystem;
using platform::FileStamp;

TEST(FileIdentity, TwoNamesOfOneFileHaveOneIdentity) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "a");
  writeFile(scratch.file("other.mov"), "a");
  fs::create_hard_link(scratch.file("clip.mov"), scratch.file("hard.mov"));
  fs::create_symlink("clip.mov", scratch.file("link.mov"));
  const auto identity = platform::identityOfFile(scratch.file("clip.mov"));
  ASSERT_TRUE(identity);
  EXPECT_EQ(identity, platform::identityOfFile(scratch.file("hard.mov")));
  EXPECT_EQ(identity, platform::identityOfFile(scratch.file("link.mov")));
  EXPECT_NE(identity, platform::identityOfFile(scratch.file("other.mov")));
}

TEST(FileIdentity, TheIdentityOfAnItemIsTheSymbolicLinksOwn) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "a");
  fs::create_symlink("clip.mov", scratch.file("link.mov"));
  EXPECT_EQ(platform::identityOfFile(scratch.file("clip.mov")), platform::identityOfItem(scratch.file("clip.mov")));
  EXPECT_TRUE(platform::identityOfItem(scratch.file("link.mov")));
  EXPECT_NE(platform::identityOfFile(scratch.file("link.mov")), platform::identityOfItem(scratch.file("link.mov")));
}

TEST(FileIdentity, WhatIsNotThereHasNoIdentity) {
  const ScratchDirectory scratch;
  fs::create_symlink("nowhere", scratch.file("link.mov"));
  EXPECT_EQ(std::nullopt, platform::identityOfFile(scratch.file("missing.mov")));
  EXPECT_EQ(std::nullopt, platform::identityOfItem(scratch.file("missing.mov")));
  EXPECT_EQ(std::nullopt, platform::identityOfFile(scratch.file("link.mov")));
  EXPECT_TRUE(platform::identityOfItem(scratch.file("link.mov")));
}

constexpr uint32_t ofCreation = FileStamp::ofCreation;
constexpr FileStamp withTimeOfCreation{.number = 3, .modified = 4, .size = ofCreation};
constexpr FileStamp withoutTimeOfCreation{.number = 2, .modified = 4, .size = 5};

struct StampRow : NamedRow {
  FileStamp stamp;
  FileStamp found;
  bool isOf;
};

class FileStamps : public testing::TestWithParam<StampRow> {};

TEST_P(FileStamps, TellWhetherItIsTheSameFile) {
  EXPECT_EQ(GetParam().isOf, GetParam().stamp.isOf(GetParam().found));
}

INSTANTIATE_TEST_SUITE_P(
    Recognised, FileStamps,
    testing::Values(StampRow{"ByItsCreationAfterAChange", withTimeOfCreation, {3, 40, ofCreation}, true},
                    StampRow{"AndOneCreatedLaterIsNot", withTimeOfCreation, {30, 4, ofCreation}, false},
                    StampRow{"AndOneWithoutItsCreationIsNot", withTimeOfCreation, {3, 4, 5}, false},
                    StampRow{"ByItsNumberAfterAChange", withoutTimeOfCreation, {2, 40, 5}, true},
                    StampRow{"AndOneThatGrewIsNot", withoutTimeOfCreation, {2, 4, 50}, false},
                    StampRow{"ByItsContentUnderAnotherNumber", withoutTimeOfCreation, {20, 4, 5}, true},
                    StampRow{"AndAnotherOfTheSameMomentIsNot", withoutTimeOfCreation, {20, 4, 50}, false},
                    StampRow{"AndAnotherOfTheSameSizeIsNot", withoutTimeOfCreation, {20, 40, 5}, false}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(PinnedFile, StandsWhereItWasAndNotWhereItIsNoMore) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov.kdxcopy"), "content");
  const auto item = platform::PinnedFile::ofItem(scratch.file("clip.mov.kdxcopy"));
  EXPECT_EQ(true, item.standsAt(scratch.file("clip.mov.kdxcopy")));

  fs::rename(scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov"));

  EXPECT_EQ(true, item.standsAt(scratch.file("clip.mov")));
  EXPECT_EQ(false, item.standsAt(scratch.file("clip.mov.kdxcopy")));
}

TEST(PinnedFile, OfAnItemIsTheSymbolicLinkItself) {
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), "content");
  // Files of the same tick of the clock can't be told apart everywhere.
  do {
    fs::remove(scratch.file("link.mov"));
    fs::create_symlink("clip.mov", scratch.file("link.mov"));
  } while (platform::stampOfItem(scratch.file("link.mov"))->isOf(*platform::stampOfItem(scratch.file("clip.mov"))));
  EXPECT_EQ(true, platform::PinnedFile::ofItem(scratch.file("link.mov")).standsAt(scratch.file("link.mov")));
  EXPECT_EQ(false, platform::PinnedFile::ofItem(scratch.file("link.mov")).standsAt(scratch.file("clip.mov")));
  EXPECT_EQ(true, platform::PinnedFile::ofFile(scratch.file("link.mov")).standsAt(scratch.file("clip.mov")));
}

TEST(PinnedFile, OfNothingStandsNowhere) {
  const ScratchDirectory scratch;
  const auto nothing = platform::PinnedFile::ofItem(scratch.file("clip.mov"));
  EXPECT_FALSE(nothing.stamp());
  writeFile(scratch.file("clip.mov"), "content");
  EXPECT_NE(true, nothing.standsAt(scratch.file("clip.mov")));
}

}  // namespace
