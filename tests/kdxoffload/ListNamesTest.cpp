#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/ListNames.h"
#include "digest/KDXDigestContext.h"

namespace ListNames = kdxoffload::ListNames;

namespace {

constexpr int64_t moment = 1'700'000'000'000'000'000;  // 2023-11-14T22:13:20 UTC

}  // namespace

TEST(ListNames, FilesAreNamedByTheFolderAndTheTime) {
  EXPECT_EQ("0001_A001_2023-11-14_221320Z.mhl", ListNames::hashList(1, "A001", moment));
  EXPECT_EQ("12345_A001_2023-11-14_221320Z.mhl", ListNames::hashList(12345, "A001", moment));
  EXPECT_EQ("A001_2023-11-14_221320Z_offload.html", ListNames::report("A001", moment));
  EXPECT_EQ("A001.md5", ListNames::checksumList("A001", KDXDigestAlgorithmMD5));
  EXPECT_EQ("A001.sha1", ListNames::checksumList("A001", KDXDigestAlgorithmSHA1));
  EXPECT_EQ("A001.xxh64", ListNames::checksumList("A001", KDXDigestAlgorithmXXHash64BE));
  EXPECT_EQ("", ListNames::checksumList("A001", 3));
}

TEST(ListNames, AUsualNameStaysAsItIs) {
  for (const char* name : {"A001", "day 1", "\xc3\xa4\xf0\x9f\x8e\xac", ".hidden", "[a] #1!"}) {
    EXPECT_EQ(name, ListNames::rootName(name));
  }
}

TEST(ListNames, WhatFATDoesNotAllowIsReplaced) {
  EXPECT_EQ("a_b_c_d_e_f_g_h_i", ListNames::rootName("a\"b*c:d<e>f?g\\h|i"));
  EXPECT_EQ("a_b_c", ListNames::rootName("a\nb\x7f"
                                         "c"));
}

TEST(ListNames, WhatIsNotUTF8IsReplaced) {
  EXPECT_EQ("a_b", ListNames::rootName("a\xff"
                                       "b"));
  EXPECT_EQ("a__", ListNames::rootName("a\xe2\x82"));
}

TEST(ListNames, ALongNameIsCutBetweenCharacters) {
  EXPECT_EQ(std::string(100, 'a'), ListNames::rootName(std::string(255, 'a')));
  EXPECT_EQ(std::string(99, 'a'), ListNames::rootName(std::string(99, 'a') + "\xc3\xa4" + "b"));
}

TEST(ListNames, AFolderWithoutANameHasOne) {
  EXPECT_EQ("root", ListNames::rootName(""));
}
