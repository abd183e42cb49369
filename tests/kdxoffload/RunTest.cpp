#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <asio.hpp>
#include <filesystem>
#include <functional>
#include <map>

#include "KDXFileTools/kdxoffload/Lister.h"
#include "KDXFileTools/kdxoffload/Run.h"
#include "digest/KDXDigestContext.h"
#include "platform/Process.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using namespace kdxoffload;
namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using OffloadRun = kdxoffload::Run;  // a test has a Run of its own

class Recorder final : public Listener {
 public:
  void take(const Event& event) override {
    events.push_back(event);
    if (meanwhile) meanwhile(event);
  }

  // What became of each file; fails the test when one is told of twice.
  [[nodiscard]] std::map<std::string, FileOutcome> outcomes() const {
    std::map<std::string, FileOutcome> found;
    for (const Event& event : events) {
      const auto* const file = std::get_if<FileEnded>(&event);
      if (file == nullptr) continue;
      EXPECT_TRUE(found.emplace(file->path, file->outcome).second) << file->path;
    }
    return found;
  }

  template <typename Kind>
  [[nodiscard]] std::vector<Kind> of() const {
    std::vector<Kind> found;
    for (const Event& event : events) {
      if (const auto* const one = std::get_if<Kind>(&event)) found.push_back(*one);
    }
    return found;
  }

  std::vector<Event> events;
  std::function<void(const Event&)> meanwhile;
};

// Two folders as destinations, and a card that a test fills.
class RunTest : public testing::Test {
 protected:
  RunTest() {
    platform::letWritesFailInsteadOfSignals();
    for (const char* folder : {"card", "a", "b"}) fs::create_directories(scratch.path() / folder);
    destinations = {scratch.path() / "a", scratch.path() / "b"};
  }

  [[nodiscard]] std::string path(const std::string& name) const { return scratch.path() / name; }

  void listAndPlan() {
    const Stopped never = [] { return false; };
    card = listTree(platform::Folder::open(path("card"), nullptr).value(), {}, never);
    std::vector<PlannedDestination> planned;
    for (const std::string& destination : destinations) {
      planned.push_back({.listing = listDestination(platform::Folder::open(destination, nullptr).value(), card, never),
                         .records = catalogue.recordsOf(destination, card)});
    }
    plan = makePlan(card, planned, {.algorithm = KDXDigestAlgorithmMD5});
  }

  [[nodiscard]] RunSettings settings() const {
    return {.setup = {.card = path("card"),
                      .destinations = destinations,
                      .algorithm = KDXDigestAlgorithmMD5,
                      .privateFolder = ".work"},
            .program = offloadToolPath(),
            .destinationPaths = {"a", "b"},
            .cardPath = "card"};
  }

  // Carries the plan out. `meanwhile` gets every event as it happens.
  Results carryOut(const std::function<void(OffloadRun&, const Event&)>& meanwhile = {}) {
    asio::io_context context;
    catalogue.startOffload(path("card"), destinations, 1);
    OffloadRun run(context, settings(), card, plan, catalogue, recorder);
    if (meanwhile) recorder.meanwhile = [&](const Event& event) { meanwhile(run, event); };
    bool hasEnded = false;
    run.start([&] { hasEnded = true; });
    context.run();
    EXPECT_TRUE(hasEnded);
    recorder.meanwhile = nullptr;
    return run.results();
  }

  [[nodiscard]] EntryIndex entryOf(const std::string& name) const {
    for (EntryIndex index = 0; index < card.entries.size(); ++index) {
      if (card.pathOf(index) == name) return index;
    }
    ADD_FAILURE() << name << " is not on the card";
    return 0;
  }

  [[nodiscard]] FileRecord::State stateOf(const std::string& destination, const std::string& name) const {
    return Catalogue::openForReading(path("catalogue")).recordsOf(path(destination), card).at(entryOf(name)).state;
  }

  const ScratchDirectory scratch;
  std::vector<std::string> destinations;
  Catalogue catalogue = Catalogue::open(path("catalogue"));
  Listing card;
  Plan plan;
  Recorder recorder;
};

}  // namespace

TEST_F(RunTest, EverythingOnTheCardArrivesAndIsProvedAndRecorded) {
  writeFile(scratch.file("card/clips/A.mov"), mediaBytes(5 * MiB));
  for (int number = 0; number < 40; ++number)
    writeFile(scratch.file("card/small/x" + std::to_string(number * number)), "small");
  fs::create_directories(path("card/empty/deeper"));
  fs::create_symlink("nowhere", path("card/small/link"));
  listAndPlan();
  const Results results = carryOut();
  EXPECT_TRUE(results.failures.empty());
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    EXPECT_TRUE(results.isProvedEverywhere(index)) << card.pathOf(index);
  }
  for (const char* folder : {"a", "b"}) {
    EXPECT_EQ(namesBelow(path("card")), namesBelow(path(folder)));
    EXPECT_EQ(mediaBytes(5 * MiB), readFile(path(folder) + "/clips/A.mov"));
    EXPECT_TRUE(fs::is_directory(path(folder) + "/empty/deeper"));
    EXPECT_EQ(fs::last_write_time(path("card/small")), fs::last_write_time(path(folder) + "/small"));
    EXPECT_EQ(FileRecord::State::proved, stateOf(folder, "clips/A.mov"));
    EXPECT_EQ(FileRecord::State::proved, stateOf(folder, "small/x4"));
  }
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", path("a/clips/A.mov")), results.digests[entryOf("clips/A.mov")].text());
  EXPECT_EQ(41U, recorder.outcomes().size());
  for (const auto& [name, outcome] : recorder.outcomes()) EXPECT_EQ(FileOutcome::proved, outcome) << name;
}

TEST_F(RunTest, ThePlanIsToldFirstAndTheBarReachesItsEndLast) {
  writeFile(scratch.file("card/A.mov"), mediaBytes(5 * MiB));
  listAndPlan();
  carryOut();
  EXPECT_TRUE(std::holds_alternative<Planned>(recorder.events.front()));
  double share = 0;
  for (const Progress& progress : recorder.of<Progress>()) {
    EXPECT_GE(progress.share, share);
    share = progress.share;
  }
  EXPECT_EQ(1, share);
  ASSERT_EQ(1U, recorder.of<JobStarted>().size());
  EXPECT_EQ("A.mov", recorder.of<JobStarted>()[0].path);
  EXPECT_EQ(0, recorder.of<JobEnded>().at(0).status);
}

TEST_F(RunTest, WhatIsAboutToBeWrittenIsOnRecordBeforeItsJobStarts) {
  for (const char* name : {"big", "small"})
    writeFile(scratch.file(std::string("card/") + name), mediaBytes(name[0] == 'b' ? 5 * MiB : 5));
  listAndPlan();
  int seen = 0;
  carryOut([&](OffloadRun&, const Event& event) {
    const auto* const started = std::get_if<JobStarted>(&event);
    if (started == nullptr) return;
    ++seen;
    EXPECT_EQ(FileRecord::State::begun, stateOf("b", started->path));
  });
  EXPECT_EQ(2, seen);
}

TEST_F(RunTest, AFileCountsAsProvedOnlyWhenItsRecordIsThere) {
  for (int number = 0; number < 5; ++number) writeFile(scratch.file("card/x" + std::to_string(number * 7)), "small");
  listAndPlan();
  int seen = 0;
  carryOut([&](OffloadRun&, const Event& event) {
    const auto* const file = std::get_if<FileEnded>(&event);
    if (file == nullptr) return;
    ++seen;
    EXPECT_EQ(FileRecord::State::proved, stateOf("a", file->path));
  });
  EXPECT_EQ(5, seen);
}

TEST_F(RunTest, AFileThatChangedSinceItWasListedFailsAlone) {
  writeFile(scratch.file("card/changing.mov"), "first");
  writeFile(scratch.file("card/steady.mov"), "steady");
  listAndPlan();
  writeFile(path("card/changing.mov"), "another length");
  const Results results = carryOut();
  ASSERT_TRUE(results.failures.contains(entryOf("changing.mov")));
  EXPECT_EQ(WorkStatus::sourceChanged, results.failures.at(entryOf("changing.mov")).status);
  EXPECT_TRUE(results.isProvedEverywhere(entryOf("steady.mov")));
  EXPECT_EQ(FileRecord::State::begun, stateOf("a", "changing.mov"));
  EXPECT_EQ(
      (std::map<std::string, FileOutcome>{{"changing.mov", FileOutcome::failed}, {"steady.mov", FileOutcome::proved}}),
      recorder.outcomes());
}

TEST_F(RunTest, AFileThatAppearedAtADestinationIsComparedAndNeverReplaced) {
  writeFile(scratch.file("card/same.mov"), "bytes");
  writeFile(scratch.file("card/other.mov"), "bytes");
  listAndPlan();
  writeFile(path("a/same.mov"), "bytes");
  writeFile(path("a/other.mov"), "somebody's");
  const Results results = carryOut();
  EXPECT_EQ(Proof::adopted, results.proof(entryOf("same.mov"), 0));
  EXPECT_EQ(Proof::copied, results.proof(entryOf("same.mov"), 1));
  EXPECT_EQ(Proof::none, results.proof(entryOf("other.mov"), 0));
  EXPECT_EQ(Proof::copied, results.proof(entryOf("other.mov"), 1));
  EXPECT_EQ("somebody's", readFile(path("a/other.mov")));
  EXPECT_EQ(WorkStatus::differs, results.failures.at(entryOf("other.mov")).status);
  EXPECT_FALSE(results.failures.contains(entryOf("same.mov")));
  EXPECT_THAT(namesBelow(path("a")), ElementsAre("other.mov", "same.mov"));
}

TEST_F(RunTest, ASequenceThatFailsIsTriedAgainFileByFile) {
  for (const char* frame : {"f_1", "f_2", "f_3"}) writeFile(scratch.file(std::string("card/") + frame), frame);
  listAndPlan();
  plan = Plan{};
  plan.files = {entryOf("f_1"), entryOf("f_2"), entryOf("f_3")};
  plan.sequences = {"f_1-3.#"};
  plan.jobs = {{.count = 3, .sequence = 0, .destinations = DestinationSet::all(2)}};
  for (auto* const sets : {&plan.proved, &plan.folders, &plan.links}) sets->resize(card.entries.size());
  writeFile(path("b/f_2"), "somebody's");
  const Results results = carryOut();
  EXPECT_TRUE(results.isProvedEverywhere(entryOf("f_1")));
  EXPECT_TRUE(results.isProvedEverywhere(entryOf("f_3")));
  EXPECT_EQ(DestinationSet::only(0), results.provedAt(entryOf("f_2")));
  EXPECT_EQ("somebody's", readFile(path("b/f_2")));
  EXPECT_TRUE(recorder.of<JobEnded>().at(0).willBeTriedAgain);
  EXPECT_THAT(namesBelow(path("b")), ElementsAre("f_1", "f_2", "f_3"));
}

TEST_F(RunTest, AStopEndsWhatRunsAndLeavesNothingHalfDone) {
  for (const char* name : {"A.mov", "B.mov"})
    writeFile(scratch.file(std::string("card/") + name), mediaBytes(64 * MiB));
  listAndPlan();
  const Results results = carryOut([](OffloadRun& run, const Event& event) {
    if (std::holds_alternative<JobStarted>(event)) run.stop(SIGINT);
  });
  EXPECT_EQ(1U, recorder.of<Stopping>().size());
  EXPECT_EQ(1U, recorder.of<JobStarted>().size());
  EXPECT_EQ(2U, results.failures.size());
  EXPECT_THAT(namesBelow(path("a")), ElementsAre());
  EXPECT_EQ(FileRecord::State::begun, stateOf("a", "A.mov"));
  EXPECT_EQ(FileRecord::State::none, stateOf("a", "B.mov"));
}

TEST_F(RunTest, AFolderThatCannotBeMadeFailsWithWhatIsInIt) {
  writeFile(scratch.file("card/folder/x"), "bytes");
  writeFile(scratch.file("card/y"), "bytes");
  listAndPlan();
  writeFile(path("b/folder"), "a file in the way");
  const Results results = carryOut();
  EXPECT_TRUE(results.failures.contains(entryOf("folder")));
  EXPECT_TRUE(results.failures.contains(entryOf("folder/x")));
  EXPECT_TRUE(results.isProvedEverywhere(entryOf("y")));
  EXPECT_EQ("a file in the way", readFile(path("b/folder")));
}

TEST_F(RunTest, FoldersThatAreAlreadyProvedGetTheirTimesOnlyWhereTheyLackThem) {
  fs::create_directories(path("card/folder"));
  for (const char* folder : {"a/folder", "b/folder"}) fs::create_directories(path(folder));
  listAndPlan();
  plan.folders.assign(card.entries.size(), {});
  const auto before = fs::last_write_time(path("b/folder"));
  RunSettings wanted = settings();
  wanted.foldersToKeep = {DestinationSet::only(0)};
  asio::io_context context;
  OffloadRun run(context, wanted, card, plan, catalogue, recorder);
  run.start([] {});
  context.run();
  EXPECT_EQ(fs::last_write_time(path("card/folder")), fs::last_write_time(path("a/folder")));
  EXPECT_EQ(before, fs::last_write_time(path("b/folder")));
}

TEST_F(RunTest, WhatAFailedTryLeftMakesRoomForTheSecondOne) {
  writeFile(scratch.file("card/clip.mov"), "bytes");
  listAndPlan();
  // A folder at the name of the temporary file makes the job fail; the file beside it is left as it is.
  fs::create_directories(path("b/clip.mov.kdxcopy"));
  int tries = 0;
  carryOut([&](OffloadRun&, const Event& event) {
    if (!std::holds_alternative<JobStarted>(event) || ++tries != 2) return;
    EXPECT_FALSE(fs::exists(path("a/clip.mov.kdxcopy")));
  });
  EXPECT_EQ(3, tries);  // the second time each destination by itself
  EXPECT_THAT(namesBelow(path("a")), ElementsAre("clip.mov"));
  EXPECT_THAT(namesBelow(path("b")), ElementsAre());
}
