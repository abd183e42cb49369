// What is verified comes from the medium and not from memory: the devices tell what they delivered.

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <memory>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace {

constexpr std::size_t clipSize = 24 * MiB + 17;
constexpr uint64_t mostLeftInCache = 1 * MiB;

// A card and two backups, each on a device of its own.
class Medium : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::size_t size = GetParam() == std::string("xfs") ? 320 * MiB : 128 * MiB;
    for (auto& device : devices) {
      std::string whyNot;
      device = MountedFileSystem::mount(GetParam(), size, whyNot);
      if (!device) GTEST_SKIP() << whyNot;
    }
    writeFile(source(), mediaBytes(clipSize));
  }

  [[nodiscard]] std::string source() const { return devices[0]->file("clip.mov"); }
  [[nodiscard]] std::string destination(std::size_t number) const { return devices.at(number)->file("clip.mov"); }

  [[nodiscard]] std::array<uint64_t, 3> bytesDelivered() const {
    return {devices[0]->bytesReadFromDevice(), devices[1]->bytesReadFromDevice(), devices[2]->bytesReadFromDevice()};
  }

  std::array<std::unique_ptr<MountedFileSystem>, 3> devices;  // card, first and second backup
};

INSTANTIATE_TEST_SUITE_P(FileSystems, Medium, testing::Values("ext4", "xfs"),
                         [](const auto& row) { return std::string(row.param); });

TEST_P(Medium, ADefaultRunReadsCachedFilesFromTheirDevicesAndLeavesNothingInTheCache) {
  // Whatever could be served from memory is there: the source, and old files under all the names of the destinations.
  MountedFileSystem::fillCache(source());
  for (const std::size_t number : {1U, 2U}) {
    for (const std::string& name : {destination(number), destination(number) + ".kdxcopy"}) {
      writeFile(name, mediaBytes(clipSize, 2));
      MountedFileSystem::fillCache(name);
    }
  }
  const auto before = bytesDelivered();

  const ToolRun run = runTool({"-f", source(), destination(1), destination(2)});

  ASSERT_EQ(0, run.exitStatus) << run.output << run.errors;
  const auto after = bytesDelivered();
  EXPECT_GE(after[0] - before[0], 2 * clipSize);
  EXPECT_GE(after[1] - before[1], clipSize);
  EXPECT_GE(after[2] - before[2], clipSize);
  EXPECT_LE(MountedFileSystem::bytesInCache(source()), mostLeftInCache);
  EXPECT_LE(MountedFileSystem::bytesInCache(destination(1)), mostLeftInCache);
  EXPECT_LE(MountedFileSystem::bytesInCache(destination(2)), mostLeftInCache);
}

TEST_P(Medium, FilesThatWereCachedBetweenCopyAndReadBackAreReadFromTheirDevices) {
  const auto job = KDXDispatchCopy::initWithSourceURL(platform::FileURL(source()));
  job->addDestinationURL(platform::FileURL(destination(1)));
  job->addDestinationURL(platform::FileURL(destination(2)));
  job->setDigestAlgorithm(KDXDigestAlgorithmXXHash64BE);
  job->setVerificationOptions(14);
  ASSERT_TRUE(job->performCopy(nullptr));
  MountedFileSystem::fillCache(source());
  MountedFileSystem::fillCache(destination(1) + ".kdxcopy");
  MountedFileSystem::fillCache(destination(2) + ".kdxcopy");
  const auto before = bytesDelivered();

  ASSERT_TRUE(job->startVerification(nullptr));
  ASSERT_TRUE(job->finishVerification(nullptr));

  const auto after = bytesDelivered();
  for (const std::size_t device : {0U, 1U, 2U}) EXPECT_GE(after[device] - before[device], clipSize) << device;
}

TEST(MediumWithoutDirectTransfers, ADefaultRunReadsCachedFilesFromTheServerAndLeavesNothingInTheCache) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  const ScratchDirectory scratch;
  FaultyFileSystem server(scratch.path());
  const std::string source = server.path("clip.mov");
  const std::array<std::string, 2> names{"copy1.mov", "copy2.mov"};
  writeFile(source, mediaBytes(clipSize));
  MountedFileSystem::fillCache(source);
  for (const std::string& name : names) {
    for (const std::string& old : {server.path(name).string(), server.path(name + ".kdxcopy").string()}) {
      writeFile(old, mediaBytes(clipSize, 2));
      MountedFileSystem::fillCache(old);
    }
  }
  server.whenReading("*").refuseDirect();
  server.whenWriting("*").refuseDirect();
  server.resetCounters();

  const ToolRun run = runTool({"-f", source, server.path(names[0]), server.path(names[1])});

  ASSERT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_GE(server.counters("clip.mov").bytesRead, 2 * clipSize);
  EXPECT_LE(MountedFileSystem::bytesInCache(source), mostLeftInCache);
  for (const std::string& name : names) {
    EXPECT_EQ(readFile(server.stored("clip.mov")), readFile(server.stored(name)));
    EXPECT_GE(server.counters(name + ".kdxcopy").bytesRead, clipSize);
    EXPECT_LE(MountedFileSystem::bytesInCache(server.path(name)), mostLeftInCache);
  }
}

TEST(MediumWithoutDirectTransfers, FilesThatWereCachedBetweenCopyAndReadBackAreReadFromTheServer) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  const ScratchDirectory scratch;
  FaultyFileSystem server(scratch.path());
  const std::string source = server.path("clip.mov");
  const std::string destination = server.path("copy.mov");
  writeFile(source, mediaBytes(clipSize));
  server.whenReading("*").refuseDirect();
  server.whenWriting("*").refuseDirect();
  const auto job = KDXDispatchCopy::initWithSourceURL(platform::FileURL(source));
  job->addDestinationURL(platform::FileURL(destination));
  job->setDigestAlgorithm(KDXDigestAlgorithmXXHash64BE);
  job->setVerificationOptions(14);
  ASSERT_TRUE(job->performCopy(nullptr));
  MountedFileSystem::fillCache(source);
  MountedFileSystem::fillCache(destination + ".kdxcopy");
  server.resetCounters();

  ASSERT_TRUE(job->startVerification(nullptr));
  ASSERT_TRUE(job->finishVerification(nullptr));

  EXPECT_GE(server.counters("clip.mov").bytesRead, clipSize);
  EXPECT_GE(server.counters("copy.mov.kdxcopy").bytesRead, clipSize);
}

TEST(MediumWithoutTimesOfCreation, AFileThatTheSystemForgotBetweenCopyAndMoveIsStillTheOneThatWasProved) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  const ScratchDirectory scratch;
  FaultyFileSystem server(scratch.path());
  server.whenReportingAttributes("*").numberAnew();
  writeFile(server.path("clip.mov"), mediaBytes(MiB));
  const auto job = KDXDispatchCopy::initWithSourceURL(platform::FileURL(server.path("clip.mov").string()));
  job->addDestinationURL(platform::FileURL(server.path("copy.mov").string()));
  ASSERT_TRUE(job->performCopy(nullptr));

  // The system forgets what it does not find any more.
  const std::string temporary = server.stored("copy.mov.kdxcopy");
  std::filesystem::rename(temporary, server.stored("elsewhere"));
  EXPECT_FALSE(std::filesystem::exists(server.path("copy.mov.kdxcopy")));
  std::filesystem::rename(server.stored("elsewhere"), temporary);

  EXPECT_TRUE(job->moveFilesInPlace(nullptr));
}

TEST(MediumOfEveryKind, OneRunOffloadsToDestinationsOnDifferentFileSystems) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  std::string whyNot;
  const auto ext4 = MountedFileSystem::mount("ext4", 128 * MiB, whyNot);
  const auto xfs = ext4 ? MountedFileSystem::mount("xfs", 320 * MiB, whyNot) : nullptr;
  const auto tmpfs = xfs ? MountedFileSystem::mount("tmpfs", 64 * MiB, whyNot) : nullptr;
  if (!tmpfs) GTEST_SKIP() << whyNot;
  const ScratchDirectory scratch;
  FaultyFileSystem server(scratch.path());
  const std::string source = scratch.file("card/clip.mov");
  writeFile(source, mediaBytes(clipSize));
  const std::array<std::string, 4> destinations{ext4->file("clip.mov"), xfs->file("clip.mov"), tmpfs->file("clip.mov"),
                                                server.path("clip.mov")};

  const ToolRun run = runTool({source, destinations[0], destinations[1], destinations[2], destinations[3]});

  ASSERT_EQ(0, run.exitStatus) << run.output << run.errors;
  for (const std::string& destination : destinations) EXPECT_EQ(readFile(source), readFile(destination)) << destination;
}

}  // namespace
