// Runs of the built program with real files.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/FileDescriptor.h"
#include "tests/support/CardOffload.h"

namespace fs = std::filesystem;

namespace {

using testing::HasSubstr;

using OffloadTest = CardOffload;

}  // namespace

TEST_F(OffloadTest, AWholeCardArrivesAndMayBeErased) {
  fillCard();
  const std::vector<std::string> card = everythingIn("card");
  const ToolRun run = offload({"card", "a", "b"});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(lastLine(run), testing::MatchesRegex("SAFE TO ERASE: 16 files .* are proved on 2 destinations."));
  EXPECT_EQ(card, withoutManifests(everythingIn("a")));
  EXPECT_EQ(card, withoutManifests(everythingIn("b")));
  EXPECT_EQ(card, everythingIn("card"));
}

TEST_F(OffloadTest, ASecondRunFindsEverythingProvedAndWritesNothing) {
  fillCard();
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  const auto before = fs::last_write_time(path("a"));
  const ToolRun run = offload({"--json", "card", "a"});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_THAT(run.output, HasSubstr("already-proved"));
  EXPECT_THAT(run.output, testing::Not(HasSubstr("\"outcome\":\"proved\"")));
  EXPECT_EQ(before, fs::last_write_time(path("a")));
}

TEST_F(OffloadTest, WhatAnotherMachineCopiedIsComparedAndTaken) {
  fillCard();
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  fs::remove_all(path("state"));
  const ToolRun run = offload({"--json", "card", "a"});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_THAT(run.output, HasSubstr("\"outcome\":\"adopted\""));
}

TEST_F(OffloadTest, AFileThatDiffersIsReportedAndReplacedOnlyWhenAsked) {
  writeFile(scratch.file("card/clip.mov"), mediaBytes(MiB));
  writeFile(scratch.file("a/clip.mov"), mediaBytes(MiB, 2));
  const ToolRun run = offload({"card", "a"});
  EXPECT_EQ(2, run.exitStatus);
  EXPECT_EQ("DO NOT ERASE: 1 of 1 file is not proved.", lastLine(run));
  EXPECT_EQ(mediaBytes(MiB, 2), readFile(path("a/clip.mov")));
  EXPECT_EQ(0, offload({"--replace", "card", "a"}).exitStatus);
  EXPECT_EQ(mediaBytes(MiB), readFile(path("a/clip.mov")));
}

TEST_F(OffloadTest, AFlippedBitIsFoundWhenEverythingIsReadAgain) {
  fillCard();
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  struct stat facts = {};
  ASSERT_EQ(0, ::stat(path("a/CLIPS/A001.mov").c_str(), &facts));
  damageFile(path("a/CLIPS/A001.mov"), 4711);
  const timespec times[] = {facts.st_atim, facts.st_mtim};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, path("a/CLIPS/A001.mov").c_str(), times, 0));
  const ToolRun run = offload({"--recheck", "card", "a"});
  EXPECT_EQ(2, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr("CLIPS/A001.mov"));
}

TEST_F(OffloadTest, ALinkAtADestinationIsNotFollowed) {
  writeFile(scratch.file("card/CLIPS/clip.mov"), "bytes");
  fs::create_directories(path("elsewhere"));
  fs::create_directories(path("a"));
  fs::create_directory_symlink(path("elsewhere"), path("a/CLIPS"));
  EXPECT_EQ(2, offload({"card", "a"}).exitStatus);
  EXPECT_TRUE(namesBelow(path("elsewhere")).empty());
}

TEST_F(OffloadTest, ACardWithoutFilesIsNeverSafe) {
  fs::create_directories(path("card/folder"));
  EXPECT_EQ(3, offload({"card", "a"}).exitStatus);
}

TEST_F(OffloadTest, WithoutReadingBackItIsNeverSafe) {
  writeFile(scratch.file("card/clip.mov"), "bytes");
  const ToolRun run = offload({"--no-read-back", "card", "a"});
  EXPECT_EQ(3, run.exitStatus) << run.output;
  EXPECT_EQ("bytes", readFile(path("a/clip.mov")));
}

TEST_F(OffloadTest, APlaceThatWillNotDoIsRefusedBeforeAnythingIsWritten) {
  fillCard();
  for (const std::vector<std::string>& places : std::vector<std::vector<std::string>>{
           {"card", "card/a"}, {"card", "a", "a"}, {"card", "missing/a"}, {"none", "a"}, {"card/CLIPS", "."}}) {
    const ToolRun run = offload(places);
    EXPECT_EQ(1, run.exitStatus) << testing::PrintToString(places) << run.errors;
    EXPECT_FALSE(fs::exists(path("a")));
  }
}

TEST_F(OffloadTest, TwoAtWorkOnOneDestinationAreOneTooMany) {
  writeFile(scratch.file("card/clip.mov"), "bytes");
  fs::create_directories(path("a"));
  const platform::FileDescriptor other(::open(path("a").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(0, ::flock(other.get(), LOCK_EX | LOCK_NB));
  const ToolRun run = offload({"card", "a"});
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_FALSE(fs::exists(path("a/clip.mov")));
}

TEST_F(OffloadTest, AKilledRunIsGoneOnWithByTheSameCommand) {
  fillCard();
  writeFile(scratch.file("card/CLIPS/B001.mov"), mediaBytes(128 * MiB));
  ToolStart killed = start({"card", "a", "b"});
  killed.meanwhile = [this](pid_t process) {
    waitForFile(path("b/CLIPS/B001.mov.kdxcopy"));
    ::kill(process, SIGKILL);
  };
  EXPECT_EQ(128 + SIGKILL, runTool(killed).exitStatus);
  for (const char* folder : {"a", "b"}) waitForLock(folder);
  const ToolRun run = offload({"card", "a", "b"});
  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ(everythingIn("card"), withoutManifests(everythingIn("a")));
  EXPECT_EQ(everythingIn("card"), withoutManifests(everythingIn("b")));
}

TEST_F(OffloadTest, ASignalStopsItInOrder) {
  writeFile(scratch.file("card/clip.mov"), mediaBytes(128 * MiB));
  writeFile(scratch.file("card/next.mov"), mediaBytes(8 * MiB));
  ToolStart stopped = start({"card", "a"});
  stopped.meanwhile = [this](pid_t process) {
    waitForFile(path("a/clip.mov.kdxcopy"));
    ::kill(process, SIGINT);
  };
  const ToolRun run = runTool(stopped);
  EXPECT_EQ(128 + SIGINT, run.exitStatus) << run.errors;
  EXPECT_THAT(lastLine(run), HasSubstr("DO NOT ERASE: 2 of 2 files are not proved."));
  EXPECT_TRUE(namesBelow(path("a")).empty());
}

TEST_F(OffloadTest, AFileProvedBeforeThatIsOverwrittenMeanwhileIsAChange) {
  writeFile(scratch.file("card/small.mov"), "bytes");
  ASSERT_EQ(0, offload({"card", "a"}).exitStatus);
  writeFile(scratch.file("card/big.mov"), mediaBytes(64 * MiB));
  ToolStart started = start({"card", "a"});
  started.meanwhile = [this](pid_t) {
    waitForFile(path("a/big.mov.kdxcopy"));
    writeFile(path("a/small.mov"), "other");
  };
  const ToolRun run = runTool(started);
  EXPECT_EQ(4, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr("small.mov changed there meanwhile"));
}

TEST_F(OffloadTest, AWrongCommandLineIsToldInJsonWhereThatWasAskedFor) {
  const ToolRun run = offload({"--json", "card"});
  EXPECT_EQ(1, run.exitStatus);
  ASSERT_EQ(2U, run.lines().size());
  EXPECT_EQ(R"({"type":"error","text":"no destination given"})", run.lines()[0]);
  EXPECT_THAT(run.lines()[1], testing::StartsWith(R"({"type":"summary","verdict":"not-safe","exit_status":1,)"));
  EXPECT_EQ("", run.errors);
}

TEST_F(OffloadTest, AFileThatVanishesMeanwhileIsAChangeOfTheCard) {
  writeFile(scratch.file("card/big.mov"), mediaBytes(64 * MiB));
  writeFile(scratch.file("card/last.mov"), mediaBytes(8 * MiB));
  ToolStart started = start({"card", "a"});
  started.meanwhile = [this](pid_t) {
    waitForFile(path("a/big.mov.kdxcopy"));
    fs::remove(path("card/last.mov"));
  };
  EXPECT_EQ(4, runTool(started).exitStatus);
  EXPECT_TRUE(fs::exists(path("a/big.mov")));
}

// What the device did not take may be lost from memory too: only reading it again can tell.
TEST_F(OffloadTest, SmallFilesWhoseSyncFailsAreComparedBeforeTheyAreTakenForProved) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  writeFile(scratch.file("card/notes.txt"), "bytes");
  ToolStart started = start({"--json", "card", "a"});
  EXPECT_THAT(runTool(started).output, HasSubstr("\"outcome\":\"proved\""));
  fs::remove_all(path("a"));
  fs::create_directories(path("a"));
  fs::remove_all(path("state"));
  started.wrapper = injecting("syncfs:error=EIO");
  const ToolRun run = runTool(started);
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_THAT(run.output, HasSubstr("\"outcome\":\"adopted\""));
  EXPECT_THAT(run.output, testing::Not(HasSubstr("\"outcome\":\"proved\"")));
}

TEST_F(OffloadTest, ACatalogueThatCanNotBeMadePermanentRemembersNothingAndSaysSo) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  writeFile(scratch.file("card/notes.txt"), "bytes");
  ToolStart started = start({"card", "a"});
  started.wrapper =
      injectingAt(path("state/kdxoffload/catalogue.sqlite-wal"), {"fsync:error=EIO", "fdatasync:error=EIO"});
  const ToolRun run = runTool(started);
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(run.errors, HasSubstr("nothing is remembered for the next time: "));
}
