#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/SameTime.h"

using kdxoffload::isSameTime;

TEST(SameTime, TimesThatAreKeptAsTheyAreHaveToBeEqual) {
  EXPECT_TRUE(isSameTime(5, 5, 1));
  EXPECT_FALSE(isSameTime(5, 6, 1));
  EXPECT_FALSE(isSameTime(5, 6, 0));
  EXPECT_FALSE(isSameTime(5, 6, -10));
}

TEST(SameTime, TimesThatAreKeptCoarselyMayBeLessThanAGrainApart) {
  EXPECT_TRUE(isSameTime(1'999'999'999, 0, 2'000'000'000));
  EXPECT_FALSE(isSameTime(2'000'000'000, 0, 2'000'000'000));
  EXPECT_TRUE(isSameTime(-500'000'000, 400'000'000, 1'000'000'000));
}

TEST(SameTime, TimesAtTheEndsOfTheRangeAreFarApart) {
  EXPECT_FALSE(isSameTime(INT64_MIN, INT64_MAX, 2'000'000'000));
  EXPECT_FALSE(isSameTime(INT64_MAX, INT64_MIN, 2'000'000'000));
}
