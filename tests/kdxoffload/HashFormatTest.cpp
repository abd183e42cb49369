#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/HashFormat.h"
#include "digest/C4Digest.h"
#include "digest/KDXDigestContext.h"

using kdxoffload::FileDigest;
using kdxoffload::HashFormat;

TEST(HashFormat, NamesAreThoseOfTheElements) {
  for (const char* name : {"c4", "md5", "sha1", "xxh128", "xxh3", "xxh64"}) {
    const auto format = kdxoffload::hashFormatFrom(name);
    ASSERT_TRUE(format) << name;
    EXPECT_EQ(name, nameOf(*format));
  }
  EXPECT_FALSE(kdxoffload::hashFormatFrom(""));
  EXPECT_FALSE(kdxoffload::hashFormatFrom("sha256"));
}

TEST(HashFormat, DigestsOfThisProgramHaveAFormat) {
  EXPECT_EQ(HashFormat::md5, kdxoffload::hashFormatOf(KDXDigestAlgorithmMD5));
  EXPECT_EQ(HashFormat::sha1, kdxoffload::hashFormatOf(KDXDigestAlgorithmSHA1));
  EXPECT_EQ(HashFormat::xxh64, kdxoffload::hashFormatOf(KDXDigestAlgorithmXXHash64BE));
  EXPECT_FALSE(kdxoffload::hashFormatOf(KDXDigestAlgorithmXXHash64));
  EXPECT_FALSE(kdxoffload::hashFormatOf(KDXDigestAlgorithmNone));
}

TEST(HashFormat, AFileDigestComesBackFromItsValue) {
  const FileDigest digest = FileDigest::fromText("XXHash64BE:ef46db3751d8e999").value();
  EXPECT_EQ("ef46db3751d8e999", kdxoffload::hashValueOf(digest));
  EXPECT_EQ(digest, kdxoffload::fileDigestFrom(HashFormat::xxh64, "ef46db3751d8e999"));
  EXPECT_EQ("", kdxoffload::hashValueOf(FileDigest{}));
}

TEST(HashFormat, WhatThisProgramCannotComputeIsNoFileDigest) {
  EXPECT_FALSE(kdxoffload::fileDigestFrom(HashFormat::xxh3, "ef46db3751d8e999"));
  EXPECT_FALSE(kdxoffload::fileDigestFrom(HashFormat::c4, C4Digest::of("")));
  EXPECT_FALSE(kdxoffload::fileDigestFrom(HashFormat::md5, "ef46db3751d8e999"));
}

TEST(HashFormat, ValuesHaveSmallDigits) {
  EXPECT_EQ("ef46db3751d8e999", kdxoffload::hashValueFrom(HashFormat::xxh64, "EF46DB3751D8E999"));
}

TEST(HashFormat, AValueOfAnotherLengthOrWithOtherLettersIsNone) {
  for (const char* text : {"", "ef46db3751d8e99", "ef46db3751d8e9991", "gf46db3751d8e999", " f46db3751d8e999"}) {
    EXPECT_FALSE(kdxoffload::hashValueFrom(HashFormat::xxh64, text)) << text;
  }
}

TEST(HashFormat, CapitalsOfAC4DigestAreOtherDigits) {
  const std::string c4 = C4Digest::of("");
  EXPECT_EQ(c4, kdxoffload::hashValueFrom(HashFormat::c4, c4));
  EXPECT_FALSE(kdxoffload::hashValueFrom(HashFormat::c4, "C" + c4.substr(1)));
}
