#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchVerify.h"
#include "platform/Process.h"
#include "platform/SerialQueue.h"
#include "tests/support/Algorithms.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

using testing::ElementsAre;

namespace {

using Counts = std::vector<uint64_t>;
using platform::FileURL;

// Seconds: every report is due, or none is. A minute is less than what the clock shows when a reading starts.
constexpr double always = -1;
constexpr double never = 60;

std::string expectedText(const Algorithm& algorithm, const std::string& path) {
  return algorithm.methodName + (":" + expectedHex(algorithm, path));
}

// Buffers of 1 MiB.
class VerifierSettings {
 protected:
  VerifierSettings() {
    writeFile(scratch.file("settings/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
    ::setenv("XDG_CONFIG_HOME", scratch.file("settings").c_str(), 1);
  }

  [[nodiscard]] FileURL fileOf(std::size_t size, const std::string& name = "clip.mov") const {
    writeFile(scratch.file(name), mediaBytes(size, static_cast<uint32_t>(size + 1)));
    return FileURL(scratch.file(name));
  }

  const ScratchDirectory scratch;
};

class KDXDispatchVerifyTest : public testing::Test, protected VerifierSettings {};

class EveryAlgorithmVerified : public testing::TestWithParam<Algorithm>, protected VerifierSettings {};

TEST_P(EveryAlgorithmVerified, TheDigestIsThatWhichTheProgramOfTheSystemPrints) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, MiB - 1, MiB, 2 * MiB, 3 * MiB + 17}) {
    const FileURL file = fileOf(size);
    const auto digest = KDXDispatchVerify::initWithFileURL(file, GetParam().code)->calculateDigest(nullptr);
    ASSERT_NE(nullptr, digest);
    EXPECT_EQ(expectedText(GetParam(), file.path()), digest->digestString()) << size;
    EXPECT_EQ(GetParam().code, digest->algorithm());
    EXPECT_EQ(size, digest->totalLength());
  }
}

INSTANTIATE_TEST_SUITE_P(KDXDispatchVerify, EveryAlgorithmVerified, testing::ValuesIn(algorithms), rowName);

TEST_F(KDXDispatchVerifyTest, AVerifierKeepsItsFileAndItsAlgorithmAndHasNoProgressBlock) {
  const auto verifier = KDXDispatchVerify::initWithFileURL(FileURL("/card/clip.mov"), md5);
  EXPECT_EQ(FileURL("/card/clip.mov"), verifier->fileURL());
  EXPECT_EQ(md5, verifier->algorithm());
  EXPECT_FALSE(verifier->progressBlock());
}

TEST_F(KDXDispatchVerifyTest, AnEmptyFileHasTheDigestOfNothing) {
  const auto digest = KDXDispatchVerify::initWithFileURL(fileOf(0), md5)->calculateDigest(nullptr);
  EXPECT_EQ("MD5:d41d8cd98f00b204e9800998ecf8427e", digest->digestString());
}

TEST_F(KDXDispatchVerifyTest, OneFlippedBitGivesAnotherDigest) {
  const FileURL file = fileOf(2 * MiB + 5);
  const auto before = KDXDispatchVerify::initWithFileURL(file, md5)->calculateDigest(nullptr);
  damageFile(file.path(), static_cast<int64_t>(MiB) + 12);
  const auto after = KDXDispatchVerify::initWithFileURL(file, md5)->calculateDigest(nullptr);
  EXPECT_FALSE(before->isEqual(after.get()));
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", file.path()), after->digestString());
}

TEST_F(KDXDispatchVerifyTest, AVerifierCanBeAskedAgain) {
  const FileURL file = fileOf(MiB + 5);
  const auto verifier = KDXDispatchVerify::initWithFileURL(file, md5);
  const auto first = verifier->calculateDigest(nullptr);
  const auto second = verifier->calculateDigest(nullptr);
  EXPECT_NE(first, second);
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", file.path()), first->digestString());
  EXPECT_EQ(first->digestString(), second->digestString());
}

TEST_F(KDXDispatchVerifyTest, AnyFileCanBeVerifiedWithAnyAlgorithm) {
  const FileURL own = fileOf(10, "a.mov");
  const FileURL other = fileOf(20, "b.mov");
  const auto verifier = KDXDispatchVerify::initWithFileURL(own, md5);
  EXPECT_EQ("SHA1:" + digestByProgram("sha1sum", other.path()),
            verifier->verifyURL(other, sha1, nullptr)->digestString());
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", own.path()), verifier->calculateDigest(nullptr)->digestString());
  EXPECT_EQ(own, verifier->fileURL());
  EXPECT_EQ(md5, verifier->algorithm());
}

TEST_F(KDXDispatchVerifyTest, VerifiersRunSideBySide) {
  constexpr std::size_t count = 6;
  std::array<std::string, count> texts;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < count; ++i) {
    const FileURL file = fileOf(2 * MiB + i, std::to_string(i) + ".mov");
    threads.emplace_back([&texts, file, i] {
      texts[i] = KDXDispatchVerify::initWithFileURL(file, xxHash64BE)->calculateDigest(nullptr)->digestString();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_EQ("XXHash64BE:" + digestByProgram("xxh64sum", scratch.file(std::to_string(i) + ".mov")), texts[i]) << i;
  }
}

TEST_F(KDXDispatchVerifyTest, AnUnknownAlgorithmGivesNoDigest) {
  const FileURL file = fileOf(MiB + 5);
  for (const uint32_t code : {0u, 3u, 4u, 24u}) {
    EXPECT_EQ(nullptr, KDXDispatchVerify::initWithFileURL(file, code)->calculateDigest(nullptr)) << code;
    EXPECT_EQ(nullptr, KDXDispatchVerify::initWithFileURL(file, md5)->verifyURL(file, code, nullptr)) << code;
  }
}

// Progress

// Collects what a verifier with the interval reports on a queue.
Counts reportsOf(const FileURL& file, double interval) {
  Counts counts;
  platform::SerialQueue queue("progress");
  const auto verifier = KDXDispatchVerify::initWithFileURL(file, md5);
  verifier->setProgressInterval(interval, &queue, [&](uint64_t bytesRead) { counts.push_back(bytesRead); });
  verifier->calculateDigest(nullptr);
  queue.sync([] {});
  return counts;
}

TEST_F(KDXDispatchVerifyTest, EveryDueReportTellsTheBytesReadSoFar) {
  EXPECT_THAT(reportsOf(fileOf(2 * MiB + 17), always), ElementsAre(MiB, 2 * MiB, 2 * MiB + 17));
}

TEST_F(KDXDispatchVerifyTest, NoReportTellsMoreThanTheSizeOfTheFile) {
  EXPECT_THAT(reportsOf(fileOf(2 * MiB), always), ElementsAre(MiB, 2 * MiB, 2 * MiB));
}

TEST_F(KDXDispatchVerifyTest, WithoutAnIntervalTheReportsAreThoseOfBuffersInOrder) {
  const Counts counts = reportsOf(fileOf(3 * MiB + 5), 0);
  EXPECT_TRUE(std::ranges::is_sorted(counts));
  for (const uint64_t count : counts) {
    EXPECT_THAT(count, testing::AnyOf(MiB, 2 * MiB, 3 * MiB, 3 * MiB + 5));
  }
  EXPECT_THAT(counts, testing::SizeIs(testing::AllOf(testing::Ge(1u), testing::Le(4u))));
}

TEST_F(KDXDispatchVerifyTest, AFileReadWithinTheIntervalGivesNoReport) {
  EXPECT_THAT(reportsOf(fileOf(3 * MiB + 5), never), testing::IsEmpty());
}

TEST_F(KDXDispatchVerifyTest, AnEmptyFileReadWithinTheIntervalGivesNoReport) {
  EXPECT_THAT(reportsOf(fileOf(0), never), testing::IsEmpty());
}

TEST_F(KDXDispatchVerifyTest, TheReportsAreMadeOnTheGivenQueue) {
  int elsewhere = 0;
  int reports = 0;
  platform::SerialQueue queue("progress");
  const auto verifier = KDXDispatchVerify::initWithFileURL(fileOf(MiB + 1), md5);
  verifier->setProgressInterval(always, &queue, [&](uint64_t) {
    ++reports;
    elsewhere += queue.isCurrentQueue() ? 0 : 1;
  });
  verifier->calculateDigest(nullptr);
  queue.sync([] {});
  EXPECT_EQ(2, reports);
  EXPECT_EQ(0, elsewhere);
}

TEST_F(KDXDispatchVerifyTest, WithoutAQueueNothingIsReported) {
  Counts counts;
  const FileURL file = fileOf(MiB + 1);
  const auto verifier = KDXDispatchVerify::initWithFileURL(file, md5);
  verifier->setProgressInterval(always, nullptr, [&](uint64_t bytesRead) { counts.push_back(bytesRead); });
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", file.path()), verifier->calculateDigest(nullptr)->digestString());
  EXPECT_THAT(counts, testing::IsEmpty());
}

TEST_F(KDXDispatchVerifyTest, ABlockSetLaterTakesTheReports) {
  Counts first;
  Counts second;
  platform::SerialQueue queue("progress");
  const auto verifier = KDXDispatchVerify::initWithFileURL(fileOf(10), md5);
  verifier->setProgressInterval(always, &queue, [&](uint64_t bytesRead) { first.push_back(bytesRead); });
  verifier->setProgressBlock([&](uint64_t bytesRead) { second.push_back(bytesRead); });
  EXPECT_TRUE(verifier->progressBlock());
  verifier->calculateDigest(nullptr);
  queue.sync([] {});
  EXPECT_THAT(first, testing::IsEmpty());
  EXPECT_THAT(second, ElementsAre(10u));
}

TEST_F(KDXDispatchVerifyTest, AQueueWithoutABlockReportsNothingAndTheDigestIsRight) {
  const FileURL file = fileOf(MiB + 1);
  platform::SerialQueue queue("progress");
  const auto verifier = KDXDispatchVerify::initWithFileURL(file, md5);
  verifier->setProgressInterval(always, &queue, nullptr);
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", file.path()), verifier->calculateDigest(nullptr)->digestString());
}

TEST_F(KDXDispatchVerifyTest, EachReadingReportsItsOwnBytes) {
  Counts counts;
  platform::SerialQueue queue("progress");
  const auto verifier = KDXDispatchVerify::initWithFileURL(fileOf(MiB + 1), md5);
  verifier->setProgressInterval(always, &queue, [&](uint64_t bytesRead) { counts.push_back(bytesRead); });
  verifier->calculateDigest(nullptr);
  verifier->calculateDigest(nullptr);
  queue.sync([] {});
  EXPECT_THAT(counts, ElementsAre(MiB, MiB + 1, MiB, MiB + 1));
}

// Keeps its tasks until it is told to run them.
class HeldQueue final : public platform::DispatchQueue {
 public:
  explicit HeldQueue(std::function<void(std::size_t)> queued = [](std::size_t) {}) : _queued(std::move(queued)) {}
  // Called on the thread of one reading alone.
  void async(platform::Task task) override {
    _tasks.push_back(std::move(task));
    _queued(_tasks.size());
  }
  void barrierSync(const platform::Task& task) override { task(); }
  void runAll() {
    for (const platform::Task& task : _tasks) task();
    _tasks.clear();
  }

 private:
  std::function<void(std::size_t)> _queued;
  std::vector<platform::Task> _tasks;
};

TEST_F(KDXDispatchVerifyTest, ReportsStillQueuedAreMadeWhenTheVerifierIsGone) {
  Counts counts;
  HeldQueue queue;
  auto verifier = KDXDispatchVerify::initWithFileURL(fileOf(2 * MiB + 17), md5);
  verifier->setProgressInterval(always, &queue, [&](uint64_t bytesRead) { counts.push_back(bytesRead); });
  verifier->calculateDigest(nullptr);
  verifier.reset();
  EXPECT_THAT(counts, testing::IsEmpty());
  queue.runAll();
  EXPECT_THAT(counts, ElementsAre(MiB, 2 * MiB, 2 * MiB + 17));
}

TEST_F(KDXDispatchVerifyTest, ReportsThatComeTogetherBehindTheIntervalAreOne) {
  constexpr std::chrono::seconds interval(1);
  Counts counts;
  HeldQueue queue;
  const auto verifier = KDXDispatchVerify::initWithFileURL(fileOf(2 * MiB + 17), md5);
  verifier->setProgressInterval(static_cast<double>(interval.count()), &queue,
                                [&](uint64_t bytesRead) { counts.push_back(bytesRead); });
  verifier->calculateDigest(nullptr);
  const auto end = std::chrono::steady_clock::now() + interval;
  std::this_thread::sleep_until(end);
  queue.runAll();
  EXPECT_THAT(counts, ElementsAre(MiB));
}

// Failures

TEST_F(KDXDispatchVerifyTest, AFileWhoseFirstReadFailsHasTheDigestOfNothing) {
  const auto digest =
      KDXDispatchVerify::initWithFileURL(FileURL(scratch.path().string()), md5)->calculateDigest(nullptr);
  ASSERT_NE(nullptr, digest);
  EXPECT_EQ("MD5:d41d8cd98f00b204e9800998ecf8427e", digest->digestString());
  EXPECT_EQ(0u, digest->totalLength());
}

TEST_F(KDXDispatchVerifyTest, AReadThatFailsInTheMiddleGivesTheDigestOfWhatWasReadAndNoError) {
  const FileURL file = fileOf(5 * MiB);
  writeFile(scratch.file("start"), readFile(file.path()).substr(0, 2 * MiB));
  const std::string expected = "MD5:" + digestByProgram("md5sum", scratch.file("start"));
  Counts counts;
  // In the first callback: the reader fills the second buffer and then waits for the first one.
  HeldQueue queue([&](std::size_t queued) {
    if (queued != 1) return;
    const std::optional<int> descriptor = descriptorOf(file.path());
    ASSERT_TRUE(descriptor.has_value());
    while (positionOf(*descriptor) < 2 * static_cast<int64_t>(MiB)) std::this_thread::yield();
    makeReadsFail(file.path());
  });
  const auto verifier = KDXDispatchVerify::initWithFileURL(file, md5);
  verifier->setProgressInterval(always, &queue, [&](uint64_t bytesRead) { counts.push_back(bytesRead); });
  std::optional<platform::Error> error;
  const auto digest = verifier->calculateDigest(&error);
  queue.runAll();
  EXPECT_EQ(expected, digest->digestString());
  EXPECT_EQ(2 * MiB, digest->totalLength());
  EXPECT_FALSE(error.has_value());
  EXPECT_THAT(counts, ElementsAre(MiB, 2 * MiB, 2 * MiB));
}

TEST_F(KDXDispatchVerifyTest, TheErrorIsNeverWritten) {
  std::optional<platform::Error> error;
  KDXDispatchVerify::initWithFileURL(fileOf(10), md5)->calculateDigest(&error);
  KDXDispatchVerify::initWithFileURL(fileOf(10), 3)->calculateDigest(&error);
  KDXDispatchVerify::initWithFileURL(FileURL(scratch.path().string()), md5)->calculateDigest(&error);
  EXPECT_FALSE(error.has_value());
}

using KDXDispatchVerifyDeathTest = KDXDispatchVerifyTest;

TEST_F(KDXDispatchVerifyDeathTest, AFileThatCannotBeOpenedEndsTheProcessWithALineAndItsStatus) {
  const std::string path = scratch.file("missing.mov");
  EXPECT_EXIT(
      {
        platform::makeStandardOutputUnbuffered();
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        KDXDispatchVerify::initWithFileURL(FileURL(path), md5)->calculateDigest(nullptr);
      },
      testing::ExitedWithCode(108), testing::EndsWith("ERROR: could not open file at path: " + path + "\n"));
}

}  // namespace
