#include "KDXFileTools/kdxoffload/Amounts.h"

#include <fmt/format.h>

#include <array>

namespace kdxoffload {

std::string shownBytes(uint64_t bytes) {
  constexpr uint64_t thousand = 1000;
  if (bytes < thousand) return shownCount(bytes, "byte");
  constexpr std::array units{"kB", "MB", "GB", "TB", "PB", "EB"};
  constexpr double roundsToThousand = 999.5;
  constexpr double roundsToHundred = 99.95;
  constexpr double roundsToTen = 9.995;
  auto amount = static_cast<double>(bytes) / thousand;
  std::size_t unit = 0;
  for (; amount >= roundsToThousand && unit + 1 < units.size(); ++unit) amount /= thousand;
  const int decimals = amount >= roundsToHundred ? 0 : amount >= roundsToTen ? 1 : 2;
  return fmt::format("{:.{}f} {}", amount, decimals, units[unit]);
}

std::string shownCount(uint64_t count) {
  constexpr std::size_t groupLength = 3;
  std::string digits = std::to_string(count);
  for (std::size_t end = digits.size(); end > groupLength; end -= groupLength) digits.insert(end - groupLength, 1, ',');
  return digits;
}

std::string shownCount(uint64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", shownCount(count), noun, count == 1 ? "" : "s");
}

}  // namespace kdxoffload
