#pragma once

#include <cstdint>
#include <string_view>

// The text of a digest from elsewhere: "NAME:HEX", with one colon and something behind it.
struct ExternalHash {
  enum class Form { understood, notTwoParts, unknownName };

  Form form = Form::notTwoParts;
  uint32_t algorithm = 0;  // that of the name, where the text is understood

  // The digits are not looked at: any that are not the digest's differ when it is known.
  static ExternalHash fromText(std::string_view text);
};

// True when the text of a digest from elsewhere is that of this digest. Upper-case and lower-case letters are the same.
bool isSameHash(std::string_view externalText, std::string_view digestString);
