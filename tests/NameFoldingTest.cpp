#include <gtest/gtest.h>

#include "platform/NameFolding.h"

using platform::foldedName;
using platform::NameFolding;

namespace {

bool areOne(const std::string& one, const std::string& other, NameFolding folding) {
  return foldedName(one, folding) == foldedName(other, folding);
}

}  // namespace

TEST(NameFolding, WhereEveryByteCountsNoTwoNamesAreOne) {
  EXPECT_EQ("Clip.mov. ", foldedName("Clip.mov. ", NameFolding::exact));
}

TEST(NameFolding, CaseIsFoldedInEveryScript) {
  for (const NameFolding folding : {NameFolding::caseless, NameFolding::unicode, NameFolding::unknown}) {
    EXPECT_TRUE(areOne("Clip.MOV", "clip.mov", folding));
    EXPECT_TRUE(areOne("\u00c9T\u00c9.mov", "\u00e9t\u00e9.mov", folding));
    EXPECT_TRUE(areOne("\u0416.mov", "\u0436.mov", folding));
    EXPECT_FALSE(areOne("clip1.mov", "clip2.mov", folding));
  }
}

TEST(NameFolding, OneCharacterIsNeverTwoWhereCaseAloneIsFolded) {
  EXPECT_FALSE(areOne("stra\u00dfe", "strasse", NameFolding::caseless));
  EXPECT_TRUE(areOne("stra\u00dfe", "strasse", NameFolding::unicode));
}

TEST(NameFolding, FormsOfOneTextAreOneWhereUnicodeSaysSo) {
  EXPECT_TRUE(areOne("caf\u00e9", "CAFE\u0301", NameFolding::unicode));
  EXPECT_TRUE(areOne("caf\u00e9", "CAFE\u0301", NameFolding::unknown));
  EXPECT_FALSE(areOne("caf\u00e9", "cafe\u0301", NameFolding::caseless));
}

TEST(NameFolding, DotsAndSpacesAtTheEndDoNotCount) {
  EXPECT_TRUE(areOne("clip.", "clip", NameFolding::caseless));
  EXPECT_TRUE(areOne("clip . ", "CLIP", NameFolding::unknown));
  EXPECT_FALSE(areOne(".clip", "clip", NameFolding::caseless));
}

TEST(NameFolding, BytesThatAreNotTextKeepTheirValues) {
  EXPECT_FALSE(areOne("\xff.mov", "\xfe.mov", NameFolding::unknown));
  EXPECT_TRUE(areOne("\xff.mov", "\xff.MOV", NameFolding::unknown));
}
