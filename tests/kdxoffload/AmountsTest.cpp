#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/Amounts.h"

using kdxoffload::shownBytes;
using kdxoffload::shownCount;

TEST(Amounts, BytesHaveThreeDigitsAndADecimalUnit) {
  EXPECT_EQ("0 bytes", shownBytes(0));
  EXPECT_EQ("1 byte", shownBytes(1));
  EXPECT_EQ("999 bytes", shownBytes(999));
  EXPECT_EQ("1.00 kB", shownBytes(1000));
  EXPECT_EQ("16.4 kB", shownBytes(16'384));
  EXPECT_EQ("268 MB", shownBytes(268'435'456));
  EXPECT_EQ("1.02 TB", shownBytes(1'020'000'000'000));
  EXPECT_EQ("18.4 EB", shownBytes(UINT64_MAX));
}

TEST(Amounts, BytesAreRoundedToTheNearestAndIntoTheNextUnit) {
  EXPECT_EQ("9.99 kB", shownBytes(9'994));
  EXPECT_EQ("10.0 kB", shownBytes(9'995));
  EXPECT_EQ("99.9 kB", shownBytes(99'949));
  EXPECT_EQ("100 kB", shownBytes(99'950));
  EXPECT_EQ("999 kB", shownBytes(999'499));
  EXPECT_EQ("1.00 MB", shownBytes(999'500));
}

TEST(Amounts, CountsHaveCommasBetweenThousands) {
  EXPECT_EQ("0", shownCount(0));
  EXPECT_EQ("999", shownCount(999));
  EXPECT_EQ("1,000", shownCount(1000));
  EXPECT_EQ("12,940", shownCount(12'940));
  EXPECT_EQ("18,446,744,073,709,551,615", shownCount(UINT64_MAX));
}

TEST(Amounts, OneOfSomethingIsSingular) {
  EXPECT_EQ("0 files", shownCount(0, "file"));
  EXPECT_EQ("1 file", shownCount(1, "file"));
  EXPECT_EQ("12,940 files", shownCount(12'940, "file"));
}
