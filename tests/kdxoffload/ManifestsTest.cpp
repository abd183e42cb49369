#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "KDXFileTools/kdxoffload/HashHistories.h"
#include "KDXFileTools/kdxoffload/HashListReader.h"
#include "KDXFileTools/kdxoffload/Lister.h"
#include "KDXFileTools/kdxoffload/Manifests.h"
#include "digest/KDXDigestContext.h"
#include "tests/kdxoffload/HistoryOnDisk.h"
#include "tests/support/ToolRun.h"

namespace fs = std::filesystem;

using kdxoffload::FileDigest;
using kdxoffload::HashHistory;
using kdxoffload::HashList;
using kdxoffload::Listing;
using kdxoffload::ManifestFacts;
using kdxoffload::ManifestReport;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

constexpr int64_t moment = 1'700'000'000'000'000'000;  // 2023-11-14T22:13:20 UTC
const std::string first = "0001_A001_2023-11-14_221320Z.mhl";
const std::string second = "0002_A001_2023-11-14_221320Z.mhl";

// A card, and a destination that holds the same, all of it proved. Digests are given, not computed: the content of one published file is
// not known.
class Manifests : public testing::Test {
 protected:
  Manifests() {
    put("Clips/A002C006_141024_R2EC.mov", HistoryOnDisk::abcd);
    put("Clips/A002C007_141024_R2EC.mov", HistoryOnDisk::def);
    put("Sidecar.txt", "3ab5a4166b9bde44");
  }

  void put(const std::string& path, const std::string& digest) {
    for (const char* folder : {"card/", "A001/"}) writeFile(scratch.file(folder + path), "bytes");
    digests[path] = digest;
  }
  [[nodiscard]] std::string there(const std::string& path) const { return scratch.file("A001/" + path); }

  [[nodiscard]] ManifestFacts facts(const std::vector<std::string>& excluded = {}) const {
    const auto card = platform::Folder::open(scratch.file("card"), nullptr).value();
    const auto root = platform::Folder::open(scratch.file("A001"), nullptr).value();
    ManifestFacts facts{
        .card = std::make_shared<Listing>(kdxoffload::listTree(card, kdxoffload::ExcludePatterns(excluded), {})),
        .destination = scratch.file("A001"),
        .shownDestination = "A001",
        .algorithm = KDXDigestAlgorithmXXHash64BE,
        .started = moment};
    facts.there = kdxoffload::listDestination(root, *facts.card, {});
    facts.isProved = std::vector<bool>(facts.card->entries.size(), true);
    for (kdxoffload::EntryIndex index = 0; index < facts.card->entries.size(); ++index) {
      const auto digest = digests.find(facts.card->pathOf(index));
      if (digest == digests.end()) continue;
      facts.files.push_back({.entry = index,
                             .digest = FileDigest::fromText("XXHash64BE:" + digest->second).value(),
                             .read = moment,
                             .isOfThisRun = true});
    }
    return facts;
  }
  static ManifestReport write(const ManifestFacts& facts) {
    return kdxoffload::writeManifests(facts, [] {});
  }
  static void forget(ManifestFacts& facts, const std::string& path) {
    std::erase_if(facts.files, [&](const auto& file) { return facts.card->pathOf(file.entry) == path; });
    for (kdxoffload::EntryIndex index = 0; index < facts.isProved.size(); ++index) {
      if (facts.card->pathOf(index) == path) facts.isProved[index] = false;
    }
  }
  static void makeAllOfEarlierRuns(ManifestFacts& facts) {
    for (auto& file : facts.files) file.isOfThisRun = false;
  }
  [[nodiscard]] HashList list(const std::string& name = first) const {
    return kdxoffload::readHashList(readFile(there("ascmhl/" + name)), nullptr).value();
  }
  [[nodiscard]] std::vector<std::string> names() const { return namesBelow(scratch.path() / "A001"); }
  static std::vector<std::string> pathsOf(const HashList& list) {
    std::vector<std::string> paths;
    for (const HashList::File& file : list.files) paths.push_back(file.path);
    return paths;
  }

  ScratchDirectory scratch;
  std::map<std::string, std::string> digests;
};

}  // namespace

TEST_F(Manifests, FoldersAndTheRootHaveThePublishedDigests) {
  EXPECT_THAT(write(facts()).warnings, IsEmpty());
  const HashList written = list();
  ASSERT_EQ(1U, written.folders.size());
  EXPECT_EQ("Clips", written.folders[0].path);
  EXPECT_EQ("4c226b42e27d7af3", written.folders[0].hashes.content.at(0).value);
  EXPECT_EQ("906faa843d591a9f", written.folders[0].hashes.structure.at(0).value);
  ASSERT_TRUE(written.root.has_value());
  EXPECT_EQ("8d02114c32e28cbe", written.root->content.at(0).value);
  EXPECT_EQ("f557f8ca8e5a88ef", written.root->structure.at(0).value);
}

TEST_F(Manifests, FilesHaveTheFactsThatTheyHaveThere) {
  write(facts());
  const HashList written = list();
  EXPECT_EQ(HashList::Process::transfer, written.process);
  EXPECT_EQ("kdxoffload", written.creator.tool);
  ASSERT_THAT(pathsOf(written),
              UnorderedElementsAre("Sidecar.txt", "Clips/A002C006_141024_R2EC.mov", "Clips/A002C007_141024_R2EC.mov"));
  EXPECT_EQ(5U, written.files[0].size);
  EXPECT_EQ(HashList::Action::original, written.files[0].hashes.at(0).action);
  EXPECT_EQ(moment, written.files[0].hashes.at(0).hashed);
}

TEST_F(Manifests, ARunThatReadNothingWritesNone) {
  ManifestFacts nothingRead = facts();
  makeAllOfEarlierRuns(nothingRead);
  write(nothingRead);
  EXPECT_THAT(names(), Not(Contains(HasSubstr("ascmhl"))));
}

TEST_F(Manifests, WhatAKilledRunReadIsInTheNextList) {
  ManifestFacts rest = facts();
  makeAllOfEarlierRuns(rest);
  rest.files.back().isOfThisRun = true;
  write(rest);
  EXPECT_EQ(3U, list().files.size());
  EXPECT_TRUE(list().root.has_value());
}

TEST_F(Manifests, ARunAfterAKilledOneWritesWhatThatOneDidNot) {
  ManifestFacts rest = facts();
  makeAllOfEarlierRuns(rest);
  rest.followsKilledRun = true;
  write(rest);
  EXPECT_EQ(3U, list().files.size());
  write(rest);
  EXPECT_FALSE(fs::exists(there("ascmhl/" + second)));
}

TEST_F(Manifests, WhatAnEarlierListHasIsInTheNextOnlyWhenItWasReadAgain) {
  write(facts());
  ManifestFacts again = facts();
  makeAllOfEarlierRuns(again);
  again.files.front().isOfThisRun = true;
  write(again);
  const HashList written = list(second);
  ASSERT_EQ(1U, written.files.size());
  EXPECT_EQ(HashList::Action::verified, written.files[0].hashes.at(0).action);
  EXPECT_FALSE(written.root.has_value());
}

TEST_F(Manifests, AnotherDigestIsAFailedOneAndIsSaidOnce) {
  write(facts());
  digests["Sidecar.txt"] = HistoryOnDisk::def;
  writeFile(there("Sidecar.txt"), "others");
  ManifestFacts replaced = facts();
  write(replaced);
  for (const HashList::File& file : list(second).files) {
    EXPECT_EQ(file.path == "Sidecar.txt" ? HashList::Action::failed : HashList::Action::verified,
              file.hashes.at(0).action);
  }
  makeAllOfEarlierRuns(replaced);
  replaced.followsKilledRun = true;
  write(replaced);
  EXPECT_FALSE(fs::exists(there("ascmhl/0003_A001_2023-11-14_221320Z.mhl")));
}

TEST_F(Manifests, WhereSomethingIsNotProvedTheFoldersAboveHaveNoDigest) {
  ManifestFacts failed = facts();
  forget(failed, "Clips/A002C007_141024_R2EC.mov");
  write(failed);
  EXPECT_EQ(2U, list().files.size());
  EXPECT_THAT(list().folders, IsEmpty());
  EXPECT_FALSE(list().root.has_value());
}

TEST_F(Manifests, AnEmptyFolderThatIsNotThereMakesTheRootLessThanWhole) {
  fs::create_directories(scratch.file("card/Void"));
  ManifestFacts failed = facts();
  forget(failed, "Void");
  write(failed);
  EXPECT_EQ(1U, list().folders.size());
  EXPECT_FALSE(list().root.has_value());
}

TEST_F(Manifests, WhatWasExcludedMakesItsFoldersLessThanWholeAndIsNotIgnored) {
  put("Clips/thumb.jpg", HistoryOnDisk::abcd);
  fs::remove(there("Clips/thumb.jpg"));
  write(facts({"*.jpg"}));
  EXPECT_THAT(list().folders, IsEmpty());
  EXPECT_FALSE(list().root.has_value());
  EXPECT_THAT(list().ignored, Not(Contains(HasSubstr("jpg"))));
}

TEST_F(Manifests, WhatStoodThereBeforeMakesItsFoldersLessThanWhole) {
  writeFile(there("older.txt"), "older");
  write(facts());
  EXPECT_EQ(1U, list().folders.size());
  EXPECT_FALSE(list().root.has_value());
}

TEST_F(Manifests, WhatAnOffloadLeavesThereTakesNoPart) {
  for (const char* name : {".DS_Store", "A001.md5", "A001_2023-11-14_221320Z_offload.html"}) {
    writeFile(there(name), "left");
  }
  write(facts());
  ASSERT_TRUE(list().root.has_value());
  EXPECT_EQ("8d02114c32e28cbe", list().root->content.at(0).value);
}

TEST_F(Manifests, ACardsOwnFileOfSuchANameIsNotIgnored) {
  put("Clips/A001.md5", HistoryOnDisk::abcd);
  write(facts());
  EXPECT_THAT(pathsOf(list()), Contains("Clips/A001.md5"));
}

TEST_F(Manifests, ANameThatXMLCannotHoldIsReported) {
  put("Clips/\xff.mov", HistoryOnDisk::abcd);
  const ManifestReport report = write(facts());
  EXPECT_THAT(report.leftOut, ElementsAre("Clips/\xff.mov"));
  EXPECT_EQ(3U, list().files.size());
  EXPECT_THAT(list().folders, IsEmpty());
}

TEST_F(Manifests, LinksAreInNone) {
  for (const char* folder : {"card/Clips/link", "A001/Clips/link"}) fs::create_symlink("..", scratch.file(folder));
  write(facts());
  EXPECT_EQ(3U, list().files.size());
  EXPECT_TRUE(list().root.has_value());
}

TEST_F(Manifests, AHistoryFurtherDownIsContinuedAndNamedAbove) {
  HistoryOnDisk below(scratch.path() / "A001/Clips");
  below
      .add("0001_Clips_x.mhl",
           HistoryOnDisk::listOf({HistoryOnDisk::file("A002C006_141024_R2EC.mov", HistoryOnDisk::abcd)}))
      .writeChain();
  write(facts());
  const std::string next = "Clips/ascmhl/0002_Clips_2023-11-14_221320Z.mhl";
  ASSERT_THAT(names(), Contains(next));
  ASSERT_EQ(1U, list().references.size());
  EXPECT_EQ(next, list().references[0].path);
  EXPECT_THAT(pathsOf(list()), ElementsAre("Sidecar.txt"));
  const HashList written = kdxoffload::readHashList(readFile(there(next)), nullptr).value();
  ASSERT_TRUE(written.root.has_value());
  EXPECT_EQ("4c226b42e27d7af3", written.root->content.at(0).value);
}

TEST_F(Manifests, TheFoldersOfTheDestinationKeepTheirTimes) {
  const auto time = fs::file_time_type::clock::now() - std::chrono::hours(24);
  fs::create_directories(scratch.file("card/ascmhl"));
  fs::create_directories(there("ascmhl"));
  fs::last_write_time(there("ascmhl"), time);
  fs::last_write_time(scratch.file("A001"), time);
  ManifestFacts both = facts();
  both.wantsChecksums = true;
  write(both);
  EXPECT_THAT(names(), Contains("A001.xxh64"));
  EXPECT_THAT(names(), Contains("ascmhl/" + first));
  EXPECT_EQ(time, fs::last_write_time(scratch.file("A001")));
  EXPECT_EQ(time, fs::last_write_time(there("ascmhl")));
}

TEST_F(Manifests, ADamagedHistoryIsAWarningAndStaysAsItIs) {
  fs::create_directories(there("ascmhl"));
  writeFile(there("ascmhl/ascmhl_chain.xml"), "damaged");
  EXPECT_THAT(write(facts()).warnings, ElementsAre(HasSubstr("media hash list can't be written at A001: \"ascmhl")));
  EXPECT_EQ("damaged", readFile(there("ascmhl/ascmhl_chain.xml")));
  EXPECT_FALSE(fs::exists(there("ascmhl/" + first)));
}

namespace {

class ChecksumManifests : public Manifests {
 protected:
  [[nodiscard]] ManifestFacts facts() const {
    ManifestFacts facts = Manifests::facts();
    facts.wantsChecksums = true;
    return facts;
  }
  [[nodiscard]] std::string text() const { return readFile(there("A001.xxh64")); }
  static constexpr const char* lines =
      "3ab5a4166b9bde44  Sidecar.txt\n"
      "0ea03b369a463d9d  Clips/A002C006_141024_R2EC.mov\n"
      "7680e5f98f4a80fd  Clips/A002C007_141024_R2EC.mov\n";
};

}  // namespace

TEST_F(ChecksumManifests, AllProvedFilesAreInTheListAlsoThoseOfEarlierRuns) {
  ManifestFacts nothingRead = facts();
  makeAllOfEarlierRuns(nothingRead);
  EXPECT_THAT(write(nothingRead).warnings, IsEmpty());
  EXPECT_EQ(lines, text());
}

TEST_F(ChecksumManifests, LinesOfOtherFilesStay) {
  writeFile(there("A001.xxh64"), "ef46db3751d8e999  of another card\n");
  EXPECT_THAT(write(facts()).warnings, IsEmpty());
  EXPECT_EQ(std::string("ef46db3751d8e999  of another card\n") + lines, text());
}

TEST_F(ChecksumManifests, AFileThatWasReplacedHasItsNewDigest) {
  write(facts());
  digests["Sidecar.txt"] = HistoryOnDisk::def;
  EXPECT_THAT(write(facts()).warnings, IsEmpty());
  EXPECT_THAT(text(), HasSubstr(std::string(HistoryOnDisk::def) + "  Sidecar.txt\n"));
  EXPECT_THAT(text(), Not(HasSubstr("3ab5a4166b9bde44")));
}

TEST_F(ChecksumManifests, SomebodyElsesListStaysAsItIs) {
  for (const std::string theirs : {"1111111111111111  Sidecar.txt\n", "notes\n", ""}) {
    writeFile(there("A001.xxh64"), theirs);
    const ManifestReport report = write(facts());
    if (theirs.empty()) continue;  // nothing is lost with it
    EXPECT_THAT(report.warnings, ElementsAre(HasSubstr("checksum list can't be written at A001")));
    EXPECT_EQ(theirs, text());
  }
  EXPECT_EQ(lines, text());
}

TEST_F(ChecksumManifests, ACardsOwnFileIsNeverReplaced) {
  put("a001.XXH64", HistoryOnDisk::abcd);
  EXPECT_THAT(write(facts()).warnings, ElementsAre(HasSubstr("the card has a file \"A001.xxh64\" of its own")));
  EXPECT_EQ("bytes", readFile(there("a001.XXH64")));
  EXPECT_FALSE(fs::exists(there("A001.xxh64")));
}

TEST_F(ChecksumManifests, WhatItsProgramCannotReadIsReported) {
  put("two\nlines", HistoryOnDisk::abcd);
  EXPECT_THAT(write(facts()).notInChecksums, ElementsAre("two\nlines"));
  EXPECT_EQ(lines, text());
}
