#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/DateTime.h"

namespace DateTime = kdxoffload::DateTime;

namespace {

constexpr int64_t second = 1'000'000'000;
constexpr int64_t moment = 1'700'000'000 * second;  // 14 November 2023, 22:13:20, as `date` tells

}  // namespace

TEST(DateTime, AMomentIsWrittenWithItsZone) {
  EXPECT_EQ("2023-11-14T22:13:20+00:00", DateTime::text(moment));
  EXPECT_EQ("1970-01-01T00:00:00+00:00", DateTime::text(0));
  EXPECT_EQ("1969-12-31T23:59:59+00:00", DateTime::text(-second));
}

TEST(DateTime, APartOfASecondIsWrittenWithSixDigits) {
  EXPECT_EQ("2023-11-14T22:13:20.123456+00:00", DateTime::text(moment + 123'456'789));
  EXPECT_EQ("2023-11-14T22:13:20+00:00", DateTime::text(moment + 999));
}

TEST(DateTime, InFileNamesThereIsNoColon) {
  EXPECT_EQ("2023-11-14_221320Z", DateTime::inFileNames(moment + 5));
}

TEST(DateTime, EveryZoneIsRead) {
  EXPECT_EQ(moment, DateTime::fromText("2023-11-14T22:13:20Z"));
  EXPECT_EQ(moment, DateTime::fromText("2023-11-14T22:13:20+00:00"));
  EXPECT_EQ(moment, DateTime::fromText("2023-11-15T03:43:20+05:30"));
  EXPECT_EQ(moment, DateTime::fromText("2023-11-14T14:13:20-08:00"));
}

TEST(DateTime, AnyNumberOfDigitsOfAPartOfASecondIsRead) {
  EXPECT_EQ(moment + second / 2, DateTime::fromText("2023-11-14T22:13:20.5Z"));
  EXPECT_EQ(moment + 123'456'789, DateTime::fromText("2023-11-14T22:13:20.12345678999Z"));
}

TEST(DateTime, WhatWasWrittenIsReadAgain) {
  for (const int64_t time : {int64_t{0}, moment, moment + 1000, -moment, moment * 5}) {
    EXPECT_EQ(time, DateTime::fromText(DateTime::text(time))) << time;
  }
}

TEST(DateTime, AnythingElseIsNone) {
  for (const char* text :
       {"", "2023", "2023-11-14", "2023-11-14T22:13:20", "2023-11-14 22:13:20Z", "2023-13-14T22:13:20Z",
        "2023-02-29T22:13:20Z", "2023-11-14T25:13:20Z", "2023-11-14T22:60:20Z", "2023-11-14T22:13:61Z",
        "2023-11-14T22:13:20.Z", "2023-11-14T22:13:20Zx", "2023-11-14T22:13:20+5:30", "-023-11-14T22:13:20Z",
        "9999-11-14T22:13:20Z", "0001-01-01T00:00:00Z", "2023-11-14T22:13:20.999999999999999999999999", "now"}) {
    EXPECT_FALSE(DateTime::fromText(text)) << text;
  }
}
