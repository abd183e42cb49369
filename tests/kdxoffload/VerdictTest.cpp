#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "KDXFileTools/kdxoffload/Verdict.h"

using kdxoffload::DestinationListing;
using kdxoffload::DestinationSet;
using kdxoffload::EntryIndex;
using kdxoffload::Listing;
using kdxoffload::NotProved;
using kdxoffload::Obstacle;
using kdxoffload::Plan;
using kdxoffload::Proof;
using kdxoffload::Results;
using kdxoffload::Verdict;
using platform::ItemKind;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr EntryIndex folder = 0;
constexpr EntryIndex note = 1;
constexpr EntryIndex clip = 2;
constexpr EntryIndex latest = 3;
constexpr std::size_t raid = 0;
constexpr std::size_t shuttle = 1;

// A card whose every entry is proved at two destinations. Each test takes one thing away.
struct Offload {
  Offload() {
    before.entries = {
        {.name = "day1", .facts = {.kind = ItemKind::folder, .mode = 0755, .modified = 1}},
        {.name = "note.txt", .facts = {.kind = ItemKind::file, .mode = 0644, .size = 24, .modified = 2}},
        {.parent = 0,
         .name = "clip.mov",
         .facts = {.kind = ItemKind::file, .mode = 0644, .size = 1'500'000, .modified = 3}},
        {.parent = 0, .name = "latest", .facts = {.kind = ItemKind::link, .mode = 0777, .size = 8, .modified = 4}}};
    before.linkTargets = {{latest, "clip.mov"}};
    for (EntryIndex index = 0; index < before.entries.size(); ++index) {
      before.entries[index].facts.identity = {.device = 1, .inode = 100 + index};
    }
    after = before;
    prove({"/mnt/raid", "/mnt/shuttle"});
  }

  // Everything at these destinations, by copies of this run.
  void prove(const std::vector<std::string>& paths) {
    destinationPaths = paths;
    results = Results(before.entries.size(), paths.size());
    destinations.clear();
    volumes.clear();
    for (std::size_t destination = 0; destination < paths.size(); ++destination) {
      DestinationListing listing;
      for (EntryIndex index = 0; index < before.entries.size(); ++index) {
        listing.push_back(before.entries[index].facts);
        listing.back().identity = {.device = 2 + destination, .inode = 200 + index};
        results.setProof(index, destination, Proof::copied);
      }
      results.after[destination] = listing;
      destinations.push_back(listing);
      volumes.push_back({.fileSystem = "ext4", .readBack = platform::ReadBack::device});
    }
  }

  [[nodiscard]] kdxoffload::VerdictFacts facts() const {
    return {.before = before,
            .after = after,
            .destinations = destinations,
            .plan = plan,
            .results = results,
            .destinationPaths = destinationPaths,
            .volumes = volumes,
            .continued = continued,
            .warnings = warnings,
            .readBack = readBack,
            .signal = signal};
  }
  [[nodiscard]] Verdict verdict() const { return kdxoffload::verdictOf(facts()); }

  Listing before;
  Listing after;
  std::vector<DestinationListing> destinations;
  Plan plan;
  Results results;
  std::vector<std::string> destinationPaths;
  std::vector<platform::Volume> volumes;
  std::vector<std::set<EntryIndex>> continued;
  std::vector<std::string> warnings;
  bool readBack = true;
  std::optional<int> signal;
};

void expectNotSafe(const Verdict& verdict, int exitStatus) {
  EXPECT_FALSE(verdict.isSafe);
  EXPECT_EQ(exitStatus, verdict.exitStatus);
  EXPECT_THAT(verdict.line, StartsWith("DO NOT ERASE: "));
  EXPECT_THAT(verdict.line, Not(HasSubstr("SAFE")));
}

// One thing that is wrong with an offload whose every other part is right, and what has to come of it.
struct Road {
  const char* name;
  std::function<void(Offload&)> spoil;
  int exitStatus;
};

class EveryRoad : public testing::TestWithParam<Road> {};

}  // namespace

TEST(Verdict, IsSafeWhenEverythingIsProvedEverywhere) {
  const Verdict verdict = Offload().verdict();
  EXPECT_TRUE(verdict.isSafe);
  EXPECT_EQ(0, verdict.exitStatus);
  EXPECT_EQ("SAFE TO ERASE: 2 files (1.50 MB) are proved on 2 destinations.", verdict.line);
  EXPECT_EQ(2U, verdict.files);
  EXPECT_EQ(2U, verdict.proved);
  EXPECT_EQ(1'500'024U, verdict.bytes);
  EXPECT_THAT(verdict.notProved, IsEmpty());
  EXPECT_THAT(verdict.changes, IsEmpty());
}

TEST(Verdict, IsSafeWhateverKindOfProofThereIs) {
  for (const Proof proof : {Proof::before, Proof::adopted}) {
    Offload offload;
    offload.results.setProof(clip, raid, proof);
    EXPECT_TRUE(offload.verdict().isSafe);
  }
}

TEST(Verdict, SpeaksOfOneFileAndOneDestinationInTheSingular) {
  Offload offload;
  offload.before.entries.resize(2);
  offload.before.linkTargets.clear();
  offload.after = offload.before;
  offload.prove({"/mnt/raid"});
  EXPECT_EQ("SAFE TO ERASE: 1 file (24 bytes) is proved on 1 destination.", offload.verdict().line);
  offload.results.setProof(note, raid, Proof::none);
  EXPECT_EQ("DO NOT ERASE: 1 of 1 file is not proved.", offload.verdict().line);
}

TEST(Verdict, SaysHowManyFilesAreNotProved) {
  Offload offload;
  for (int number = 0; number < 12'938; ++number) {
    offload.before.entries.push_back(
        {.name = "f" + std::to_string(number), .facts = {.kind = ItemKind::file, .size = 1}});
  }
  offload.after = offload.before;
  offload.prove({"/mnt/raid", "/mnt/shuttle", "/mnt/third"});
  EXPECT_EQ("SAFE TO ERASE: 12,940 files (1.51 MB) are proved on 3 destinations.", offload.verdict().line);
  for (const EntryIndex file : {clip, note, EntryIndex{100}}) offload.results.setProof(file, shuttle, Proof::none);
  const Verdict verdict = offload.verdict();
  EXPECT_EQ("DO NOT ERASE: 3 of 12,940 files are not proved.", verdict.line);
  EXPECT_EQ(12'937U, verdict.proved);
}

TEST_P(EveryRoad, IsNeverSafe) {
  Offload offload;
  ASSERT_TRUE(offload.verdict().isSafe);
  GetParam().spoil(offload);
  expectNotSafe(offload.verdict(), GetParam().exitStatus);
}

INSTANTIATE_TEST_SUITE_P(
    Verdict, EveryRoad,
    testing::Values(
        // Not proved.
        Road{"AFileWithoutAProof", [](Offload& o) { o.results.setProof(clip, shuttle, Proof::none); }, 2},
        Road{"AFolderWithoutAProof", [](Offload& o) { o.results.setProof(folder, raid, Proof::none); }, 2},
        Road{"ALinkWithoutAProof", [](Offload& o) { o.results.setProof(latest, raid, Proof::none); }, 2},
        Road{"AFailureBesideAProof", [](Offload& o) { o.results.failures[clip] = {.status = 105, .reason = "x"}; }, 2},
        Road{"AFailureOfAFolderBesideAProof",
             [](Offload& o) { o.results.failures[folder] = {.status = 202, .reason = "x"}; }, 2},
        Road{"AFailureWithoutAStatus", [](Offload& o) { o.results.failures[note] = {.reason = "x"}; }, 2},
        Road{"ASourceThatReadDifferentlyOnce", [](Offload& o) { o.results.unstable.insert(clip); }, 2},
        Road{"AnObstacleOfThePlan",
             [](Offload& o) {
               o.plan.failures.push_back({.entry = clip, .destinations = DestinationSet::only(0), .obstacle = {}});
             },
             2},
        Road{"TheCardsOwnFileAtTheDestination",
             [](Offload& o) { o.destinations[shuttle][clip].identity = o.before.entries[clip].facts.identity; }, 2},
        Road{"OneFileAtTwoDestinations",
             [](Offload& o) { o.destinations[shuttle][clip].identity = o.destinations[raid][clip].identity; }, 2},
        // What does not fit together.
        Road{"NoDestination", [](Offload& o) { o.prove({}); }, 2},
        Road{"ADestinationThatNobodyLookedAt", [](Offload& o) { o.destinations.pop_back(); }, 2},
        Road{"ADestinationListingOfAnotherCard", [](Offload& o) { o.destinations[raid].pop_back(); }, 2},
        Road{"ResultsOfFewerDestinations", [](Offload& o) { o.destinationPaths.emplace_back("/mnt/third"); }, 2},
        Road{"ResultsOfAnotherCard", [](Offload& o) { o.results = Results(3, 2); }, 2},
        // Left out, or not read back.
        Road{"NothingWasReadBack", [](Offload& o) { o.readBack = false; }, 3},
        Road{"OneFileWasNotReadBack", [](Offload& o) { o.results.setProof(clip, shuttle, Proof::unread); }, 3},
        Road{"SomethingIsExcluded", [](Offload& o) { o.before.excluded = o.after.excluded = {"thumbs"}; }, 3},
        Road{"SomethingCouldNotBeListed",
             [](Offload& o) { o.before.unlisted = o.after.unlisted = {{.path = "secret", .error = 13}}; }, 3},
        Road{"SomethingCouldNotBeListedAtFirst", [](Offload& o) { o.before.unlisted = {{.path = "x", .error = 5}}; },
             3},
        Road{"APipeOnTheCard",
             [](Offload& o) {
               o.before.entries.push_back({.name = "pipe", .facts = {.kind = ItemKind::other}});
               o.after = o.before;
               o.prove(o.destinationPaths);
             },
             3},
        Road{"ACardWithoutAnything",
             [](Offload& o) {
               o.before = o.after = {};
               o.prove(o.destinationPaths);
             },
             3},
        Road{"ACardOfFoldersAlone",
             [](Offload& o) {
               o.before.entries.resize(1);
               o.before.linkTargets.clear();
               o.after = o.before;
               o.prove(o.destinationPaths);
             },
             3},
        // Changed meanwhile.
        Road{"AFileCameToTheCard",
             [](Offload& o) { o.after.entries.push_back({.name = "new", .facts = {.kind = ItemKind::file}}); }, 4},
        Road{"AFileWentFromTheCard", [](Offload& o) { o.after.entries.erase(o.after.entries.begin() + note); }, 4},
        Road{"AFileOfTheCardChanged", [](Offload& o) { ++o.after.entries[clip].facts.modified; }, 4},
        Road{"ALinkOfTheCardChanged", [](Offload& o) { o.after.linkTargets[latest] = "elsewhere"; }, 4},
        Road{"TheCardIsGone", [](Offload& o) { o.after = {}; }, 4},
        Road{"TheCardCanNotBeListedAnyMore",
             [](Offload& o) { o.after.unlisted.push_back({.path = "", .error = 5, .isFolder = true}); }, 4},
        Road{"SomethingCameThatIsExcluded", [](Offload& o) { o.after.excluded = {"thumbs"}; }, 4},
        Road{"AFileIsGoneFromADestination", [](Offload& o) { o.destinations[shuttle][clip] = {}; }, 4},
        Road{"AFolderIsGoneFromADestination", [](Offload& o) { o.destinations[shuttle][folder] = {}; }, 4},
        Road{"ALinkIsGoneFromADestination", [](Offload& o) { o.destinations[shuttle][latest] = {}; }, 4},
        Road{"ALinkAtADestinationIsAnotherOne", [](Offload& o) { ++o.destinations[shuttle][latest].size; }, 4},
        Road{"ADestinationIsGone",
             [](Offload& o) { o.destinations[shuttle] = DestinationListing(o.before.entries.size()); }, 4},
        Road{"AFileAtADestinationIsALinkNow", [](Offload& o) { o.destinations[raid][clip].kind = ItemKind::link; }, 4},
        Road{"AFileAtADestinationIsShorterNow", [](Offload& o) { --o.destinations[raid][clip].size; }, 4},
        Road{"AFileAtADestinationIsNewerNow", [](Offload& o) { ++o.destinations[raid][clip].modified; }, 4},
        Road{"AFileProvedBeforeIsShorterNow",
             [](Offload& o) {
               o.results.setProof(clip, raid, Proof::before);
               o.results.after[raid][clip] = {};
               --o.destinations[raid][clip].size;
             },
             4},
        // A signal, even one that came when all was done.
        Road{"ASignal", [](Offload& o) { o.signal = 2; }, 130},
        Road{"ATermination", [](Offload& o) { o.signal = 15; }, 143}),
    [](const auto& road) { return road.param.name; });

TEST(Verdict, ChangesGoBeforeFailuresAndTheseBeforeWhatWasLeftOut) {
  Offload offload;
  offload.before.excluded = offload.after.excluded = {"thumbs"};
  EXPECT_EQ(3, offload.verdict().exitStatus);
  offload.results.setProof(clip, raid, Proof::none);
  EXPECT_EQ(2, offload.verdict().exitStatus);
  ++offload.after.entries[note].facts.size;
  EXPECT_EQ(4, offload.verdict().exitStatus);
  EXPECT_EQ("DO NOT ERASE: 1 of 2 files is not proved, and the card changed meanwhile.", offload.verdict().line);
  offload.signal = 1;
  EXPECT_EQ(129, offload.verdict().exitStatus);
}

TEST(Verdict, ExplainsAFailureByItsStatusAndSaysWhere) {
  Offload offload;
  offload.results.setProof(clip, shuttle, Proof::none);
  offload.results.failures[clip] = {
      .status = 105, .reason = "a copy reads differently", .destinations = DestinationSet::only(shuttle)};
  const std::vector<NotProved> notProved = offload.verdict().notProved;
  ASSERT_EQ(1U, notProved.size());
  EXPECT_EQ("day1/clip.mov", notProved[0].path);
  EXPECT_EQ(105, notProved[0].status);
  EXPECT_EQ("a copy reads differently at /mnt/shuttle", notProved[0].reason);
  EXPECT_EQ(kdxoffload::adviceForStatus(105), notProved[0].advice);
}

TEST(Verdict, ExplainsAnObstacleOfThePlan) {
  Offload offload;
  offload.plan.failures.push_back(
      {.entry = note, .destinations = DestinationSet::all(2), .obstacle = Obstacle::changedSinceProved});
  const std::vector<NotProved> notProved = offload.verdict().notProved;
  ASSERT_EQ(1U, notProved.size());
  EXPECT_EQ("note.txt", notProved[0].path);
  EXPECT_EQ(0, notProved[0].status);
  EXPECT_EQ(kdxoffload::reasonForObstacle(Obstacle::changedSinceProved), notProved[0].reason);
  EXPECT_THAT(notProved[0].advice, HasSubstr("--replace"));
}

TEST(Verdict, ExplainsASourceThatReadDifferentlyWhateverCameLater) {
  Offload offload;
  offload.results.unstable.insert(clip);
  const std::vector<NotProved> notProved = offload.verdict().notProved;
  ASSERT_EQ(1U, notProved.size());
  EXPECT_EQ(121, notProved[0].status);
  EXPECT_EQ(kdxoffload::reasonForStatus(121), notProved[0].reason);
}

TEST(Verdict, ExplainsWhatNobodyReportedToo) {
  Offload offload;
  offload.results.setProof(latest, shuttle, Proof::none);
  const Verdict verdict = offload.verdict();
  ASSERT_EQ(1U, verdict.notProved.size());
  EXPECT_THAT(verdict.notProved[0].reason, HasSubstr("/mnt/shuttle"));
  EXPECT_FALSE(verdict.notProved[0].advice.empty());
  EXPECT_EQ("DO NOT ERASE: 1 folder or link is not proved.", verdict.line);
}

TEST(Verdict, NamesWhatIsNotProvedInTheOrderOfTheCard) {
  Offload offload;
  for (const EntryIndex entry : {latest, clip, folder, note}) offload.results.failures[entry] = {.status = 110};
  std::vector<std::string> paths;
  for (const NotProved& entry : offload.verdict().notProved) paths.push_back(entry.path);
  EXPECT_THAT(paths, ElementsAre("day1", "note.txt", "day1/clip.mov", "day1/latest"));
  EXPECT_EQ("DO NOT ERASE: 2 of 2 files and 2 folders or links are not proved.", offload.verdict().line);
}

TEST(Verdict, NamesWhatCouldNotBeListedOrIsNoFile) {
  Offload offload;
  offload.before.entries.push_back({.name = "pipe", .facts = {.kind = ItemKind::other}});
  offload.before.unlisted = {{.path = "secret", .error = 13, .isFolder = true}};
  offload.after = offload.before;
  offload.prove({"/mnt/raid"});
  const Verdict verdict = offload.verdict();
  ASSERT_EQ(2U, verdict.notProved.size());
  EXPECT_EQ("pipe", verdict.notProved[0].path);
  EXPECT_EQ("secret", verdict.notProved[1].path);
  EXPECT_THAT(verdict.notProved[1].reason, HasSubstr("Permission denied"));
  EXPECT_EQ(3, verdict.exitStatus);
}

TEST(Verdict, AFileThatChangedAtADestinationIsNotCountedAsProved) {
  Offload offload;
  ++offload.destinations[shuttle][clip].modified;
  const Verdict verdict = offload.verdict();
  EXPECT_EQ(1U, verdict.proved);
  EXPECT_THAT(verdict.changes, ElementsAre("/mnt/shuttle: day1/clip.mov changed there meanwhile."));
  EXPECT_EQ("DO NOT ERASE: a destination changed meanwhile.", verdict.line);
}

TEST(Verdict, ADestinationThatIsGoneIsOneChange) {
  Offload offload;
  offload.destinations[shuttle] = DestinationListing(offload.before.entries.size());
  EXPECT_THAT(offload.verdict().changes, ElementsAre(HasSubstr("nothing of the card is there any more")));
}

TEST(Verdict, ATimeThatTheFileSystemKeepsCoarselyIsNoChange) {
  Offload offload;
  offload.destinations[shuttle][clip].modified += 1'000'000'000;
  EXPECT_FALSE(offload.verdict().isSafe);
  offload.volumes[shuttle].timeGrain = 2'000'000'000;
  EXPECT_TRUE(offload.verdict().isSafe);
}

TEST(Verdict, AFolderThatHoldsMoreAtTheDestinationIsNoChange) {
  Offload offload;
  offload.destinations[shuttle][folder].modified += 5;
  offload.destinations[shuttle][folder].size = 8192;
  EXPECT_TRUE(offload.verdict().isSafe);
}

TEST(Verdict, FileSystemsThatNumberNothingAreNoOneFile) {
  Offload offload;
  for (DestinationListing& listing : offload.destinations) listing[clip].identity = {};
  EXPECT_TRUE(offload.verdict().isSafe);
}

TEST(Verdict, SaysWhyItIsNotSafeWhereEverythingSucceeded) {
  Offload unread;
  unread.readBack = false;
  EXPECT_EQ("DO NOT ERASE: not everything was read back.", unread.verdict().line);
  Offload excluded;
  excluded.before.excluded = excluded.after.excluded = {"a", "b"};
  EXPECT_EQ("DO NOT ERASE: not everything on the card was offloaded.", excluded.verdict().line);
  EXPECT_THAT(excluded.verdict().remarks, Contains(HasSubstr("2 entries were left out")));
  Offload empty;
  empty.before = empty.after = {};
  empty.prove({"/mnt/raid"});
  EXPECT_EQ("DO NOT ERASE: the card has no files. It may not be mounted.", empty.verdict().line);
  Offload stopped;
  stopped.signal = 2;
  EXPECT_EQ("DO NOT ERASE: the offload was stopped before its end.", stopped.verdict().line);
}

TEST(Verdict, RepeatsWarningsAndRemarksEachOnce) {
  Offload offload;
  offload.warnings = {"one disk", "one disk"};
  offload.results.remarks = {"a mode is lost"};
  const std::vector<std::string> remarks = offload.verdict().remarks;
  EXPECT_EQ(1, std::ranges::count(remarks, "one disk"));
  EXPECT_EQ(1, std::ranges::count(remarks, "a mode is lost"));
  EXPECT_EQ(1, std::ranges::count_if(remarks, [](const auto& text) { return text.starts_with("Not kept: "); }));
}

TEST(Verdict, SaysHowManyFilesWereAdopted) {
  Offload offload;
  offload.results.setProof(clip, shuttle, Proof::adopted);
  EXPECT_THAT(offload.verdict().remarks,
              Contains(AllOf(HasSubstr("1 file stood at /mnt/shuttle"), HasSubstr("compared"))));
}

TEST(Verdict, SaysWhatAFileSystemKeepsAReadBackFromProving) {
  Offload offload;
  EXPECT_THAT(offload.verdict().remarks, Not(Contains(HasSubstr("read back"))));
  offload.volumes[raid] = {.fileSystem = "nfs4", .readBack = platform::ReadBack::clientCacheBypassed};
  offload.volumes[shuttle] = {.fileSystem = "fuse.unheardof", .readBack = platform::ReadBack::unknown};
  const Verdict verdict = offload.verdict();
  EXPECT_TRUE(verdict.isSafe);
  EXPECT_THAT(verdict.remarks, Contains(AllOf(HasSubstr("/mnt/raid (nfs4)"), HasSubstr("memory"))));
  EXPECT_THAT(verdict.remarks, Contains(AllOf(HasSubstr("/mnt/shuttle"), HasSubstr("fuse.unheardof"))));
}

TEST(Verdict, SaysWhatADestinationDoesNotKeep) {
  Offload offload;
  EXPECT_THAT(offload.verdict().remarks, Not(Contains(HasSubstr("does not keep"))));
  for (std::vector<DestinationListing>* const seen : {&offload.destinations, &offload.results.after}) {
    (*seen)[raid][clip].mode = 0777;
    (*seen)[shuttle][clip].modified = 0;
  }
  const Verdict verdict = offload.verdict();
  EXPECT_TRUE(verdict.isSafe);
  EXPECT_THAT(verdict.remarks, Contains("/mnt/raid does not keep modes as they are on the card."));
  EXPECT_THAT(verdict.remarks, Contains("/mnt/shuttle does not keep times of change as they are on the card."));
}

TEST(Verdict, AFileThatGoesOnThereIsTheCardsFileAlthoughItIsLonger) {
  Offload offload;
  for (DestinationListing* listing : {&offload.destinations[raid], &offload.results.after[raid]}) {
    (*listing)[note].size = 48;
    (*listing)[note].modified = 9;
  }
  expectNotSafe(offload.verdict(), 4);
  offload.continued = {{note}, {}};
  EXPECT_TRUE(offload.verdict().isSafe);
  // Not when it changed once more at the end.
  offload.destinations[raid][note].modified = 10;
  expectNotSafe(offload.verdict(), 4);
}

TEST(ProvedAtTheEnd, IsWhatWasFoundAsItWasProved) {
  Offload offload;
  offload.results.setProof(note, raid, Proof::none);
  offload.destinations[shuttle][clip].modified += 1;
  const std::vector<DestinationSet> proved = provedAtTheEnd(offload.facts());
  ASSERT_EQ(4U, proved.size());
  EXPECT_EQ(DestinationSet::all(2), proved[folder]);
  EXPECT_EQ(DestinationSet::only(shuttle), proved[note]);
  EXPECT_EQ(DestinationSet::only(raid), proved[clip]);
}

TEST(ProvedAtTheEnd, IsNothingOfWhatReadDifferentlyOnceOrHasGone) {
  Offload offload;
  offload.results.unstable = {note};
  offload.destinations[raid][clip] = {};
  const std::vector<DestinationSet> proved = provedAtTheEnd(offload.facts());
  EXPECT_EQ(DestinationSet(), proved[note]);
  EXPECT_EQ(DestinationSet::only(shuttle), proved[clip]);
}

TEST(ProvedAtTheEnd, IsNothingWhereFactsDoNotFitTogether) {
  Offload offload;
  offload.destinations[raid].pop_back();
  for (const DestinationSet& proved : provedAtTheEnd(offload.facts())) EXPECT_TRUE(proved.empty());
}
