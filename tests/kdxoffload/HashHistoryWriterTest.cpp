#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "KDXFileTools/kdxoffload/HashHistoryWriter.h"
#include "KDXFileTools/kdxoffload/HashListReader.h"
#include "tests/kdxoffload/HistoryOnDisk.h"
#include "tests/support/ToolRun.h"

using kdxoffload::FileDigest;
using kdxoffload::GenerationFacts;
using kdxoffload::HashHistories;
using kdxoffload::HashHistory;
using kdxoffload::HashList;
using testing::ElementsAre;
using testing::IsEmpty;
using Action = HashList::Action;

namespace {

constexpr int64_t moment = 1'700'000'000'000'000'000;  // 2023-11-14T22:13:20 UTC
constexpr int64_t day = 86'400'000'000'000;
const std::string first = "ascmhl/0001_A001_2023-11-14_221320Z.mhl";
const std::string second = "ascmhl/0002_A001_2023-11-15_221320Z.mhl";
const std::string chainFile = "ascmhl/ascmhl_chain.xml";

class HashHistoryWriter : public testing::Test {
 protected:
  // Reads what is there, as a run does, and writes what was read on that day.
  bool write(const std::vector<std::string>& paths, int dayNumber = 0, const std::vector<std::string>& folders = {}) {
    HashHistories histories = read(folders);
    GenerationFacts facts{.creator = {.created = moment + dayNumber * day, .host = "cart", .tool = "kdxoffload"},
                          .started = moment + dayNumber * day,
                          .rootName = "A001"};
    for (const std::string& path : paths) {
      facts.files.push_back({.path = path,
                             .size = 5,
                             .modified = moment,
                             .digest = FileDigest::fromText(std::string("XXHash64BE:") + HistoryOnDisk::abcd).value(),
                             .read = facts.started});
    }
    return kdxoffload::writeGenerations(folder, histories, facts, &error);
  }
  [[nodiscard]] HashHistories read(const std::vector<std::string>& folders = {}) const {
    return HashHistories::read(folder, folders, nullptr).value();
  }
  [[nodiscard]] HashHistory history() const { return HashHistory::read(folder, nullptr).value(); }
  [[nodiscard]] HashList listIn(const std::string& name) const {
    return kdxoffload::readHashList(readFile(scratch.file(name)), nullptr).value();
  }
  [[nodiscard]] std::vector<std::string> names() const { return namesBelow(scratch.path()); }

  ScratchDirectory scratch;
  platform::Folder folder = platform::Folder::open(scratch.path(), nullptr).value();
  std::optional<platform::Error> error;
};

}  // namespace

TEST_F(HashHistoryWriter, TheFirstGenerationMakesTheHistory) {
  ASSERT_TRUE(write({"a", "b"}));
  EXPECT_THAT(names(), ElementsAre(first, chainFile));
  EXPECT_EQ(2U, listIn(first).files.size());
  EXPECT_TRUE(history().isChainWhole());
  EXPECT_EQ(2U, history().files().size());
}

TEST_F(HashHistoryWriter, TheNextGenerationContinuesIt) {
  ASSERT_TRUE(write({"a"}));
  const std::string before = readFile(scratch.file(first));
  ASSERT_TRUE(write({"a", "b"}, 1));
  EXPECT_THAT(names(), ElementsAre(first, second, chainFile));
  EXPECT_EQ(before, readFile(scratch.file(first)));
  EXPECT_EQ(Action::verified, listIn(second).files.at(0).hashes.at(0).action);
  EXPECT_EQ(Action::original, listIn(second).files.at(1).hashes.at(0).action);
  EXPECT_EQ(2U, history().chain().links.size());
}

TEST_F(HashHistoryWriter, ARunThatReadNothingWritesNothing) {
  ASSERT_TRUE(write({}));
  EXPECT_THAT(names(), IsEmpty());
  ASSERT_TRUE(write({"a"}));
  ASSERT_TRUE(write({}, 1));
  EXPECT_THAT(names(), ElementsAre(first, chainFile));
}

TEST_F(HashHistoryWriter, AListThatNoChainNamesIsEnteredByTheNextRun) {
  ASSERT_TRUE(write({"a"}));
  const std::string chainOfOne = readFile(scratch.file(chainFile));
  ASSERT_TRUE(write({"b"}, 1));
  const std::string chainOfTwo = readFile(scratch.file(chainFile));
  writeFile(scratch.file(chainFile), chainOfOne);  // as a kill between the two steps leaves it
  ASSERT_TRUE(write({}, 2));
  EXPECT_EQ(chainOfTwo, readFile(scratch.file(chainFile)));
  std::filesystem::remove(scratch.file(chainFile));
  ASSERT_TRUE(write({"c"}, 2));
  EXPECT_EQ(3U, history().chain().links.size());
  EXPECT_TRUE(history().isChainWhole());
  EXPECT_EQ(3U, history().files().size());
}

TEST_F(HashHistoryWriter, AHistoryFurtherDownIsContinuedThereAndNamedAbove) {
  HistoryOnDisk(scratch.path() / "Nested" / "deep")
      .add("0001_deep.mhl", HistoryOnDisk::listOf({HistoryOnDisk::file("a", HistoryOnDisk::abcd)}))
      .writeChain();
  ASSERT_TRUE(write({"Nested/deep/a", "b"}, 0, {"Nested/deep"}));
  const std::string nested = "Nested/deep/ascmhl/0002_deep_2023-11-14_221320Z.mhl";
  EXPECT_THAT(names(), ElementsAre("Nested/deep/ascmhl/0001_deep.mhl", nested, "Nested/deep/ascmhl/ascmhl_chain.xml",
                                   first, chainFile));
  EXPECT_EQ(Action::verified, listIn(nested).files.at(0).hashes.at(0).action);
  const HashList::Reference expected{.path = nested, .c4 = C4Digest::of(readFile(scratch.file(nested)))};
  EXPECT_THAT(listIn(first).references, ElementsAre(expected));
  EXPECT_EQ("b", listIn(first).files.at(0).path);
}

TEST_F(HashHistoryWriter, DocumentsAreWellFormed) {
  if (!haveProgram("xmllint")) GTEST_SKIP() << "xmllint is missing";
  ASSERT_TRUE(write({"a<&>\"'", "\t\n\r", " ", "\xc3\xa4"}));
  for (const std::string& name : {first, chainFile}) {
    const ToolRun run = runTool({.arguments = {"--noout", scratch.file(name)}, .program = "xmllint"});
    EXPECT_EQ(0, run.exitStatus) << run.errors;
    EXPECT_EQ("", run.errors);
  }
}

TEST_F(HashHistoryWriter, AListNeverTakesThePlaceOfAFile) {
  writeFile(scratch.file(first), "somebody else's");
  EXPECT_FALSE(write({"a"}));
  EXPECT_EQ(EEXIST, error.value().code);
  EXPECT_EQ("somebody else's", readFile(scratch.file(first)));
  EXPECT_THAT(names(), ElementsAre(first));
}

TEST_F(HashHistoryWriter, WhereNothingCanBeWrittenThatIsAnError) {
  HashHistories histories = read();
  ASSERT_TRUE(write({"a"}));
  writeFile(scratch.file("file"), "");
  std::filesystem::remove_all(scratch.path() / "ascmhl");
  writeFile(scratch.file("ascmhl"), "a file in its place");
  const GenerationFacts facts{
      .started = moment,
      .rootName = "A001",
      .files = {{.path = "a", .digest = FileDigest::fromText("XXHash64BE:0ea03b369a463d9d").value()}}};
  EXPECT_FALSE(kdxoffload::writeGenerations(folder, histories, facts, &error));
  EXPECT_EQ(EEXIST, error.value().code);
  EXPECT_THAT(names(), ElementsAre("ascmhl", "file"));
}
