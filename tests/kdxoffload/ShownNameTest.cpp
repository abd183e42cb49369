#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "KDXFileTools/kdxoffload/ShownName.h"
#include "platform/Text.h"
#include "tests/support/RowName.h"

using kdxoffload::columnsOf;
using kdxoffload::cutInTheMiddle;
using kdxoffload::shownName;
using kdxoffload::shownText;
using namespace std::string_literals;

namespace {

struct Shown : NamedRow {
  std::string given;
  std::string shown;
};

class NameAsShown : public testing::TestWithParam<Shown> {};

TEST_P(NameAsShown, IsThis) {
  EXPECT_EQ(GetParam().shown, shownName(GetParam().given));
}

INSTANTIATE_TEST_SUITE_P(OfWhatIsPrinted, NameAsShown,
                         testing::Values(Shown{"PlainName", "A001_C003_0412-x (1).mov", "A001_C003_0412-x (1).mov"},
                                         Shown{"Quotes", R"(it's "this" & `that` $HOME)",
                                               R"(it's "this" & `that` $HOME)"},
                                         Shown{"PercentSigns", "100%d %s %n.mov", "100%d %s %n.mov"},
                                         Shown{"Letters", "Größe 東京 кадр \U0001F3AC", "Größe 東京 кадр \U0001F3AC"},
                                         Shown{"LettersInTwoParts", "Gro\u0308ße", "Gro\u0308ße"},
                                         Shown{"IdeographicSpace", "東\u3000京", "東\u3000京"}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    OfWhatIsNot, NameAsShown,
    testing::Values(Shown{"Newline", "a\nSAFE TO ERASE", R"(a\x0aSAFE TO ERASE)"},
                    Shown{"ReturnAndTabulator", "a\rb\tc", R"(a\x0db\x09c)"},
                    Shown{"TerminalEscape", "\x1b[2J\x1b]0;t\x07", R"(\x1b[2J\x1b]0;t\x07)"},
                    Shown{"NulAndDelete", "a\0b\x7f"s, R"(a\x00b\x7f)"},
                    Shown{"ControlsAboveAscii", "a\u009b2J\u0085", R"(a\xc2\x9b2J\xc2\x85)"},
                    Shown{"ControlsThatAreNotUTF8",
                          "a\x9b"
                          "2J",
                          R"(a\x9b2J)"},
                    Shown{"DirectionOverrides", "a\u202egnp\u202c\u2066x\u2069\u200f",
                          R"(a\xe2\x80\xaegnp\xe2\x80\xac\xe2\x81\xa6x\xe2\x81\xa9\xe2\x80\x8f)"},
                    Shown{"InvisibleCharacters", "a\u200b\u200d\ufeff\u00ad\u3164\ufe0f.mov",
                          R"(a\xe2\x80\x8b\xe2\x80\x8d\xef\xbb\xbf\xc2\xad\xe3\x85\xa4\xef\xb8\x8f.mov)"},
                    Shown{"SpacesThatLookLikeTheCommonOne", "a\u00a0\u202f\u2003z",
                          R"(a\xc2\xa0\xe2\x80\xaf\xe2\x80\x83z)"},
                    Shown{"SeparatorsOfLines", "a\u2028b\u2029", R"(a\xe2\x80\xa8b\xe2\x80\xa9)"},
                    Shown{"PrivateAndUnassigned", "\ue000\u0378", R"(\xee\x80\x80\xcd\xb8)"},
                    Shown{"BrokenUTF8", "caf\xe9.mov\xf0\x9f", R"(caf\xe9.mov\xf0\x9f)"},
                    Shown{"OverlongAndSurrogate", "\xc0\xaf\xed\xa0\x80", R"(\xc0\xaf\xed\xa0\x80)"},
                    Shown{"Backslash", R"(a\x1b\)", R"(a\\x1b\\)"},
                    Shown{"MarkWithoutALetter", "\u0301a", R"(\xcc\x81a)"},
                    Shown{"MarkBehindWhatIsNotPrinted", "\n\u0301", R"(\x0a\xcc\x81)"},
                    Shown{"PileOfMarks", "e\u0301\u0301\u0301\u0301\u0301", "e\u0301\u0301\u0301\u0301\\xcc\\x81"}),
    rowName);

TEST(ShownName, AnEmptyNameIsShownAsNothing) {
  EXPECT_EQ("", shownName(""));
}

TEST(ShownName, ASentenceKeepsItsBackslashesAndLosesItsControls) {
  EXPECT_EQ(R"(C:\x is "a\x0ab")", shownText("C:\\x is \"a\nb\""));
}

TEST(ShownName, RandomBytesBecomeOneLineOfUTF8WithoutControls) {
  std::mt19937 random(16);
  for (int round = 0; round < 2000; ++round) {
    std::string bytes(1 + random() % 40, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    const std::string shown = shownName(bytes);
    EXPECT_TRUE(platform::isUTF8(shown));
    for (const char c : shown) EXPECT_FALSE((c >= 0 && c < ' ') || c == '\x7f') << shown;
    EXPECT_EQ(std::string::npos, shown.find("\xc2\x9b")) << shown;
  }
}

// --- Columns ---

TEST(ColumnsOf, WideSignsTakeTwoAndMarksNone) {
  EXPECT_EQ(0U, columnsOf(""));
  EXPECT_EQ(8U, columnsOf("clip.mov"));
  EXPECT_EQ(4U, columnsOf("東京"));
  EXPECT_EQ(2U, columnsOf("\U0001F3AC"));
  EXPECT_EQ(5U, columnsOf("Gro\u0308ße"));
  EXPECT_EQ(4U, columnsOf(R"(\x1b)"));
}

TEST(CutInTheMiddle, WhatFitsStaysWhole) {
  EXPECT_EQ("clip.mov", cutInTheMiddle("clip.mov", 8));
  EXPECT_EQ("東京", cutInTheMiddle("東京", 4));
  EXPECT_EQ("", cutInTheMiddle("", 0));
}

TEST(CutInTheMiddle, BothEndsStay) {
  EXPECT_EQ("A001_…C003.mov", cutInTheMiddle("A001_and_so_on_C003.mov", 14));
  EXPECT_EQ("cl….mov", cutInTheMiddle("clip_1.mov", 7));
  EXPECT_EQ("…", cutInTheMiddle("clip.mov", 1));
  EXPECT_EQ("", cutInTheMiddle("clip.mov", 0));
}

TEST(CutInTheMiddle, NothingIsCutApart) {
  EXPECT_EQ("…京", cutInTheMiddle("東西南北京", 5));
  EXPECT_EQ("東…京", cutInTheMiddle("東西南北京", 6));
  EXPECT_EQ("a…z", cutInTheMiddle(R"(a\x1b\x1b\x1bz)", 5));
  EXPECT_EQ("e\u0301…_z", cutInTheMiddle("e\u0301_____z", 4));
  EXPECT_EQ(R"(…\\)", cutInTheMiddle(R"(\\\\\\)", 4));
}

TEST(CutInTheMiddle, TheResultNeverTakesMoreColumnsThanThereAre) {
  const std::string name = shownName("日本語\n\x1b[31m/Gro\u0308ße_\U0001F3AC\\clip\xff.mov");
  for (std::size_t columns = 0; columns < 60; ++columns) {
    EXPECT_LE(columnsOf(cutInTheMiddle(name, columns)), columns) << columns;
  }
}

}  // namespace
