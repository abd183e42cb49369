#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "KDXFileTools/kdxoffload/HashHistory.h"
#include "tests/kdxoffload/HistoryOnDisk.h"

using kdxoffload::HashFormat;
using kdxoffload::HashHistory;
using kdxoffload::HashList;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Action = HashList::Action;

namespace {

const std::string abcd = HistoryOnDisk::abcd;
const std::string def = HistoryOnDisk::def;
const std::string first = "0001_card_2023-11-14_221320Z.mhl";
const std::string second = "0002_card_2023-11-15_221320Z.mhl";

class HashHistoryTest : public testing::Test {
 protected:
  std::optional<HashHistory> read() {
    return HashHistory::read(platform::Folder::open(scratch.path(), nullptr).value(), &error);
  }
  std::string problem() {
    error.reset();
    const bool isRead = read().has_value();
    EXPECT_NE(isRead, error.has_value());
    return error ? error->description.value_or("") : "";
  }
  static HashList listOf(const std::vector<HashList::File>& files) { return HistoryOnDisk::listOf(files); }
  static HashList::File file(const std::string& path, const std::string& value, Action action = Action::original) {
    return HistoryOnDisk::file(path, value, action);
  }

  ScratchDirectory scratch;
  std::optional<platform::Error> error;
};

}  // namespace

TEST_F(HashHistoryTest, AFolderWithoutListsHasAnEmptyOne) {
  const auto history = read();
  ASSERT_TRUE(history);
  EXPECT_TRUE(history->isEmpty());
  EXPECT_TRUE(history->isChainWhole());
  std::filesystem::create_directory(scratch.path() / "ascmhl");
  EXPECT_TRUE(read().value().isEmpty());
}

TEST_F(HashHistoryTest, TheFilesOfAllGenerationsAreKnown) {
  HistoryOnDisk(scratch.path())
      .add(first, listOf({file("a", abcd), file("b", def)}))
      .add(second, listOf({file("b", def, Action::verified), file("c", abcd)}))
      .writeChain();
  const auto history = read();
  ASSERT_TRUE(history);
  EXPECT_EQ(2U, history->chain().links.size());
  EXPECT_TRUE(history->isChainWhole());
  ASSERT_EQ(3U, history->files().size());
  EXPECT_EQ(1U, history->fileAt("a")->generation);
  EXPECT_EQ(2U, history->fileAt("b")->generation);
  EXPECT_EQ(abcd, history->fileAt("c")->knownOf(HashFormat::xxh64)->value);
  EXPECT_EQ(nullptr, history->fileAt("c")->knownOf(HashFormat::md5));
  EXPECT_EQ(5U, history->fileAt("a")->size);
  EXPECT_EQ(nullptr, history->fileAt("d"));
  EXPECT_THAT(history->ignored(), ElementsAre(".DS_Store", "ascmhl", "ascmhl/", "*.tmp"));
}

TEST_F(HashHistoryTest, ADigestIsOriginalVerifiedOrFailed) {
  HistoryOnDisk(scratch.path()).add(first, listOf({file("a", abcd)})).writeChain();
  const HashHistory history = read().value();
  EXPECT_EQ(Action::verified, history.actionFor("a", HashFormat::xxh64, abcd));
  EXPECT_EQ(Action::failed, history.actionFor("a", HashFormat::xxh64, def));
  EXPECT_EQ(Action::original, history.actionFor("b", HashFormat::xxh64, abcd));
  EXPECT_EQ(Action::original, history.actionFor("a", HashFormat::md5, "d41d8cd98f00b204e9800998ecf8427e"));
}

TEST_F(HashHistoryTest, NothingIsComparedWithADigestThatFailed) {
  HistoryOnDisk(scratch.path())
      .add(first, listOf({file("a", abcd), file("b", def, Action::failed)}))
      .add(second, listOf({file("a", def, Action::failed)}))
      .writeChain();
  const HashHistory history = read().value();
  EXPECT_TRUE(history.fileAt("a")->hasFailed);
  EXPECT_EQ(Action::verified, history.actionFor("a", HashFormat::xxh64, abcd));
  EXPECT_EQ(Action::failed, history.actionFor("a", HashFormat::xxh64, def));
  EXPECT_EQ(Action::original, history.actionFor("b", HashFormat::xxh64, def));
}

TEST_F(HashHistoryTest, AListThatNoChainNamesYetIsEntered) {
  HistoryOnDisk disk(scratch.path());
  disk.add(first, listOf({file("a", abcd)}));
  EXPECT_EQ(1U, read().value().chain().links.size()) << "the chain is still missing";
  EXPECT_FALSE(read().value().isChainWhole());
  disk.writeChain().add(second, listOf({file("b", def)})).add("0003_card.mhl", listOf({file("c", def)}));
  const HashHistory history = read().value();
  EXPECT_EQ(3U, history.files().size());
  EXPECT_EQ(second, history.chain().links.at(1).fileName);
  EXPECT_EQ(C4Digest::of(readFile(disk.path(second))), history.chain().links.at(1).c4);
  EXPECT_FALSE(history.isChainWhole());
}

TEST_F(HashHistoryTest, WhatIsNotTheNextWholeListIsNotEntered) {
  HistoryOnDisk disk(scratch.path());
  disk.add(first, listOf({file("a", abcd)})).writeChain();
  writeFile(disk.path(second), readFile(disk.path(first)).substr(0, 300));
  writeFile(disk.path("0004_card.mhl"), readFile(disk.path(first)));
  writeFile(disk.path("0001_again.mhl"), readFile(disk.path(first)));
  const HashHistory history = read().value();
  EXPECT_EQ(1U, history.chain().links.size());
  EXPECT_TRUE(history.isChainWhole());
  EXPECT_THAT(history.strangers(), ElementsAre("0001_again.mhl", second, "0004_card.mhl"));
}

TEST_F(HashHistoryTest, TemporaryFilesCountForNothing) {
  HistoryOnDisk disk(scratch.path());
  disk.add(first, listOf({file("a", abcd)})).writeChain();
  writeFile(disk.path(second + ".kdxcopy"), readFile(disk.path(first)));
  writeFile(disk.path("ascmhl_chain.xml.kdxcopy"), "half of a cha");
  writeFile(disk.path("2_card.mhl"), readFile(disk.path(first)));
  const HashHistory history = read().value();
  EXPECT_EQ(1U, history.chain().links.size());
  EXPECT_THAT(history.strangers(), IsEmpty());
}

TEST_F(HashHistoryTest, AListThatWasChangedIsNotTrusted) {
  HistoryOnDisk disk(scratch.path());
  disk.add(first, listOf({file("a", abcd)})).add(second, listOf({file("a", abcd)})).writeChain();
  EXPECT_EQ("", problem());
  writeFile(disk.path(first), HistoryOnDisk::textOf(listOf({file("a", def)})));
  EXPECT_EQ("\"" + first + "\": it was changed after it was written", problem());
}

TEST_F(HashHistoryTest, AListThatIsMissingIsReported) {
  HistoryOnDisk disk(scratch.path());
  disk.add(first, listOf({file("a", abcd)})).add(second, listOf({file("a", abcd)})).writeChain();
  std::filesystem::remove(disk.path(first));
  EXPECT_THAT(problem(), testing::AllOf(HasSubstr(first), HasSubstr("No such file")));
}

TEST_F(HashHistoryTest, ADamagedListIsReported) {
  HistoryOnDisk disk(scratch.path());
  kdxoffload::HashListChain chain;
  chain.links.push_back({.fileName = first, .c4 = C4Digest::of("<hashlist>")});
  writeFile(disk.path(first), "<hashlist>");
  writeFile(disk.path("ascmhl_chain.xml"), chain.text());
  EXPECT_THAT(problem(), testing::AllOf(HasSubstr(first), HasSubstr("well-formed")));
}

TEST_F(HashHistoryTest, ADamagedChainIsReported) {
  HistoryOnDisk disk(scratch.path());
  disk.add(first, listOf({file("a", abcd)})).writeChain();
  writeFile(disk.path("ascmhl_chain.xml"), readFile(disk.path("ascmhl_chain.xml")).substr(0, 200));
  EXPECT_THAT(problem(), testing::AllOf(HasSubstr("ascmhl_chain.xml"), HasSubstr("well-formed")));
  writeFile(disk.path("ascmhl_chain.xml"), "");
  EXPECT_THAT(problem(), HasSubstr("ascmhl_chain.xml"));
}

TEST_F(HashHistoryTest, NoLinkIsFollowed) {
  const ScratchDirectory elsewhere;
  HistoryOnDisk disk(elsewhere.path());
  disk.add(first, listOf({file("a", abcd)})).writeChain();
  std::filesystem::create_directory_symlink(elsewhere.path() / "ascmhl", scratch.path() / "ascmhl");
  EXPECT_NE("", problem());
  std::filesystem::remove(scratch.path() / "ascmhl");
  std::filesystem::create_directory(scratch.path() / "ascmhl");
  std::filesystem::create_symlink(disk.path("ascmhl_chain.xml"), scratch.path() / "ascmhl/ascmhl_chain.xml");
  EXPECT_THAT(problem(), HasSubstr("ascmhl_chain.xml"));
}

TEST_F(HashHistoryTest, AFileInThePlaceOfTheFolderIsReported) {
  writeFile(scratch.file("ascmhl"), "");
  EXPECT_NE("", problem());
}
