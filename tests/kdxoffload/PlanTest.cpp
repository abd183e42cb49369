#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "KDXFileTools/kdxoffload/Plan.h"
#include "digest/KDXDigestContext.h"
#include "tests/kdxoffload/TreeInMemory.h"

using namespace kdxoffload;
using platform::NameFolding;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint64_t MB = 1'000'000;

// A card and destinations, with what is known of their files.
class PlanOfACard : public testing::Test {
 protected:
  TreeInMemory& card() { return _card; }
  TreeInMemory& at(std::size_t destination) {
    while (_there.size() <= destination) addDestination();
    return _there[destination];
  }
  platform::Volume& volumeOf(std::size_t destination) {
    at(destination);
    return _volumes[destination];
  }
  PlanWishes& wishes() { return _wishes; }
  std::vector<std::string> continued;  // files that go on at every destination

  // A record that agrees with the card and the destination as they are.
  FileRecord& record(std::size_t destination, const std::string& path,
                     FileRecord::State state = FileRecord::State::proved) {
    at(destination);
    const Listing listing = _card.listing();
    const EntryIndex index = TreeInMemory::indexOf(listing, path);
    const platform::ItemFacts& onCard = listing.entries[index].facts;
    const platform::ItemFacts there = _there[destination].underNamesOf(listing)[index];
    return _records[destination][path] = {.state = state,
                                          .digest = {.algorithm = KDXDigestAlgorithmXXHash64BE},
                                          .size = onCard.size,
                                          .modified = onCard.modified,
                                          .destinationSize = there.size,
                                          .destinationModified = there.modified};
  }

  const Plan& plan() {
    at(0);
    _listing = _card.listing();
    std::vector<PlannedDestination> destinations;
    for (std::size_t number = 0; number < _there.size(); ++number) destinations.push_back(destination(number));
    _plan = makePlan(_listing, destinations, _wishes);
    return _plan;
  }

  // One word for each job of the last plan: "copy clip.mov to 0,1".
  [[nodiscard]] std::vector<std::string> jobs() const {
    std::vector<std::string> shown;
    for (const Job& job : _plan.jobs) shown.push_back(shownJob(job));
    return shown;
  }
  [[nodiscard]] std::vector<std::string> failures() const {
    std::vector<std::string> shown;
    for (const PlannedFailure& failure : _plan.failures) {
      shown.push_back(fmt::format("{} at {}: {}", _listing.pathOf(failure.entry), shownSet(failure.destinations),
                                  static_cast<int>(failure.obstacle)));
    }
    return shown;
  }
  static std::string failing(const std::string& path, const std::string& destinations, Obstacle obstacle) {
    return fmt::format("{} at {}: {}", path, destinations, static_cast<int>(obstacle));
  }
  [[nodiscard]] DestinationSet provedAt(const std::string& path) const {
    return _plan.proved[TreeInMemory::indexOf(_listing, path)];
  }
  [[nodiscard]] std::vector<std::string> marked(const std::vector<DestinationSet>& sets) const {
    std::vector<std::string> shown;
    for (EntryIndex index = 0; index < sets.size(); ++index) {
      if (!sets[index].empty()) shown.push_back(_listing.pathOf(index) + " at " + shownSet(sets[index]));
    }
    return shown;
  }

 private:
  void addDestination() {
    _there.emplace_back(_there.size() + 2);
    _volumes.push_back({.blockSize = 4096, .names = NameFolding::exact});
    _records.emplace_back();
  }

  [[nodiscard]] PlannedDestination destination(std::size_t number) const {
    PlannedDestination made{.listing = _there[number].underNamesOf(_listing), .volume = _volumes[number]};
    made.records.resize(_listing.entries.size());
    for (const auto& [path, record] : _records[number]) made.records[TreeInMemory::indexOf(_listing, path)] = record;
    const Listing there = _there[number].listing();
    for (const auto& [index, target] : there.linkTargets) {
      made.linkTargets[TreeInMemory::indexOf(_listing, there.pathOf(index))] = target;
    }
    for (const std::string& path : continued) made.continued.insert(TreeInMemory::indexOf(_listing, path));
    return made;
  }

  static std::string shownSet(DestinationSet set) {
    std::string shown;
    for (std::size_t number = 0; number < DestinationSet::most; ++number) {
      if (set.contains(number)) shown += (shown.empty() ? "" : ",") + std::to_string(number);
    }
    return shown;
  }

  [[nodiscard]] std::string shownJob(const Job& job) const {
    const std::string what =
        job.sequence == Job::noSequence ? _listing.pathOf(_plan.filesOf(job).front()) : _plan.sequences[job.sequence];
    return fmt::format("{}{}{} {} to {}", job.kind == JobKind::copy ? "copy" : "compare",
                       job.replaces ? " replacing" : "", job.usesAlias ? " by alias" : "", what,
                       shownSet(job.destinations));
  }

  TreeInMemory _card{1};
  std::vector<TreeInMemory> _there;
  std::vector<platform::Volume> _volumes;
  std::vector<std::map<std::string, FileRecord>> _records;
  PlanWishes _wishes;
  Listing _listing;
  Plan _plan;
};

}  // namespace

TEST_F(PlanOfACard, AnEmptyCardGivesNothingToDo) {
  const Plan& made = plan();
  EXPECT_THAT(jobs(), IsEmpty());
  EXPECT_EQ(0U, made.bytesToDo);
  EXPECT_EQ(0U, made.room.at(0).bytes);
}

TEST_F(PlanOfACard, EverythingIsCopiedToEmptyDestinationsBigFilesFirst) {
  card().file("a/small.wav").file("b/big.mov", 900 * MB).file("c.mov", 200 * MB).folder("empty").link("link", "c.mov");
  at(1);
  const Plan& made = plan();
  EXPECT_THAT(jobs(), ElementsAre("copy c.mov to 0,1", "copy b/big.mov to 0,1", "copy a/small.wav to 0,1"));
  EXPECT_THAT(marked(made.folders), ElementsAre("a at 0,1", "b at 0,1", "empty at 0,1"));
  EXPECT_THAT(marked(made.links), ElementsAre("link at 0,1"));
  EXPECT_THAT(marked(made.proved), IsEmpty());
  EXPECT_EQ(1'100 * MB + 100, made.bytesToDo);
}

TEST_F(PlanOfACard, FramesBecomeOneJob) {
  for (int frame = 1; frame <= 4; ++frame) card().file(fmt::format("shot/plate.{}.dpx", frame), 2 * MB);
  const Plan& made = plan();
  EXPECT_THAT(jobs(), ElementsAre("copy plate.1-4.#.dpx to 0"));
  EXPECT_EQ(4U, made.filesOf(made.jobs[0]).size());
  EXPECT_EQ(8 * MB, made.bytesToDo);
}

TEST_F(PlanOfACard, FramesOf64MiBOrMoreGoOneByOne) {
  for (int frame = 1; frame <= 3; ++frame) card().file(fmt::format("{}.mov", frame), largestFrame);
  plan();
  EXPECT_THAT(jobs(), ElementsAre("copy 1.mov to 0", "copy 2.mov to 0", "copy 3.mov to 0"));
}

TEST_F(PlanOfACard, OfASequenceThatWasPartlyProvedTheRestIsOneWithoutAWarning) {
  for (int frame = 1; frame <= 6; ++frame) card().file(fmt::format("plate.{}.dpx", frame));
  for (int frame = 1; frame <= 2; ++frame) {
    at(0).file(fmt::format("plate.{}.dpx", frame));
    record(0, fmt::format("plate.{}.dpx", frame));
  }
  const Plan& made = plan();
  EXPECT_THAT(jobs(), ElementsAre("copy plate.3-6.#.dpx to 0"));
  EXPECT_THAT(made.warnings, IsEmpty());
}

TEST_F(PlanOfACard, AGapIsNamedWithItsFolder) {
  for (const int frame : {1, 2, 3, 5}) card().file(fmt::format("shot/plate.{}.dpx", frame));
  EXPECT_THAT(plan().warnings, ElementsAre("frames are missing in shot/plate.#.dpx: 4"));
}

TEST_F(PlanOfACard, WhatAgreesWithItsRecordIsNotDoneAgain) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  at(1);
  record(0, "clip.mov");
  plan();
  EXPECT_EQ(DestinationSet::only(0), provedAt("clip.mov"));
  EXPECT_THAT(jobs(), ElementsAre("copy clip.mov to 1"));
}

TEST_F(PlanOfACard, TimesAreComparedAtTheGrainOfTheDestination) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  record(0, "clip.mov").destinationModified -= 1'999'999'999;
  volumeOf(0).timeGrain = 2'000'000'000;
  plan();
  EXPECT_FALSE(provedAt("clip.mov").empty());
  volumeOf(0).timeGrain = 1;
  plan();
  EXPECT_TRUE(provedAt("clip.mov").empty());
  EXPECT_THAT(jobs(), ElementsAre("compare clip.mov to 0"));
}

TEST_F(PlanOfACard, AProvedFileThatIsGoneFromTheDestinationIsCopiedAgain) {
  card().file("clip.mov");
  record(0, "clip.mov");
  plan();
  EXPECT_THAT(jobs(), ElementsAre("copy clip.mov to 0"));
}

TEST_F(PlanOfACard, AFileThatChangedSinceItWasProvedIsAFailureUnlessItMayBeReplaced) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  record(0, "clip.mov").modified -= 1;
  plan();
  EXPECT_THAT(failures(), ElementsAre(failing("clip.mov", "0", Obstacle::changedSinceProved)));
  EXPECT_THAT(jobs(), IsEmpty());
  wishes().replace = true;
  plan();
  EXPECT_THAT(failures(), IsEmpty());
  EXPECT_THAT(jobs(), ElementsAre("copy replacing clip.mov to 0"));
}

TEST_F(PlanOfACard, WhatAKilledRunLeftUnprovedIsComparedAndDoneAgainIfItDiffers) {
  card().file("whole.mov").file("short.mov");
  at(0).file("whole.mov").file("short.mov", 7);
  for (const char* name : {"whole.mov", "short.mov"}) record(0, name, FileRecord::State::begun);
  plan();
  EXPECT_THAT(jobs(), ElementsAre("copy replacing short.mov to 0", "compare replacing whole.mov to 0"));
}

TEST_F(PlanOfACard, WhatAKilledRunCannotHaveLeftIsSomebodyElses) {
  card().file("changed.mov").file("later.mov").file("longer.mov").file("older.mov");
  const int64_t lastYear = TreeInMemory::usualTime - int64_t{31'536'000} * 1'000'000'000;
  at(0).file("changed.mov").file("later.mov").file("longer.mov", 1'000'000).file("older.mov", 7, lastYear);
  for (const char* name : {"changed.mov", "later.mov", "longer.mov", "older.mov"}) {
    FileRecord& begun = record(0, name, FileRecord::State::begun);
    begun.begun = begun.destinationModified = TreeInMemory::usualTime;
  }
  at(0).facts("later.mov").changed = TreeInMemory::usualTime + int64_t{3600} * 1'000'000'000;
  record(0, "changed.mov", FileRecord::State::begun).modified -= 1;
  plan();
  EXPECT_THAT(jobs(), ElementsAre("compare changed.mov to 0", "compare later.mov to 0", "compare longer.mov to 0",
                                  "compare older.mov to 0"));
}

TEST_F(PlanOfACard, AFileWithTwoDigestsIsProvedNowhere) {
  card().file("clip.mov");
  const Listing listing = card().listing();
  FileRecord proof{.state = FileRecord::State::proved,
                   .digest = FileDigest::fromText("XXHash64BE:ef46db3751d8e999").value(),
                   .size = listing.entries[0].facts.size,
                   .modified = listing.entries[0].facts.modified};
  std::vector<PlannedDestination> destinations(3);
  for (PlannedDestination& destination : destinations) destination.records = {proof};
  forgetWhatDisagrees(listing, destinations);
  EXPECT_EQ(proof, destinations[0].records[0]);
  destinations[1].records[0].digest = FileDigest::fromText("MD5:d41d8cd98f00b204e9800998ecf8427e").value();
  forgetWhatDisagrees(listing, destinations);
  EXPECT_EQ(proof, destinations[0].records[0]);
  destinations[2].records[0].digest = FileDigest::fromText("XXHash64BE:0000000000000001").value();
  forgetWhatDisagrees(listing, destinations);
  for (const PlannedDestination& destination : destinations) EXPECT_EQ(FileRecord{}, destination.records[0]);
}

TEST_F(PlanOfACard, AFolderThatCannotBeWrittenInIsOpenedOnlyForWhatIsToBeWrittenInIt) {
  card().folder("full").file("full/a").folder("open").file("open/b").folder("done").file("done/c");
  at(0).folder("full").folder("open").folder("done").file("done/c");
  for (const char* folder : {"full", "done"}) at(0).facts(folder).mode = 0555;
  at(0).facts("open").mode = 0755;
  record(0, "done/c");
  const Plan& made = plan();
  EXPECT_THAT(marked(made.folders), IsEmpty());
  EXPECT_THAT(marked(made.closed), ElementsAre("full at 0"));
}

TEST_F(PlanOfACard, AFileWithoutARecordIsComparedAndNotReplacedUnasked) {
  card().file("same.mov").file("short.mov");
  at(0).file("same.mov").file("short.mov", 1);
  plan();
  EXPECT_THAT(jobs(), ElementsAre("compare same.mov to 0", "compare short.mov to 0"));
  wishes().replace = true;
  plan();
  EXPECT_THAT(jobs(), ElementsAre("compare replacing same.mov to 0", "copy replacing short.mov to 0"));
}

TEST_F(PlanOfACard, FramesThatStandThereAreComparedOneByOne) {
  for (int frame = 1; frame <= 3; ++frame) {
    card().file(fmt::format("{}.dpx", frame));
    at(0).file(fmt::format("{}.dpx", frame));
  }
  plan();
  EXPECT_THAT(jobs(), ElementsAre("compare 1.dpx to 0", "compare 2.dpx to 0", "compare 3.dpx to 0"));
}

TEST_F(PlanOfACard, RecheckReadsWhatIsProvedAgain) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  record(0, "clip.mov");
  wishes().recheck = true;
  plan();
  EXPECT_TRUE(provedAt("clip.mov").empty());
  EXPECT_THAT(jobs(), ElementsAre("compare clip.mov to 0"));
}

TEST_F(PlanOfACard, AFileThatGoesOnThereIsProvedWhateverIsKnownOrWanted) {
  card().file("ascmhl/chain.xml");
  at(0).file("ascmhl/chain.xml", 200);
  for (const bool recheck : {false, true}) {
    wishes().recheck = recheck;
    continued = {};
    plan();
    EXPECT_THAT(jobs(), ElementsAre("compare ascmhl/chain.xml to 0"));
    continued = {"ascmhl/chain.xml"};
    plan();
    EXPECT_THAT(jobs(), IsEmpty());
    EXPECT_EQ(DestinationSet::only(0), provedAt("ascmhl/chain.xml"));
  }
}

TEST_F(PlanOfACard, WhatWasOnlyCopiedIsReadWhereAReadBackIsWanted) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  record(0, "clip.mov", FileRecord::State::copied);
  plan();
  EXPECT_THAT(jobs(), ElementsAre("compare clip.mov to 0"));
  wishes().readBack = false;
  plan();
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(PlanOfACard, AProofWithAnotherDigestIsMadeAgainWhereTheDigestMatters) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  record(0, "clip.mov");
  wishes().algorithm = KDXDigestAlgorithmMD5;
  plan();
  EXPECT_THAT(jobs(), ElementsAre("compare clip.mov to 0"));
  wishes().algorithm = 0;
  plan();
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(PlanOfACard, TheCardsOwnFileProvesNothingAndIsNeverReplaced) {
  card().file("clip.mov").file("other.mov");
  at(0).sameAs("clip.mov", card(), "clip.mov").sameAs("other.mov", card(), "clip.mov");
  record(0, "clip.mov");
  wishes().replace = true;
  plan();
  EXPECT_THAT(failures(), ElementsAre(failing("clip.mov", "0", Obstacle::cardsOwnFile),
                                      failing("other.mov", "0", Obstacle::cardsOwnFile)));
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(PlanOfACard, FoldersLinksAndOthersInTheWayOfAFileStay) {
  card().file("a").file("b").file("c");
  at(0).folder("a").link("b", "x").other("c");
  wishes().replace = true;
  plan();
  EXPECT_THAT(failures(),
              ElementsAre(failing("a", "0", Obstacle::folderInTheWay), failing("b", "0", Obstacle::linkInTheWay),
                          failing("c", "0", Obstacle::otherInTheWay)));
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(PlanOfACard, WhatIsBelowAnObstacleFailsWithItThereAndNowhereElse) {
  card().file("a/b/clip.mov");
  at(0).file("a");
  at(1);
  const Plan& made = plan();
  EXPECT_THAT(failures(),
              ElementsAre(failing("a", "0", Obstacle::fileInTheWay), failing("a/b", "0", Obstacle::insideObstacle),
                          failing("a/b/clip.mov", "0", Obstacle::insideObstacle)));
  EXPECT_THAT(jobs(), ElementsAre("copy a/b/clip.mov to 1"));
  EXPECT_THAT(marked(made.folders), ElementsAre("a at 1", "a/b at 1"));
}

TEST_F(PlanOfACard, ALinkAtADestinationInPlaceOfAFolderIsNotGoneThrough) {
  card().file("a/clip.mov");
  at(0).link("a", "elsewhere");
  plan();
  EXPECT_THAT(failures(), ElementsAre(failing("a", "0", Obstacle::linkInTheWay),
                                      failing("a/clip.mov", "0", Obstacle::insideObstacle)));
}

TEST_F(PlanOfACard, ALinkIsProvedWhereItLeadsToTheSame) {
  card().link("1", "same").link("2", "same").link("3", "same").link("4", "same");
  at(0).link("1", "same").link("2", "another").file("3");
  const Plan& made = plan();
  EXPECT_THAT(marked(made.proved), ElementsAre("1 at 0"));
  EXPECT_THAT(marked(made.links), ElementsAre("4 at 0"));
  EXPECT_THAT(failures(),
              ElementsAre(failing("2", "0", Obstacle::differentLink), failing("3", "0", Obstacle::fileInTheWay)));
}

TEST_F(PlanOfACard, TwoEntriesOfOneNameFailWhereTheyAreKnownToBeOne) {
  card().file("Clip.mov").file("clip.mov").file("other.mov");
  volumeOf(0).names = NameFolding::caseless;
  volumeOf(1).names = NameFolding::exact;
  plan();
  EXPECT_THAT(failures(), ElementsAre(failing("Clip.mov", "0", Obstacle::sameNameTwice),
                                      failing("clip.mov", "0", Obstacle::sameNameTwice)));
  EXPECT_THAT(jobs(),
              ElementsAre("copy by alias Clip.mov to 1", "copy by alias clip.mov to 1", "copy other.mov to 0,1"));
}

TEST_F(PlanOfACard, TwoEntriesOfOneNameGoByAliasWhereNothingIsKnown) {
  card().file("Clip.mov").file("clip.mov");
  volumeOf(0).names = NameFolding::unknown;
  plan();
  EXPECT_THAT(failures(), IsEmpty());
  EXPECT_THAT(jobs(), ElementsAre("copy by alias Clip.mov to 0", "copy by alias clip.mov to 0"));
}

TEST_F(PlanOfACard, TwoNamesThatLeadToOneFileAtADestinationFailThereAlthoughOneIsProved) {
  card().file("Clip.mov").file("clip.mov");
  at(0).file("Clip.mov").sameAs("clip.mov", at(0), "Clip.mov");
  volumeOf(0).names = NameFolding::unknown;
  record(0, "Clip.mov");
  plan();
  EXPECT_THAT(failures(), ElementsAre(failing("Clip.mov", "0", Obstacle::sameNameTwice),
                                      failing("clip.mov", "0", Obstacle::sameNameTwice)));
}

TEST_F(PlanOfACard, NamesThatJobsCannotTakeGoByAliasAndAreNoFrames) {
  for (int frame = 1; frame <= 3; ++frame) card().file(fmt::format("\xff{}.dpx", frame));
  card().file("clip.mov").file("clip.mov.kdxcopy").file(std::string(248, 'x')).file(std::string(247, 'y'));
  plan();
  EXPECT_THAT(jobs(),
              ElementsAre("copy by alias clip.mov to 0", "copy by alias clip.mov.kdxcopy to 0",
                          "copy by alias " + std::string(248, 'x') + " to 0", "copy " + std::string(247, 'y') + " to 0",
                          "copy by alias \xff"
                          "1.dpx to 0",
                          "copy by alias \xff"
                          "2.dpx to 0",
                          "copy by alias \xff"
                          "3.dpx to 0"));
}

TEST_F(PlanOfACard, ThingsThatAreNeitherFileNorFolderNorLinkAreNoWork) {
  card().other("pipe");
  plan();
  EXPECT_THAT(jobs(), IsEmpty());
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(PlanOfACard, RoomIsCountedInTheBlocksOfTheDestination) {
  card().file("a/empty", 0).file("a/one", 1).file("a/two", 4097).link("link", "x");
  const Plan& made = plan();
  EXPECT_EQ(4096U * (1 + 2 + 1 + 1), made.room.at(0).bytes);  // two files, the folder, the link
  EXPECT_EQ(5U, made.room.at(0).inodes);
}

TEST_F(PlanOfACard, WhatIsProvedThereNeedsNoRoom) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  record(0, "clip.mov");
  EXPECT_EQ(0U, plan().room.at(0).bytes);
}

TEST_F(PlanOfACard, ReplacingNeedsRoomForWhatGrowsAndForTheLargestNewFile) {
  card().file("a", 10 * 4096).file("b", 30 * 4096);
  at(0).file("a", 4 * 4096).file("b", 40 * 4096);
  record(0, "a").modified -= 1;
  record(0, "b").modified -= 1;
  wishes().replace = true;
  const Plan& made = plan();
  EXPECT_EQ(4096U * (6 + 30), made.room.at(0).bytes);
  EXPECT_EQ(1U, made.room.at(0).inodes);
}

TEST_F(PlanOfACard, WithoutACatalogueWhatStandsThereIsCompared) {
  card().file("clip.mov");
  at(0).file("clip.mov");
  const Listing listing = card().listing();
  const std::vector<PlannedDestination> destinations(1, {.listing = at(0).underNamesOf(listing)});
  const Plan made = makePlan(listing, destinations, {});
  ASSERT_EQ(1U, made.jobs.size());
  EXPECT_EQ(JobKind::compare, made.jobs[0].kind);
}

TEST_F(PlanOfACard, TheSameFactsGiveTheSamePlan) {
  for (int number = 0; number < 50; ++number) card().file(fmt::format("{}/{}.mov", number % 7, number * 3));
  const Plan first = plan();
  const std::vector<std::string> jobsOfFirst = jobs();
  const Plan second = plan();
  EXPECT_EQ(jobsOfFirst, jobs());
  EXPECT_EQ(first.files, second.files);
}

TEST(NeedsAlias, NamesThatJobsTakeDoNot) {
  for (const std::string name : {"clip.mov", "-rf", "100%d.mov", "caf\u00e9", "quote'\"", "a b"}) {
    EXPECT_FALSE(needsAlias(name)) << name;
  }
  for (const std::string name : {"a\nb", "\x1b[2J", "\xff", "clip.kdxcopy", "\x7f"})
    EXPECT_TRUE(needsAlias(name)) << name;
}
