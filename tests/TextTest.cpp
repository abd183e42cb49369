#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "platform/Text.h"

using platform::isUTF8;

namespace {

struct BytesRow {
  const char* name;
  std::string bytes;

  friend void PrintTo(const BytesRow& row, std::ostream* out) { *out << row.name; }
};

std::string nameOf(const testing::TestParamInfo<BytesRow>& row) {
  return row.param.name;
}

class WellFormed : public testing::TestWithParam<BytesRow> {};

TEST_P(WellFormed, IsUTF8) {
  EXPECT_TRUE(isUTF8(GetParam().bytes));
}

INSTANTIATE_TEST_SUITE_P(
    Text, WellFormed,
    testing::Values(BytesRow{"Nothing", ""}, BytesRow{"ASCII", "clip_0001.mov"},
                    BytesRow{"ZeroByte", std::string("a\0b", 3)}, BytesRow{"FirstOfTwoBytes", "\xc2\x80"},
                    BytesRow{"LastOfTwoBytes", "\xdf\xbf"}, BytesRow{"FirstOfThreeBytes", "\xe0\xa0\x80"},
                    BytesRow{"LastBeforeTheSurrogates", "\xed\x9f\xbf"},
                    BytesRow{"FirstBehindTheSurrogates", "\xee\x80\x80"}, BytesRow{"LastOfThreeBytes", "\xef\xbf\xbf"},
                    BytesRow{"FirstOfFourBytes", "\xf0\x90\x80\x80"}, BytesRow{"LastOfAll", "\xf4\x8f\xbf\xbf"},
                    BytesRow{"CombiningCharacters", "a\xcc\x88o\xcc\x88"}),
    nameOf);

class IllFormed : public testing::TestWithParam<BytesRow> {};

TEST_P(IllFormed, IsNotUTF8) {
  EXPECT_FALSE(isUTF8(GetParam().bytes));
  EXPECT_FALSE(isUTF8("clip" + GetParam().bytes));
  EXPECT_FALSE(isUTF8(GetParam().bytes + "clip"));
}

INSTANTIATE_TEST_SUITE_P(
    Text, IllFormed,
    testing::Values(BytesRow{"LoneContinuation", "\x80"}, BytesRow{"TwoBytesCutOff", "\xc3"},
                    BytesRow{"ThreeBytesCutOff", "\xe2\x82"}, BytesRow{"FourBytesCutOff", "\xf0\x9f\x8e"},
                    BytesRow{"OverlongTwoBytes", "\xc0\x80"}, BytesRow{"OverlongSlash", "\xc0\xaf"},
                    BytesRow{"OverlongThreeBytes", "\xe0\x9f\xbf"}, BytesRow{"OverlongFourBytes", "\xf0\x8f\xbf\xbf"},
                    BytesRow{"FirstSurrogate", "\xed\xa0\x80"}, BytesRow{"LastSurrogate", "\xed\xbf\xbf"},
                    BytesRow{"BeyondTheLast", "\xf4\x90\x80\x80"}, BytesRow{"FiveBytes", "\xf8\x88\x80\x80\x80"},
                    BytesRow{"NeverAByteOfUTF8", "\xff"}, BytesRow{"Latin1", "\xe4tzend"}),
    nameOf);

}  // namespace
