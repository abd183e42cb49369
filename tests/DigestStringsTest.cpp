#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "digest/DigestStrings.h"
#include "digest/KDXDigestContext.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

namespace {

struct Bytes : NamedRow {
  std::vector<uint8_t> bytes;
  const char* hex;
};

class HexstringWithBytes : public testing::TestWithParam<Bytes> {};

TEST_P(HexstringWithBytes, HasTwoLowerCaseDigitsForEachByteInOrder) {
  EXPECT_EQ(GetParam().hex, hexstringWithBytes(GetParam().bytes));
}

INSTANTIATE_TEST_SUITE_P(
    DigestStrings, HexstringWithBytes,
    testing::Values(Bytes{"NoBytes", {}, ""}, Bytes{"AZeroByte", {0}, "00"}, Bytes{"ASmallByte", {9}, "09"},
                    Bytes{"TheLargestByte", {255}, "ff"},
                    Bytes{"EightBytes", {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef}, "0123456789abcdef"},
                    Bytes{"ZeroBytesAtBothEnds", {0, 0, 0x10, 0}, "00001000"}),
    rowName);

TEST(XXHash64BEasXXHash64, ReversesTheOrderOfTheTwoDigitGroups) {
  EXPECT_EQ("efcdab8967452301", XXHash64BEasXXHash64("0123456789abcdef"));
}

TEST(XXHash64BEasXXHash64, PutsADigitThatIsLeftOverInFrontBehindTheGroups) {
  EXPECT_EQ("bca", XXHash64BEasXXHash64("abc"));
}

TEST(XXHash64BEasXXHash64, TurnsTheDigestOfNothingIntoItsOtherForm) {
  EXPECT_EQ("99e9d85137db46ef", XXHash64BEasXXHash64("ef46db3751d8e999"));
}

TEST(XXHash64BEasXXHash64, TwiceGivesTheTextBack) {
  EXPECT_EQ("44bc2cf5ad770999", XXHash64BEasXXHash64(XXHash64BEasXXHash64("44bc2cf5ad770999")));
}

TEST(XXHash64BEasXXHash64, TurnsWhatTheProgramPrintsIntoTheLittleEndianDigestOfTheSameData) {
  const ScratchDirectory scratch;
  const std::string bytes = mediaBytes(12'345);
  writeFile(scratch.file("clip.mov"), bytes);
  const auto context = KDXDigestContext::contextWithAlgorithm(KDXDigestAlgorithmXXHash64);
  context->update(bytes.data(), bytes.size());
  context->finalize();
  EXPECT_EQ(context->rawDigestString(), XXHash64BEasXXHash64(digestByProgram("xxh64sum", scratch.file("clip.mov"))));
}

}  // namespace
