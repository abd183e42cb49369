// Runs of the built program, and what they leave at the destinations for others to check the proof with.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

#include <filesystem>
#include <map>

#include "KDXFileTools/kdxoffload/HashHistories.h"
#include "KDXFileTools/kdxoffload/HashListReader.h"
#include "tests/kdxoffload/HistoryOnDisk.h"
#include "tests/support/CardOffload.h"

namespace fs = std::filesystem;

using kdxoffload::HashHistory;
using kdxoffload::HashList;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

class OffloadManifest : public CardOffload {
 protected:
  void fillSmallCard() const {
    writeFile(scratch.file("card/Clips/A002C006_141024_R2EC.mov"), "abcd\n");
    writeFile(scratch.file("card/Clips/A002C007_141024_R2EC.mov"), "def\n");
    writeFile(scratch.file("card/notes.txt"), "notes");
  }

  // The manifests of a destination, the oldest first.
  [[nodiscard]] std::vector<std::string> manifests(const std::string& folder) const {
    std::vector<std::string> found;
    if (!fs::is_directory(path(folder + "/ascmhl"))) return found;
    for (const std::string& name : namesBelow(path(folder + "/ascmhl"))) {
      if (name.ends_with(".mhl")) found.push_back(path(folder + "/ascmhl/" + name));
    }
    return found;
  }
  [[nodiscard]] HashList latest(const std::string& folder) const {
    return kdxoffload::readHashList(readFile(manifests(folder).at(manifests(folder).size() - 1)), nullptr).value();
  }
  // By path: what became of it.
  static std::map<std::string, HashList::Action> actionsIn(const HashList& list) {
    std::map<std::string, HashList::Action> actions;
    for (const HashList::File& file : list.files) actions[file.path] = file.hashes.at(0).action;
    return actions;
  }
  [[nodiscard]] std::optional<HashHistory> history(const std::string& folder) const {
    return HashHistory::read(platform::Folder::open(path(folder), nullptr).value(), nullptr);
  }

  // Everything that the manifest says of the files agrees with the system's own program.
  void expectDigests(const std::string& folder, const std::string& program) const {
    for (const HashList::File& file : latest(folder).files) {
      const std::string there = path(folder) + "/" + file.path;
      EXPECT_EQ(digestByProgram(program, there), file.hashes.at(0).value) << file.path;
      EXPECT_EQ(fs::file_size(there), file.size) << file.path;
    }
  }

  void expectWellFormed(const std::string& folder) const {
    if (!haveProgram("xmllint")) return;
    for (std::string file : manifests(folder)) {
      EXPECT_EQ("", runTool(ToolStart{.arguments = {"--noout", file}, .program = "xmllint"}).errors);
    }
    const std::string chain = path(folder + "/ascmhl/ascmhl_chain.xml");
    EXPECT_EQ("", runTool(ToolStart{.arguments = {"--noout", chain}, .program = "xmllint"}).errors);
  }

  // The run that is killed, and the one that goes on.
  void killAndGoOn(const std::function<void(pid_t)>& kill) const {
    ToolStart killed = start({"card", "a"});
    killed.meanwhile = kill;
    runTool(killed);
    waitForLock("a");
    ASSERT_TRUE(history("a").has_value());
    const ToolRun run = offload({"card", "a"});
    EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
    expectWholeHistory();
  }

  void expectWholeHistory() const {
    const auto whole = history("a");
    ASSERT_TRUE(whole.has_value());
    EXPECT_TRUE(whole->isChainWhole());
    EXPECT_EQ(3U, whole->files().size());
    for (const auto& [path, file] : whole->files()) EXPECT_FALSE(file.hasFailed) << path;
    expectWellFormed("a");
  }
};

}  // namespace

TEST_F(OffloadManifest, EachDestinationHasAManifestWithTheDigestsOfItsFiles) {
  fillCard();
  const ToolRun run = offload({"card", "a", "b"});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  for (const char* folder : {"a", "b"}) {
    ASSERT_EQ(1U, manifests(folder).size());
    expectWellFormed(folder);
    expectDigests(folder, "xxh64sum");
    EXPECT_EQ(15U, latest(folder).files.size());
    EXPECT_THAT(actionsIn(latest(folder)),
                AllOf(Contains(testing::Key("SMALL/line\nhash MD5:0")), Not(Contains(testing::Key("SMALL/link")))));
    EXPECT_THAT(fs::path(manifests(folder)[0]).filename(),
                testing::MatchesRegex("0001_" + std::string(folder) + R"(_....-..-.._......Z\.mhl)"));
  }
  EXPECT_THAT(run.output, HasSubstr("in no media hash list, which can't hold such names: SMALL/\\xff\\xfe."));
}

TEST_F(OffloadManifest, DigestsOfFoldersAreThePublishedOnes) {
  fillSmallCard();
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  const HashList list = latest("a");
  ASSERT_EQ(1U, list.folders.size());
  EXPECT_EQ("4c226b42e27d7af3", list.folders[0].hashes.content.at(0).value);
  EXPECT_EQ("906faa843d591a9f", list.folders[0].hashes.structure.at(0).value);
  EXPECT_TRUE(list.root.has_value());
}

TEST_F(OffloadManifest, OtherDigestsAreThoseThatWereAskedFor) {
  fillSmallCard();
  ASSERT_EQ(0, offload({"-t", "md5", "card", "a"}).exitStatus);
  expectDigests("a", "md5sum");
  ASSERT_EQ(0, offload({"-t", "sha1", "card", "b"}).exitStatus);
  expectDigests("b", "sha1sum");
}

TEST_F(OffloadManifest, ARunThatFindsEverythingProvedWritesNone) {
  fillSmallCard();
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  const std::vector<std::string> before = everythingIn("a");
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  EXPECT_EQ(before, everythingIn("a"));
}

TEST_F(OffloadManifest, ARunThatReadsAgainVerifies) {
  fillSmallCard();
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  ASSERT_EQ(0, offload({"--recheck", "card", "a"}).exitStatus);
  ASSERT_EQ(2U, manifests("a").size());
  for (const auto& [path, action] : actionsIn(latest("a"))) EXPECT_EQ(HashList::Action::verified, action) << path;
  EXPECT_TRUE(latest("a").root.has_value());
  EXPECT_TRUE(history("a")->isChainWhole());
}

TEST_F(OffloadManifest, AFileThatWasReplacedFailsInTheNextList) {
  fillSmallCard();
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  writeFile(scratch.file("card/notes.txt"), "other notes");
  ASSERT_EQ(0, offload({"--replace", "card", "a"}).exitStatus);
  EXPECT_EQ((std::map<std::string, HashList::Action>{{"notes.txt", HashList::Action::failed}}), actionsIn(latest("a")));
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  EXPECT_EQ(2U, manifests("a").size());
}

TEST_F(OffloadManifest, WhatFailedIsInNoneAndTheRestIs) {
  fillSmallCard();
  writeFile(scratch.file("a/notes.txt"), "mine!");
  EXPECT_EQ(2, offload({"card", "a"}).exitStatus);
  EXPECT_EQ(2U, latest("a").files.size());
  EXPECT_EQ(1U, latest("a").folders.size());
  EXPECT_FALSE(latest("a").root.has_value());
}

TEST_F(OffloadManifest, ARunThatIsStoppedWritesWhatIsProved) {
  fillSmallCard();
  writeFile(scratch.file("card/Z.mov"), mediaBytes(5 * MiB));
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  writeFile(scratch.file("card/A.mov"), mediaBytes(8 * MiB));
  writeFile(scratch.file("card/B.mov"), mediaBytes(256 * MiB));
  ToolStart stopped = start({"card", "a"});
  stopped.meanwhile = [this](pid_t process) {
    waitForFile(path("a/B.mov.kdxcopy"));
    ::kill(process, SIGINT);
  };
  EXPECT_EQ(128 + SIGINT, runTool(stopped).exitStatus);
  EXPECT_EQ((std::map<std::string, HashList::Action>{{"A.mov", HashList::Action::original}}), actionsIn(latest("a")));
}

TEST_F(OffloadManifest, WithoutReadingBackThereIsNone) {
  fillSmallCard();
  for (int run = 0; run < 2; ++run) {
    EXPECT_EQ(3, offload({"--no-read-back", "--checksums", "card", "a"}).exitStatus);
    EXPECT_THAT(namesBelow(path("a")),
                ElementsAre("Clips/A002C006_141024_R2EC.mov", "Clips/A002C007_141024_R2EC.mov", "notes.txt"));
  }
}

TEST_F(OffloadManifest, NoneIsWrittenWhenNoneIsWanted) {
  fillCard();
  ASSERT_EQ(0, offload({"--no-mhl", "card", "a"}).exitStatus);
  EXPECT_EQ(everythingIn("card"), everythingIn("a"));
}

TEST_F(OffloadManifest, AFileOrALinkInTheWayIsAWarningAndTheVerdictStands) {
  fillSmallCard();
  fs::create_directories(path("elsewhere"));
  writeFile(scratch.file("a/ascmhl"), "a file");
  fs::create_directories(path("b"));
  fs::create_directory_symlink(path("elsewhere"), path("b/ascmhl"));
  const ToolRun run = offload({"card", "a", "b"});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(lastLine(run), StartsWith("SAFE TO ERASE"));
  for (const char* folder : {"a", "b"}) {
    EXPECT_THAT(run.output, HasSubstr(std::string("the media hash list can't be written at ") + folder));
  }
  EXPECT_EQ("a file", readFile(path("a/ascmhl")));
  EXPECT_THAT(namesBelow(path("elsewhere")), IsEmpty());
}

TEST_F(OffloadManifest, ChecksumListsAreCheckedByTheProgramsThatTheyAreFor) {
  fillCard();
  struct Row {
    const char* algorithm;
    const char* extension;
    const char* program;
  };
  for (const Row& row :
       {Row{"md5", "md5", "md5sum"}, Row{"sha1", "sha1", "sha1sum"}, Row{"xxhash64be", "xxh64", "xxhsum"}}) {
    const ToolRun run = offload({"-t", row.algorithm, "--checksums", "card", "a"});
    EXPECT_EQ(0, run.exitStatus) << run.errors;
    const ToolRun check = runTool(ToolStart{.arguments = {"-c", "--strict", std::string("a.") + row.extension},
                                            .program = row.program,
                                            .workingDirectory = path("a")});
    EXPECT_EQ(0, check.exitStatus) << check.output << check.errors;
    const bool isXXH = std::string(row.program) == "xxhsum";
    const std::string list = readFile(path(std::string("a/a.") + row.extension));
    EXPECT_EQ(isXXH ? 15 : 16, std::ranges::count(list, '\n')) << list;
    const auto isNamed = HasSubstr("in no checksum list, which can't hold such names: SMALL/line\\x0ahash MD5:0.");
    if (isXXH) {
      EXPECT_THAT(run.output, isNamed);
    }
  }
}

TEST_F(OffloadManifest, AKilledRunLeavesAHistoryThatTheNextOneMakesWhole) {
  fillSmallCard();
  for (int round = 0; round < 24; ++round) {
    fs::remove_all(path("a"));
    fs::remove_all(path("state"));
    killAndGoOn([this, round](pid_t process) {
      // Moments all over the writing: after its first sign, a little later each time.
      const std::string sign = round % 2 == 0 ? "a/ascmhl" : "a/notes.txt";
      waitForFile(path(sign));
      for (int turn = 0; turn < 40 * (round / 2); ++turn) ::sched_yield();
      ::kill(process, SIGKILL);
    });
    if (HasFatalFailure()) return;
  }
}

TEST_F(OffloadManifest, EveryCallOfTheWritingMayBeTheLast) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  fillSmallCard();
  // What makes, names and makes permanent. When everything is there already only the writing of manifests does so, but for the first
  // fsync of each worker.
  const std::map<std::string, int> firstCalls{{"mkdirat", 1}, {"fsync", 2}, {"renameat2", 1}, {"renameat", 1}};
  for (const auto& [call, firstCall] : firstCalls) {
    int killed = 0;
    for (bool isKilled = true; isKilled; killed += isKilled ? 1 : 0) {
      for (const char* folder : {"a", "state"}) fs::remove_all(path(folder));
      ASSERT_EQ(0, offload({"--no-mhl", "card", "a"}).exitStatus);
      ToolStart again = start({"--recheck", "card", "a"});
      again.wrapper = injecting(call + ":signal=SIGKILL:when=" + std::to_string(firstCall + killed));
      isKilled = runTool(again).exitStatus == 128 + SIGKILL;
      waitForLock("a");
      ASSERT_TRUE(history("a").has_value()) << call << killed;
      EXPECT_EQ(0, offload({"card", "a"}).exitStatus) << call << killed;
      expectWholeHistory();
    }
    EXPECT_NE(0, killed) << call;
  }
}

namespace {

class OffloadOfHistories : public OffloadManifest {
 protected:
  void fillCardWithHistory(const std::string& folder) const {
    fillSmallCard();
    HistoryOnDisk history(scratch.path() / folder);
    history.add("0001_card_x.mhl", HistoryOnDisk::listOf({HistoryOnDisk::file("notes.txt", HistoryOnDisk::abcd)}))
        .writeChain();
  }
};

}  // namespace

TEST_F(OffloadOfHistories, TheDestinationContinuesTheCardsAndTheCardsFilesCountAsKept) {
  fillCardWithHistory("card");
  const auto time = fs::last_write_time(path("card/ascmhl"));
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  ASSERT_EQ(2U, manifests("a").size());
  EXPECT_EQ(readFile(path("card/ascmhl/0001_card_x.mhl")), readFile(manifests("a")[0]));
  EXPECT_EQ(HashList::Action::failed, actionsIn(latest("a")).at("notes.txt"));
  EXPECT_EQ(3U, latest("a").files.size());
  EXPECT_EQ(time, fs::last_write_time(path("a/ascmhl")));
  const std::vector<std::string> before = everythingIn("a");
  for (const std::vector<std::string>& again :
       {std::vector<std::string>{"card", "a"}, {"status", "card", "a"}, {"--no-mhl", "--recheck", "card", "a"}}) {
    const ToolRun run = offload(again);
    EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
    EXPECT_EQ(before, everythingIn("a"));
  }
  // On another machine, which remembers nothing.
  fs::remove_all(path("state"));
  const ToolRun elsewhere = offload({"card", "a"});
  EXPECT_EQ(0, elsewhere.exitStatus) << elsewhere.output;
  EXPECT_EQ(3U, history("a")->chain().links.size());
}

TEST_F(OffloadOfHistories, AnotherChainAtTheDestinationIsNotTheCards) {
  fillCardWithHistory("card");
  HistoryOnDisk other(scratch.path() / "a");
  other.add("0001_other.mhl", HistoryOnDisk::listOf({HistoryOnDisk::file("other", HistoryOnDisk::def)})).writeChain();
  const ToolRun run = offload({"card", "a"});
  EXPECT_EQ(2, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr("ascmhl/ascmhl_chain.xml"));
  EXPECT_TRUE(history("a")->isChainWhole());
}

TEST_F(OffloadOfHistories, OneFurtherDownIsContinuedThere) {
  fillCardWithHistory("card/Clips");
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  const auto below = history("a/Clips");
  ASSERT_TRUE(below.has_value());
  EXPECT_EQ(2U, below->chain().links.size());
  ASSERT_EQ(1U, latest("a").references.size());
  EXPECT_EQ("Clips/ascmhl/" + below->chain().links.back().fileName, latest("a").references[0].path);
  EXPECT_EQ(below->chain().links.back().c4, latest("a").references[0].c4);
  EXPECT_EQ(0, offload({"card", "a"}).exitStatus);
  EXPECT_EQ(2U, history("a/Clips")->chain().links.size());
}
