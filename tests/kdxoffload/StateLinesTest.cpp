#include <gtest/gtest.h>

#include <cmath>

#include "KDXFileTools/kdxoffload/StateLines.h"

using namespace kdxoffload;

namespace {

TEST(ShownDuration, IsAsCoarseAsIsGoodToRead) {
  EXPECT_EQ("0 s", shownDuration(0.9));
  EXPECT_EQ("59 s", shownDuration(59.9));
  EXPECT_EQ("1 min", shownDuration(60));
  EXPECT_EQ("59 min", shownDuration(3599));
  EXPECT_EQ("1 h 00 min", shownDuration(3600));
  EXPECT_EQ("26 h 05 min", shownDuration(26 * 3600 + 5 * 60 + 59));
}

TEST(ShownDuration, OfWhatIsNoTimeIsNone) {
  EXPECT_EQ("0 s", shownDuration(-5));
  EXPECT_EQ("0 s", shownDuration(NAN));
  EXPECT_EQ("0 s", shownDuration(INFINITY));
}

TEST(ShownShare, IsAHundredOnlyWhenItIsAll) {
  EXPECT_EQ("0 %", shownShare(0));
  EXPECT_EQ("99 %", shownShare(0.999999));
  EXPECT_EQ("100 %", shownShare(1));
  EXPECT_EQ("100 %", shownShare(1.5));
  EXPECT_EQ("0 %", shownShare(NAN));
}

TEST(StateLine, SaysAllThatIsKnown) {
  const Progress progress{.bytesDone = 300,
                          .bytes = 900,
                          .filesDone = 2,
                          .files = 12,
                          .failures = 1,
                          .share = 0.335,
                          .bytesPerSecond = 150,
                          .secondsLeft = 130};
  EXPECT_EQ("2 of 12 files, 300 bytes of 900 bytes, 33 %, 150 bytes/s, 2 min left, 1 failure", stateLine(progress));
}

TEST(StateLine, LeavesOutWhatIsNotKnown) {
  EXPECT_EQ("0 of 12 files, 0 bytes of 900 bytes, 0 %, no failures", stateLine(Progress{.bytes = 900, .files = 12}));
}

TEST(StateReport, NamesEachRunningJobAndItsPhase) {
  RunningJobs running;
  running.take(JobStarted{.job = 1, .path = "a.mov"});
  running.take(JobStarted{.job = 2, .path = "b\n.mov"});
  running.take(JobPhaseChanged{.job = 2, .phase = JobPhase::readingBack});
  EXPECT_EQ(
      "0 of 2 files, 0 bytes of 9 bytes, 0 %, no failures\n"
      "  copying: a.mov\n"
      "  reading back: b\\x0a.mov\n",
      stateReport(Progress{.bytes = 9, .files = 2}, running));
}

}  // namespace
