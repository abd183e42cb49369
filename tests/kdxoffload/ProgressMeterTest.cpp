#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/ProgressMeter.h"

using namespace kdxoffload;

TEST(ProgressMeter, HalfOfTheBytesCopiedIsAQuarterOfTheWork) {
  ProgressMeter meter;
  meter.expect(100, 100);
  meter.startJob(1, 100, true, true);
  meter.move(1, JobPhase::copying, 50);
  EXPECT_DOUBLE_EQ(0.25, meter.share());
  meter.move(1, JobPhase::readingBack, 50);
  EXPECT_DOUBLE_EQ(0.75, meter.share());
}

TEST(ProgressMeter, TheEndIsReachedOnlyWhenAllIsProved) {
  ProgressMeter meter;
  meter.expect(100, 100);
  meter.startJob(1, 100, true, true);
  meter.endJob(1, true);
  EXPECT_LT(meter.share(), 1);
  EXPECT_GT(meter.share(), 0.99);
  meter.finish();
  EXPECT_EQ(1, meter.share());
}

TEST(ProgressMeter, AFailedJobNeverMovesTheBarBackwards) {
  ProgressMeter meter;
  meter.expect(100, 100);
  meter.startJob(1, 100, true, true);
  meter.move(1, JobPhase::readingBack, 0);
  const double reached = meter.share();
  meter.endJob(1, false);
  EXPECT_EQ(reached, meter.share());
  meter.startJob(2, 100, true, true);
  meter.move(2, JobPhase::copying, 100);
  EXPECT_EQ(reached, meter.share());
  meter.move(2, JobPhase::readingBack, 50);
  EXPECT_DOUBLE_EQ(0.75, meter.share());
}

TEST(ProgressMeter, AComparisonIsReadingAlone) {
  ProgressMeter meter;
  meter.expect(0, 100);
  meter.startJob(1, 100, false, true);
  EXPECT_EQ(0, meter.share());
  meter.move(1, JobPhase::readingBack, 50);
  EXPECT_DOUBLE_EQ(0.5, meter.share());
}

TEST(ProgressMeter, TheTimeLeftFollowsTheRatesOfBothPhases) {
  ProgressMeter meter;
  meter.expect(1000, 1000);
  EXPECT_EQ(std::nullopt, meter.secondsLeft());
  meter.tick(0);
  meter.startJob(1, 500, true, true);
  meter.move(1, JobPhase::copying, 500);
  meter.tick(10);  // 50 bytes a second
  meter.move(1, JobPhase::readingBack, 500);
  meter.tick(15);  // 100 bytes a second
  meter.endJob(1, true);
  ASSERT_TRUE(meter.secondsLeft());
  EXPECT_NEAR(500 / 50 + 500 / 100, *meter.secondsLeft(), 0.01);
}

TEST(ProgressMeter, APauseIsNotMeasured) {
  ProgressMeter meter;
  meter.expect(1000, 0);
  meter.tick(0);
  meter.startJob(1, 500, true, false);
  meter.move(1, JobPhase::copying, 500);
  meter.tick(10);
  meter.endJob(1, true);
  meter.tick(1000);
  EXPECT_NEAR(50, meter.bytesPerSecond(), 0.01);
}
