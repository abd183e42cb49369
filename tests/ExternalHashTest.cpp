#include <gtest/gtest.h>

#include "KDXFileTools/kdxdispatchcopy/ExternalHash.h"
#include "tests/support/RowName.h"

namespace {

using Form = ExternalHash::Form;

struct TextRow : NamedRow {
  const char* text;
  Form form;
  uint32_t algorithm;
};

class ExternalHashText : public testing::TestWithParam<TextRow> {};

TEST_P(ExternalHashText, IsUnderstoodByItsNameAlone) {
  const ExternalHash hash = ExternalHash::fromText(GetParam().text);
  EXPECT_EQ(GetParam().form, hash.form);
  EXPECT_EQ(GetParam().algorithm, hash.algorithm);
}

INSTANTIATE_TEST_SUITE_P(Forms, ExternalHashText,
                         testing::Values(TextRow{"MD5", "MD5:abc", Form::understood, 2},
                                         TextRow{"SHA1", "SHA1:abc", Form::understood, 1},
                                         TextRow{"XXHash64", "XXHash64:abc", Form::understood, 8},
                                         TextRow{"XXHash64BE", "XXHash64BE:abc", Form::understood, 16},
                                         TextRow{"NoHexDigits", "MD5: \n", Form::understood, 2},
                                         TextRow{"Nothing", "", Form::notTwoParts, 0},
                                         TextRow{"NoColon", "MD5", Form::notTwoParts, 0},
                                         TextRow{"NothingBehindTheColon", "MD5:", Form::notTwoParts, 0},
                                         TextRow{"ASecondColon", "MD5:abc:", Form::notTwoParts, 0},
                                         TextRow{"OtherCase", "md5:abc", Form::unknownName, 0},
                                         TextRow{"NoName", ":abc", Form::unknownName, 0}),
                         rowName);

TEST(ExternalHash, IsTheSameInUpperAndLowerCase) {
  EXPECT_TRUE(isSameHash("SHA1:A9993E36", "SHA1:a9993e36"));
  EXPECT_TRUE(isSameHash("sha1:a9993e36", "SHA1:a9993e36"));
}

TEST(ExternalHash, IsTheSameOnlyWhole) {
  EXPECT_FALSE(isSameHash("MD5:a999", "MD5:a998"));
  EXPECT_FALSE(isSameHash("MD5:a999", "MD5:a99"));
  EXPECT_FALSE(isSameHash("MD5:a99", "MD5:a999"));
  EXPECT_FALSE(isSameHash("MD5:a999", "SHA1:a999"));
  EXPECT_FALSE(isSameHash("", "MD5:a999"));
}

}  // namespace
