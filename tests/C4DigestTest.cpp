#include <gtest/gtest.h>

#include <string>

#include "digest/C4Digest.h"
#include "tests/support/ScratchDirectory.h"

namespace {

const std::string ofNothing =
    "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sFT";

// The number that a text stands for, in hex: the way back, digit by digit.
std::string hexOf(const std::string& c4) {
  const std::string digits = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
  std::vector<unsigned> bytes(64);  // least significant first
  for (const char digit : c4.substr(2)) {
    unsigned carry = static_cast<unsigned>(digits.find(digit));
    for (unsigned& byte : bytes) {
      carry += byte * 58;
      byte = carry % 256;
      carry /= 256;
    }
    EXPECT_EQ(0U, carry) << "the number is too large";
  }
  std::string hex;
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte) {
    hex += "0123456789abcdef"[*byte / 16];
    hex += "0123456789abcdef"[*byte % 16];
  }
  return hex;
}

}  // namespace

TEST(C4Digest, OfNothingIsTheKnownOne) {
  EXPECT_EQ(ofNothing, C4Digest::of(""));
}

TEST(C4Digest, IsTheNumberOfTheSHA512) {
  const ScratchDirectory scratch;
  for (std::size_t size = 0; size < 300; size += 13) {
    const std::string bytes = mediaBytes(size, static_cast<uint32_t>(size));
    writeFile(scratch.file("clip"), bytes);
    EXPECT_EQ(digestByProgram("sha512sum", scratch.file("clip")), hexOf(C4Digest::of(bytes)));
  }
}

TEST(C4Digest, DoesNotDependOnThePiecesInWhichTheBytesCome) {
  C4Digest digest;
  digest.update("ab");
  digest.update("");
  digest.update("c");
  EXPECT_EQ(C4Digest::of("abc"), digest.finalize());
}

TEST(C4Digest, ATextOfAnotherLengthOrWithOtherLettersIsNone) {
  EXPECT_TRUE(C4Digest::isC4(ofNothing));
  EXPECT_FALSE(C4Digest::isC4(""));
  EXPECT_FALSE(C4Digest::isC4(ofNothing + "1"));
  EXPECT_FALSE(C4Digest::isC4(ofNothing.substr(1)));
  EXPECT_FALSE(C4Digest::isC4("c5" + ofNothing.substr(2)));
  EXPECT_FALSE(C4Digest::isC4(ofNothing.substr(0, 89) + "0"));
  EXPECT_FALSE(C4Digest::isC4(ofNothing.substr(0, 89) + "l"));
}
