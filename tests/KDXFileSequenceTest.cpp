#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"
#include "tests/support/Captured.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

using testing::ElementsAre;
using testing::Eq;
using testing::Optional;

namespace {

using Sequence = std::shared_ptr<const KDXFileSequence>;
using Path = std::optional<std::string>;

constexpr const char* noHashes = "ERROR: Wrong arguments - missing hashes in identifier.\n";
constexpr const char* notInRange = "ERROR: framenumber not in range of sequence.\n";
constexpr uint64_t largest = std::numeric_limits<uint64_t>::max();

Sequence sequenceOf(std::string_view identifier) {
  Sequence sequence = KDXFileSequence::initWithIdentifier(identifier);
  EXPECT_NE(nullptr, sequence) << identifier;
  return sequence;
}

// Parsing

struct Parsed {
  const char* name;
  const char* identifier;
  int64_t start;
  int64_t end;
  int32_t digits;
  const char* prefix;
  const char* postfix;
  uint64_t duration;
  const char* first = nullptr;  // null: no path
  const char* last = nullptr;
};

void PrintTo(const Parsed& row, std::ostream* out) {
  *out << row.identifier;
}

class KDXFileSequenceIdentifier : public testing::TestWithParam<Parsed> {};

TEST_P(KDXFileSequenceIdentifier, GivesItsRangeItsPartsAndItsNames) {
  const Parsed& row = GetParam();
  const Sequence sequence = sequenceOf(row.identifier);
  ASSERT_NE(nullptr, sequence);
  EXPECT_EQ(row.identifier, sequence->identifier());
  EXPECT_EQ(row.start, sequence->startFrame());
  EXPECT_EQ(row.end, sequence->endFrameInclusive());
  EXPECT_EQ(row.digits, sequence->numberOfDigits());
  EXPECT_EQ(row.prefix, sequence->prefix());
  EXPECT_EQ(row.postfix, sequence->postfix());
  EXPECT_EQ(row.duration, sequence->duration());
  const auto pathOf = [](const char* path) { return path == nullptr ? Path() : Path(path); };
  EXPECT_EQ(pathOf(row.first), sequence->filenameForIndex(0));
  EXPECT_EQ(pathOf(row.first), sequence->filenameForFrameNumber(static_cast<uint64_t>(row.start)));
  EXPECT_EQ(pathOf(row.last), sequence->filenameForIndex(row.duration - 1));
  EXPECT_EQ(std::nullopt, sequence->filenameForIndex(row.duration));
}

INSTANTIATE_TEST_SUITE_P(
    WellFormed, KDXFileSequenceIdentifier,
    testing::Values(
        Parsed{"ASeparatorBeforeTheHashes", "/data/shot/plate.1001-1100.####.dpx", 1001, 1100, 4, "/data/shot/plate.",
               ".dpx", 100, "/data/shot/plate.1001.dpx", "/data/shot/plate.1100.dpx"},
        Parsed{"NoSeparator", "/data/shot/plate.1001-1100####.dpx", 1001, 1100, 4, "/data/shot/plate.", ".dpx", 100,
               "/data/shot/plate.1001.dpx", "/data/shot/plate.1100.dpx"},
        Parsed{"NoSeparatorBehindOneDigit", "/x/p.3-5##.t", 3, 5, 2, "/x/p.", ".t", 3, "/x/p.03.t", "/x/p.05.t"},
        Parsed{"FramesWiderThanTheHashes", "/x/clip.0001-0010.#.dpx", 1, 10, 1, "/x/clip.", ".dpx", 10, "/x/clip.1.dpx",
               "/x/clip.10.dpx"},
        Parsed{"OneFrame", "/x/p.7-7_###.tif", 7, 7, 3, "/x/p.", ".tif", 1, "/x/p.007.tif", "/x/p.007.tif"},
        Parsed{"HashesWiderThanTheFrames", "/Volumes/CARD/A001/A001C003_0001-0240_#######.ari", 1, 240, 7,
               "/Volumes/CARD/A001/A001C003_", ".ari", 240, "/Volumes/CARD/A001/A001C003_0000001.ari",
               "/Volumes/CARD/A001/A001C003_0000240.ari"},
        Parsed{"SeveralDashes", "/x/p.3---5_##.t", 3, 5, 2, "/x/p.", ".t", 3, "/x/p.03.t", "/x/p.05.t"},
        Parsed{"ADashForASeparator", "/x/p.3--5-##.t", 3, 5, 2, "/x/p.", ".t", 3, "/x/p.03.t", "/x/p.05.t"},
        Parsed{"APrefixThatEndsInADash", "/x/p-3-5_##.t", 3, 5, 2, "/x/p-", ".t", 3, "/x/p-03.t", "/x/p-05.t"},
        Parsed{"HashesInThePrefix", "/x#1/p##.3-5_##.t", 3, 5, 2, "/x#1/p##.", ".t", 3, "/x#1/p##.03.t",
               "/x#1/p##.05.t"},
        Parsed{"ARelativePath", "p.3-5_##", 3, 5, 2, "p.", "", 3, "p.03", "p.05"},
        Parsed{"NumbersOnly", "3-5#", 3, 5, 1, "", "", 3, "3", "5"},
        Parsed{"Spaces", "/x y/p 3-5 ## .t", 3, 5, 2, "/x y/p ", " .t", 3, "/x y/p 03 .t", "/x y/p 05 .t"},
        Parsed{"FrameZero", "/x/p.0-1_##.t", 0, 1, 2, "/x/p.", ".t", 2, "/x/p.00.t", "/x/p.01.t"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    WithoutARange, KDXFileSequenceIdentifier,
    testing::Values(Parsed{"OnlyHashes", "/data/shot/plate.####.dpx", 0, 0, 4, "/data/shot/plate", ".dpx", 1,
                           "/data/shot/plate0000.dpx", "/data/shot/plate0000.dpx"},
                    Parsed{"TheLetterBeforeTheHashesIsDropped", "/x/a##.dpx", 0, 0, 2, "/x/", ".dpx", 1, "/x/00.dpx",
                           "/x/00.dpx"},
                    Parsed{"OneNumber", "/x/p.7_##.t", 7, 7, 2, "/x/p.", ".t", 1, "/x/p.07.t", "/x/p.07.t"},
                    Parsed{"OneDigitAtTheHashes", "/x/p7##.t", 7, 7, 2, "/x/p", ".t", 1, "/x/p07.t", "/x/p07.t"},
                    Parsed{"TheLastRunOfHashesCounts", "/x/p.1-3_##.t#", 0, 0, 1, "/x/p.1-3_##.", "", 1,
                           "/x/p.1-3_##.0", "/x/p.1-3_##.0"}),
    rowName);

// What stands at index 0 is never taken for a hash or for the end of the hashes.
INSTANTIATE_TEST_SUITE_P(
    HashesFromIndexOne, KDXFileSequenceIdentifier,
    testing::Values(Parsed{"OneHash", "#.dpx", 0, 0, 0, "", ".dpx", 1, "0.dpx", "0.dpx"},
                    Parsed{"TwoHashes", "##.dpx", 0, 0, 0, "#", ".dpx", 1, "#0.dpx", "#0.dpx"},
                    Parsed{"ThreeHashes", "###.dpx", 0, 0, 0, "##", ".dpx", 1, "##0.dpx", "##0.dpx"},
                    Parsed{"ASlash", "/#", 0, 0, 0, "/", "", 1, "/0", "/0"},
                    Parsed{"ALetter", "a##.dpx", 0, 0, 0, "a#", ".dpx", 1, "a#0.dpx", "a#0.dpx"},
                    Parsed{"ALetterOfTwoBytes", "\u00fc#.dpx", 0, 0, 0, "\u00fc", ".dpx", 1, "\u00fc0.dpx",
                           "\u00fc0.dpx"},
                    Parsed{"ADigit", "7#.dpx", 7, 7, 0, "", ".dpx", 1, "7.dpx", "7.dpx"},
                    Parsed{"TwoLetters", "ab##.dpx", 0, 0, 2, "a", ".dpx", 1, "a00.dpx", "a00.dpx"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    Signs, KDXFileSequenceIdentifier,
    testing::Values(
        Parsed{"ADashWithoutAStart", "/x/plate-0100_####.dpx", -100, 100, 4, "/x/plate", ".dpx", 201},
        Parsed{"ADashAtIndexZero", "-5#.t", -5, 5, 1, "", ".t", 11},
        Parsed{"TwoDashesWithoutAStart", "/x/p--5_##.t", 0, 5, 2, "/x/p", ".t", 6, "/x/p00.t", "/x/p05.t"},
        Parsed{"OnlyADash", "/x/p-_##.t", 0, 0, 2, "/x/p", ".t", 1, "/x/p00.t", "/x/p00.t"},
        Parsed{"APlusIsNoDash", "/x/p.3-+5_##.t", 5, 5, 2, "/x/p.3-+", ".t", 1, "/x/p.3-+05.t", "/x/p.3-+05.t"},
        Parsed{"ASpaceIsNoDash", "/x/p.3- 5_##.t", 5, 5, 2, "/x/p.3- ", ".t", 1, "/x/p.3- 05.t", "/x/p.3- 05.t"}),
    rowName);

INSTANTIATE_TEST_SUITE_P(EndsBeforeTheStart, KDXFileSequenceIdentifier,
                         testing::Values(Parsed{"Two", "/x/p.5-3_##.tif", 5, 3, 2, "/x/p.", ".tif", largest},
                                         Parsed{"One", "/x/p.5-4_##.tif", 5, 4, 2, "/x/p.", ".tif", 0},
                                         Parsed{"NoEnd", "/x/p.5-_##.t", 5, 0, 2, "/x/p.", ".t", largest - 3},
                                         Parsed{"DashesBehindTheEnd", "/x/p.3-5--##.t", 5, 0, 2, "/x/p.3-", ".t",
                                                largest - 3}),
                         rowName);

INSTANTIATE_TEST_SUITE_P(
    Saturated, KDXFileSequenceIdentifier,
    testing::Values(Parsed{"TheLargestOf32Bits", "/x/p.2147483646-2147483647_#.t", 2'147'483'646, 2'147'483'647, 1,
                           "/x/p.", ".t", 2, "/x/p.2147483646.t", "/x/p.2147483647.t"},
                    Parsed{"OneMore", "/x/p.2147483647-2147483648_#.t", 2'147'483'647, 2'147'483'647, 1, "/x/p.", ".t",
                           1, "/x/p.2147483647.t", "/x/p.2147483647.t"},
                    Parsed{"TwoToThePowerOf32", "/x/p.4294967296-4294967297_#.t", 2'147'483'647, 2'147'483'647, 1,
                           "/x/p.", ".t", 1, "/x/p.2147483647.t", "/x/p.2147483647.t"},
                    Parsed{"BothBeyond64Bits", "/x/p.18446744073709551616-99999999999999999999999999_#.t",
                           2'147'483'647, 2'147'483'647, 1, "/x/p.", ".t", 1, "/x/p.2147483647.t", "/x/p.2147483647.t"},
                    Parsed{"TheSmallestOf32Bits", "/x/p-2147483648_#.t", -2'147'483'648LL, 2'147'483'647, 1, "/x/p",
                           ".t", 4'294'967'296},
                    Parsed{"BelowTheSmallest", "/x/p-99999999999999999999999999_#.t", -2'147'483'648LL, 2'147'483'647,
                           1, "/x/p", ".t", 4'294'967'296},
                    Parsed{"NotByZerosInFront", "/x/p.00000000000000000003-00000000000000000005_#.t", 3, 5, 1, "/x/p.",
                           ".t", 3, "/x/p.3.t", "/x/p.5.t"}),
    rowName);

// Digits of all scripts are stripped, only those of ASCII make a number.
INSTANTIATE_TEST_SUITE_P(
    Scripts, KDXFileSequenceIdentifier,
    testing::Values(
        Parsed{"ArabicIndicDigits", "/x/p.\u0661\u0660-\u0662\u0660_##.t", 0, 0, 2, "/x/p.", ".t", 1, "/x/p.00.t",
               "/x/p.00.t"},
        Parsed{"FullWidthDigits", "/x/p.\uff11-\uff12_##.t", 0, 0, 2, "/x/p.", ".t", 1, "/x/p.00.t", "/x/p.00.t"},
        Parsed{"AnArabicIndicDigitBeforeTheStart", "/x/p\u06635-9_##.t", 0, 9, 2, "/x/p", ".t", 10, "/x/p00.t",
               "/x/p09.t"},
        Parsed{"AnArabicIndicDigitBehindTheStart", "/x/p5\u0663-9_##.t", 5, 9, 2, "/x/p", ".t", 5, "/x/p05.t",
               "/x/p09.t"},
        Parsed{"ASuperscriptIsNoDigit", "/x/m\u00b23-5_##.t", 3, 5, 2, "/x/m\u00b2", ".t", 3, "/x/m\u00b203.t",
               "/x/m\u00b205.t"},
        Parsed{"ADigitBeyondTheBasicPlaneStays", "/x/p\U0001d7d73-5_##.t", 3, 5, 2, "/x/p\U0001d7d7", ".t", 3,
               "/x/p\U0001d7d703.t", "/x/p\U0001d7d705.t"},
        Parsed{"AFullWidthHashIsNoHash", "/x/\uff03/p.3-5_##\uff03", 3, 5, 2, "/x/\uff03/p.", "\uff03", 3,
               "/x/\uff03/p.03\uff03", "/x/\uff03/p.05\uff03"},
        Parsed{"ASeparatorOfThreeBytes", "/x/p.3-5\u30fb##.t", 3, 5, 2, "/x/p.", ".t", 3, "/x/p.03.t", "/x/p.05.t"},
        Parsed{"DecomposedLettersStay", "/x/u\u0308.3-5_##.u\u0308", 3, 5, 2, "/x/u\u0308.", ".u\u0308", 3,
               "/x/u\u0308.03.u\u0308", "/x/u\u0308.05.u\u0308"},
        Parsed{"PairsOfCodeUnitsInBothParts", "/x/\U0001f3ac.3-5_##\U0001f3ac", 3, 5, 2, "/x/\U0001f3ac.", "\U0001f3ac",
               3, "/x/\U0001f3ac.03\U0001f3ac", "/x/\U0001f3ac.05\U0001f3ac"},
        // Only the second half of the pair is dropped: the other half keeps the digits from being stripped, and no file
        // has such a name.
        Parsed{"APairOfCodeUnitsForASeparator", "/x/p.3-5\U0001f3ac##.t", 0, 0, 2, "", ".t", 1},
        Parsed{"APairOfCodeUnitsInFront", "\U0001f3ac##.t", 0, 0, 2, "", ".t", 1}),
    rowName);

TEST(KDXFileSequence, WithoutAnIdentifierIsEmpty) {
  const Sequence sequence = KDXFileSequence::init();
  ASSERT_NE(nullptr, sequence);
  EXPECT_EQ("", sequence->identifier());
  EXPECT_EQ("", sequence->prefix());
  EXPECT_EQ("", sequence->postfix());
  EXPECT_EQ(0, sequence->startFrame());
  EXPECT_EQ(0, sequence->endFrameInclusive());
  EXPECT_EQ(0, sequence->numberOfDigits());
}

TEST(KDXFileSequence, AnIdentifierWithoutAHashGivesNoneAndPrintsALine) {
  for (const char* identifier : {"", "/", "/x/p.1-2_%04i.dpx", "/x/\uff03.dpx"}) {
    const Captured printed(STDOUT_FILENO);
    EXPECT_EQ(nullptr, KDXFileSequence::initWithIdentifier(identifier)) << identifier;
    EXPECT_EQ(noHashes, printed.textSoFar()) << identifier;
  }
}

TEST(KDXFileSequence, BytesThatAreNotUTF8GiveNoneAndPrintNothing) {
  const Captured printed(STDOUT_FILENO);
  for (const char* identifier : {"\xff", "/x/\xe4.1-2_##.t", "/x/p.1-2_##.\xed\xa0\x80", "/x/p.1-2_##\xf0\x9f\x8e"})
    EXPECT_EQ(nullptr, KDXFileSequence::initWithIdentifier(identifier));
  EXPECT_EQ("", printed.textSoFar());
}

// Frames

TEST(KDXFileSequence, AFrameOutsideTheRangeHasNoPathAndPrintsALine) {
  const Sequence sequence = sequenceOf("/x/p.1001-1003.####.dpx");
  // The last two have the lower 32 bits of frames in the range.
  for (const uint64_t frame :
       {uint64_t{0}, uint64_t{1000}, uint64_t{1004}, largest, (uint64_t{1} << 32) + 1001, (uint64_t{1} << 63) + 1003}) {
    const Captured printed(STDOUT_FILENO);
    EXPECT_EQ(std::nullopt, sequence->filenameForFrameNumber(frame)) << frame;
    EXPECT_EQ(notInRange, printed.textSoFar()) << frame;
  }
}

TEST(KDXFileSequence, AnIndexOutsideTheRangeHasNoPathAndPrintsALine) {
  const Sequence sequence = sequenceOf("/x/p.1001-1003.####.dpx");
  // The largest index is the frame before the first, by overflow.
  for (const uint64_t index : {uint64_t{3}, largest, largest - 1000, uint64_t{1} << 32}) {
    const Captured printed(STDOUT_FILENO);
    EXPECT_EQ(std::nullopt, sequence->filenameForIndex(index)) << index;
    EXPECT_EQ(notInRange, printed.textSoFar()) << index;
  }
}

TEST(KDXFileSequence, ANegativeStartLeavesEveryFrameOutsideTheRange) {
  const Sequence sequence = sequenceOf("/x/plate-0100_####.dpx");
  for (uint64_t index = 0; index <= sequence->duration(); ++index)
    ASSERT_EQ(std::nullopt, sequence->filenameForIndex(index)) << index;
  for (const uint64_t frame : {uint64_t{0}, uint64_t{50}, uint64_t{100}, largest, largest - 99})
    EXPECT_EQ(std::nullopt, sequence->filenameForFrameNumber(frame)) << frame;
}

TEST(KDXFileSequence, WhatHasAPathPrintsNothing) {
  const Captured printed(STDOUT_FILENO);
  const Sequence sequence = sequenceOf("/x/p.9-10.#.dpx");
  EXPECT_THAT(sequence->filenameForFrameNumber(9), Optional(Eq("/x/p.9.dpx")));
  EXPECT_THAT(sequence->filenameForFrameNumber(10), Optional(Eq("/x/p.10.dpx")));
  EXPECT_THAT(sequence->filenameForIndex(1), Optional(Eq("/x/p.10.dpx")));
  EXPECT_EQ("", printed.textSoFar());
}

// Percent signs: prefix and postfix are parts of a printf pattern.

// The path of frame 65 ("A" as a character).
Path pathOfFrame65(const std::string& prefix, const std::string& postfix) {
  const Captured printed(STDOUT_FILENO);
  const Sequence sequence = KDXFileSequence::initWithIdentifier(prefix + "65-66_##" + postfix);
  EXPECT_NE(nullptr, sequence);
  const Path path = sequence ? sequence->filenameForFrameNumber(65) : std::nullopt;
  EXPECT_EQ("", printed.textSoFar());
  return path;
}

class KDXFileSequenceDirective : public testing::TestWithParam<std::string> {};

// The one number is taken by the frame's own directive.
TEST_P(KDXFileSequenceDirective, BesideTheFrameGivesNoPath) {
  EXPECT_EQ(std::nullopt, pathOfFrame65("/x/" + GetParam() + "/p.", ".t"));
  EXPECT_EQ(std::nullopt, pathOfFrame65("/x/p.", "." + GetParam()));
  EXPECT_EQ(std::nullopt, pathOfFrame65("/x/p.", "." + GetParam() + ".t"));
}

INSTANTIATE_TEST_SUITE_P(Pattern, KDXFileSequenceDirective,
                         testing::Values("%n", "%s", "%@", "%i", "%5$i", "%1$i", "%0$i", "%2147483648$i", "%1$*1$i",
                                         "%999999999i", "%999999999999999999999999i", "%.999999999i", "%*i", "%.*i",
                                         "%*.*i", "%c", "%p", "%f", "%hhn", "%lld", "%", "%-", "%5", "%.", "%*", "%1$",
                                         "%'i", "%\u0661i"));

struct Pattern : NamedRow {
  const char* prefix;
  const char* postfix;
  const char* path;  // null: none
};

class KDXFileSequencePattern : public testing::TestWithParam<Pattern> {};

TEST_P(KDXFileSequencePattern, GivesWhatPrintfMakesOfItAndOfOneNumber) {
  const Pattern& row = GetParam();
  EXPECT_EQ(row.path == nullptr ? Path() : Path(row.path), pathOfFrame65(row.prefix, row.postfix));
}

INSTANTIATE_TEST_SUITE_P(DoubledPercentSigns, KDXFileSequencePattern,
                         testing::Values(Pattern{"InThePrefix", "/100%%/p.", ".t", "/100%/p.65.t"},
                                         Pattern{"InThePostfix", "/x/p.", ".t%%", "/x/p.65.t%"},
                                         Pattern{"InBoth", "/%%%%/p.", ".%%n", "/%%/p.65.%n"},
                                         Pattern{"BeforeManyDigits", "/100%%999999999/p.", ".t",
                                                 "/100%999999999/p.65.t"},
                                         Pattern{"AtTheFrame", "/x/p%%", "%%.t", "/x/p%65%.t"}),
                         rowName);

// A percent sign right before the frame makes "%%" with the frame's own directive, whose number is then free for another.
INSTANTIATE_TEST_SUITE_P(
    APercentSignAtTheFrame, KDXFileSequencePattern,
    testing::Values(Pattern{"Alone", "/x/p%", ".t", "/x/p%02i.t"},
                    Pattern{"OneNumber", "/x/%", ".%04i", "/x/%02i.0065"},
                    Pattern{"ByPosition", "/x/%", ".%1$i", "/x/%02i.65"},
                    Pattern{"ToTheLeft", "/x/%", "%-4i.", "/x/%02i65  ."},
                    Pattern{"WithASign", "/x/%", ".%+i", "/x/%02i.+65"}, Pattern{"InHex", "/x/%", ".%x", "/x/%02i.41"},
                    Pattern{"ACharacter", "/x/%", ".%c", "/x/%02i.A"}, Pattern{"TwoNumbers", "/x/%", ".%i%i", nullptr},
                    Pattern{"ThePositionBehind", "/x/%", ".%2$i", nullptr},
                    Pattern{"ThePositionBefore", "/x/%", ".%0$i", nullptr}, Pattern{"AWrite", "/x/%", ".%n", nullptr},
                    Pattern{"AnObject", "/x/%", ".%@", nullptr}, Pattern{"AWidthFromTheFrame", "/x/%", ".%*i", nullptr},
                    Pattern{"APrecisionFromTheFrame", "/x/%", ".%.*i", nullptr},
                    Pattern{"AHugeWidth", "/x/%", ".%999999999i", nullptr},
                    Pattern{"AHugePrecision", "/x/%", ".%.999999999i", nullptr},
                    Pattern{"AWidthBeyond32Bits", "/x/%", ".%4294967297i", nullptr},
                    Pattern{"AWidthBeyond64Bits", "/x/%", ".%18446744073709551617i", nullptr}),
    rowName);

TEST(KDXFileSequence, ATextIsNeverReadThroughTheFrameNumber) {
  const Path path = pathOfFrame65("/x/%", ".%s");
  EXPECT_TRUE(path == std::nullopt || path == "/x/%02i.65") << *path;
}

TEST(KDXFileSequence, AFrameThatWouldCutThePathShortHasNoPath) {
  const Sequence sequence = sequenceOf("/x/p%0-1_##.%c.t");
  EXPECT_EQ(std::nullopt, sequence->filenameForFrameNumber(0));
}

TEST(KDXFileSequence, MoreHashesThanAPathHasCharactersGiveNoPath) {
  const Sequence sequence = sequenceOf("/x/p.1-2_" + std::string(100'000, '#') + ".t");
  EXPECT_EQ(100'000, sequence->numberOfDigits());
  EXPECT_EQ(std::nullopt, sequence->filenameForFrameNumber(1));
  EXPECT_THAT(sequenceOf("/x/1-2_" + std::string(200, '#'))->filenameForFrameNumber(1),
              Optional(Eq("/x/" + std::string(199, '0') + "1")));
}

// Many identifiers

class Choice {
 public:
  uint64_t below(uint64_t limit) { return _random() % limit; }
  std::string oneOf(const std::vector<std::string>& texts) { return texts[below(texts.size())]; }
  std::string someOf(const std::vector<std::string>& texts, uint64_t most) {
    std::string whole;
    for (uint64_t left = below(most + 1); left > 0; --left) whole += oneOf(texts);
    return whole;
  }

 private:
  std::mt19937_64 _random{20'240'229};
};

std::string padded(uint64_t number, std::size_t digits) {
  const std::string text = std::to_string(number);
  return text.size() < digits ? std::string(digits - text.size(), '0') + text : text;
}

TEST(KDXFileSequence, EveryWellFormedIdentifierGivesBackWhatItWasMadeOf) {
  const std::vector<std::string> letters{"a", "Z",      ".",      "_",      "-",      "/",          " ",
                                         "$", "\u00e4", "\u00df", "\u0416", "\u30af", "\u0308",     "\u05d0",
                                         "{", "}",      "\u200d", "\u00bd", "\u2160", "\U0001f3ac", "\U00020000"};
  std::vector<std::string> lettersAndMore = letters;
  lettersAndMore.insert(lettersAndMore.end(), {"0", "7", "12-34", "\u0663", "\u096a", "\U0001d7d7"});
  std::vector<std::string> prefixes = lettersAndMore;
  prefixes.insert(prefixes.end(), {"#", "1-2_##"});
  Choice choice;
  for (int round = 0; round < 400; ++round) {
    // The prefix ends where the number begins, so not in a digit.
    const std::string prefix = "/" + choice.someOf(prefixes, 12) + choice.oneOf(letters);
    const std::string postfix = choice.someOf(lettersAndMore, 6);
    const std::size_t digits = 1 + choice.below(9);
    uint64_t limit = 10;
    for (std::size_t digit = choice.below(9); digit > 0; --digit) limit *= 10;
    const uint64_t start = choice.below(limit);
    const uint64_t end = start + choice.below(12);
    const std::string identifier = prefix + padded(start, choice.below(10)) + std::string(1 + choice.below(3), '-') +
                                   padded(end, choice.below(10)) +
                                   choice.oneOf({"", ".", "_", "-", " ", "x", "\u30fb"}) + std::string(digits, '#') +
                                   postfix;
    SCOPED_TRACE(identifier);
    const Sequence sequence = sequenceOf(identifier);
    ASSERT_NE(nullptr, sequence);
    ASSERT_EQ(identifier, sequence->identifier());
    ASSERT_EQ(prefix, sequence->prefix());
    ASSERT_EQ(postfix, sequence->postfix());
    ASSERT_EQ(static_cast<int64_t>(start), sequence->startFrame());
    ASSERT_EQ(static_cast<int64_t>(end), sequence->endFrameInclusive());
    ASSERT_EQ(digits, static_cast<std::size_t>(sequence->numberOfDigits()));
    ASSERT_EQ(end - start + 1, sequence->duration());
    for (uint64_t frame = start; frame <= end; ++frame) {
      const std::string path = prefix + padded(frame, digits) + postfix;
      ASSERT_THAT(sequence->filenameForFrameNumber(frame), Optional(Eq(path)));
      ASSERT_THAT(sequence->filenameForIndex(frame - start), Optional(Eq(path)));
    }
  }
}

TEST(KDXFileSequence, NoIdentifierMakesAPathThatIsMuchLongerThanItself) {
  const std::vector<std::string> pieces{"%", "%", "%", "$", "*", ".",  "-",  "+",      "0",          "1",        "2",
                                        "9", "#", "#", "i", "d", "s",  "n",  "c",      "x",          "f",        "@",
                                        "l", "h", "'", "{", "}", "1-", "_#", "\u0663", "\U0001f3ac", "999999999"};
  Choice choice;
  int paths = 0;
  const Captured printed(STDOUT_FILENO);
  for (int round = 0; round < 5'000; ++round) {
    const std::string identifier =
        choice.someOf(pieces, 8) + choice.oneOf({"", "0-9", "65-66_"}) + "##" + choice.someOf(pieces, 8);
    const Sequence sequence = KDXFileSequence::initWithIdentifier(identifier);
    ASSERT_NE(nullptr, sequence) << identifier;
    const Path path = sequence->filenameForIndex(0);
    if (!path) continue;
    ++paths;
    ASSERT_LE(path->size(), identifier.size() + 4096) << identifier;
  }
  EXPECT_GT(paths, 100);
}

// A sequence is only a text: nothing of it has to be there.
TEST(KDXFileSequence, LooksAtNoFile) {
  const ScratchDirectory scratch;
  const std::string folder = scratch.path() / "missing";
  const Sequence sequence = sequenceOf(folder + "/p.1-2_#.t");
  EXPECT_THAT((std::vector<Path>{sequence->filenameForIndex(0), sequence->filenameForIndex(1)}),
              ElementsAre(folder + "/p.1.t", folder + "/p.2.t"));
  EXPECT_THAT(namesBelow(scratch.path()), testing::IsEmpty());
}

}  // namespace
