#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

#include "KDXFileTools/kdxdispatchcopy/CopyLines.h"
#include "KDXFileTools/kdxdispatchcopy/ProgressClock.h"
#include "tests/support/Captured.h"

using namespace std::chrono_literals;

namespace {

// Any time will do: the clock is asked about given times only.
constexpr ProgressClock::Clock::time_point start{1000s};

TEST(ProgressClock, NothingIsDueAtTheStart) {
  EXPECT_FALSE(ProgressClock(0.5, start).isDue(start));
}

TEST(ProgressClock, NothingIsDueWithinTheFirstInterval) {
  EXPECT_FALSE(ProgressClock(0.5, start).isDue(start + 499ms));
}

TEST(ProgressClock, NothingIsDueExactlyOneIntervalAfterTheStart) {
  EXPECT_FALSE(ProgressClock(0.5, start).isDue(start + 500ms));
}

TEST(ProgressClock, AReportIsDueWhenMoreThanTheIntervalHasPassed) {
  EXPECT_TRUE(ProgressClock(0.5, start).isDue(start + 500ms + 1ns));
}

TEST(ProgressClock, TheNextReportIsDueMoreThanAnIntervalAfterTheLast) {
  ProgressClock clock(0.5, start);
  ASSERT_TRUE(clock.isDue(start + 800ms));
  EXPECT_FALSE(clock.isDue(start + 800ms));
  EXPECT_FALSE(clock.isDue(start + 1300ms));
  EXPECT_TRUE(clock.isDue(start + 1300ms + 1ns));
}

TEST(ProgressClock, AReportThatCameTooEarlyDoesNotPutOffTheNext) {
  ProgressClock clock(0.5, start);
  ASSERT_FALSE(clock.isDue(start + 400ms));
  EXPECT_TRUE(clock.isDue(start + 501ms));
}

TEST(ProgressClock, AfterALongPauseOneReportIsDueAndNotAllThatWereMissed) {
  ProgressClock clock(0.5, start);
  EXPECT_TRUE(clock.isDue(start + 1h));
  EXPECT_FALSE(clock.isDue(start + 1h + 1ms));
}

TEST(ProgressClock, WithoutAnIntervalEveryLaterTimeIsDue) {
  ProgressClock clock(0, start);
  EXPECT_FALSE(clock.isDue(start));
  EXPECT_TRUE(clock.isDue(start + 1ns));
  EXPECT_FALSE(clock.isDue(start + 1ns));
  EXPECT_TRUE(clock.isDue(start + 2ns));
}

TEST(ProgressClock, ANegativeIntervalIsAlwaysDue) {
  ProgressClock clock(-1, start);
  EXPECT_TRUE(clock.isDue(start));
  EXPECT_TRUE(clock.isDue(start));
}

TEST(ProgressClock, WithAnEndlessIntervalNothingIsEverDue) {
  EXPECT_FALSE(ProgressClock(1e300, start).isDue(start + 100'000h));
}

TEST(ProgressClock, TheIntervalOfTheProgressLinesIsHalfASecond) {
  EXPECT_EQ(0.5, progressInterval);
}

std::string speedLine(const char* what, uint64_t bytes, std::chrono::seconds ago) {
  const Captured output(STDOUT_FILENO);
  queueSpeedLine(what, bytes, ProgressClock::Clock::now() - ago);
  return output.text();
}

// The starts lie so far back that the time of the test itself does not show in what is compared.

TEST(SpeedLine, TellsTheBytesTheSecondsAndTheDecimalMegabytesPerSecond) {
  EXPECT_THAT(speedLine("copy", 5'000'000'000'000, 1'000'000s),
              testing::MatchesRegex(
                  "INFO: copy speed 5000000000000 bytes in 10000[0-9]{2}\\.[0-9]{5} sec \\(5\\.0 MB/sec\\)\n"));
}

TEST(SpeedLine, OfNoBytesHasTheSpeedZero) {
  EXPECT_THAT(
      speedLine("verification", 0, 1'000'000s),
      testing::MatchesRegex("INFO: verification speed 0 bytes in 10000[0-9]{2}\\.[0-9]{5} sec \\(0\\.0 MB/sec\\)\n"));
}

TEST(SpeedLine, OfTheLargestFilesIsNotCutOff) {
  EXPECT_THAT(speedLine("copy", 18'446'744'073'709'551'615u, 1'000'000s),
              testing::StartsWith("INFO: copy speed 18446744073709551615 bytes in 10000"));
}

}  // namespace
