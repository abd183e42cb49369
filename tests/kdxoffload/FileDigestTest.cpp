#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/FileDigest.h"

using kdxoffload::FileDigest;

TEST(FileDigest, ATextComesBackAsItWas) {
  for (const std::string text : {"MD5:d41d8cd98f00b204e9800998ecf8427e", "XXHash64BE:ef46db3751d8e999",
                                 "SHA1:da39a3ee5e6b4b0d3255bfef95601890afd80709"}) {
    const auto digest = FileDigest::fromText(text);
    ASSERT_TRUE(digest) << text;
    EXPECT_EQ(text, digest->text());
  }
}

TEST(FileDigest, ATextOfAnotherLengthOrNameIsNone) {
  for (const std::string text :
       {"", "MD5", "MD5:", "MD5:d41d8cd98f00b204e9800998ecf8427", "MD5:zz1d8cd98f00b204e9800998ecf8427e",
        "XXHash64:ef46db3751d8e999", "MD5:+41d8cd98f00b204e9800998ecf8427e", "md5:d41d8cd98f00b204e9800998ecf8427e"}) {
    EXPECT_FALSE(FileDigest::fromText(text)) << text;
  }
}

TEST(FileDigest, WithoutADigestThereIsNoText) {
  EXPECT_EQ("", FileDigest{}.text());
}
