#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/NextGeneration.h"
#include "tests/kdxoffload/HistoryOnDisk.h"

using kdxoffload::FileDigest;
using kdxoffload::FolderDigests;
using kdxoffload::GenerationFacts;
using kdxoffload::HashFormat;
using kdxoffload::HashHistories;
using kdxoffload::HashList;
using testing::ElementsAre;
using Action = HashList::Action;

namespace {

constexpr int64_t moment = 1'700'000'000'000'000'000;

FileDigest digestOf(const std::string& hex) {
  return FileDigest::fromText("XXHash64BE:" + hex).value();
}

kdxoffload::ReadFile readFileOf(const std::string& path, const std::string& hex) {
  return {.path = path, .size = 5, .modified = moment, .digest = digestOf(hex), .read = moment + 1};
}

class NextGeneration : public testing::Test {
 protected:
  void read(const std::vector<std::string>& folders = {}) {
    histories = HashHistories::read(platform::Folder::open(scratch.path(), nullptr).value(), folders, nullptr).value();
  }
  void makeHistory(const std::string& folder, const std::vector<HashList::File>& files) const {
    HistoryOnDisk(scratch.path() / folder).add("0001_a.mhl", HistoryOnDisk::listOf(files)).writeChain();
  }
  [[nodiscard]] std::vector<std::optional<HashList>> lists() const {
    return kdxoffload::nextGeneration(histories, facts);
  }
  // Of the top.
  [[nodiscard]] HashList list() const { return lists().back().value(); }

  ScratchDirectory scratch;
  HashHistories histories;
  GenerationFacts facts{.creator = {.created = moment, .host = "cart", .tool = "kdxoffload", .toolVersion = "1"}};
};

std::vector<std::string> pathsIn(const HashList& list) {
  std::vector<std::string> paths;
  for (const HashList::File& file : list.files) paths.push_back(file.path);
  return paths;
}

}  // namespace

TEST_F(NextGeneration, WhereNothingWasReadThereIsNone) {
  read();
  EXPECT_THAT(lists(), ElementsAre(std::nullopt));
}

TEST_F(NextGeneration, AFileHasWhatIsKnownOfIt) {
  read();
  facts.files = {readFileOf("a/b", HistoryOnDisk::abcd)};
  const HashList found = list();
  EXPECT_EQ(facts.creator, found.creator);
  const HashList::File expected{
      .path = "a/b",
      .size = 5,
      .modified = moment,
      .hashes = {{.value = HistoryOnDisk::abcd, .action = Action::original, .hashed = moment + 1}}};
  EXPECT_THAT(found.files, ElementsAre(expected));
}

TEST_F(NextGeneration, DigestsAreComparedWithThoseBefore) {
  makeHistory("",
              {HistoryOnDisk::file("same", HistoryOnDisk::abcd), HistoryOnDisk::file("other", HistoryOnDisk::abcd)});
  read();
  facts.files = {readFileOf("same", HistoryOnDisk::abcd), readFileOf("other", HistoryOnDisk::def),
                 readFileOf("new", HistoryOnDisk::def)};
  const HashList found = list();
  EXPECT_EQ(Action::verified, found.files.at(0).hashes.at(0).action);
  EXPECT_EQ(Action::failed, found.files.at(1).hashes.at(0).action);
  EXPECT_EQ(HistoryOnDisk::def, found.files.at(1).hashes.at(0).value);
  EXPECT_EQ(Action::original, found.files.at(2).hashes.at(0).action);
}

TEST_F(NextGeneration, PatternsOfBeforeAreKept) {
  makeHistory("", {});
  read();
  facts.files = {readFileOf("a", HistoryOnDisk::abcd), readFileOf("b/c.tmp", HistoryOnDisk::abcd),
                 readFileOf("ascmhl/0001.mhl", HistoryOnDisk::abcd), readFileOf("report.html", HistoryOnDisk::abcd)};
  facts.ignored = {"report.html", "ascmhl"};
  EXPECT_THAT(list().ignored, ElementsAre(".DS_Store", "ascmhl", "ascmhl/", "*.tmp", "report.html"));
  EXPECT_THAT(pathsIn(list()), ElementsAre("a"));
}

TEST_F(NextGeneration, NamesThatXMLCannotHoldAreLeftOut) {
  read();
  facts.files = {readFileOf("a\xff", HistoryOnDisk::abcd), readFileOf("a\x1b", HistoryOnDisk::abcd)};
  EXPECT_THAT(lists(), ElementsAre(std::nullopt));
  facts.files.push_back(readFileOf("a\n", HistoryOnDisk::abcd));
  EXPECT_THAT(pathsIn(list()), ElementsAre("a\n"));
}

TEST_F(NextGeneration, FoldersThatAreWholeHaveTheirDigests) {
  const FolderDigests clips{.content = digestOf("4c226b42e27d7af3"), .structure = digestOf("906faa843d591a9f")};
  const FolderDigests root{.content = digestOf("8d02114c32e28cbe"), .structure = digestOf("f557f8ca8e5a88ef")};
  read();
  facts.files = {readFileOf("Clips/a", HistoryOnDisk::abcd)};
  facts.folders = {{"Clips", clips}};
  EXPECT_EQ(std::nullopt, list().root);
  facts.folders[""] = root;
  const HashList found = list();
  ASSERT_EQ(1U, found.folders.size());
  EXPECT_EQ("Clips", found.folders[0].path);
  EXPECT_EQ("4c226b42e27d7af3", found.folders[0].hashes.content.at(0).value);
  EXPECT_EQ("906faa843d591a9f", found.folders[0].hashes.structure.at(0).value);
  EXPECT_EQ("8d02114c32e28cbe", found.root.value().content.at(0).value);
  EXPECT_EQ(Action::none, found.root.value().content.at(0).action);
}

TEST_F(NextGeneration, AHistoryFurtherDownGetsItsOwn) {
  makeHistory("Nested", {HistoryOnDisk::file("a", HistoryOnDisk::abcd)});
  read({"Nested"});
  facts.files = {readFileOf("Nested/a", HistoryOnDisk::abcd), readFileOf("b", HistoryOnDisk::def)};
  const FolderDigests some{.content = digestOf("4c226b42e27d7af3"), .structure = digestOf("906faa843d591a9f")};
  facts.folders = {{"Nested", some}, {"Nested/deep", some}, {"Other", some}};
  const auto found = lists();
  ASSERT_EQ(2U, found.size());
  EXPECT_THAT(pathsIn(found[0].value()), ElementsAre("a"));
  EXPECT_EQ(Action::verified, found[0]->files.at(0).hashes.at(0).action);
  EXPECT_TRUE(found[0]->root);
  ASSERT_EQ(1U, found[0]->folders.size());
  EXPECT_EQ("deep", found[0]->folders[0].path);
  EXPECT_THAT(pathsIn(found[1].value()), ElementsAre("b"));
  EXPECT_FALSE(found[1]->root);
  ASSERT_EQ(1U, found[1]->folders.size());
  EXPECT_EQ("Other", found[1]->folders[0].path);
}

TEST_F(NextGeneration, WhatIsAboveANewListGetsOneTooToNameIt) {
  makeHistory("A", {});
  makeHistory("A/B", {});
  makeHistory("C", {});
  read({"A", "A/B", "C"});
  facts.files = {readFileOf("A/B/a", HistoryOnDisk::abcd)};
  std::vector<std::string> withAList;
  for (std::size_t place = 0; place < histories.places().size(); ++place) {
    if (lists()[place]) withAList.push_back(histories.places()[place].folder);
  }
  EXPECT_THAT(withAList, ElementsAre("A/B", "A", ""));
}
