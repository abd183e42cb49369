#include "digest/DigestStrings.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

std::string hexstringWithBytes(std::span<const uint8_t> bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string XXHash64BEasXXHash64(std::string_view hex) {
  constexpr std::size_t group = 2;
  std::string reversed;
  for (std::size_t end = hex.size(); end > 0; end -= std::min(end, group)) {
    const std::size_t start = end - std::min(end, group);
    reversed.append(hex.substr(start, end - start));
  }
  return reversed;
}
