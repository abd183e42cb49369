#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/TimeGrain.h"

using kdxoffload::isSameTime;

TEST(TimeGrain, TimesThatAreKeptAsTheyAreHaveToBeEqual) {
  EXPECT_TRUE(isSameTime(5, 5, "ext4"));
  EXPECT_FALSE(isSameTime(5, 6, "ext4"));
  EXPECT_FALSE(isSameTime(5, 6, ""));
}

TEST(TimeGrain, TimesThatAreKeptCoarselyMayBeLessThanAGrainApart) {
  EXPECT_TRUE(isSameTime(1'999'999'999, 0, "vfat"));
  EXPECT_FALSE(isSameTime(2'000'000'000, 0, "vfat"));
  EXPECT_TRUE(isSameTime(0, 9'999'999, "exfat"));
  EXPECT_FALSE(isSameTime(0, 10'000'000, "exfat"));
  EXPECT_TRUE(isSameTime(-500'000'000, 400'000'000, "fuse.sshfs"));
  EXPECT_FALSE(isSameTime(0, 1'000'000'000, "fuse.sshfs"));
}

TEST(TimeGrain, TimesAtTheEndsOfTheRangeAreFarApart) {
  EXPECT_FALSE(isSameTime(INT64_MIN, INT64_MAX, "vfat"));
  EXPECT_FALSE(isSameTime(INT64_MAX, INT64_MIN, "vfat"));
}
