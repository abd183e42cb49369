#pragma once

#include <cstdint>
#include <string_view>

// The text of a digest from elsewhere: "NAME:HEX". It has exactly one colon, and something follows it.
struct ExternalHash {
  enum class Form { understood, notTwoParts, unknownName };

  Form form = Form::notTwoParts;
  uint32_t algorithm = 0;  // that of the name; 0 if the text is not understood

  // The digits are not checked here: wrong ones differ from the digest later.
  static ExternalHash fromText(std::string_view text);
};

// True when both texts name the same digest. Upper-case and lower-case letters count as the same.
bool isSameHash(std::string_view externalText, std::string_view digestString);
