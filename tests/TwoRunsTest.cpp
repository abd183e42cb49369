// What becomes of a copy when somebody else uses its names at the same time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace {

using Names = std::vector<std::string>;

class TwoRuns : public testing::Test {
 protected:
  void SetUp() override {
    writeFile(source, mediaBytes(MiB + 17));
    writeFile(otherSource, mediaBytes(MiB + 17, 2));
  }

  [[nodiscard]] std::shared_ptr<KDXDispatchCopy> jobFor(const std::string& clip) const {
    const auto job = KDXDispatchCopy::initWithSourceURL(platform::FileURL(clip));
    job->addDestinationURL(platform::FileURL(destination));
    job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
    job->setVerificationOptions(14);
    return job;
  }

  ScratchDirectory scratch;
  const std::string source = scratch.file("card-1/clip.mov");
  const std::string otherSource = scratch.file("card-2/clip.mov");
  const std::string destination = scratch.file("backup/clip.mov");
};

TEST_F(TwoRuns, ARunThatWasProvedDoesNotMoveTheFileOfAnotherThatBeganMeanwhile) {
  const auto first = jobFor(source);
  ASSERT_TRUE(first->performCopy(nullptr));
  ASSERT_TRUE(first->startVerification(nullptr));
  ASSERT_TRUE(first->finishVerification(nullptr));
  const auto second = jobFor(otherSource);
  ASSERT_TRUE(second->performCopy(nullptr));

  std::optional<platform::Error> error;
  EXPECT_FALSE(first->moveFilesInPlace(&error));
  EXPECT_FALSE(error);
  EXPECT_FALSE(std::filesystem::exists(destination));

  // The second is not disturbed.
  EXPECT_TRUE(second->startVerification(nullptr));
  EXPECT_TRUE(second->finishVerification(nullptr));
  EXPECT_TRUE(second->moveFilesInPlace(nullptr));
  EXPECT_EQ(readFile(otherSource), readFile(destination));
}

TEST_F(TwoRuns, AnOldTemporaryFileThatAnotherStillWritesKeepsItsBytesToItself) {
  const std::string temporary = destination + ".kdxcopy";
  std::ofstream other(temporary, std::ios::binary);
  other << "half a take";
  other.flush();

  const ToolRun run = runTool({source, destination});
  other << ", and its other half";
  other.close();

  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(readFile(source), readFile(destination));
}

TEST_F(TwoRuns, AFileThatSomebodyPutInThePlaceOfTheTemporaryOneIsNotMoved) {
  const auto job = jobFor(source);
  ASSERT_TRUE(job->performCopy(nullptr));
  std::filesystem::remove(destination + ".kdxcopy");
  writeFile(destination + ".kdxcopy", "something else");

  EXPECT_FALSE(job->moveFilesInPlace(nullptr));
  EXPECT_FALSE(std::filesystem::exists(destination));
}

TEST_F(TwoRuns, WithForceAnExistingFileIsKeptWhenTheTemporaryOneWasExchanged) {
  writeFile(destination, "an older take");
  const auto job = jobFor(source);
  job->setForceOverwrite(true);
  ASSERT_TRUE(job->performCopy(nullptr));
  std::filesystem::remove(destination + ".kdxcopy");
  writeFile(destination + ".kdxcopy", "something else");

  EXPECT_FALSE(job->moveFilesInPlace(nullptr));
  EXPECT_EQ("an older take", readFile(destination));
}

TEST(SourceThatIsNotThere, UnderTheTemporaryNameIsNotMadeByTheCopyItself) {
  const ScratchDirectory scratch;

  const ToolRun run = runTool({scratch.file("clip.mov.kdxcopy"), scratch.file("clip.mov")});

  EXPECT_EQ(108, run.exitStatus);
  EXPECT_THAT(run.lines(),
              testing::Contains("ERROR: could not open file at path: " + scratch.file("clip.mov.kdxcopy")));
  EXPECT_FALSE(std::filesystem::exists(scratch.file("clip.mov")));
}

TEST(SourceThatIsNotThere, ButWhoseNameLeadsToTheTemporaryOneIsNotMadeByTheCopyEither) {
  const ScratchDirectory scratch;
  std::filesystem::create_symlink(scratch.file("clip.mov.kdxcopy"), scratch.file("link.mov"));

  const ToolRun run = runTool({scratch.file("link.mov"), scratch.file("clip.mov")});

  EXPECT_EQ(108, run.exitStatus);
  EXPECT_FALSE(std::filesystem::exists(scratch.file("clip.mov")));
}

TEST(FileThatEndsEarly, IsAReadErrorOfTheSourceAndNotAShorterCopy) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  const ScratchDirectory scratch;
  FaultyFileSystem server(scratch.path());
  writeFile(server.stored("clip.mov"), mediaBytes(2 * MiB));
  server.whenReportingAttributes("clip.mov").lieAboutSizeBy(MiB);
  server.whenOpening("clip.mov").bypassCache();

  const ToolRun run = runTool({server.path("clip.mov"), scratch.file("clip.mov")});

  EXPECT_EQ(111, run.exitStatus) << run.output;
  EXPECT_FALSE(std::filesystem::exists(scratch.file("clip.mov")));
}

TEST(MoveWithoutLinks, ReplacesNothingWhenTheFinalNameCanNotBeLookedAt) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string destination = scratch.file("backup/clip.mov");
  writeFile(source, mediaBytes(4096));
  writeFile(destination, "precious");
  const std::vector<std::string> wrapper =
      injectingAt(destination, {"newfstatat:error=EIO", "renameat2:error=EINVAL", "link:error=EPERM"});

  const ToolRun run = runTool({.arguments = {"-k", source, destination}, .wrapper = wrapper});

  EXPECT_EQ(1, run.exitStatus) << run.output;
  EXPECT_EQ("precious", readFile(destination));
}

TEST(JournalledData, IsPushedToTheDeviceAlthoughTheFileSystemTakesTheDirectFlag) {
  std::string whyNot;
  const auto volume = MountedFileSystem::mount("ext4", 64 * MiB, whyNot, "data=journal");
  if (!volume) GTEST_SKIP() << whyNot;
  const std::string source = volume->file("clip.mov");
  const std::string destination = volume->file("copy.mov");
  writeFile(source, mediaBytes(9 * MiB + 17));
  MountedFileSystem::fillCache(source);
  const uint64_t before = volume->bytesReadFromDevice();

  const ToolRun run = runTool({source, destination});

  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ(readFile(source), readFile(destination));
  EXPECT_GE(volume->bytesReadFromDevice() - before, 3 * (9 * MiB + 17));
}

}  // namespace
