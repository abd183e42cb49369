#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "digest/KDXDigestContext.h"
#include "digest/KDXDigestContextXX64BE.h"
#include "digest/KDXDigestContextXX64LE.h"
#include "tests/support/Algorithms.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

namespace {

using ContextPtr = std::shared_ptr<KDXDigestContext>;

ContextPtr digestOf(uint32_t algorithm, const std::string& bytes) {
  ContextPtr context = KDXDigestContext::contextWithAlgorithm(algorithm);
  context->update(bytes.data(), bytes.size());
  context->finalize();
  return context;
}

struct Vector : NamedRow {
  uint32_t algorithm;
  std::string bytes;
  const char* digestString;
};

class DigestVectors : public testing::TestWithParam<Vector> {};

TEST_P(DigestVectors, ThePrefixedTextIsThePublishedDigest) {
  EXPECT_EQ(GetParam().digestString, digestOf(GetParam().algorithm, GetParam().bytes)->digestString());
}

INSTANTIATE_TEST_SUITE_P(
    Published, DigestVectors,
    testing::Values(Vector{"MD5OfNothing", md5, "", "MD5:d41d8cd98f00b204e9800998ecf8427e"},
                    Vector{"MD5OfOneLetter", md5, "a", "MD5:0cc175b9c0f1b6a831c399e269772661"},
                    Vector{"MD5OfThreeLetters", md5, "abc", "MD5:900150983cd24fb0d6963f7d28e17f72"},
                    Vector{"MD5OfMoreThanABlock", md5,
                           "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
                           "MD5:57edf4a22be3c955ac49da2e2107b67a"},
                    Vector{"SHA1OfNothing", sha1, "", "SHA1:da39a3ee5e6b4b0d3255bfef95601890afd80709"},
                    Vector{"SHA1OfThreeLetters", sha1, "abc", "SHA1:a9993e364706816aba3e25717850c26c9cd0d89d"},
                    Vector{"SHA1OfTwoBlocks", sha1, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                           "SHA1:84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
                    Vector{"XXHash64BEOfNothing", xxHash64BE, "", "XXHash64BE:ef46db3751d8e999"},
                    Vector{"XXHash64BEOfThreeLetters", xxHash64BE, "abc", "XXHash64BE:44bc2cf5ad770999"},
                    Vector{"XXHash64OfNothing", xxHash64, "", "XXHash64:99e9d85137db46ef"},
                    Vector{"XXHash64OfThreeLetters", xxHash64, "abc", "XXHash64:990977adf52cbc44"}),
    rowName);

class EveryAlgorithm : public testing::TestWithParam<Algorithm> {};

INSTANTIATE_TEST_SUITE_P(KDXDigestContext, EveryAlgorithm, testing::ValuesIn(algorithms), rowName);

TEST_P(EveryAlgorithm, AContextKnowsItsCodeAndItsMethodName) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  ASSERT_NE(nullptr, context);
  EXPECT_EQ(GetParam().code, context->algorithm());
  EXPECT_EQ(GetParam().methodName, context->digestMethodName());
}

TEST_P(EveryAlgorithm, EveryRequestGivesANewContext) {
  const ContextPtr first = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  const ContextPtr second = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  EXPECT_NE(first, second);
}

TEST_P(EveryAlgorithm, TheNameOfTheMethodGivesItsCode) {
  EXPECT_EQ(GetParam().code, KDXDigestAlgorithmFromName(GetParam().methodName));
}

TEST_P(EveryAlgorithm, MegabytesHaveTheDigestThatTheProgramOfTheSystemPrints) {
  const ScratchDirectory scratch;
  const std::string bytes = mediaBytes(3 * MiB + 17);
  writeFile(scratch.file("clip.mov"), bytes);
  EXPECT_EQ(expectedHex(GetParam(), scratch.file("clip.mov")),
            digestOf(GetParam().code, bytes)->rawDigestString().value());
}

TEST_P(EveryAlgorithm, PiecesOfAnySizesHaveTheDigestOfTheWhole) {
  const ScratchDirectory scratch;
  const std::string bytes = mediaBytes(100'003);
  writeFile(scratch.file("clip.mov"), bytes);
  const std::string expected = expectedHex(GetParam(), scratch.file("clip.mov"));
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{31}, std::size_t{32}, std::size_t{33},
                                  std::size_t{64}, 4 * KiB, 64 * KiB}) {
    const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
    for (std::size_t offset = 0; offset < bytes.size(); offset += piece) {
      context->update(bytes.data() + offset, std::min(piece, bytes.size() - offset));
    }
    context->finalize();
    EXPECT_EQ(expected, context->rawDigestString().value()) << "in pieces of " << piece;
    EXPECT_EQ(bytes.size(), context->totalLength()) << "in pieces of " << piece;
  }
}

TEST_P(EveryAlgorithm, AnUpdateOfNoBytesChangesNothing) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  context->update("", 0);
  context->update("abc", 3);
  context->update("xyz", 0);
  context->finalize();
  EXPECT_EQ(digestOf(GetParam().code, "abc")->digestString(), context->digestString());
  EXPECT_EQ(3u, context->totalLength());
}

TEST_P(EveryAlgorithm, BeforeFinalizeThereIsNoResult) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  context->update("abc", 3);
  EXPECT_EQ(std::nullopt, context->rawDigestString());
  EXPECT_EQ(std::nullopt, context->digest());
  EXPECT_EQ(std::string(GetParam().methodName) + ":(null)", context->digestString());
  EXPECT_EQ(3u, context->totalLength());
}

TEST_P(EveryAlgorithm, TheTextsAndTheBytesTellTheSameDigest) {
  const ContextPtr context = digestOf(GetParam().code, "footage");
  const std::vector<uint8_t> digest = context->digest().value();
  const std::string hex = context->rawDigestString().value();
  ASSERT_EQ(GetParam().digestLength, digest.size());
  ASSERT_EQ(2 * GetParam().digestLength, hex.size());
  EXPECT_EQ(std::string::npos, hex.find_first_not_of("0123456789abcdef"));
  for (std::size_t i = 0; i < digest.size(); ++i) {
    EXPECT_EQ(std::stoul(hex.substr(2 * i, 2), nullptr, 16), digest[i]) << "byte " << i;
  }
  EXPECT_EQ(GetParam().methodName + (":" + hex), context->digestString());
}

TEST_P(EveryAlgorithm, AResetStartsANewDigestAndCountsOn) {
  const ContextPtr context = digestOf(GetParam().code, "first clip");
  context->reset();
  context->update("abc", 3);
  context->finalize();
  EXPECT_EQ(digestOf(GetParam().code, "abc")->digestString(), context->digestString());
  EXPECT_EQ(std::string("first clip").size() + 3, context->totalLength());
}

TEST_P(EveryAlgorithm, AResetForgetsWhatWasFedBefore) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  context->update("never to be digested", 20);
  context->reset();
  context->finalize();
  EXPECT_EQ(digestOf(GetParam().code, "")->digestString(), context->digestString());
  EXPECT_EQ(20u, context->totalLength());
}

TEST_P(EveryAlgorithm, InitialisingStartsANewDigest) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  context->update("never to be digested", 20);
  context->initContext();
  context->update("abc", 3);
  context->finalize();
  EXPECT_EQ(digestOf(GetParam().code, "abc")->digestString(), context->digestString());
}

TEST_P(EveryAlgorithm, TheResultsStayUntilTheNextFinalize) {
  const ContextPtr context = digestOf(GetParam().code, "abc");
  const std::string text = context->digestString();
  const auto digest = context->digest();
  context->reset();
  context->update("other", 5);
  EXPECT_EQ(text, context->digestString());
  EXPECT_EQ(digest, context->digest());
  context->finalize();
  EXPECT_NE(text, context->digestString());
  EXPECT_NE(digest, context->digest());
}

TEST_P(EveryAlgorithm, ATextIsDigestedAsItsUTF8Bytes) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  context->updateAndFinalizeFromString("Übergabe");
  EXPECT_EQ(digestOf(GetParam().code,
                     "\xc3\x9c"
                     "bergabe")
                ->digestString(),
            context->digestString());
  EXPECT_EQ(9u, context->totalLength());
}

TEST_P(EveryAlgorithm, NoTextIsDigestedAsNothing) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  context->updateAndFinalizeFromString(std::nullopt);
  EXPECT_EQ(digestOf(GetParam().code, "")->digestString(), context->digestString());
  EXPECT_EQ(0u, context->totalLength());
}

TEST_P(EveryAlgorithm, ATextIsAddedToWhatWasFedBefore) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  context->update("a", 1);
  context->updateAndFinalizeFromString("bc");
  EXPECT_EQ(digestOf(GetParam().code, "abc")->digestString(), context->digestString());
}

TEST_P(EveryAlgorithm, ContextsAreEqualWhenTheirBytesWere) {
  const ContextPtr context = digestOf(GetParam().code, "abc");
  EXPECT_TRUE(context->isEqual(context.get()));
  EXPECT_TRUE(context->isEqual(digestOf(GetParam().code, "abc").get()));
  EXPECT_FALSE(context->isEqual(digestOf(GetParam().code, "abd").get()));
}

TEST_P(EveryAlgorithm, NothingIsEqualToNoContext) {
  EXPECT_FALSE(digestOf(GetParam().code, "abc")->isEqual(nullptr));
}

TEST_P(EveryAlgorithm, ContextsOfDifferentAlgorithmsAreNeverEqual) {
  const ContextPtr context = digestOf(GetParam().code, "abc");
  for (const Algorithm& other : algorithms) {
    if (other.code != GetParam().code) {
      EXPECT_FALSE(context->isEqual(digestOf(other.code, "abc").get())) << other.name;
    }
  }
}

TEST_P(EveryAlgorithm, ContextsNotYetFinalisedOfDifferentAlgorithmsAreNotEqualEither) {
  const ContextPtr context = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  for (const Algorithm& other : algorithms) {
    if (other.code != GetParam().code) {
      EXPECT_FALSE(context->isEqual(KDXDigestContext::contextWithAlgorithm(other.code).get())) << other.name;
    }
  }
}

TEST_P(EveryAlgorithm, AFinalisedContextIsNotEqualToOneThatIsNot) {
  const ContextPtr unfinished = KDXDigestContext::contextWithAlgorithm(GetParam().code);
  EXPECT_FALSE(digestOf(GetParam().code, "")->isEqual(unfinished.get()));
}

struct UnknownCode : NamedRow {
  uint32_t code;
};

class UnknownCodes : public testing::TestWithParam<UnknownCode> {};

TEST_P(UnknownCodes, GiveNoContext) {
  EXPECT_EQ(nullptr, KDXDigestContext::contextWithAlgorithm(GetParam().code));
}

INSTANTIATE_TEST_SUITE_P(KDXDigestContext, UnknownCodes,
                         testing::Values(UnknownCode{"None", 0}, UnknownCode{"SHA1AndMD5", 3},
                                         UnknownCode{"TheUnusedBit", 4}, UnknownCode{"BothXXHashes", 24},
                                         UnknownCode{"TheNextBit", 32}, UnknownCode{"All", 0xffffffff}),
                         rowName);

struct UnknownName : NamedRow {
  std::string method;
};

class UnknownNames : public testing::TestWithParam<UnknownName> {};

TEST_P(UnknownNames, GiveTheCodeZero) {
  EXPECT_EQ(0u, KDXDigestAlgorithmFromName(GetParam().method));
}

INSTANTIATE_TEST_SUITE_P(
    KDXDigestAlgorithmFromName, UnknownNames,
    testing::Values(UnknownName{"Empty", ""}, UnknownName{"LowerCaseMD5", "md5"}, UnknownName{"LowerCaseSHA1", "sha1"},
                    UnknownName{"MixedCaseXXHash", "XXhash64BE"}, UnknownName{"UpperCaseXXHash", "XXHASH64"},
                    UnknownName{"TheStartOfAName", "XXHash6"}, UnknownName{"ANameAndMore", "XXHash64BEx"},
                    UnknownName{"ALittleEndianName", "XXHash64LE"}, UnknownName{"ASpaceInFront", " MD5"},
                    UnknownName{"ASpaceBehind", "MD5 "}, UnknownName{"Another", "SHA256"},
                    UnknownName{"AZeroByteBehind", std::string("MD5\0", 4)}),
    rowName);

// The base class as it is, with the algorithm that it is told.
class BareContext final : public KDXDigestContext {
 public:
  explicit BareContext(uint32_t algorithm) : _algorithm(algorithm) {}
  [[nodiscard]] uint32_t algorithm() const override {
    return _algorithm == 0 ? KDXDigestContext::algorithm() : _algorithm;
  }

 private:
  uint32_t _algorithm;
};

TEST(KDXDigestContext, TheBaseClassHasNoAlgorithmCountsNothingAndHasNoResult) {
  BareContext context(0);
  context.reset();
  context.update("abc", 3);
  context.finalize();
  EXPECT_EQ(0u, context.algorithm());
  EXPECT_EQ("", context.digestMethodName());
  EXPECT_EQ(0u, context.totalLength());
  EXPECT_EQ(std::nullopt, context.rawDigestString());
  EXPECT_EQ(std::nullopt, context.digest());
  EXPECT_EQ(":(null)", context.digestString());
}

TEST(KDXDigestContext, TheBaseClassNamesTheMethodOfItsAlgorithm) {
  for (const Algorithm& algorithm : algorithms) {
    EXPECT_EQ(algorithm.methodName, BareContext(algorithm.code).digestMethodName());
  }
  EXPECT_EQ("", BareContext(3).digestMethodName());
  EXPECT_EQ("", BareContext(4).digestMethodName());
}

TEST(KDXDigestContext, ASetDigestReplacesTheBytesAndLeavesTheText) {
  const ContextPtr context = digestOf(md5, "abc");
  context->setDigest(std::vector<uint8_t>{1, 2, 3});
  EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), context->digest());
  EXPECT_EQ("MD5:900150983cd24fb0d6963f7d28e17f72", context->digestString());
}

TEST(KDXDigestContext, ADigestCanBeTakenAway) {
  const ContextPtr context = digestOf(md5, "abc");
  context->setDigest(std::nullopt);
  EXPECT_EQ(std::nullopt, context->digest());
}

TEST(KDXDigestContext, HexTextHasTwoLowerCaseDigitsForEachByteInOrder) {
  EXPECT_EQ("00010a10abff", BareContext(0).hexStringFromData(std::vector<uint8_t>{0, 1, 0x0a, 0x10, 0xab, 0xff}));
}

TEST(KDXDigestContext, HexTextOfNoBytesIsEmpty) {
  EXPECT_EQ("", BareContext(0).hexStringFromData({}));
}

TEST(KDXDigestContextXX64, TheBigEndianContextReversesTheBytesOfTheHash) {
  EXPECT_EQ(0xefcdab8967452301u, KDXDigestContextXX64BE().swapToDeservedEndianess(0x0123456789abcdef));
}

TEST(KDXDigestContextXX64, TheLittleEndianContextLeavesTheHashAsItIs) {
  EXPECT_EQ(0x0123456789abcdefu, KDXDigestContextXX64LE().swapToDeservedEndianess(0x0123456789abcdef));
}

TEST(KDXDigestContextXX64, TheLittleEndianDigestIsTheBigEndianOneBackwards) {
  const std::string bytes = mediaBytes(1000);
  std::vector<uint8_t> digest = digestOf(xxHash64, bytes)->digest().value();
  std::reverse(digest.begin(), digest.end());
  EXPECT_EQ(digestOf(xxHash64BE, bytes)->digest().value(), digest);
}

}  // namespace
