#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/SequenceFinder.h"
#include "tests/kdxoffload/TreeInMemory.h"

using kdxoffload::EntryIndex;
using kdxoffload::findSequences;
using kdxoffload::FoundSequences;
using kdxoffload::FrameChoice;
using kdxoffload::frameNameOf;
using kdxoffload::Listing;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

Listing folderWith(const std::vector<std::string>& names) {
  TreeInMemory card(1);
  for (const std::string& name : names) card.file(name);
  return card.listing();
}

FrameChoice everything() {
  return {.isSmallEnough = [](EntryIndex) { return true; },
          .canBeFrame = [](EntryIndex) { return true; },
          .isSameWork = [](EntryIndex, EntryIndex) { return true; }};
}

FoundSequences findIn(const Listing& card, const FrameChoice& choice = everything()) {
  return findSequences(card, 0, static_cast<EntryIndex>(card.entries.size()), choice);
}

std::vector<std::string> identifiersIn(const std::vector<std::string>& names) {
  std::vector<std::string> identifiers;
  for (const auto& sequence : findIn(folderWith(names)).sequences) identifiers.push_back(sequence.identifier);
  return identifiers;
}

}  // namespace

TEST(FrameName, TheNumberIsTheLastRunOfDigitsBeforeTheExtension) {
  const auto name = frameNameOf("A001_v2.0042.s.mp4");
  ASSERT_TRUE(name);
  EXPECT_EQ("A001_v2.", name->prefix);
  EXPECT_EQ("0042", name->digits);
  EXPECT_EQ(42U, name->number);
  EXPECT_EQ(".s.mp4", name->postfix);
}

TEST(FrameName, AnExtensionOfDigitsIsTheNumber) {
  const auto name = frameNameOf("plate.1001");
  ASSERT_TRUE(name);
  EXPECT_EQ("plate.", name->prefix);
  EXPECT_EQ("1001", name->digits);
}

TEST(FrameName, ANameWithoutANumberOrWithATooLargeOneIsNoFrame) {
  EXPECT_FALSE(frameNameOf("clip.mp4"));
  EXPECT_FALSE(frameNameOf("2147483648.dpx"));
  EXPECT_FALSE(frameNameOf("20240131235959.dpx"));
  EXPECT_TRUE(frameNameOf("2147483647.dpx"));
}

TEST(SequenceFinder, ThreeFramesMakeASequenceAndTwoDoNot) {
  EXPECT_THAT(identifiersIn({"a.1.dpx", "a.2.dpx", "a.3.dpx"}), ElementsAre("a.1-3.#.dpx"));
  EXPECT_THAT(identifiersIn({"a.1.dpx", "a.2.dpx"}), IsEmpty());
}

TEST(SequenceFinder, FramesAreInTheOrderOfTheirNumbersWhateverStandsBetweenThem) {
  const Listing card = folderWith({"a0998.dpx", "a0998.wav", "a0999.dpx", "a0999.wav", "a1000.dpx", "b1000.dpx"});
  const FoundSequences found = findIn(card);
  ASSERT_EQ(1U, found.sequences.size());
  EXPECT_EQ("a0998-1000.####.dpx", found.sequences[0].identifier);
  EXPECT_THAT(found.sequences[0].frames, ElementsAre(0, 2, 4));
  EXPECT_THAT(found.warnings, IsEmpty());
}

TEST(SequenceFinder, AGapEndsASequenceAndIsOneWarningAGroup) {
  const Listing card =
      folderWith({"a01.dpx", "a02.dpx", "a03.dpx", "a05.dpx", "a06.dpx", "a07.dpx", "a10.dpx", "a11.dpx"});
  const FoundSequences found = findIn(card);
  ASSERT_EQ(2U, found.sequences.size());
  EXPECT_EQ("a01-03.##.dpx", found.sequences[0].identifier);
  EXPECT_EQ("a05-07.##.dpx", found.sequences[1].identifier);
  EXPECT_THAT(found.warnings, ElementsAre("frames are missing in a##.dpx: 04, 08-09"));
}

TEST(SequenceFinder, ManyGapsAreOneShortWarning) {
  std::vector<std::string> names;
  for (int number = 100; number < 1'000; number += 2) names.push_back(fmt::format("a{}.jpg", number));
  const FoundSequences found = findIn(folderWith(names));
  EXPECT_THAT(found.sequences, IsEmpty());
  ASSERT_EQ(1U, found.warnings.size());
  EXPECT_THAT(found.warnings[0], HasSubstr("101, 103, 105"));
  EXPECT_THAT(found.warnings[0], HasSubstr("and 441 more gaps"));
  EXPECT_LT(found.warnings[0].size(), 120U);
}

TEST(SequenceFinder, AWidthThatChangesStartsAnotherSequenceWithoutAWarning) {
  const Listing card = folderWith({"a10000.dpx", "a10001.dpx", "a10002.dpx", "a9997.dpx", "a9998.dpx", "a9999.dpx"});
  const FoundSequences found = findIn(card);
  ASSERT_EQ(2U, found.sequences.size());
  EXPECT_EQ("a9997-9999.####.dpx", found.sequences[0].identifier);
  EXPECT_EQ("a10000-10002.#####.dpx", found.sequences[1].identifier);
  EXPECT_THAT(found.warnings, IsEmpty());
}

TEST(SequenceFinder, APercentSignIsOneInTheNames) {
  EXPECT_THAT(identifiersIn({"A_%d_%%_1.d%sx", "A_%d_%%_2.d%sx", "A_%d_%%_3.d%sx"}),
              ElementsAre("A_%%d_%%%%_1-3.#.d%%sx"));
}

TEST(SequenceFinder, NamesThatAnIdentifierDoesNotGiveBackGoFileByFile) {
  // A "#" behind the number is taken for the run of digits; a digit of another script in front of it for a part of it.
  EXPECT_THAT(identifiersIn({"a1.#", "a2.#", "a3.#"}), IsEmpty());
  EXPECT_THAT(identifiersIn({"a٣1.dpx", "a٣2.dpx", "a٣3.dpx"}), IsEmpty());
}

TEST(SequenceFinder, PrefixesThatLookLikeARangeAreGivenBack) {
  EXPECT_THAT(identifiersIn({"take-01-1.dpx", "take-01-2.dpx", "take-01-3.dpx"}), ElementsAre("take-01-1-3.#.dpx"));
  EXPECT_THAT(identifiersIn({"1.dpx", "2.dpx", "3.dpx"}), ElementsAre("1-3.#.dpx"));
  EXPECT_THAT(identifiersIn({"a.001", "a.002", "a.003"}), ElementsAre("a.001-003.###"));
  EXPECT_THAT(identifiersIn({"-1.dpx", "-2.dpx", "-3.dpx"}), ElementsAre("-1-3.#.dpx"));
}

TEST(SequenceFinder, AFrameThatIsTooLargeOrHasOtherWorkEndsASequenceAndIsNoGap) {
  const Listing card = folderWith({"a1.dpx", "a2.dpx", "a3.dpx", "a4.dpx", "a5.dpx", "a6.dpx", "a7.dpx"});
  FrameChoice choice = everything();
  choice.isSmallEnough = [](EntryIndex index) { return index != 3; };
  FoundSequences found = findIn(card, choice);
  ASSERT_EQ(2U, found.sequences.size());
  EXPECT_EQ("a5-7.#.dpx", found.sequences[1].identifier);
  EXPECT_THAT(found.warnings, IsEmpty());

  choice = everything();
  choice.isSameWork = [](EntryIndex one, EntryIndex other) { return (one < 4) == (other < 4); };
  found = findIn(card, choice);
  ASSERT_EQ(2U, found.sequences.size());
  EXPECT_EQ("a1-4.#.dpx", found.sequences[0].identifier);
  EXPECT_THAT(found.warnings, IsEmpty());
}

TEST(SequenceFinder, BigClipsWithGapsInTheirNumbersAreNotWarnedOf) {
  FrameChoice choice = everything();
  choice.isSmallEnough = [](EntryIndex) { return false; };
  EXPECT_THAT(findIn(folderWith({"C1.mov", "C3.mov", "C5.mov"}), choice).warnings, IsEmpty());
}
