// How the copy job of a numbered sequence gives its files their final names and makes them permanent.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <tuple>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"
#include "platform/FileManager.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/PhaseRun.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using platform::FileURL;
using testing::SizeIs;

namespace {

namespace fs = std::filesystem;
using ErrorSlot = std::optional<platform::Error>;
using Names = std::vector<std::string>;

// A card with frames 9 to 11, each holding its own name.
class SequencePlacementTest : public testing::Test {
 protected:
  SequencePlacementTest() {
    ::setenv("XDG_CONFIG_HOME", settings.path().c_str(), 1);
    for (int number = 9; number <= 11; ++number) writeFile(file("card", number), frameName(number));
  }

  [[nodiscard]] static std::string frameName(int number) { return "plate." + std::to_string(number) + ".dpx"; }
  [[nodiscard]] std::string file(const std::string& folder, int number) const {
    return scratch.file(folder + "/" + frameName(number));
  }
  [[nodiscard]] std::string temporary(const std::string& folder, int number) const {
    return file(folder, number) + ".kdxcopy";
  }

  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> jobTo(const Names& folders) const {
    auto job = KDXSequenceCopy::initWithFileSequence(KDXFileSequence::initWithIdentifier(identifier));
    for (const std::string& folder : folders) job->addDestinationURL(FileURL(scratch.file(folder + "/plate.dpx")));
    return job;
  }
  // A job that has made its copy, whose output is not looked at.
  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> copiedTo(const Names& folders, bool forceOverwrite = false) const {
    auto job = jobTo(folders);
    job->setForceOverwrite(forceOverwrite);
    bool copied = false;
    std::ignore = outputOf([&] { copied = job->performCopy(nullptr); });
    EXPECT_TRUE(copied);
    return job;
  }
  // A job whose sequence has no files.
  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> emptyJobTo(const std::string& folder) const {
    auto job = KDXSequenceCopy::initWithFileSequence(
        KDXFileSequence::initWithIdentifier(scratch.file("card/plate.5-4_#.dpx")));
    job->addDestinationURL(FileURL(scratch.file(folder + "/plate.dpx")));
    return job;
  }

  // The names outside the card.
  [[nodiscard]] Names namesOfCopies() const {
    Names names = namesBelow(scratch.path());
    std::erase_if(names, [](const std::string& name) { return name.starts_with("card/"); });
    return names;
  }

  const ScratchDirectory settings;
  const ScratchDirectory scratch;
  const std::string identifier = scratch.file("card/plate.9-11.#.dpx");
};

// Moving.

class KDXSequenceCopyMove : public SequencePlacementTest {};

TEST_F(KDXSequenceCopyMove, GivesEveryFileOfEveryDestinationItsFinalNameAndPrintsOneLine) {
  const auto job = copiedTo({"a", "b"});

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ(
      (Names{"a/plate.10.dpx", "a/plate.11.dpx", "a/plate.9.dpx", "b/plate.10.dpx", "b/plate.11.dpx", "b/plate.9.dpx"}),
      namesOfCopies());
  for (int number = 9; number <= 11; ++number) {
    EXPECT_EQ(frameName(number), readFile(file("a", number)));
    EXPECT_EQ(frameName(number), readFile(file("b", number)));
  }
}

TEST_F(KDXSequenceCopyMove, WorksWithoutAPlaceForTheErrorAndWithSkipFlush) {
  const auto job = copiedTo({"a"});
  job->setSkipFlush(true);
  bool moved = false;

  const std::string output = outputOf([&] { moved = job->moveFilesInPlace(nullptr); });

  EXPECT_TRUE(moved);
  EXPECT_EQ(movingLine, output);
  EXPECT_EQ((Names{"a/plate.10.dpx", "a/plate.11.dpx", "a/plate.9.dpx"}), namesOfCopies());
}

TEST_F(KDXSequenceCopyMove, OfNoFramesPrintsItsLine) {
  const auto job = emptyJobTo("a");
  std::ignore = outputOf([&] { job->performCopy(nullptr); });

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(movingLine, placement.output);
}

TEST_F(KDXSequenceCopyMove, StopsAtATakenNameAndSaysNothingItself) {
  const auto job = copiedTo({"a", "b", "c"});
  writeFile(file("b", 10), "old");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ("KDXCopyErrorDomain", placement.error->domain);
  EXPECT_EQ(109, placement.error->code);
  EXPECT_EQ(temporary("b", 10), placement.error->path);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ((Names{"a/plate.10.dpx", "a/plate.11.dpx", "a/plate.9.dpx", "b/plate.10.dpx", "b/plate.10.dpx.kdxcopy",
                   "b/plate.11.dpx.kdxcopy", "b/plate.9.dpx", "c/plate.10.dpx.kdxcopy", "c/plate.11.dpx.kdxcopy",
                   "c/plate.9.dpx.kdxcopy"}),
            namesOfCopies());
  EXPECT_EQ("old", readFile(file("b", 10)));
}

TEST_F(KDXSequenceCopyMove, OfATakenNameFailsWithoutAPlaceForTheErrorToo) {
  const auto job = copiedTo({"a"});
  writeFile(file("a", 9), "old");
  bool moved = true;

  std::ignore = outputOf([&] { moved = job->moveFilesInPlace(nullptr); });

  EXPECT_FALSE(moved);
  EXPECT_EQ("old", readFile(file("a", 9)));
}

TEST_F(KDXSequenceCopyMove, ReplacesTakenNamesWithForceOverwrite) {
  const auto job = copiedTo({"a", "b"}, true);
  writeFile(file("a", 9), "old");
  writeFile(file("b", 11), "old");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ(frameName(9), readFile(file("a", 9)));
  EXPECT_EQ(frameName(11), readFile(file("b", 11)));
}

TEST_F(KDXSequenceCopyMove, OfADirectoryInTheWayLeavesItAndReportsWhyItCouldNotBeRemoved) {
  const auto job = copiedTo({"a"}, true);
  writeFile(scratch.file("a/plate.10.dpx/inside"), "inside");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ("POSIXErrorDomain", placement.error->domain);
  EXPECT_EQ(EISDIR, placement.error->code);
  EXPECT_EQ(movingLine + ("failed to remove " + file("a", 10) + " before moving"), placement.output);
  EXPECT_EQ((Names{"a/plate.10.dpx.kdxcopy", "a/plate.10.dpx/inside", "a/plate.11.dpx.kdxcopy", "a/plate.9.dpx"}),
            namesOfCopies());
}

class KDXSequenceCopyIntoItsOwnFolder : public SequencePlacementTest, public testing::WithParamInterface<bool> {};

TEST_P(KDXSequenceCopyIntoItsOwnFolder, NeverReplacesAFrameOfTheSource) {
  const auto job = copiedTo({"card"}, GetParam());
  const auto inode = platform::identityOfItem(file("card", 9));

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ(GetParam() ? EBUSY : 109, placement.error->code);
  EXPECT_EQ(inode, platform::identityOfItem(file("card", 9)));
  EXPECT_EQ(frameName(9), readFile(file("card", 9)));
}

// A later frame of the source in the way of an earlier one counts too.
TEST_P(KDXSequenceCopyIntoItsOwnFolder, NeverReplacesAnotherFrameOfTheSource) {
  const auto job = copiedTo({"a"}, GetParam());
  fs::create_hard_link(file("card", 11), file("a", 9));

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  ASSERT_TRUE(placement.error);
  EXPECT_EQ(GetParam() ? EBUSY : 109, placement.error->code);
  EXPECT_EQ(platform::identityOfItem(file("card", 11)), platform::identityOfItem(file("a", 9)));
}

INSTANTIATE_TEST_SUITE_P(ForceOverwrite, KDXSequenceCopyIntoItsOwnFolder, testing::Bool(),
                         testing::PrintToStringParamName());

class KDXSequenceCopyMissingTemporaryFile : public SequencePlacementTest, public testing::WithParamInterface<bool> {};

TEST_P(KDXSequenceCopyMissingTemporaryFile, StopsTheMovesWithoutAnErrorAndNothingIsRemoved) {
  const auto job = copiedTo({"a", "b"}, GetParam());
  fs::remove(temporary("a", 10));
  writeFile(file("a", 10), "old");

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ((Names{"a/plate.10.dpx", "a/plate.11.dpx.kdxcopy", "a/plate.9.dpx", "b/plate.10.dpx.kdxcopy",
                   "b/plate.11.dpx.kdxcopy", "b/plate.9.dpx.kdxcopy"}),
            namesOfCopies());
  EXPECT_EQ("old", readFile(file("a", 10)));
}

TEST_P(KDXSequenceCopyMissingTemporaryFile, ThatAnotherRunHasReplacedIsNotMoved) {
  const auto job = copiedTo({"a"}, GetParam());
  writeFile(file("a", 10), "old");
  const auto before = platform::stampOfItem(temporary("a", 10));
  // Files of the same tick of the clock can't be told apart everywhere.
  do {
    fs::remove(temporary("a", 10));
    writeFile(temporary("a", 10), "another run");
  } while (before->isOf(*platform::stampOfItem(temporary("a", 10))));

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(movingLine, placement.output);
  EXPECT_EQ("old", readFile(file("a", 10)));
  EXPECT_EQ("another run", readFile(temporary("a", 10)));
}

TEST_P(KDXSequenceCopyMissingTemporaryFile, BecauseTwoDestinationsAreInOneFolderKeepsTheFirstCopy) {
  const auto job = copiedTo({"a", "a"}, GetParam());

  const PhaseRun placement = moveInPlace(*job);

  EXPECT_FALSE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ((Names{"a/plate.10.dpx", "a/plate.11.dpx", "a/plate.9.dpx"}), namesOfCopies());
  EXPECT_EQ(frameName(11), readFile(file("a", 11)));
}

INSTANTIATE_TEST_SUITE_P(ForceOverwrite, KDXSequenceCopyMissingTemporaryFile, testing::Bool(),
                         testing::PrintToStringParamName());

TEST_F(KDXSequenceCopyMove, LeavesAnEarlierErrorInThePlaceAsItWas) {
  const auto job = copiedTo({"a"});
  fs::remove(temporary("a", 9));
  ErrorSlot error = copyError(42, "earlier");

  std::ignore = outputOf([&] { job->moveFilesInPlace(&error); });

  ASSERT_TRUE(error);
  EXPECT_EQ("earlier", error->description);
}

// Data is permanent before it has a final name.

class KDXSequenceCopyPermanence : public SequencePlacementTest {
 protected:
  [[nodiscard]] ToolRun runWith(Names options, const std::string& inject) const {
    options.insert(options.end(), {"-s", identifier, scratch.file("a/plate.dpx"), scratch.file("b/plate.dpx")});
    return runTool({.arguments = options, .wrapper = injecting(inject)});
  }
};

TEST_F(KDXSequenceCopyPermanence, ThatTheDeviceRefusesEndsTheRunBeforeAnythingIsMoved) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;

  const ToolRun run = runWith({}, "syncfs:error=EIO");

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_TRUE(run.output.ends_with(movingLine + couldNotSync(temporary("a", 9)))) << run.output;
  EXPECT_THAT(namesOfCopies(), SizeIs(6));
  EXPECT_FALSE(fs::exists(file("a", 9)));
}

TEST_F(KDXSequenceCopyPermanence, IsSoughtOnceForDestinationsOnOneFileSystem) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;

  EXPECT_EQ(0, runWith({}, "syncfs:error=EIO:when=2").exitStatus);
}

TEST_F(KDXSequenceCopyPermanence, IsSoughtForEveryFileSystemOfADestination) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  std::string whyNot;
  const auto backup = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!backup) GTEST_SKIP() << whyNot;

  const ToolRun run = runTool({.arguments = {"-s", identifier, scratch.file("a/plate.dpx"), backup->file("plate.dpx")},
                               .wrapper = injecting("syncfs:error=EIO:when=2")});

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_TRUE(run.output.ends_with(movingLine + couldNotSync(backup->file("plate.9.dpx.kdxcopy")))) << run.output;
  EXPECT_TRUE(fs::exists(temporary("a", 9)));
}

TEST_F(KDXSequenceCopyPermanence, IsNotSoughtWithSkipFlush) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;

  const ToolRun run = runWith({"-nf"}, "syncfs,fsync:error=EIO");

  EXPECT_EQ(0, run.exitStatus);
  EXPECT_TRUE(run.output.ends_with(std::string(movingLine) + closingLines)) << run.output;
}

// Flushing.

class KDXSequenceCopyFlush : public SequencePlacementTest {
 protected:
  // A job whose files have their final names.
  [[nodiscard]] std::shared_ptr<KDXSequenceCopy> movedTo(const Names& folders) const {
    auto job = copiedTo(folders);
    EXPECT_TRUE(moveInPlace(*job).succeeded);
    return job;
  }
};

TEST_F(KDXSequenceCopyFlush, TakesTheLastFileOfEachDestinationAloneAndPrintsItsLines) {
  const auto job = movedTo({"a", "b"});
  // A missing file would end the process.
  for (const char* folder : {"a", "b"}) {
    fs::remove(file(folder, 9));
    fs::remove(file(folder, 10));
  }

  const PhaseRun placement = flushed(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::nullopt, placement.error);
  EXPECT_EQ(std::string(flushingLine) + closingLines, placement.output);
}

TEST_F(KDXSequenceCopyFlush, WorksWithoutAPlaceForTheErrorAndLeavesAnEarlierOneAsItWas) {
  const auto job = movedTo({"a"});
  ErrorSlot error = copyError(42, "earlier");
  bool succeeded = false;
  bool succeededWithoutPlace = false;

  std::ignore = outputOf([&] {
    succeeded = job->flushFilesystem(&error);
    succeededWithoutPlace = job->flushFilesystem(nullptr);
  });

  EXPECT_TRUE(succeeded);
  EXPECT_TRUE(succeededWithoutPlace);
  ASSERT_TRUE(error);
  EXPECT_EQ("earlier", error->description);
}

TEST_F(KDXSequenceCopyFlush, OfAMissingLastFileEndsTheProcessWithItsFinalName) {
  const ChildRun ending = endingOf([&] {
    const auto job = jobTo({"a", "b", "c"});
    job->performCopy(nullptr);
    job->moveFilesInPlace(nullptr);
    fs::remove(file("b", 11));
    fs::remove(file("c", 11));
    job->flushFilesystem(nullptr);
  });

  EXPECT_EQ(106, ending.exitStatus);
  EXPECT_TRUE(ending.output.ends_with(std::string(movingLine) + flushingLine + couldNotSync(file("b", 11))))
      << ending.output;
}

TEST_F(KDXSequenceCopyFlush, ThatTheDeviceRefusesEndsTheRun) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;

  const ToolRun run =
      runTool({.arguments = {"-s", identifier, scratch.file("a/plate.dpx")}, .wrapper = injecting("fsync:error=EIO")});

  EXPECT_EQ(106, run.exitStatus);
  EXPECT_TRUE(run.output.ends_with(std::string(movingLine) + flushingLine + couldNotSync(file("a", 11)))) << run.output;
  EXPECT_EQ((Names{"a/plate.10.dpx", "a/plate.11.dpx", "a/plate.9.dpx"}), namesOfCopies());
}

TEST_F(KDXSequenceCopyFlush, WithSkipFlushPrintsTheClosingLinesAndLooksAtNoFile) {
  const auto job = movedTo({"a"});
  job->setSkipFlush(true);
  for (int number = 9; number <= 11; ++number) fs::remove(file("a", number));

  const PhaseRun placement = flushed(*job);

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(closingLines, placement.output);
}

TEST_F(KDXSequenceCopyFlush, WithoutDestinationsPrintsItsLines) {
  const PhaseRun placement = flushed(*jobTo({}));

  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::string(flushingLine) + closingLines, placement.output);
}

TEST_F(KDXSequenceCopyFlush, OfNoFramesSyncsStandardInputWhichADeviceRefuses) {
  const ChildRun ending = endingOf([&] { emptyJobTo("a")->flushFilesystem(nullptr); });

  EXPECT_EQ(106, ending.exitStatus);
  EXPECT_EQ(flushingLine + couldNotSync("(null)"), ending.output);
}

TEST_F(KDXSequenceCopyFlush, OfNoFramesComesBackWhenStandardInputIsAFile) {
  const ChildRun ending = endingOf(
      [&] {
        if (!emptyJobTo("a")->flushFilesystem(nullptr)) ::_exit(1);
      },
      file("card", 9));

  EXPECT_EQ(cameBack, ending.exitStatus);
  EXPECT_EQ(std::string(flushingLine) + closingLines, ending.output);
}

TEST_F(KDXSequenceCopyFlush, OfNoFramesAndWithSkipFlushPrintsTheClosingLines) {
  const auto job = emptyJobTo("a");
  job->setSkipFlush(true);

  EXPECT_EQ(closingLines, flushed(*job).output);
}

// Many files.

TEST_F(KDXSequenceCopyMove, OfAHundredFramesToTwoDestinationsGoesDestinationByDestination) {
  for (int number = 101; number <= 200; ++number) writeFile(file("card", number), frameName(number));
  const auto job = KDXSequenceCopy::initWithFileSequence(
      KDXFileSequence::initWithIdentifier(scratch.file("card/plate.101-200.###.dpx")));
  for (const char* folder : {"b", "a"}) job->addDestinationURL(FileURL(scratch.file(std::string(folder) + "/x")));
  std::ignore = outputOf([&] { job->performCopy(nullptr); });
  writeFile(file("a", 150), "old");
  Names expected = {"a/plate.150.dpx"};
  for (int number = 101; number <= 200; ++number) {
    expected.push_back("b/" + frameName(number));
    expected.push_back("a/" + frameName(number) + (number < 150 ? "" : ".kdxcopy"));
  }
  std::ranges::sort(expected);

  const PhaseRun stopped = moveInPlace(*job);

  EXPECT_FALSE(stopped.succeeded);
  EXPECT_EQ(expected, namesOfCopies());
}

TEST_F(KDXSequenceCopyFlush, OfSixteenDestinationsEndsARunThatCopiedProvedAndMovedThem) {
  Names folders;
  for (int number = 1; number <= 16; ++number) folders.push_back("backup" + std::to_string(number));
  const auto job = jobTo(folders);
  job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
  job->setVerificationOptions(14);
  bool succeeded = false;

  std::ignore = outputOf([&] {
    succeeded = job->performCopy(nullptr) && job->startVerification(nullptr) && job->finishVerification(nullptr) &&
                job->moveFilesInPlace(nullptr);
  });
  const PhaseRun placement = flushed(*job);

  EXPECT_TRUE(succeeded);
  EXPECT_TRUE(placement.succeeded);
  EXPECT_EQ(std::string(flushingLine) + closingLines, placement.output);
  EXPECT_THAT(namesOfCopies(), SizeIs(48));
  for (const std::string& folder : folders) {
    for (int number = 9; number <= 11; ++number) EXPECT_EQ(frameName(number), readFile(file(folder, number)));
  }
}

}  // namespace
