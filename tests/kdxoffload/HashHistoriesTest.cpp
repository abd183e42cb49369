#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/HashHistories.h"
#include "tests/kdxoffload/HistoryOnDisk.h"
#include "tests/kdxoffload/TreeInMemory.h"

using kdxoffload::HashFormat;
using kdxoffload::HashHistories;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

namespace {

using Folders = std::vector<std::string>;

class HashHistoriesTest : public testing::Test {
 protected:
  std::optional<HashHistories> read(const Folders& folders) {
    return HashHistories::read(platform::Folder::open(scratch.path(), nullptr).value(), folders, &error);
  }
  // A history of one list with the one file.
  void make(const std::string& folder, const std::string& path, const std::string& value) const {
    HistoryOnDisk(scratch.path() / folder)
        .add("0001_a.mhl", HistoryOnDisk::listOf({HistoryOnDisk::file(path, value)}))
        .writeChain();
  }
  static std::string valueOf(const HashHistories& histories, const std::string& path) {
    const auto* const file = histories.fileAt(path);
    return file == nullptr ? "" : file->known.at(0).value;
  }

  ScratchDirectory scratch;
  std::optional<platform::Error> error;
};

}  // namespace

TEST_F(HashHistoriesTest, FoldersWithListsAreFoundFurtherDown) {
  TreeInMemory tree(1);
  tree.file("ascmhl/a").file("A/ascmhl/a").file("A/B/ascmhl/a").file("C/ascmhl").file("ascmhl/ascmhl/a");
  EXPECT_THAT(HashHistories::foldersIn(tree.listing()), UnorderedElementsAre("A", "A/B"));
}

TEST_F(HashHistoriesTest, WhatIsFurtherDownComesFirst) {
  make("A", "a", HistoryOnDisk::abcd);
  make("A/B/C", "a", HistoryOnDisk::abcd);
  const auto histories = read({"A", "A/B/C"});
  ASSERT_TRUE(histories);
  Folders folders;
  for (const auto& place : histories->places()) folders.push_back(place.folder);
  EXPECT_THAT(folders, ElementsAre("A/B/C", "A", ""));
  EXPECT_EQ(1U, histories->places()[0].above);
  EXPECT_EQ(2U, histories->places()[1].above);
  EXPECT_EQ(std::nullopt, histories->places()[2].above);
}

TEST_F(HashHistoriesTest, AFileBelongsToTheDeepestOne) {
  make("A", "a", HistoryOnDisk::abcd);
  const HashHistories histories = read({"A"}).value();
  EXPECT_EQ(0U, histories.placeOf("A/deep/er/a"));
  EXPECT_EQ("deep/er/a", histories.pathIn(0, "A/deep/er/a"));
  EXPECT_EQ(1U, histories.placeOf("A"));
  EXPECT_EQ(1U, histories.placeOf("AB/a"));
  EXPECT_EQ("AB/a", histories.pathIn(1, "AB/a"));
}

TEST_F(HashHistoriesTest, WhatTheDeepestOneDoesNotKnowTheOnesAboveMay) {
  make("", "A/old", HistoryOnDisk::def);
  make("A", "new", HistoryOnDisk::abcd);
  const HashHistories histories = read({"A"}).value();
  EXPECT_EQ(HistoryOnDisk::abcd, valueOf(histories, "A/new"));
  EXPECT_EQ(HistoryOnDisk::def, valueOf(histories, "A/old"));
  EXPECT_EQ(nullptr, histories.fileAt("A/none"));
}

TEST_F(HashHistoriesTest, WithoutAnyListsAllAreEmpty) {
  EXPECT_TRUE(read({}).value().areEmpty());
  make("A", "a", HistoryOnDisk::abcd);
  EXPECT_FALSE(read({"A"}).value().areEmpty());
}

TEST_F(HashHistoriesTest, TheErrorNamesTheFolder) {
  make("A/B", "a", HistoryOnDisk::abcd);
  writeFile(scratch.file("A/B/ascmhl/0001_a.mhl"), "changed");
  EXPECT_FALSE(read({"A/B"}));
  EXPECT_EQ("in \"A/B\": \"0001_a.mhl\": it was changed after it was written", error.value().description);
  error.reset();
  EXPECT_FALSE(read({"gone"}));
  EXPECT_THAT(error.value().description.value(), HasSubstr("in \"gone\""));
}
