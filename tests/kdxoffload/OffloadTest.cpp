// Runs of the built program with real files.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "platform/FileDescriptor.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class OffloadTest : public testing::Test {
 protected:
  OffloadTest() {
    for (const char* folder : {"card", "state"}) fs::create_directories(scratch.path() / folder);
  }

  [[nodiscard]] std::string path(const std::string& name) const { return scratch.path() / name; }

  // A card with clips, a sequence, small files, odd names, an empty folder and a link that leads out of it.
  void fillCard() const {
    for (const char* clip : {"A001.mov", "A002.mov"}) {
      const auto seed = static_cast<uint32_t>(clip[3]);
      writeFile(scratch.file(std::string("card/CLIPS/") + clip), mediaBytes(5 * MiB + seed, seed));
    }
    for (int frame = 998; frame <= 1003; ++frame) {
      writeFile(scratch.file("card/FRAMES/shot_%_" + std::to_string(100000 + frame).substr(1) + ".dpx"),
                mediaBytes(100 * KiB, static_cast<uint32_t>(frame)));
    }
    for (const char* name : {"notes.txt", ".hidden", "empty", "-f", "x.kdxcopy", "line\nhash MD5:0", "\xff\xfe"}) {
      writeFile(scratch.file(std::string("card/SMALL/") + name), name[0] == 'e' ? "" : name);
    }
    writeFile(scratch.file("card/SMALL/" + std::string(255, 'n')), "long");
    fs::create_directories(path("card/VOID/DEEPER"));
    fs::create_symlink("../../etc", path("card/SMALL/link"));
    fs::permissions(path("card/SMALL/notes.txt"), fs::perms::owner_read);
    fs::permissions(path("card/VOID"), fs::perms::owner_all);
  }

  [[nodiscard]] ToolStart start(std::vector<std::string> arguments) const {
    return {.arguments = std::move(arguments),
            .program = offloadToolPath(),
            .workingDirectory = scratch.path(),
            .environment = {{"XDG_STATE_HOME", path("state")}}};
  }
  [[nodiscard]] ToolRun offload(std::vector<std::string> arguments) const {
    return runTool(start(std::move(arguments)));
  }

  // Name, mode and time of change of everything below a folder, and what the files and links hold.
  [[nodiscard]] std::vector<std::string> everythingIn(const std::string& folder) const {
    std::vector<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(scratch.path() / folder)) {
      struct stat facts = {};
      EXPECT_EQ(0, ::lstat(entry.path().c_str(), &facts));
      std::string line = fs::relative(entry.path(), scratch.path() / folder);
      line += " " + std::to_string(facts.st_mode) + " " + std::to_string(facts.st_mtim.tv_sec) + "." +
              std::to_string(facts.st_mtim.tv_nsec);
      if (entry.is_symlink()) line += " to " + fs::read_symlink(entry.path()).string();
      if (!entry.is_symlink() && entry.is_regular_file()) line += " " + digestByProgram("md5sum", entry.path());
      lines.push_back(line);
    }
    std::ranges::sort(lines);
    return lines;
  }

  static void waitForFile(const std::string& file) {
    while (!fs::exists(file)) ::sched_yield();
  }

  // Until the workers of a run that was killed are gone.
  void waitForLock(const std::string& folder) const {
    const platform::FileDescriptor descriptor(::open(path(folder).c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, ::flock(descriptor.get(), LOCK_EX));
  }

  const ScratchDirectory scratch;
};

std::string lastLine(const ToolRun& run) {
  return run.lines().empty() ? "" : run.lines().back();
}

}  // namespace

TEST_F(OffloadTest, AWholeCardArrivesAndMayBeErased) {
  fillCard();
  const std::vector<std::string> card = everythingIn("card");
  const ToolRun run = offload({"card", "a", "b"});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_THAT(lastLine(run), testing::MatchesRegex("SAFE TO ERASE: 16 files .* are proved on 2 destinations."));
  EXPECT_EQ(card, everythingIn("a"));
  EXPECT_EQ(card, everythingIn("b"));
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
  EXPECT_EQ(everythingIn("card"), everythingIn("a"));
  EXPECT_EQ(everythingIn("card"), everythingIn("b"));
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
