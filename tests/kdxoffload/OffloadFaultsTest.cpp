// Whole cards offloaded while something goes wrong: what is said, what is on disk, and that the same command ends well once
// the cause is gone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "tests/support/CardOffload.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FaultyFileSystem.h"

namespace fs = std::filesystem;

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::vector<std::string> clips{"A.mov", "B.mov", "C.mov"};

class OffloadFaults : public CardOffload {
 protected:
  void fillCardWithClips(const fs::path& folder) const {
    for (const std::string& clip : clips) writeFile(folder / clip, bytesOf(clip));
  }

  static std::string bytesOf(const std::string& clip) {
    return mediaBytes(5 * MiB + 17, static_cast<uint32_t>(clip.front()));
  }

  static void expectAllIn(const fs::path& folder) {
    EXPECT_EQ(clips, withoutManifests(namesBelow(folder)));
    for (const std::string& clip : clips) EXPECT_TRUE(bytesOf(clip) == readFile(folder / clip)) << clip;
  }
};

// The card, or a destination called "a", is on a file system whose faults a test sets.
class OffloadOnFaultyFileSystem : public OffloadFaults {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
    server = std::make_unique<FaultyFileSystem>(scratch.path());
    for (const char* folder : {"card", "a"}) fs::create_directory(server->stored(folder));
    fillCardWithClips(path("card"));
    fillCardWithClips(server->stored("card"));
  }

  [[nodiscard]] ToolRun offloadFromFaulty() const { return offload({server->path("card"), "a", "b"}); }
  [[nodiscard]] ToolRun offloadToFaulty() const { return offload(toFaulty()); }
  [[nodiscard]] std::vector<std::string> toFaulty() const { return {"card", server->path("a"), "b"}; }

  std::unique_ptr<FaultyFileSystem> server;
};

struct DestinationFault {
  const char* name;
  std::function<void(FaultyFileSystem&)> set;
};

const DestinationFault destinationFaults[] = {
    {"IsFull", [](FaultyFileSystem& fs) { fs.whenWriting("a/B.mov*").failAt(2 * MiB, ENOSPC); }},
    {"FailsToWrite", [](FaultyFileSystem& fs) { fs.whenWriting("a/B.mov*").failAt(2 * MiB, EIO); }},
    {"LosesWhatIsWritten", [](FaultyFileSystem& fs) { fs.whenWriting("a/B.mov*").dropRange(MiB, 4096); }},
    {"StoresAWrongBit", [](FaultyFileSystem& fs) { fs.whenWriting("a/B.mov*").flipBitAt(3 * MiB); }},
    {"FailsToSync", [](FaultyFileSystem& fs) { fs.whenSyncing("a/B.mov*").fail(EIO); }},
    {"CreatesNothing", [](FaultyFileSystem& fs) { fs.whenCreating("a/B.mov*").fail(EROFS); }},
    {"NamesNothing",
     [](FaultyFileSystem& fs) {
       fs.whenRenaming("a/B.mov*").fail(EROFS);
       fs.whenLinking("a/B.mov*").fail(EROFS);
     }},
    {"ReadsBackAWrongBit", [](FaultyFileSystem& fs) { fs.whenReading("a/B.mov*").flipBitAt(MiB); }},
};

class OffloadToAFaultyDestination : public OffloadOnFaultyFileSystem,
                                    public testing::WithParamInterface<DestinationFault> {};

}  // namespace

TEST_P(OffloadToAFaultyDestination, OneFileIsNotProvedAndTheSameCommandEndsWellOnceTheFaultIsGone) {
  GetParam().set(*server);
  const ToolRun run = offloadToFaulty();
  EXPECT_EQ(2, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ("DO NOT ERASE: 1 of 3 files is not proved.", lastLine(run));
  EXPECT_THAT(run.output, HasSubstr("B.mov"));
  for (const char* clip : {"A.mov", "C.mov"}) {
    EXPECT_TRUE(bytesOf(clip) == readFile(server->stored("a") / clip)) << clip;
  }

  server->clear();
  const ToolRun again = offloadToFaulty();
  EXPECT_EQ(0, again.exitStatus) << again.output << again.errors;
  expectAllIn(server->stored("a"));
  expectAllIn(path("b"));
}

INSTANTIATE_TEST_SUITE_P(OfFaults, OffloadToAFaultyDestination, testing::ValuesIn(destinationFaults),
                         [](const auto& fault) { return fault.param.name; });

TEST_F(OffloadOnFaultyFileSystem, AnUnreadableFileInTheMiddleFailsAlone) {
  server->whenReading("card/B.mov").failAt(2 * MiB, EIO);
  const ToolRun run = offloadFromFaulty();
  EXPECT_EQ(2, run.exitStatus) << run.output;
  EXPECT_EQ("DO NOT ERASE: 1 of 3 files is not proved.", lastLine(run));
  EXPECT_EQ((std::vector<std::string>{"A.mov", "C.mov"}), withoutManifests(namesBelow(path("a"))));
  server->clear();
  EXPECT_EQ(0, offloadFromFaulty().exitStatus);
  expectAllIn(path("a"));
}

TEST_F(OffloadOnFaultyFileSystem, ASourceThatReadDifferentlyOnceIsNotSafeInThatRun) {
  server->whenReading("card/B.mov").fromPass(2).times(1).flipBitAt(2 * MiB);
  const ToolRun run = offloadFromFaulty();
  EXPECT_THAT(run.errors, HasSubstr("failed: B.mov: the card's file did not read the same twice"));
  EXPECT_EQ(2, run.exitStatus) << run.output;
  EXPECT_EQ("DO NOT ERASE: 1 of 3 files is not proved.", lastLine(run));
  EXPECT_EQ(0, offloadFromFaulty().exitStatus);
  expectAllIn(path("a"));
  expectAllIn(path("b"));
}

TEST_F(OffloadOnFaultyFileSystem, ADestinationWhoseServerIsKilledTakesNothingFromTheOtherOne) {
  server->slowDown("a/*", std::chrono::milliseconds(20));
  ToolStart started = start(toFaulty());
  started.meanwhile = [this](pid_t) {
    waitForFile(server->stored("a/B.mov.kdxcopy"));
    server->vanish();
  };
  const ToolRun run = runTool(started);
  EXPECT_EQ(4, run.exitStatus) << run.output << run.errors;
  EXPECT_THAT(lastLine(run), StartsWith("DO NOT ERASE: "));
  EXPECT_THAT(run.output, HasSubstr("nothing of the card is there any more"));
  expectAllIn(path("b"));
}

TEST_F(OffloadOnFaultyFileSystem, ADestinationThatTurnsReadOnlyInTheMiddleLosesNothingThatWasProved) {
  server->slowDown("a/*", std::chrono::milliseconds(20));
  ToolStart started = start(toFaulty());
  started.meanwhile = [this](pid_t) {
    waitForFile(server->stored("a/B.mov.kdxcopy"));
    server->whenWriting("a/*").fail(EROFS);
    server->whenCreating("a/*").fail(EROFS);
    server->whenRenaming("a/*").fail(EROFS);
    server->whenLinking("a/*").fail(EROFS);
    server->whenUnlinking("a/*").fail(EROFS);
    server->whenSyncing("a/*").fail(EROFS);
  };
  const ToolRun run = runTool(started);
  EXPECT_EQ(2, run.exitStatus) << run.output << run.errors;
  EXPECT_TRUE(bytesOf("A.mov") == readFile(server->stored("a/A.mov")));
  server->clear();
  EXPECT_EQ(0, offloadToFaulty().exitStatus);
  expectAllIn(server->stored("a"));
  expectAllIn(path("b"));
}

TEST_F(OffloadOnFaultyFileSystem, AManifestThatCannotBeWrittenIsAWarningAndTheVerdictStands) {
  const std::function<void(FaultyFileSystem&)> faults[] = {
      [](FaultyFileSystem& fs) { fs.whenWriting("a/ascmhl/*").fail(ENOSPC); },
      [](FaultyFileSystem& fs) { fs.whenCreating("a/ascmhl/*").fail(EROFS); },
      [](FaultyFileSystem& fs) { fs.whenSyncing("a/ascmhl/*").fail(EIO); }};
  const auto offloadWith = [this](const std::string& option) {
    std::vector<std::string> words = toFaulty();
    words.insert(words.begin(), option);
    return offload(words);
  };
  ASSERT_EQ(0, offloadWith("--no-mhl").exitStatus);
  for (const auto& set : faults) {
    set(*server);
    const ToolRun run = offloadWith("--recheck");
    EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
    EXPECT_THAT(run.output, HasSubstr("the media hash list can't be written at " + server->path("a").string()));
    EXPECT_THAT(lastLine(run), StartsWith("SAFE TO ERASE: "));
    expectAllIn(server->stored("a"));
    server->clear();
  }
  const ToolRun run = offloadWith("--recheck");
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_THAT(run.output, testing::Not(HasSubstr("media hash list")));
  expectAllIn(server->stored("a"));
}

TEST_F(OffloadOnFaultyFileSystem, AFileThatGrowsOrShrinksMeanwhileIsNotProved) {
  for (const off_t size : {off_t{4 * MiB}, off_t{6 * MiB}}) {
    server->slowDown("card/*", std::chrono::milliseconds(20));
    ToolStart started = start({server->path("card"), "a", "b"});
    started.meanwhile = [this, size](pid_t) {
      waitForFile(path("a/B.mov.kdxcopy"));
      ::truncate(server->path("card/B.mov").c_str(), size);
    };
    const ToolRun run = runTool(started);
    EXPECT_EQ(4, run.exitStatus) << run.output << run.errors;
    EXPECT_THAT(run.output, HasSubstr("B.mov changed on the card meanwhile"));
    server->clear();
    const ToolRun again = offload({"--replace", server->path("card"), "a", "b"});
    EXPECT_EQ(0, again.exitStatus) << again.output;
    EXPECT_EQ(static_cast<uintmax_t>(size), fs::file_size(path("a/B.mov")));
    for (const char* folder : {"a", "b"}) fs::remove(fs::path(path(folder)) / "B.mov");
  }
}

TEST_F(OffloadFaults, AWorkerThatIsKilledIsReplaced) {
  fillCardWithClips(path("card"));
  writeFile(path("card/D.mov"), mediaBytes(128 * MiB));
  ToolStart started = start({"card", "a"});
  started.meanwhile = [this](pid_t offload) {
    waitForFile(path("a/D.mov.kdxcopy"));
    for (const pid_t worker : childrenOf(offload)) ::kill(worker, SIGKILL);
  };
  const ToolRun run = runTool(started);
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_TRUE(mediaBytes(128 * MiB) == readFile(path("a/D.mov")));
}

TEST_F(OffloadFaults, AWorkerThatHangsIsEndedAndItsFileTriedOnceMore) {
  writeFile(path("card/D.mov"), mediaBytes(128 * MiB));
  ToolStart started = start({"--stall", "1", "card", "a"});
  started.meanwhile = [this](pid_t offload) {
    waitForFile(path("a/D.mov.kdxcopy"));
    for (const pid_t worker : childrenOf(offload)) ::kill(worker, SIGSTOP);
  };
  const ToolRun run = runTool(started);
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_THAT(run.errors + run.output, HasSubstr("SAFE TO ERASE"));
  EXPECT_TRUE(mediaBytes(128 * MiB) == readFile(path("a/D.mov")));
}

TEST_F(OffloadFaults, APipeOnTheCardIsLeftOutAndTheRestIsProved) {
  fillCardWithClips(path("card"));
  ASSERT_EQ(0, ::mkfifo(path("card/pipe").c_str(), 0600));
  const ToolRun run = offload({"card", "a"});
  EXPECT_EQ(3, run.exitStatus) << run.output;
  EXPECT_THAT(run.output, HasSubstr("pipe: it is neither a file nor a folder nor a symbolic link"));
  expectAllIn(path("a"));
}

TEST_F(OffloadOnFaultyFileSystem, AComparisonThatFailedOnceIsNotSafeInThatRun) {
  for (const std::string& clip : clips) writeFile(scratch.file("a/" + clip), bytesOf(clip));
  server->whenReading("card/B.mov").times(1).flipBitAt(2 * MiB);
  const ToolRun run = offload({server->path("card"), "a"});
  EXPECT_EQ(2, run.exitStatus) << run.output;
  EXPECT_THAT(run.output, HasSubstr("B.mov"));
  EXPECT_EQ(0, offload({server->path("card"), "a"}).exitStatus);
}

TEST_F(OffloadOnFaultyFileSystem, ALinkWhoseFolderCouldNotBeSyncedIsNotProved) {
  ASSERT_EQ(0, offloadToFaulty().exitStatus);
  fs::create_symlink("A.mov", path("card/link"));
  server->whenSyncing("a").fail(EIO);
  const ToolRun run = offloadToFaulty();
  EXPECT_EQ(2, run.exitStatus) << run.output;
  EXPECT_EQ("DO NOT ERASE: 1 folder or link is not proved.", lastLine(run));
  server->clear();
  EXPECT_EQ(0, offloadToFaulty().exitStatus);
}

TEST_F(OffloadOnFaultyFileSystem, TwoEntriesThatADestinationTakesForOneNameAreNeverSafe) {
  server->whenLookingUp("*").ignoreCase();
  for (const char* file : {"Clips/a.mov", "CLIPS/b.mov", "read.me", "READ.ME"})
    writeFile(scratch.file(std::string("card/") + file), "same");
  for (int run = 0; run < 2; ++run) {
    const ToolRun found = offloadToFaulty();
    EXPECT_EQ(2, found.exitStatus) << found.output;
    EXPECT_THAT(found.output, HasSubstr("READ.ME"));
    EXPECT_THAT(found.output, HasSubstr("CLIPS"));
  }
}

TEST_F(OffloadFaults, ACardThatReadsDifferentlyThanInAnEarlierRunIsNotSafe) {
  fillCardWithClips(path("card"));
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  const auto time = fs::last_write_time(path("card/B.mov"));
  damageFile(path("card/B.mov"), 4711);
  fs::last_write_time(path("card/B.mov"), time);
  const ToolRun run = offload({"card", "a", "b"});
  EXPECT_EQ(2, run.exitStatus) << run.output;
  EXPECT_EQ("DO NOT ERASE: 1 of 3 files is not proved.", lastLine(run));
  EXPECT_EQ(2, offload({"status", "card", "a", "b"}).exitStatus);
  // Both copies are read and compared with the card from then on.
  EXPECT_EQ(2, offload({"card", "a", "b"}).exitStatus);
}

TEST_F(OffloadFaults, ACatalogueOnTheCardIsRefusedHoweverItIsCalled) {
  fillCardWithClips(path("card"));
  fs::create_directory_symlink("card", path("way"));
  fs::create_symlink("way/not-yet.sqlite", path("link.sqlite"));
  for (const char* catalogue : {"card/c.sqlite", "way/c.sqlite", "./card/new/c.sqlite", "link.sqlite"}) {
    const ToolRun run = offload({"--catalogue", catalogue, "card", "a"});
    EXPECT_EQ(1, run.exitStatus) << catalogue;
    EXPECT_THAT(run.errors, HasSubstr("the catalogue is on the card"));
  }
  EXPECT_EQ(clips, namesBelow(path("card")));
}

TEST_F(OffloadFaults, WhatSomebodyKeepsInTheWorkFolderStays) {
  fillCardWithClips(path("card"));
  writeFile(scratch.file("card/\xff"), "needs an alias");
  writeFile(scratch.file("a/.kdxoffload-work/notes.txt"), "precious");
  writeFile(scratch.file("a/.kdxoffload-work/17.kdxcopy"), "left by a run that was killed");
  EXPECT_EQ(0, offload({"card", "a"}).exitStatus);
  EXPECT_EQ("precious", readFile(path("a/.kdxoffload-work/notes.txt")));
  EXPECT_FALSE(fs::exists(path("a/.kdxoffload-work/17.kdxcopy")));
}

TEST_F(OffloadFaults, WhatCameUnderANameThatAStoppedRunNeverBeganIsKept) {
  for (int file = 0; file < 300; ++file) writeFile(scratch.file("card/" + std::to_string(file * file)), "card's");
  writeFile(scratch.file("card/big.mov"), mediaBytes(64 * MiB));
  ToolStart started = start({"--jobs", "1", "card", "a"});
  started.meanwhile = [this](pid_t offload) {
    waitForFile(path("a/0"));
    ::kill(offload, SIGINT);
  };
  EXPECT_EQ(128 + SIGINT, runTool(started).exitStatus);
  const std::string last = path("a/" + std::to_string(299 * 299));
  if (fs::exists(last)) GTEST_SKIP() << "the run was over before it was stopped";
  writeFile(last, "theirs");
  const ToolRun run = offload({"card", "a"});
  EXPECT_EQ(2, run.exitStatus) << run.output;
  EXPECT_EQ("theirs", readFile(last));
}

TEST_F(OffloadFaults, AFolderThatCannotBeWrittenInOnTheCardDoesNotStopTheNextRun) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  constexpr uid_t nobody = 65534;
  const auto asNobody = [this](std::vector<std::string> arguments) {
    ToolStart started = start(std::move(arguments));
    started.inChild = [] {
      if (::setgid(nobody) != 0 || ::setuid(nobody) != 0) ::_exit(99);
    };
    return runTool(started);
  };
  writeFile(scratch.file("card/D/a.mov"), "first");
  fs::create_directories(path("a"));
  for (const char* name : {"", "card", "card/D", "card/D/a.mov", "a", "state"}) {
    ASSERT_EQ(0, ::chown(path(name).c_str(), nobody, nobody));
  }
  fs::permissions(path("card/D"), fs::perms(0555));
  const ToolRun first = asNobody({"card", "a"});
  if (first.exitStatus == 126 || first.exitStatus == 127) GTEST_SKIP() << "the program is where nobody else can run it";
  ASSERT_EQ(0, first.exitStatus) << first.output << first.errors;
  EXPECT_EQ(fs::perms(0555), fs::status(path("a/D")).permissions());
  writeFile(path("card/D/b.mov"), "second");
  ASSERT_EQ(0, ::chown(path("card/D/b.mov").c_str(), nobody, nobody));
  const ToolRun second = asNobody({"card", "a"});
  EXPECT_EQ(0, second.exitStatus) << second.output << second.errors;
  EXPECT_EQ("second", readFile(path("a/D/b.mov")));
  EXPECT_EQ(fs::perms(0555), fs::status(path("a/D")).permissions());
}

TEST_F(OffloadOnFaultyFileSystem, OneDestinationThatDiffersSaysNothingAgainstTheCard) {
  writeFile(scratch.file("a/B.mov"), bytesOf("C.mov"));
  writeFile(scratch.file("b/B.mov"), bytesOf("B.mov"));
  const ToolRun run = offload({"card", "a", "b"});
  EXPECT_EQ(2, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr("what stands at the destination is not what the card holds"));
  EXPECT_THAT(run.output, testing::Not(HasSubstr("did not read the same twice")));
  EXPECT_EQ(0, offload({"--replace", "card", "a", "b"}).exitStatus);
}

TEST_F(OffloadOnFaultyFileSystem, ACardThatReadsDifferentlyForTwoDestinationsIsNotSafe) {
  writeFile(scratch.file("b/B.mov"), bytesOf("B.mov"));
  // Both reads of the copy agree; the comparison for the other destination sees what is really there.
  server->whenReading("card/B.mov").times(2).flipBitAt(2 * MiB);
  const ToolRun run = offloadFromFaulty();
  EXPECT_EQ(2, run.exitStatus) << run.output;
  EXPECT_EQ("DO NOT ERASE: 1 of 3 files is not proved.", lastLine(run));
}
