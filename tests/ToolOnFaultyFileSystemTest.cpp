// Whole runs on a file system with faults: the line and the status that each fault gives, and what is left on disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "tests/support/FaultyFileSystem.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

using Names = std::vector<std::string>;

// With buffers of 1 MiB: several whole ones and a last one that ends within a block.
constexpr std::size_t clipSize = 3 * MiB + 4096 + 17;

class ToolOnFaultyFileSystem : public testing::Test {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
    server = std::make_unique<FaultyFileSystem>(scratch.path());
    for (const char* folder : {"card", "a", "b"}) std::filesystem::create_directory(server->stored(folder));
    writeFile(server->stored("card/clip.mov"), clip);
    writeFile(scratch.file("settings/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
  }

  [[nodiscard]] std::string path(const std::string& name) const { return server->path(name); }

  // Offloads the clip to a and b, with the options in front.
  ToolRun offload(std::vector<std::string> options = {}) {
    options.insert(options.end(), {path("card/clip.mov"), path("a/clip.mov"), path("b/clip.mov")});
    return runTool({.arguments = std::move(options), .environment = {{"XDG_CONFIG_HOME", scratch.file("settings")}}});
  }

  [[nodiscard]] Names stored() const { return namesBelow(server->backing()); }

  // No final name was given out, and the source is as it was.
  void expectNothingInPlace() const {
    EXPECT_THAT(stored(), Not(Contains("a/clip.mov")));
    EXPECT_THAT(stored(), Not(Contains("b/clip.mov")));
    EXPECT_EQ(clip, readFile(server->stored("card/clip.mov")));
  }

  void expectBothInPlace() const {
    EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov", "card/clip.mov"}), stored());
    EXPECT_EQ(clip, readFile(server->stored("a/clip.mov")));
    EXPECT_EQ(clip, readFile(server->stored("b/clip.mov")));
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
    expectBothInPlace();
  }

  const std::string clip = mediaBytes(clipSize);
  ScratchDirectory scratch;
  std::unique_ptr<FaultyFileSystem> server;
};

TEST_F(ToolOnFaultyFileSystem, WithoutAFaultBothDestinationsAreProvedAndInPlace) {
  const ToolRun run = offload();

  EXPECT_EQ(0, run.exitStatus) << run.output;
  expectBothInPlace();
}

TEST_F(ToolOnFaultyFileSystem, TheSourceIsReadOnceWhateverTheNumberOfDestinations) {
  const ToolRun run = offload({"-k"});

  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(clipSize, server->counters("card/clip.mov").bytesRead);
}

// --- What the medium returns when it is read back ---

class WrongByteAt : public ToolOnFaultyFileSystem, public testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(Places, WrongByteAt,
                         testing::Values(0, MiB - 1, MiB, 2 * MiB + 17, 3 * MiB + 4095, 3 * MiB + 4096, clipSize - 1));

TEST_P(WrongByteAt, InADestinationIsFoundWhenItIsReadBack) {
  server->whenReading("b/clip.mov.kdxcopy").flipBitAt(GetParam());

  const ToolRun run = offload();

  EXPECT_EQ(105, run.exitStatus);
  EXPECT_THAT(run.lines(), Contains("ERROR: verify of destination file #2 (" + path("b/clip.mov.kdxcopy") +
                                    ") failed, wrong hash."));
  EXPECT_THAT(run.lines(), Contains("verify of destination file #1 (" + path("a/clip.mov") + ") ok."));
  EXPECT_THAT(run.lines(), Contains("verify of source file #3 (" + path("card/clip.mov") + ") ok."));
  EXPECT_THAT(run.errors, HasSubstr("verification failed: " + path("b/clip.mov.kdxcopy")));
  expectNothingInPlace();
}

TEST_P(WrongByteAt, InTheSourceIsFoundWhenItsSecondReadDiffers) {
  server->whenReading("card/clip.mov").fromPass(2).flipBitAt(GetParam());

  const ToolRun run = offload();

  EXPECT_EQ(121, run.exitStatus);
  EXPECT_THAT(run.lines(),
              Contains("ERROR: verify of source file #3 (" + path("card/clip.mov") + ") failed, wrong hash."));
  EXPECT_THAT(run.errors, HasSubstr("verification failed: " + path("card/clip.mov")));
  expectNothingInPlace();
}

TEST_P(WrongByteAt, ThatTheMediumStoredIsFoundWhenTheDestinationIsReadBack) {
  server->whenWriting("a/clip.mov.kdxcopy").flipBitAt(GetParam());
  expectFailure(105);
}

TEST_P(WrongByteAt, IsFoundWithoutDirectTransfersToo) {
  server->whenReading("*").refuseDirect();
  server->whenWriting("*").refuseDirect();
  server->whenWriting("a/clip.mov.kdxcopy").flipBitAt(GetParam());
  expectFailure(105);
}

TEST_F(ToolOnFaultyFileSystem, AWriteThatWasAcknowledgedAndDroppedIsFound) {
  server->whenWriting("a/clip.mov.kdxcopy").dropRange(2 * MiB, 4096);
  expectFailure(105);
}

TEST_F(ToolOnFaultyFileSystem, ADroppedLastPieceIsFound) {
  server->whenWriting("a/clip.mov.kdxcopy").dropRange(3 * MiB + 4096, 17);
  expectFailure(105);
}

TEST_F(ToolOnFaultyFileSystem, ATornWriteIsFound) {
  server->whenWriting("b/clip.mov.kdxcopy").tearAt(MiB + 5, 512);
  expectFailure(105);
}

TEST_F(ToolOnFaultyFileSystem, OfTwoBadDestinationsBothAreNamedAndOneIsReported) {
  server->whenReading("a/clip.mov.kdxcopy").flipBitAt(1);
  server->whenReading("b/clip.mov.kdxcopy").flipBitAt(1);

  const ToolRun run = offload();

  EXPECT_EQ(105, run.exitStatus);
  EXPECT_THAT(run.lines(), Contains(HasSubstr("verify of destination file #1")));
  EXPECT_THAT(run.lines(), Contains(HasSubstr("verify of destination file #2")));
  expectNothingInPlace();
}

// --- Reading ---

TEST_F(ToolOnFaultyFileSystem, AReadErrorInTheSourceEndsTheCopyWithoutAMessage) {
  server->whenReading("card/clip.mov").failAt(2 * MiB + 17, EIO);

  const ToolRun run = offload();

  EXPECT_EQ(111, run.exitStatus);
  EXPECT_EQ("INFO: copying " + path("card") + "...\n", run.output);
  expectNothingInPlace();
}

TEST_F(ToolOnFaultyFileSystem, AReadErrorInTheLastBlockOfTheSourceEndsTheCopy) {
  server->whenReading("card/clip.mov").failAt(clipSize - 1, EIO);
  expectFailure(111);
}

TEST_F(ToolOnFaultyFileSystem, AReadErrorInADestinationCountsAsAWrongHash) {
  server->whenReading("a/clip.mov.kdxcopy").failAt(MiB, EIO);

  const ToolRun run = offload();

  EXPECT_EQ(105, run.exitStatus);
  EXPECT_THAT(run.lines(), Contains("ERROR: verify of destination file #1 (" + path("a/clip.mov.kdxcopy") +
                                    ") failed, wrong hash."));
  expectNothingInPlace();
}

TEST_F(ToolOnFaultyFileSystem, AReadErrorWhenTheSourceIsReadBackCountsAsAWrongHash) {
  // The copy reads the byte once, so the first request that fails is one of the read-back.
  server->whenReading("card/clip.mov").fromRequest(2).failAt(clipSize - 1, EIO);
  expectFailure(121);
}

TEST_F(ToolOnFaultyFileSystem, WithoutDirectTransfersASourceThatTheDeviceDidNotTakeIsNotReadFromMemory) {
  server->whenReading("*").refuseDirect();
  server->whenSyncing("card/clip.mov").fail(EIO);
  expectFailure(111);
}

TEST_F(ToolOnFaultyFileSystem, ShortReadsCutNothingOff) {
  server->whenOpening("*").bypassCache();
  server->whenReading("*").limitTo(100'000);
  expectSuccess();
}

TEST_F(ToolOnFaultyFileSystem, ShortReadsWithDirectTransfersCutNothingOff) {
  server->whenReading("*").limitTo(100'000);
  expectSuccess();
}

TEST_F(ToolOnFaultyFileSystem, ASourceThatCanNotBeOpenedIsNamed) {
  server->whenOpening("card/clip.mov").fail(EACCES);

  const ToolRun run = offload();

  EXPECT_EQ(108, run.exitStatus);
  EXPECT_THAT(run.lines(), Contains("ERROR: could not open file at path: " + path("card/clip.mov")));
  expectNothingInPlace();
}

TEST_F(ToolOnFaultyFileSystem, ADestinationThatCanNotBeOpenedForReadBackIsNamed) {
  // The copy opens it once, the read-back is the second time.
  server->whenOpening("a/clip.mov.kdxcopy").fromRequest(2).fail(EIO);

  const ToolRun run = offload();

  EXPECT_EQ(108, run.exitStatus);
  EXPECT_THAT(run.lines(), Contains("ERROR: could not open file at path: " + path("a/clip.mov.kdxcopy")));
  expectNothingInPlace();
}

// --- Writing ---

TEST_F(ToolOnFaultyFileSystem, AWriteErrorEndsTheCopyWithALineWithoutAnEnd) {
  server->whenWriting("b/clip.mov.kdxcopy").failAt(MiB + 5, EIO);

  const ToolRun run = offload();

  EXPECT_EQ(110, run.exitStatus);
  EXPECT_EQ("INFO: copying " + path("card") + "...\nwrite failed: -1", run.output);
  expectNothingInPlace();
}

TEST_F(ToolOnFaultyFileSystem, AWriteErrorInTheLastPieceEndsTheCopy) {
  server->whenWriting("b/clip.mov.kdxcopy").failAt(clipSize - 1, EIO);
  expectFailure(110, "write failed: -1");
}

TEST_F(ToolOnFaultyFileSystem, ADeviceThatFillsUpEndsTheCopy) {
  server->whenWriting("b/clip.mov.kdxcopy").runOutOfSpaceAfter(2 * MiB);
  expectFailure(110, "write failed: -1");
}

TEST_F(ToolOnFaultyFileSystem, ACloseThatFailsIsAFailedWrite) {
  server->whenClosing("b/clip.mov.kdxcopy").fail(EDQUOT);
  expectFailure(110, "write failed: -1");
}

TEST_F(ToolOnFaultyFileSystem, WithoutDirectTransfersASyncThatFailsIsAFailedWrite) {
  server->whenWriting("*").refuseDirect();
  server->whenSyncing("b/clip.mov.kdxcopy").fail(EIO);
  expectFailure(110, "write failed: -1", {"-nf"});
}

TEST_F(ToolOnFaultyFileSystem, ShortWritesFailTheSizeCheckWhenNothingIsReadBack) {
  server->whenOpening("*").bypassCache();
  server->whenWriting("a/clip.mov.kdxcopy").times(1).limitTo(100'000);

  const ToolRun run = offload({"-k"});

  EXPECT_EQ(104, run.exitStatus);
  const std::string size = std::to_string(clipSize);
  EXPECT_THAT(run.lines(), Contains("the expected filesize (" + size + ") is not the number of bytes for file " +
                                    path("a/clip.mov.kdxcopy") + " (" + size + ")"));
  EXPECT_THAT(run.lines(), Not(Contains(StartsWith("Copy completed successfully"))));
  expectNothingInPlace();
}

TEST_F(ToolOnFaultyFileSystem, ShortWritesFailTheReadBack) {
  server->whenOpening("*").bypassCache();
  server->whenWriting("a/clip.mov.kdxcopy").times(1).limitTo(100'000);
  expectFailure(105);
}

TEST_F(ToolOnFaultyFileSystem, ShortWritesThatNothingWouldFindEndTheRun) {
  for (const char* proof : {"-k", "-n"}) {
    server->whenOpening("*").bypassCache();
    server->whenWriting("a/clip.mov.kdxcopy").times(1).limitTo(100'000);

    const ToolRun run = offload({proof, "-nfs", "-a", std::to_string(clipSize)});

    EXPECT_EQ(110, run.exitStatus) << proof;
    EXPECT_THAT(run.output, EndsWith("write failed: 100000"));
    expectNothingInPlace();
    server->clear();
    EXPECT_EQ(0, offload({proof, "-nfs", "-f", "-a", std::to_string(clipSize)}).exitStatus);
    for (const char* copy : {"a/clip.mov", "b/clip.mov"}) std::filesystem::remove(server->path(copy));
  }
}

TEST_F(ToolOnFaultyFileSystem, ADestinationThatCanNotBeCreatedEndsTheCopyWithoutAMessage) {
  server->whenCreating("b/clip.mov.kdxcopy").fail(EACCES);

  const ToolRun run = offload();

  EXPECT_EQ(107, run.exitStatus);
  EXPECT_EQ("INFO: copying " + path("card") + "...\n", run.output);
  expectNothingInPlace();
}

TEST_F(ToolOnFaultyFileSystem, ASourceThatIsTheTemporaryFileThroughAnotherMountIsKept) {
  writeFile(server->stored("card/take.mov.kdxcopy"), mediaBytes(clipSize));

  const ToolRun run = runTool({server->stored("card/take.mov.kdxcopy"), path("card/take.mov")});

  EXPECT_EQ(107, run.exitStatus) << run.output;
  EXPECT_TRUE(mediaBytes(clipSize) == readFile(server->stored("card/take.mov.kdxcopy")));
  EXPECT_FALSE(std::filesystem::exists(server->stored("card/take.mov")));
}

TEST_F(ToolOnFaultyFileSystem, WithoutDirectTransfersBothDestinationsAreProvedAndInPlace) {
  server->whenReading("*").refuseDirect();
  server->whenWriting("*").refuseDirect();
  expectSuccess();
}

// --- Sizes ---

TEST_F(ToolOnFaultyFileSystem, ADestinationThatIsAByteShortIsFoundWithoutReadBackAndLaterOnesAreNotLookedAt) {
  server->whenReportingAttributes("a/clip.mov.kdxcopy").lieAboutSizeBy(-1);

  const ToolRun run = offload({"-k"});

  EXPECT_EQ(104, run.exitStatus);
  EXPECT_THAT(run.output, Not(HasSubstr(path("b/clip.mov"))));
  expectNothingInPlace();
}

TEST_F(ToolOnFaultyFileSystem, ASourceThatIsShorterThanItsSizeTellsIsFoundWithoutReadBack) {
  server->whenReportingAttributes("card/clip.mov").lieAboutSizeBy(-1);

  const ToolRun run = offload({"-k"});

  EXPECT_EQ(104, run.exitStatus) << run.output;
  expectNothingInPlace();
}

// --- Flushing and moving ---

TEST_F(ToolOnFaultyFileSystem, ASyncThatFailsBeforeTheMoveLeavesTheTemporaryNames) {
  server->whenSyncing("b/clip.mov.kdxcopy").fail(EIO);
  expectFailure(106, "INFO: moving files in place..\nError: couldn't sync the file system of file " +
                         path("b/clip.mov.kdxcopy") + " (error code -1)\n");
}

TEST_F(ToolOnFaultyFileSystem, ASyncThatFailsOnceAndWouldThenSucceedStillFailsTheRun) {
  server->whenSyncing("b/clip.mov.kdxcopy").times(1).fail(EIO);
  expectFailure(106);
}

TEST_F(ToolOnFaultyFileSystem, ASyncThatFailsAfterTheMoveNamesTheFinalFile) {
  server->whenSyncing("b/clip.mov").fail(EIO);

  const ToolRun run = offload();

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("INFO: flushing files\nError: couldn't sync the file system of file " +
                                   path("b/clip.mov") + " (error code -1)\n"));
  expectBothInPlace();
}

TEST_F(ToolOnFaultyFileSystem, ADirectoryThatCanNotBeSyncedFailsTheFlush) {
  server->whenSyncing("a").fail(EIO);

  EXPECT_EQ(106, offload().exitStatus);
}

TEST_F(ToolOnFaultyFileSystem, AFileSystemThatSyncsNoDirectoriesIsPassedOver) {
  server->whenSyncing("a").fail(EINVAL);
  expectSuccess();
}

TEST_F(ToolOnFaultyFileSystem, ARenameThatFailsLeavesTheOtherDestinationInPlaceAndEndsWithOne) {
  server->whenRenaming("b/clip.mov").fail(EACCES);

  const ToolRun run = offload();

  EXPECT_EQ(1, run.exitStatus);
  EXPECT_THAT(run.output,
              EndsWith("failed to move " + path("b/clip.mov.kdxcopy") + "\nfailed to move files in place\n"));
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov.kdxcopy", "card/clip.mov"}), stored());
}

TEST_F(ToolOnFaultyFileSystem, WithoutARenameThatReplacesNothingALinkMovesTheFile) {
  server->whenRenaming("*").refuseFlags(EINVAL);

  expectSuccess();
  EXPECT_EQ(1U, server->counters("a/clip.mov.kdxcopy").links);
}

TEST_F(ToolOnFaultyFileSystem, WithoutLinksEitherACheckedRenameMovesTheFile) {
  server->whenRenaming("*").refuseFlags(EINVAL);
  server->whenLinking("*").fail(EPERM);
  expectSuccess();
}

TEST_F(ToolOnFaultyFileSystem, AnExistingFileThatCanNotBeRemovedIsKept) {
  writeFile(server->stored("b/clip.mov"), "an older take");
  server->whenUnlinking("b/clip.mov").fail(EACCES);

  const ToolRun run = offload({"-f"});

  EXPECT_EQ(EACCES, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("failed to remove " + path("b/clip.mov") + " before movingfailed to move " +
                                   path("b/clip.mov.kdxcopy") + "\nfailed to move files in place\n"));
  EXPECT_EQ("an older take", readFile(server->stored("b/clip.mov")));
}

}  // namespace
