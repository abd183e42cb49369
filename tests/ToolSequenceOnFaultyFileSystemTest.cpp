// Whole runs over sequences on a file system with faults: the line and the status that each fault gives, and what is left
// on disk.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>

#include "tests/support/FaultyFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

using Names = std::vector<std::string>;

// The first frame makes the buffers those of 1 MiB, so that the second takes several and ends within a block.
constexpr std::size_t smallFrame = 70'001;
constexpr std::size_t largeFrame = 2 * MiB + 4096 + 17;

class ToolSequenceOnFaultyFileSystem : public testing::Test {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
    server = std::make_unique<FaultyFileSystem>(scratch.path());
    for (const char* folder : {"card", "a", "b"}) std::filesystem::create_directory(server->stored(folder));
    for (std::size_t number = 1; number <= frames.size(); ++number) {
      writeFile(server->stored(frame("card", number)), frames[number - 1]);
    }
  }

  static std::string frame(const std::string& folder, std::size_t number) {
    return fmt::format("{}/p.{:04}.dpx", folder, number);
  }
  static std::string temporary(const std::string& folder, std::size_t number) {
    return frame(folder, number) + ".kdxcopy";
  }
  [[nodiscard]] std::string path(const std::string& name) const { return server->path(name); }

  // Offloads the frames to a and b, with the options in front.
  [[nodiscard]] ToolRun offload(std::vector<std::string> options = {}) const {
    options.insert(options.end(), {"-s", path("card/p.1-3.####.dpx"), path("a/x"), path("b/x")});
    return runTool(std::move(options));
  }

  [[nodiscard]] Names stored() const { return namesBelow(server->backing()); }

  void expectSourceUntouched() const {
    for (std::size_t number = 1; number <= frames.size(); ++number) {
      EXPECT_TRUE(frames[number - 1] == readFile(server->stored(frame("card", number))));
    }
  }

  // No final name was given out, and the source is as it was.
  void expectNothingInPlace() const {
    for (const std::string& name : stored()) {
      EXPECT_TRUE(name.starts_with("card/") || name.ends_with(".kdxcopy")) << name;
    }
    expectSourceUntouched();
  }

  void expectAllInPlace() const {
    EXPECT_THAT(stored(), ElementsAre(frame("a", 1), frame("a", 2), frame("a", 3), frame("b", 1), frame("b", 2),
                                      frame("b", 3), frame("card", 1), frame("card", 2), frame("card", 3)));
    for (const char* folder : {"a", "b"}) {
      for (std::size_t number = 1; number <= frames.size(); ++number) {
        EXPECT_TRUE(frames[number - 1] == readFile(server->stored(frame(folder, number)))) << frame(folder, number);
      }
    }
    expectSourceUntouched();
  }

  // The run ends with this status and text, gives out no final name and leaves the source as it is.
  void expectFailure(int status, const std::string& end = "", std::vector<std::string> options = {}) {
    const ToolRun run = offload(std::move(options));
    EXPECT_EQ(status, run.exitStatus);
    EXPECT_THAT(run.output, EndsWith(end));
    expectNothingInPlace();
  }

  void expectSuccess(std::vector<std::string> options = {}) {
    const ToolRun run = offload(std::move(options));
    EXPECT_EQ(0, run.exitStatus) << run.output;
    expectAllInPlace();
  }

  // The lines of the frames that are not the bad one: all of them were read back all the same.
  void expectProvedBut(const std::string& badFolder, const ToolRun& run) const {
    const std::map<std::string, std::string> lists{
        {"a", "destination 1"}, {"b", "destination 2"}, {"card", "source 3"}};
    for (const auto& [folder, list] : lists) {
      for (std::size_t number = 1; number <= frames.size(); ++number) {
        const bool isBad = folder == badFolder && number == 2;
        const std::string line =
            fmt::format("verify of {} file {} of 3 of sequence #{} ({}) {}.", list.substr(0, list.find(' ')), number,
                        list.substr(list.find(' ') + 1), path(frame(folder, number)), isBad ? "failed" : "ok");
        EXPECT_THAT(run.lines(), Contains(line).Times(1));
      }
    }
  }

  const std::vector<std::string> frames{mediaBytes(smallFrame, 1), mediaBytes(largeFrame, 2),
                                        mediaBytes(smallFrame, 3)};
  ScratchDirectory scratch;
  std::unique_ptr<FaultyFileSystem> server;
};

TEST_F(ToolSequenceOnFaultyFileSystem, ProgressIsNotReportedForAFrameThatDiffers) {
  server->whenReading(temporary("b", 2)).flipBitAt(17);
  server->whenReading(temporary("b", 2)).delayBy(std::chrono::milliseconds(300));
  const std::size_t total = 2 * smallFrame + largeFrame;

  const ToolRun run = offload({"-v"});

  EXPECT_EQ(105, run.exitStatus);
  EXPECT_THAT(run.lines(), Contains(fmt::format("INFO: verified {} of {} bytes of path {}", total, total, path("b"))));
  EXPECT_THAT(
      run.lines(),
      Not(Contains(fmt::format("INFO: verified {} of {} bytes of path {}", total - smallFrame, total, path("b")))));
}

TEST_F(ToolSequenceOnFaultyFileSystem, WithoutAFaultEveryFrameIsProvedAndInPlace) {
  const ToolRun run = offload({"-v"});

  EXPECT_EQ(0, run.exitStatus) << run.output;
  expectProvedBut("", run);
  expectAllInPlace();
}

// --- What the medium returns when it is read back ---

class WrongByteOfAFrameAt : public ToolSequenceOnFaultyFileSystem, public testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(Places, WrongByteOfAFrameAt, testing::Values(0, MiB + 17, largeFrame - 1));

TEST_P(WrongByteOfAFrameAt, InADestinationIsFoundAndTheFramesBehindItAreProvedAllTheSame) {
  server->whenReading(temporary("b", 2)).flipBitAt(GetParam());

  const ToolRun run = offload({"-v"});

  EXPECT_EQ(105, run.exitStatus);
  expectProvedBut("b", run);
  EXPECT_THAT(run.errors, HasSubstr("verification failed: " + path(temporary("b", 2))));
  expectNothingInPlace();
}

TEST_P(WrongByteOfAFrameAt, InTheSourceIsFoundWhenItsSecondReadDiffers) {
  server->whenReading(frame("card", 2)).fromPass(2).flipBitAt(GetParam());

  const ToolRun run = offload({"-v"});

  EXPECT_EQ(121, run.exitStatus);
  expectProvedBut("card", run);
  EXPECT_THAT(run.errors, HasSubstr("verification failed: " + path(frame("card", 2))));
  expectNothingInPlace();
}

TEST_P(WrongByteOfAFrameAt, ThatTheMediumStoredIsFoundWithoutDirectTransfersToo) {
  server->whenReading("*").refuseDirect();
  server->whenWriting("*").refuseDirect();
  server->whenWriting(temporary("a", 2)).flipBitAt(GetParam());

  const ToolRun run = offload();

  EXPECT_EQ(105, run.exitStatus);
  // Without -v the failure has its line all the same, and no other frame has one.
  EXPECT_THAT(run.lines(),
              Contains("verify of destination file 2 of 3 of sequence #1 (" + path(frame("a", 2)) + ") failed."));
  EXPECT_THAT(run.lines(), Contains(StartsWith("verify of ")).Times(1));
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, AWrongByteInTheVeryLastFrameIsFound) {
  server->whenReading(temporary("b", 3)).flipBitAt(smallFrame - 1);
  expectFailure(105);
}

TEST_F(ToolSequenceOnFaultyFileSystem, AReadErrorInADestinationCountsAsADifference) {
  server->whenReading(temporary("b", 2)).failAt(MiB + 17, EIO);

  const ToolRun run = offload({"-v"});

  EXPECT_EQ(105, run.exitStatus);
  expectProvedBut("b", run);
  expectNothingInPlace();
}

// --- Reading ---

TEST_F(ToolSequenceOnFaultyFileSystem, AFrameThatCanNotBeReadCountsAsAFailedWrite) {
  server->whenReading(frame("card", 2)).failAt(MiB + 17, EIO);

  const ToolRun run = offload();

  EXPECT_EQ(110, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("ERROR: failed writing to " + path("a") + "\n"));
  EXPECT_THAT(run.lines(), Contains(StartsWith("hash ")).Times(1));
  EXPECT_THAT(stored(), Not(Contains(temporary("a", 3))));
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, AFrameThatCanNotBeReadToItsLastByteIsNotTakenForAShorterOne) {
  server->whenReading(frame("card", 2)).failAt(largeFrame - 1, EIO);
  expectFailure(110, "", {"-n", "-nfs"});
}

TEST_F(ToolSequenceOnFaultyFileSystem, WithoutDestinationsAFrameThatCanNotBeReadEndsTheRunWithoutAMessage) {
  server->whenReading(frame("card", 2)).failAt(MiB + 17, EIO);

  const ToolRun run = runTool({"-j", "-s", path("card/p.1-3.####.dpx")});

  EXPECT_EQ(111, run.exitStatus);
  const std::string first = digestByProgram("md5sum", server->stored(frame("card", 1)));
  EXPECT_EQ("INFO: copying " + path("card") + "...\nhash MD5:" + first + "\n", run.output);
}

TEST_F(ToolSequenceOnFaultyFileSystem, AFrameThatCanNotBeOpenedIsNamed) {
  server->whenOpening(frame("card", 2)).fail(EACCES);

  const ToolRun run = offload();

  EXPECT_EQ(108, run.exitStatus);
  EXPECT_THAT(run.lines(), Contains("ERROR: could not open file at path: " + path(frame("card", 2))).Times(1));
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, ShortReadsCutNothingOff) {
  server->whenOpening("*").bypassCache();
  server->whenReading("*").limitTo(100'000);
  expectSuccess();
}

// --- Writing ---

TEST_F(ToolSequenceOnFaultyFileSystem, AWriteErrorNamesTheFolderOfTheDestination) {
  server->whenWriting(temporary("b", 2)).failAt(MiB + 5, EIO);

  const ToolRun run = offload();

  EXPECT_EQ(110, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("ERROR: failed writing to " + path("b") + "\n"));
  EXPECT_THAT(run.lines(), Contains(StartsWith("ERROR: ")).Times(1));
  EXPECT_EQ("", run.errors);
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, AWriteErrorInTheLastPieceOfTheLastFrameIsFound) {
  server->whenWriting(temporary("b", 3)).failAt(smallFrame - 1, ENOSPC);
  expectFailure(110, "ERROR: failed writing to " + path("b") + "\n");
}

TEST_F(ToolSequenceOnFaultyFileSystem, ACloseThatFailsIsAFailedWrite) {
  server->whenClosing(temporary("b", 2)).fail(EDQUOT);

  const ToolRun run = offload();

  EXPECT_EQ(110, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("ERROR: failed writing to " + path("b") + "\n"));
  EXPECT_THAT(stored(), Not(Contains(temporary("b", 3))));
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, AShortWriteFailsTheSizeCheckBehindTheLineOfThatFrame) {
  server->whenOpening("*").bypassCache();
  server->whenWriting(temporary("a", 2)).times(1).limitTo(100'000);

  const ToolRun run = offload({"-k"});

  EXPECT_EQ(104, run.exitStatus);
  const std::string completed = "Copy completed successfully for destination file with file size check (";
  const std::string reason = fmt::format("the expected filesize ({}) is not the number of bytes for file {} ({})\n",
                                         largeFrame, path(temporary("a", 2)), largeFrame + 2 * smallFrame);
  EXPECT_THAT(run.output,
              EndsWith(completed + path(frame("a", 1)) + ")\n" + completed + path(frame("a", 2)) + ")\n" + reason));
  EXPECT_THAT(run.errors, EndsWith(reason));
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, AShortWriteFailsTheReadBack) {
  server->whenOpening("*").bypassCache();
  server->whenWriting(temporary("a", 2)).times(1).limitTo(100'000);

  const ToolRun run = offload({"-v"});

  EXPECT_EQ(105, run.exitStatus);
  expectProvedBut("a", run);
  expectNothingInPlace();
}

struct UnprovedSequence : NamedRow {
  std::vector<std::string> options;
};

class UnprovedSequenceOnFaultyFileSystem : public ToolSequenceOnFaultyFileSystem,
                                           public testing::WithParamInterface<UnprovedSequence> {};

TEST_P(UnprovedSequenceOnFaultyFileSystem, EndsWhenADestinationTakesLessThanItWasGiven) {
  server->whenOpening("*").bypassCache();
  server->whenWriting(temporary("a", 2)).times(1).limitTo(100'000);

  const ToolRun run = offload(GetParam().options);

  EXPECT_EQ(110, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("ERROR: failed writing to " + path("a") + "\n"));
  expectNothingInPlace();
  server->clear();
  expectSuccess(GetParam().options);
}

INSTANTIATE_TEST_SUITE_P(Options, UnprovedSequenceOnFaultyFileSystem,
                         testing::Values(UnprovedSequence{"WithoutReadingBack", {"-ns"}},
                                         UnprovedSequence{"WithoutReadingBackAndSizes", {"-ns", "-nfs"}},
                                         UnprovedSequence{"WithSizesThatAreNotLookedAt", {"-k", "-nfs"}},
                                         UnprovedSequence{"WithoutDigestsAndSizes", {"-n", "-nfs"}}),
                         rowName);

TEST_F(ToolSequenceOnFaultyFileSystem, AFrameThatCanNotBeCreatedEndsTheRunWithoutAMessage) {
  server->whenCreating(temporary("b", 2)).fail(EACCES);

  const ToolRun run = offload();

  EXPECT_EQ(107, run.exitStatus);
  EXPECT_THAT(run.lines(), ElementsAre(StartsWith("INFO: copying "), StartsWith("hash ")));
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, EveryByteThatIsReadBackComesFromTheServer) {
  for (const bool direct : {true, false}) {
    server->clear();
    server->resetCounters();
    if (!direct) {
      server->whenReading("*").refuseDirect();
      server->whenWriting("*").refuseDirect();
    }

    EXPECT_EQ(0, offload({"-f"}).exitStatus);
    expectAllInPlace();

    for (std::size_t number = 1; number <= frames.size(); ++number) {
      const std::size_t size = frames[number - 1].size();
      EXPECT_THAT(server->counters(temporary("a", number)).bytesRead, Ge(size)) << number << direct;
      EXPECT_THAT(server->counters(temporary("b", number)).bytesRead, Ge(size)) << number << direct;
      // Once for the copy and once for the proof.
      EXPECT_THAT(server->counters(frame("card", number)).bytesRead, Ge(2 * size)) << number << direct;
    }
  }
}

// --- Flushing and moving ---

TEST_F(ToolSequenceOnFaultyFileSystem, ASyncOfTheLastFrameThatFailsAfterTheMoveNamesTheFinalFile) {
  server->whenSyncing(frame("b", 3)).fail(EIO);

  const ToolRun run = offload();

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("INFO: flushing files\nError: couldn't sync the file system of file " +
                                   path(frame("b", 3)) + " (error code -1)\n"));
  expectAllInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, TheFolderOfADestinationIsSyncedWithItsLastFrame) {
  server->whenSyncing("a").fail(EIO);

  const ToolRun run = offload();

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output,
              EndsWith("couldn't sync the file system of file " + path(frame("a", 3)) + " (error code -1)\n"));
}

TEST_F(ToolSequenceOnFaultyFileSystem, AfterTheMoveNoFrameButTheLastIsFlushed) {
  server->whenSyncing(frame("?", 1)).fail(EIO);
  server->whenSyncing(frame("?", 2)).fail(EIO);
  expectSuccess();
}

TEST_F(ToolSequenceOnFaultyFileSystem, WithoutFlushASyncThatWouldFailIsNotMade) {
  server->whenSyncing("*").fail(EIO);
  expectSuccess({"-nf"});
}

TEST_F(ToolSequenceOnFaultyFileSystem, AFrameThatCanNotBeMadePermanentIsNotMoved) {
  server->whenSyncing(temporary("b", 2)).fail(EIO);

  const ToolRun run = offload();

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr("INFO: moving files in place..\nError: couldn't sync the file system of file "));
  expectNothingInPlace();
}

TEST_F(ToolSequenceOnFaultyFileSystem, ARenameThatFailsLeavesTheFramesBeforeItInPlaceAndTheOthersTemporary) {
  server->whenRenaming(frame("b", 2)).fail(EACCES);

  const ToolRun run = offload();

  EXPECT_EQ(1, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("INFO: moving files in place..\nfailed to move files in place\n"));
  EXPECT_EQ("", run.errors);
  EXPECT_THAT(stored(), ElementsAre(frame("a", 1), frame("a", 2), frame("a", 3), frame("b", 1), temporary("b", 2),
                                    temporary("b", 3), frame("card", 1), frame("card", 2), frame("card", 3)));
  expectSourceUntouched();
}

TEST_F(ToolSequenceOnFaultyFileSystem, WithoutARenameThatReplacesNothingALinkMovesEveryFrame) {
  server->whenRenaming("*").refuseFlags(EINVAL);
  expectSuccess();
}

}  // namespace
