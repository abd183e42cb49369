#include "platform/Text.h"

#include <utf8proc.h>

#include <array>

namespace platform {

namespace {

constexpr char32_t firstSupplementary = 0x10000;
constexpr char16_t firstHighSurrogate = 0xD800;
constexpr char16_t firstLowSurrogate = 0xDC00;
constexpr unsigned bitsOfHalf = 10;
constexpr char32_t maskOfHalf = 0x3FF;

// Calls take(code point) for every character. Stops and returns false at the first bytes that are not well-formed.
template <typename Take>
bool forEachCodePoint(std::string_view bytes, Take take) {
  const auto* next = reinterpret_cast<const utf8proc_uint8_t*>(bytes.data());
  auto left = static_cast<utf8proc_ssize_t>(bytes.size());
  while (left > 0) {
    utf8proc_int32_t codePoint = 0;
    const utf8proc_ssize_t used = utf8proc_iterate(next, left, &codePoint);
    if (used <= 0) return false;
    take(static_cast<char32_t>(codePoint));
    next += used;
    left -= used;
  }
  return true;
}

void appendUTF16(std::u16string& units, char32_t codePoint) {
  if (codePoint < firstSupplementary) {
    units += static_cast<char16_t>(codePoint);
    return;
  }
  const char32_t halves = codePoint - firstSupplementary;
  units += static_cast<char16_t>(firstHighSurrogate + (halves >> bitsOfHalf));
  units += static_cast<char16_t>(firstLowSurrogate + (halves & maskOfHalf));
}

bool isHighSurrogate(char16_t unit) {
  return (unit & ~maskOfHalf) == firstHighSurrogate;
}

bool isLowSurrogate(char16_t unit) {
  return (unit & ~maskOfHalf) == firstLowSurrogate;
}

}  // namespace

bool isUTF8(std::string_view bytes) {
  return forEachCodePoint(bytes, [](char32_t) {});
}

std::optional<std::u16string> UTF16FromUTF8(std::string_view bytes) {
  std::u16string units;
  const bool wellFormed = forEachCodePoint(bytes, [&](char32_t codePoint) { appendUTF16(units, codePoint); });
  return wellFormed ? std::optional(units) : std::nullopt;
}

std::optional<std::string> UTF8FromUTF16(std::u16string_view units) {
  std::string bytes;
  for (std::size_t index = 0; index < units.size(); ++index) {
    char32_t codePoint = units[index];
    if (isLowSurrogate(units[index])) return std::nullopt;
    if (isHighSurrogate(units[index])) {
      if (++index == units.size() || !isLowSurrogate(units[index])) return std::nullopt;
      codePoint = firstSupplementary + ((codePoint & maskOfHalf) << bitsOfHalf) + (units[index] & maskOfHalf);
    }
    std::array<utf8proc_uint8_t, 4> encoded{};
    const utf8proc_ssize_t length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(codePoint), encoded.data());
    bytes.append(encoded.begin(), encoded.begin() + length);
  }
  return bytes;
}

bool isDecimalDigit(char16_t unit) {
  return utf8proc_category(unit) == UTF8PROC_CATEGORY_ND;
}

}  // namespace platform
