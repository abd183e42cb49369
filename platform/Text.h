#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// True when the bytes are well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
bool isUTF8(std::string_view bytes);

// The text as UTF-16 code units; none when the bytes are not well-formed UTF-8.
std::optional<std::u16string> UTF16FromUTF8(std::string_view bytes);

// The text as UTF-8; none when it holds half of a surrogate pair.
std::optional<std::string> UTF8FromUTF16(std::u16string_view units);

// True for the decimal digits of every script (general category Nd of the Unicode standard) that are one code unit, that is,
// those of the Basic Multilingual Plane.
bool isDecimalDigit(char16_t unit);

}  // namespace platform
