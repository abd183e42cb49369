// How a copy job gives its destinations their final names and makes them permanent.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "platform/Log.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/PhaseRun.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using platform::FileURL;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;
using ErrorSlot = std::optional<platform::Error>;
using Names = std::vector<std::string>;

std::string temporary(const std::string& destination) {
  return destination + ".kdxcopy";
}

// A source, and destinations that are there under their temporary names, as the phases before leave them.
class PlacementTest : public testing::Test {
 protected:
  PlacementTest() {
    ::setenv("XDG_CONFIG_HOME", settings.path().c_str(), 1);
    writeFile(source, "source");
  }

  [[nodiscard]] std::shared_ptr<KDXDispatchCopy> jobTo(const Names& destinations, bool forceOverwrite = false) const {
    auto job = KDXDispatchCopy::initWithSourceURL(FileURL(source));
    for (const std::string& destination : destinations) job->addDestinationURL(FileURL(destination));
    job->setForceOverwrite(forceOverwrite);
    return job;
  }

  // The same with the temporary files: each holds "copy of" its destination.
  [[nodiscard]] std::shared_ptr<KDXDispatchCopy> copiedTo(const Names& destinations,
                                                          bool forceOverwrite = false) const {
    for (const std::string& destination : destinations) writeFile(temporary(destination), "copy of " + destination);
    return jobTo(destinations, forceOverwrite);
  }

  const ScratchDirectory settings;
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string first = scratch.file("a/clip.mov");
  const std::string second = scratch.file("b/clip.mov");
  const std::string third = scratch.file("c/clip.mov");
};

std::string failedToMove(const std::string& destination) {
  return "failed to move " + temporary(destination) + "\n";
}

// Not ended by a newline.
std::string failedToRemove(const std::string& destination) {
  return "failed to remove " + destination + " before moving";
}

// Moving.

class KDXDispatchCopyMove : public PlacementTest {};

TEST_F(KDXDispatchCopyMove, GivesEveryDestinationItsFinalNameAndPrintsOneLine) {
  const auto job = copiedTo({first, second});

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("copy of " + first, readFile(first));
  EXPECT_EQ("copy of " + second, readFile(second));
}

TEST_F(KDXDispatchCopyMove, WithoutDestinationsPrintsItsLine) {
  const PhaseRun placement = moveInPlace(*jobTo({}));

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(movingLine, placement.output);
}

TEST_F(KDXDispatchCopyMove, WorksWithoutAPlaceForTheErrorAndWithSkipFlush) {
  const auto job = copiedTo({first});
  job->setSkipFlush(true);
  bool moved = false;

  const std::string output = outputOf([&] { moved = job->moveFilesInPlace(nullptr); });

  EXPECT_TRUE(moved);
  EXPECT_EQ(movingLine, output);
  EXPECT_EQ((Names{"a/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyMove, OfOneDestinationPrintsNothing) {
  const auto job = copiedTo({first});

  const PhaseRun phase =
      runPhase([&](platform::ErrorPlace error) { return job->move(FileURL(temporary(first)), error); });

  EXPECT_TRUE(phase.succeeded);
  EXPECT_EQ(std::nullopt, phase.error);
  EXPECT_EQ("", phase.output);
  EXPECT_EQ("copy of " + first, readFile(first));
}

struct FinalName : NamedRow {
  const char* final;
};

class KDXDispatchCopyFinalName : public PlacementTest, public testing::WithParamInterface<FinalName> {};

TEST_P(KDXDispatchCopyFinalName, IsTheOneThatWasAskedFor) {
  const std::string destination = scratch.file(std::string("a.b/") + GetParam().final);
  const auto job = copiedTo({destination});

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ((Names{std::string("a.b/") + GetParam().final, "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("copy of " + destination, readFile(destination));
}

INSTANTIATE_TEST_SUITE_P(
    Names, KDXDispatchCopyFinalName,
    testing::Values(FinalName{"OneExtension", "clip.mov"}, FinalName{"NoExtension", "clip"},
                    FinalName{"SeveralDots", "A001.C002.take.3.mov"}, FinalName{"DotFile", ".clip"},
                    FinalName{"DotFileWithAnExtension", ".clip.mov"}, FinalName{"DotAtTheEnd", "clip."},
                    FinalName{"TwoDotsInARow", "clip..mov"}, FinalName{"ATemporaryName", "clip.mov.kdxcopy"},
                    FinalName{"TheTemporaryExtensionAlone", ".kdxcopy"}, FinalName{"Spaces", " clip 1 .mov "},
                    FinalName{"CharactersOfFormats", "%s{}%n.mov"}, FinalName{"Umlauts", "\xC3\xBC\x62ung.mov"}),
    testing::PrintToStringParamName());

// A final name that is taken.

class KDXDispatchCopyTakenName : public PlacementTest {};

TEST_F(KDXDispatchCopyTakenName, IsRefusedAndDestinationsBehindItKeepTheirTemporaryNames) {
  const auto job = copiedTo({first, second, third});
  writeFile(second, "old");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ("KDXCopyErrorDomain", placement.error->domain);
  EXPECT_EQ(109, placement.error->code);
  EXPECT_EQ(std::nullopt, placement.error->description);
  EXPECT_EQ(temporary(second), placement.error->path);
  EXPECT_EQ(movingLine + failedToMove(second), placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov", "b/clip.mov.kdxcopy", "c/clip.mov.kdxcopy", "card/clip.mov"}),
            namesBelow(scratch.path()));
  EXPECT_EQ("copy of " + first, readFile(first));
  EXPECT_EQ("old", readFile(second));
  EXPECT_EQ("copy of " + second, readFile(temporary(second)));
}

TEST_F(KDXDispatchCopyTakenName, IsRefusedWithoutAPlaceForTheErrorToo) {
  const auto job = copiedTo({first});
  writeFile(first, "old");
  bool moved = true;

  const std::string output = outputOf([&] { moved = job->moveFilesInPlace(nullptr); });

  EXPECT_FALSE(moved);
  EXPECT_EQ(movingLine + failedToMove(first), output);
  EXPECT_EQ("old", readFile(first));
}

TEST_F(KDXDispatchCopyTakenName, ByADirectoryIsRefused) {
  const auto job = copiedTo({first});
  fs::create_directory(first);

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ(109, placement.error->code);
  EXPECT_EQ(movingLine + failedToMove(first), placement.output);
  EXPECT_TRUE(fs::is_directory(first));
}

TEST_F(KDXDispatchCopyTakenName, ByALinkToNowhereIsRefusedAndTheLinkStays) {
  const auto job = copiedTo({first});
  fs::create_symlink("nowhere", first);

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ(109, placement.error->code);
  EXPECT_EQ("nowhere", fs::read_symlink(first));
  EXPECT_EQ((Names{"a/clip.mov", "a/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyTakenName, IsReplacedWithForceOverwrite) {
  const auto job = copiedTo({first, second}, true);
  writeFile(first, "old");
  writeFile(second, "old");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("copy of " + first, readFile(first));
  EXPECT_EQ("copy of " + second, readFile(second));
}

TEST_F(KDXDispatchCopyTakenName, ThatIsNotTakenIsNoFailureOfForceOverwrite) {
  const auto job = copiedTo({first}, true);

  EXPECT_TRUE(moveInPlace(*job).succeeded);
  EXPECT_EQ("copy of " + first, readFile(first));
}

TEST_F(KDXDispatchCopyTakenName, ByALinkIsReplacedWithForceOverwriteAndTheTargetStaysAsItWas) {
  const auto job = copiedTo({first}, true);
  const std::string target = scratch.file("elsewhere/target.mov");
  writeFile(target, "target");
  fs::create_symlink(target, first);

  EXPECT_TRUE(moveInPlace(*job).succeeded);
  EXPECT_FALSE(fs::is_symlink(first));
  EXPECT_EQ("copy of " + first, readFile(first));
  EXPECT_EQ("target", readFile(target));
}

TEST_F(KDXDispatchCopyTakenName, ByALinkToNowhereIsReplacedWithForceOverwrite) {
  const auto job = copiedTo({first}, true);
  fs::create_symlink("nowhere", first);

  EXPECT_TRUE(moveInPlace(*job).succeeded);
  EXPECT_FALSE(fs::is_symlink(first));
  EXPECT_EQ((Names{"a/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyTakenName, ByALinkToTheSourceIsReplacedWithForceOverwriteAndTheSourceStays) {
  const auto job = copiedTo({first}, true);
  fs::create_symlink(source, first);

  EXPECT_TRUE(moveInPlace(*job).succeeded);
  EXPECT_FALSE(fs::is_symlink(first));
  EXPECT_EQ("source", readFile(source));
}

// Forced removals that fail.

class KDXDispatchCopyRefusedRemoval : public PlacementTest {
 protected:
  static void expectPlatformError(const ErrorSlot& error, int code, const std::string& path) {
    ASSERT_TRUE(error);
    EXPECT_EQ("POSIXErrorDomain", error->domain);
    EXPECT_EQ(code, error->code);
    EXPECT_EQ(path, error->path);
    ASSERT_TRUE(error->description);
    EXPECT_THAT(*error->description, HasSubstr("unlink"));
    EXPECT_THAT(*error->description, HasSubstr(path));
    EXPECT_THAT(*error->description, HasSubstr(std::strerror(code)));
  }
};

TEST_F(KDXDispatchCopyRefusedRemoval, OfADirectoryLeavesAllBelowItAndStopsTheMoves) {
  const auto job = copiedTo({first, second, third}, true);
  writeFile(scratch.file("b/clip.mov/inside.mov"), "inside");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(21, EISDIR);
  expectPlatformError(placement.error, EISDIR, second);
  EXPECT_EQ(movingLine + failedToRemove(second) + failedToMove(second), placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov.kdxcopy", "b/clip.mov/inside.mov", "c/clip.mov.kdxcopy", "card/clip.mov"}),
            namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyRefusedRemoval, OfAnEmptyDirectoryLeavesIt) {
  const auto job = copiedTo({first}, true);
  fs::create_directory(first);

  const PhaseRun phase = moveInPlace(*job);

  EXPECT_FALSE(phase.succeeded);
  EXPECT_EQ(movingLine + failedToRemove(first) + failedToMove(first), phase.output);
  EXPECT_TRUE(fs::is_directory(first));
}

TEST_F(KDXDispatchCopyRefusedRemoval, OfTheSourceItselfLeavesIt) {
  const auto job = copiedTo({source}, true);

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  expectPlatformError(placement.error, EBUSY, source);
  EXPECT_EQ(movingLine + failedToRemove(source) + failedToMove(source), placement.output);
  EXPECT_EQ("source", readFile(source));
  EXPECT_EQ((Names{"card/clip.mov", "card/clip.mov.kdxcopy"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyRefusedRemoval, OfTheFileToWhichTheSourceLeadsLeavesIt) {
  const std::string link = scratch.file("links/clip.mov");
  fs::create_symlink(source, link);
  const auto job = KDXDispatchCopy::initWithSourceURL(FileURL(link));
  job->addDestinationURL(FileURL(source));
  job->setForceOverwrite(true);
  writeFile(temporary(source), "copy");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  expectPlatformError(placement.error, EBUSY, source);
  EXPECT_EQ("source", readFile(source));
}

TEST_F(KDXDispatchCopyRefusedRemoval, OnAReadOnlyFileSystemTellsItsReason) {
  std::string whyNot;
  const auto backup = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!backup) GTEST_SKIP() << whyNot;
  const std::string destination = backup->file("clip.mov");
  const auto job = copiedTo({destination}, true);
  writeFile(destination, "old");
  ASSERT_EQ(0, ::mount(nullptr, backup->path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  expectPlatformError(placement.error, EROFS, destination);
  EXPECT_EQ(movingLine + failedToRemove(destination) + failedToMove(destination), placement.output);
  EXPECT_EQ("old", readFile(destination));
}

// Moves that fail for other reasons.

class KDXDispatchCopyFailedMove : public PlacementTest {};

TEST_F(KDXDispatchCopyFailedMove, OnAReadOnlyFileSystemReportsNoError) {
  std::string whyNot;
  const auto backup = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!backup) GTEST_SKIP() << whyNot;
  const std::string destination = backup->file("clip.mov");
  const auto job = copiedTo({first, destination, third});
  ASSERT_EQ(0, ::mount(nullptr, backup->path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine + failedToMove(destination), placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "c/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ((Names{"clip.mov.kdxcopy"}), namesBelow(backup->path()));
}

TEST_F(KDXDispatchCopyFailedMove, OfAMissingTemporaryFileReportsNoErrorAndStopsTheMoves) {
  const auto job = copiedTo({first, second, third});
  fs::remove(temporary(second));

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine + failedToMove(second), placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "c/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyFailedMove, LeavesAnEarlierErrorInThePlaceAsItWas) {
  const auto job = jobTo({first});
  ErrorSlot error = copyError(42, "earlier");
  bool moved = true;

  std::ignore = outputOf([&] { moved = job->moveFilesInPlace(&error); });

  EXPECT_FALSE(moved);
  ASSERT_TRUE(error);
  EXPECT_EQ(42, error->code);
  EXPECT_EQ("earlier", error->description);
}

TEST_F(KDXDispatchCopyFailedMove, OfAMissingTemporaryFileRemovesNothingWithForceOverwrite) {
  const auto job = jobTo({first}, true);
  writeFile(first, "old");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine + failedToMove(first), placement.output);
  EXPECT_EQ("old", readFile(first));
}

TEST_F(KDXDispatchCopyFailedMove, OfAMissingTemporaryFileIsFoundBeforeATakenName) {
  const auto job = jobTo({first});
  writeFile(first, "old");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ("old", readFile(first));
}

// Names that meet.

class KDXDispatchCopyNamesThatMeet : public PlacementTest, public testing::WithParamInterface<bool> {
 protected:
  // A job that has really made its copy.
  [[nodiscard]] std::shared_ptr<KDXDispatchCopy> afterCopyTo(const Names& destinations) const {
    auto job = jobTo(destinations, GetParam());
    bool copied = false;
    std::ignore = outputOf([&] { copied = job->performCopy(nullptr); });
    EXPECT_TRUE(copied);
    return job;
  }
};

TEST_P(KDXDispatchCopyNamesThatMeet, OfOneDestinationGivenTwiceKeepTheFirstCopyAndTheSecondFails) {
  const auto job = afterCopyTo({first, first});

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine + failedToMove(first), placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("source", readFile(first));
}

TEST_P(KDXDispatchCopyNamesThatMeet, AreBothGivenWhenTheTemporaryNameIsFreeAgainInTime) {
  const auto job = afterCopyTo({first, temporary(first)});

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "a/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("source", readFile(first));
  EXPECT_EQ("source", readFile(temporary(first)));
}

TEST_P(KDXDispatchCopyNamesThatMeet, NeverRemoveTheTemporaryFileOfADestinationThatIsStillToBeMoved) {
  const auto job = afterCopyTo({temporary(first), first});
  const std::string refused = GetParam() ? failedToRemove(temporary(first)) : "";

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ(GetParam() ? EBUSY : 109, placement.error->code);
  EXPECT_EQ(GetParam() ? "POSIXErrorDomain" : "KDXCopyErrorDomain", placement.error->domain);
  EXPECT_EQ(movingLine + refused + failedToMove(temporary(first)), placement.output);
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "a/clip.mov.kdxcopy.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("source", readFile(temporary(first)));
}

INSTANTIATE_TEST_SUITE_P(ForceOverwrite, KDXDispatchCopyNamesThatMeet, testing::Bool());

// Data is permanent before it has a final name.

class KDXDispatchCopyPermanence : public PlacementTest {};

TEST_F(KDXDispatchCopyPermanence, OfDataThatFailsEndsTheProcessBeforeAnythingIsMoved) {
  const ChildRun ending = endingOf([&] {
    const auto job = copiedTo({first, second});
    // A pipe can't be synced.
    fs::remove(temporary(second));
    ::mkfifo(temporary(second).c_str(), 0600);
    job->moveFilesInPlace(nullptr);
  });

  EXPECT_EQ(106, ending.exitStatus);
  EXPECT_EQ(movingLine + couldNotSync(temporary(second)), ending.output);
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "b/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyPermanence, IsNotSoughtWithSkipFlush) {
  const auto job = copiedTo({first, second});
  fs::remove(temporary(second));
  ASSERT_EQ(0, ::mkfifo(temporary(second).c_str(), 0600));
  job->setSkipFlush(true);

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
}

TEST_F(KDXDispatchCopyPermanence, LeavesAMissingTemporaryFileToTheMove) {
  const ChildRun ending = endingOf([&] {
    const auto job = copiedTo({first, second});
    fs::remove(temporary(first));
    if (job->moveFilesInPlace(nullptr)) ::_exit(1);
  });

  EXPECT_EQ(cameBack, ending.exitStatus);
  EXPECT_EQ(movingLine + failedToMove(first), ending.output);
}

// Flushing.

class KDXDispatchCopyFlush : public PlacementTest {};

TEST_F(KDXDispatchCopyFlush, PrintsItsLinesAndLeavesTheFilesAsTheyAre) {
  writeFile(first, "first");
  writeFile(second, "second");

  const PhaseRun placement = flushed(*jobTo({first, second}));

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(std::string(flushingLine) + closingLines, placement.output);
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_EQ("first", readFile(first));
}

TEST_F(KDXDispatchCopyFlush, WithoutDestinationsPrintsItsLines) {
  const PhaseRun placement = flushed(*jobTo({}));

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::string(flushingLine) + closingLines, placement.output);
}

TEST_F(KDXDispatchCopyFlush, WithSkipFlushPrintsTheClosingLinesAndLooksAtNoFile) {
  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({first});
    job->setSkipFlush(true);
    if (!job->flushFilesystem(nullptr)) ::_exit(1);
  });

  EXPECT_EQ(cameBack, ending.exitStatus);
  EXPECT_EQ(closingLines, ending.output);
}

TEST_F(KDXDispatchCopyFlush, ReturnsWhenEverythingQueuedBeforeIsOut) {
  for (const bool skipFlush : {false, true}) {
    const auto job = jobTo({});
    job->setSkipFlush(skipFlush);
    bool earlierIsOut = false;
    bool wasOut = false;

    std::ignore = outputOf([&] {
      platform::logQueue().async([&] { earlierIsOut = true; });
      job->flushFilesystem(nullptr);
      wasOut = earlierIsOut;
    });

    EXPECT_TRUE(wasOut);
  }
}

TEST_F(KDXDispatchCopyFlush, OfAMissingFileEndsTheProcess) {
  const ChildRun ending = endingOf([&] { jobTo({first})->flushFilesystem(nullptr); });

  EXPECT_EQ(106, ending.exitStatus);
  EXPECT_EQ(flushingLine + couldNotSync(first), ending.output);
}

TEST_F(KDXDispatchCopyFlush, OfAMissingFileEndsTheProcessEvenWhenStandardInputCanBeSynced) {
  const ChildRun ending = endingOf([&] { jobTo({first})->flushFilesystem(nullptr); }, source);

  EXPECT_EQ(106, ending.exitStatus);
  EXPECT_EQ(flushingLine + couldNotSync(first), ending.output);
}

TEST_F(KDXDispatchCopyFlush, EndsAtTheFirstMissingFileInOrder) {
  writeFile(second, "second");

  const ChildRun ending = endingOf([&] { jobTo({second, third, first})->flushFilesystem(nullptr); });

  EXPECT_EQ(106, ending.exitStatus);
  EXPECT_EQ(flushingLine + couldNotSync(third), ending.output);
}

TEST_F(KDXDispatchCopyFlush, ThatTheDeviceRefusesEndsTheRun) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ToolStart start = {.arguments = {"-n", source, first}, .wrapper = injecting("fsync:error=EIO")};

  const ToolRun refused = runTool(start);

  EXPECT_EQ(106, refused.exitStatus);
  EXPECT_THAT(refused.lines(),
              ElementsAre("INFO: copying " + scratch.file("card") + "...",
                          "Copy completed successfully for destination file with file size check (" + first + ")",
                          "INFO: moving files in place..", "INFO: flushing files",
                          "Error: couldn't sync the file system of file " + first + " (error code -1)"));
  EXPECT_EQ((Names{"a/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));

  EXPECT_EQ(0, runTool({"-n", source, second}).exitStatus);
}

TEST_F(KDXDispatchCopyFlush, OfOneFilePrintsNothingAndLeavesThePlaceAsItWas) {
  writeFile(first, "first");
  const auto job = jobTo({});
  ErrorSlot error = copyError(42, "earlier");
  bool succeeded = false;
  bool succeededWithoutPlace = false;

  const std::string output = outputOf([&] {
    succeeded = job->flush(FileURL(first), &error);
    succeededWithoutPlace = job->flush(FileURL(first), nullptr);
  });

  EXPECT_TRUE(succeeded);
  EXPECT_TRUE(succeededWithoutPlace);
  ASSERT_TRUE(error);
  EXPECT_EQ(42, error->code);
  EXPECT_EQ("", output);
}

// A kind of job whose flush reports a failure instead of ending the process.
class JobWithItsOwnFlush : public KDXDispatchCopy {
 public:
  explicit JobWithItsOwnFlush(FileURL source, FileURL failing)
      : KDXDispatchCopy(std::move(source)), _failing(std::move(failing)) {}

  bool flush(const FileURL& finalURL, ErrorPlace error) override {
    flushed.push_back(finalURL.path());
    return finalURL != _failing || platform::fail(error, copyError(42, "own failure"));
  }

  Names flushed;

 private:
  FileURL _failing;
};

TEST_F(KDXDispatchCopyFlush, OfAnotherKindOfJobEndsAtItsFirstFailureWithTheClosingLines) {
  const auto job = std::make_shared<JobWithItsOwnFlush>(FileURL(source), FileURL(second));
  for (const std::string& destination : {first, second, third}) job->addDestinationURL(FileURL(destination));

  const PhaseRun placement = flushed(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ(42, placement.error->code);
  EXPECT_THAT(job->flushed, ElementsAre(first, second));
  EXPECT_EQ(flushingLine + ("failed to flush " + second + "\n") + closingLines, placement.output);
}

TEST_F(KDXDispatchCopyFlush, TakesEveryDestinationInOrder) {
  const auto job = std::make_shared<JobWithItsOwnFlush>(FileURL(source), FileURL("/none"));
  for (const std::string& destination : {third, first, second}) job->addDestinationURL(FileURL(destination));

  const PhaseRun placement = flushed(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_THAT(job->flushed, ElementsAre(third, first, second));
  EXPECT_EQ(std::string(flushingLine) + closingLines, placement.output);
}

// What is called when a file has passed.

class KDXDispatchCopyHooks : public PlacementTest, public testing::WithParamInterface<int32_t> {};

TEST_P(KDXDispatchCopyHooks, ReportADestinationOnlyWhenNoFileIsReadBack) {
  const auto job = jobTo({});
  job->setVerificationOptions(GetParam());
  const bool readsBack = (GetParam() & 12) != 0;

  const std::string output = outputOf([&] { job->handlSuccessfullCopiedDestination(FileURL("/b/clip.mov.kdxcopy")); });

  EXPECT_EQ(readsBack ? "" : "Copy completed successfully for destination file (/b/clip.mov)\n", output);
}

TEST_P(KDXDispatchCopyHooks, SayNothingOfASource) {
  const auto job = jobTo({});
  job->setVerificationOptions(GetParam());

  EXPECT_EQ("", outputOf([&] { job->handlSuccessfullCopiedSource(FileURL(source)); }));
}

INSTANTIATE_TEST_SUITE_P(Options, KDXDispatchCopyHooks, testing::Values(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 30),
                         testing::PrintToStringParamName());

}  // namespace
