#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Text.h"
#include "tests/support/RowName.h"

using platform::isDecimalDigit;
using platform::isUTF8;
using platform::UTF16FromUTF8;
using platform::UTF8FromUTF16;

namespace {

struct BytesRow : NamedRow {
  std::string bytes;
};

class WellFormed : public testing::TestWithParam<BytesRow> {};

TEST_P(WellFormed, IsUTF8) {
  EXPECT_TRUE(isUTF8(GetParam().bytes));
}

TEST_P(WellFormed, ComesBackFromUTF16AsItWas) {
  const std::optional<std::u16string> units = UTF16FromUTF8(GetParam().bytes);
  ASSERT_TRUE(units.has_value());
  EXPECT_EQ(GetParam().bytes, UTF8FromUTF16(*units));
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
    rowName);

class IllFormed : public testing::TestWithParam<BytesRow> {};

TEST_P(IllFormed, IsNotUTF8) {
  EXPECT_FALSE(isUTF8(GetParam().bytes));
  EXPECT_FALSE(isUTF8("clip" + GetParam().bytes));
  EXPECT_FALSE(isUTF8(GetParam().bytes + "clip"));
}

TEST_P(IllFormed, HasNoUTF16) {
  EXPECT_EQ(std::nullopt, UTF16FromUTF8(GetParam().bytes));
  EXPECT_EQ(std::nullopt, UTF16FromUTF8("clip" + GetParam().bytes));
  EXPECT_EQ(std::nullopt, UTF16FromUTF8(GetParam().bytes + "clip"));
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
    rowName);

TEST(Text, EveryCharacterIsTheCodeUnitsThatACompilerMakesOfIt) {
  EXPECT_EQ(u"", UTF16FromUTF8(""));
  EXPECT_EQ(u"clip_\u00fc\u30af", UTF16FromUTF8("clip_\u00fc\u30af"));
  EXPECT_EQ(u"\ud7ff\ue000\uffff", UTF16FromUTF8("\ud7ff\ue000\uffff"));
  EXPECT_EQ((std::u16string{0xd83c, 0xdfac}), UTF16FromUTF8("\U0001f3ac"));
  EXPECT_EQ((std::u16string{0xd800, 0xdc00}), UTF16FromUTF8("\U00010000"));
  EXPECT_EQ((std::u16string{0xdbff, 0xdfff}), UTF16FromUTF8("\U0010ffff"));
  EXPECT_EQ((std::u16string{u'a', 0, u'b'}), UTF16FromUTF8(std::string("a\0b", 3)));
}

TEST(Text, EveryCharacterComesBackFromUTF16) {
  int characters = 0;
  for (char32_t character = 0; character <= 0x10ffff; character += character < 0x11000 ? 1 : 97) {
    std::u16string units;
    if (character >= 0xd800 && character <= 0xdfff) continue;
    if (character < 0x10000) {
      units = {static_cast<char16_t>(character)};
    } else {
      units = {static_cast<char16_t>(0xd7c0 + (character >> 10)), static_cast<char16_t>(0xdc00 + (character & 0x3ff))};
    }
    const std::optional<std::string> bytes = UTF8FromUTF16(units);
    ASSERT_TRUE(bytes.has_value()) << std::hex << static_cast<uint32_t>(character);
    ASSERT_EQ(units, UTF16FromUTF8(*bytes)) << std::hex << static_cast<uint32_t>(character);
    ++characters;
  }
  EXPECT_GT(characters, 0x10000);
}

TEST(Text, HalfAPairOfCodeUnitsHasNoUTF8) {
  for (const std::u16string& units : {std::u16string{0xd83c}, std::u16string{0xdfac}, std::u16string{0xdfac, 0xd83c},
                                      std::u16string{0xd83c, 0xd83c, 0xdfac}, std::u16string{0xd83c, 0xdfac, 0xdfac},
                                      std::u16string{0xd800, u'a'}, std::u16string{0xdbff, 0xe000}}) {
    EXPECT_EQ(std::nullopt, UTF8FromUTF16(units));
    EXPECT_EQ(std::nullopt, UTF8FromUTF16(u"clip" + units));
    EXPECT_EQ(std::nullopt, UTF8FromUTF16(units + u"clip"));
  }
}

// The zeros of all scripts in the Basic Multilingual Plane; the other nine digits follow each of them.
constexpr char16_t zeros[] = {0x0030, 0x0660, 0x06f0, 0x07c0, 0x0966, 0x09e6, 0x0a66, 0x0ae6, 0x0b66, 0x0be6,
                              0x0c66, 0x0ce6, 0x0d66, 0x0de6, 0x0e50, 0x0ed0, 0x0f20, 0x1040, 0x1090, 0x17e0,
                              0x1810, 0x1946, 0x19d0, 0x1a80, 0x1a90, 0x1b50, 0x1bb0, 0x1c40, 0x1c50, 0xa620,
                              0xa8d0, 0xa900, 0xa9d0, 0xa9f0, 0xaa50, 0xabf0, 0xff10};

TEST(Text, TheTenDigitsOfEveryScriptAndNoneOfTheirNeighboursAreDecimalDigits) {
  for (const char16_t zero : zeros) {
    SCOPED_TRACE(static_cast<uint32_t>(zero));
    EXPECT_FALSE(isDecimalDigit(static_cast<char16_t>(zero - 1)));
    for (int digit = 0; digit < 10; ++digit) EXPECT_TRUE(isDecimalDigit(static_cast<char16_t>(zero + digit)));
    EXPECT_FALSE(isDecimalDigit(static_cast<char16_t>(zero + 10)));
  }
}

TEST(Text, OtherNumbersSignsAndHalvesOfDigitsAreNoDecimalDigits) {
  // Superscript, fraction, Roman numeral, circled, ideograph; the two code units of a digit beyond the plane.
  for (const char16_t unit : {u'\0', u'a', u'-', u'#', u'%', u'\u00b2', u'\u00bd', u'\u2167', u'\u2460', u'\u4e09',
                              char16_t{0xd835}, char16_t{0xdfce}, char16_t{0xffff}})
    EXPECT_FALSE(isDecimalDigit(unit)) << static_cast<uint32_t>(unit);
}

}  // namespace
