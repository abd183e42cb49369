#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "KDXFileTools/kdxoffload/Status.h"
#include "tests/kdxoffload/TreeInMemory.h"

using kdxoffload::EntryIndex;
using kdxoffload::FileDigest;
using kdxoffload::FileRecord;
using kdxoffload::Listing;
using kdxoffload::NotProved;
using kdxoffload::PlannedDestination;
using kdxoffload::Verdict;
using platform::ItemKind;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using State = FileRecord::State;

namespace {

const std::string clip = "day1/clip.mov";

TreeInMemory tree(uint64_t device) {
  TreeInMemory made(device);
  made.file(clip, 1'500'000).file("note.txt", 24).link("latest", clip).folder("empty");
  return made;
}

// A card whose every file is proved at two destinations, and nothing has changed since.
struct Card {
  Card() {
    for (const uint64_t device : {2U, 3U}) {
      PlannedDestination& place = destinations.emplace_back();
      place.listing = tree(device).underNamesOf(listing);
      place.linkTargets = {{TreeInMemory::indexOf(listing, "latest"), clip}};
      place.volume = {.fileSystem = "ext4", .readBack = platform::ReadBack::device};
      for (const kdxoffload::Entry& entry : listing.entries) place.records.push_back(recordOf(entry.facts));
    }
  }

  static FileRecord recordOf(const platform::ItemFacts& facts) {
    if (facts.kind != ItemKind::file) return {};
    return {.state = State::proved,
            .digest = FileDigest::fromText("XXHash64BE:ef46db3751d8e999").value(),
            .size = facts.size,
            .modified = facts.modified,
            .destinationSize = facts.size,
            .destinationModified = facts.modified};
  }

  [[nodiscard]] EntryIndex at(const std::string& path) const { return TreeInMemory::indexOf(listing, path); }
  FileRecord& record(const std::string& path) { return destinations[1].records[at(path)]; }
  platform::ItemFacts& there(const std::string& path) { return destinations[1].listing[at(path)]; }

  [[nodiscard]] Verdict status() const {
    std::vector<std::string> paths{"/mnt/raid", "/mnt/shuttle"};
    paths.resize(destinations.size());
    return kdxoffload::statusOf(listing, destinations, paths);
  }

  Listing listing = tree(1).listing();
  std::vector<PlannedDestination> destinations;
};

// Something that does not agree, and the reason that is given.
struct Lack {
  const char* name;
  std::function<void(Card&)> spoil;
  const char* path;
  const char* reason;
};

class EveryLack : public testing::TestWithParam<Lack> {};

}  // namespace

TEST(Status, IsSafeWhenEverythingAgreesWithItsProof) {
  const Verdict status = Card().status();
  EXPECT_TRUE(status.isSafe);
  EXPECT_EQ(0, status.exitStatus);
  EXPECT_EQ("SAFE TO ERASE: 2 files (1.50 MB) are proved on 2 destinations.", status.line);
  EXPECT_THAT(status.notProved, IsEmpty());
  EXPECT_THAT(status.remarks, Contains("/mnt/raid: 2 of 2 files are proved."));
  EXPECT_THAT(status.remarks, Contains(HasSubstr("Nothing was read")));
}

TEST(Status, AnAdoptedFileIsProved) {
  Card card;
  card.record(clip).state = State::adopted;
  EXPECT_TRUE(card.status().isSafe);
}

TEST_P(EveryLack, IsNotSafe) {
  Card card;
  ASSERT_TRUE(card.status().isSafe);
  GetParam().spoil(card);
  const Verdict status = card.status();
  EXPECT_FALSE(status.isSafe);
  EXPECT_EQ(2, status.exitStatus);
  EXPECT_THAT(status.line, StartsWith("DO NOT ERASE: "));
  ASSERT_EQ(1U, status.notProved.size());
  EXPECT_EQ(GetParam().path, status.notProved[0].path);
  EXPECT_THAT(status.notProved[0].reason, HasSubstr(GetParam().reason));
  EXPECT_THAT(status.notProved[0].reason, HasSubstr("at /mnt/shuttle"));
}

INSTANTIATE_TEST_SUITE_P(
    Status, EveryLack,
    testing::Values(
        Lack{"AFileThatWasNeverOffloaded",
             [](Card& card) {
               card.record(clip) = {};
               card.there(clip) = {};
             },
             "day1/clip.mov", "was not offloaded"},
        Lack{"AFileThatSomebodyElsePutThere", [](Card& card) { card.record(clip) = {}; }, "day1/clip.mov",
             "what stands there was not offloaded"},
        Lack{"AFileThatWasOnlyBegun", [](Card& card) { card.record(clip) = {.state = State::begun}; }, "day1/clip.mov",
             "begun"},
        Lack{"AFileThatWasNotReadBack", [](Card& card) { card.record(clip).state = State::copied; }, "day1/clip.mov",
             "not read back"},
        Lack{"AFileThatIsGone", [](Card& card) { card.there(clip) = {}; }, "day1/clip.mov", "not there any more"},
        Lack{"AFileThatChangedAtTheDestination", [](Card& card) { ++card.there(clip).modified; }, "day1/clip.mov",
             "changed at the destination"},
        Lack{"AFileThatIsShorterAtTheDestination", [](Card& card) { --card.there(clip).size; }, "day1/clip.mov",
             "changed at the destination"},
        Lack{"AFileOfTheCardThatChanged", [](Card& card) { --card.record(clip).modified; }, "day1/clip.mov",
             "another one than was proved"},
        Lack{"AFolderAtTheNameOfAFile", [](Card& card) { card.there("note.txt").kind = ItemKind::folder; }, "note.txt",
             "a folder stands at its name"},
        Lack{"AFolderThatIsGone", [](Card& card) { card.there("empty") = {}; }, "empty", "folder is not there"},
        Lack{"ALinkThatIsGone", [](Card& card) { card.there("latest") = {}; }, "latest", "link is not there"},
        Lack{"ALinkThatLeadsElsewhere",
             [](Card& card) { card.destinations[1].linkTargets[card.at("latest")] = "elsewhere"; }, "latest",
             "leads elsewhere"}),
    [](const auto& lack) { return lack.param.name; });

TEST(Status, OfACardThatWasNeverOffloadedNothingIsProved) {
  Card card;
  card.destinations.clear();
  const Verdict status = card.status();
  EXPECT_EQ(2, status.exitStatus);
  EXPECT_EQ("DO NOT ERASE: 2 of 2 files and 3 folders or links are not proved.", status.line);
}

TEST(Status, OfWhatIsLeftOutOrEmptyIsNotSafeEither) {
  Card excluding;
  excluding.listing.excluded = {"thumbs"};
  EXPECT_EQ(2, excluding.status().exitStatus);
  Card unlisted;
  unlisted.listing.unlisted = {{.path = "secret", .error = 13}};
  EXPECT_EQ(2, unlisted.status().exitStatus);
  const Verdict empty = kdxoffload::statusOf({}, std::vector<PlannedDestination>(1), {"/mnt/raid"});
  EXPECT_EQ(2, empty.exitStatus);
  EXPECT_FALSE(empty.isSafe);
}

TEST(Status, SaysWhatIsProvedWhere) {
  Card card;
  card.record(clip) = {};
  const Verdict status = card.status();
  EXPECT_THAT(status.remarks, Contains("/mnt/raid: 2 of 2 files are proved."));
  EXPECT_THAT(status.remarks, Contains("/mnt/shuttle: 1 of 2 files is proved."));
}
