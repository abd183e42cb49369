#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include "KDXFileTools/kdxoffload/HashList.h"

namespace kdxoffload {

// The words of a hash list that its writer and its reader share.
namespace HashListNames {

inline constexpr std::string_view space = "urn:ASC:MHL:v2.0";
inline constexpr std::string_view version = "2.0";

// In the order of the enumerations.
inline constexpr std::array<std::string_view, 4> actions{"", "original", "verified", "failed"};
inline constexpr std::array<std::string_view, 3> processes{"transfer", "in-place", "flatten"};

inline std::string_view nameOf(HashList::Action action) {
  return actions.at(static_cast<std::size_t>(action));
}

inline std::string_view nameOf(HashList::Process process) {
  return processes.at(static_cast<std::size_t>(process));
}

// Of the word at the same position; none for another word.
template <typename Value, std::size_t count>
std::optional<Value> valueFor(const std::array<std::string_view, count>& words, std::string_view word) {
  const auto* const found = std::ranges::find(words, word);
  if (found == words.end()) return std::nullopt;
  return static_cast<Value>(found - words.begin());
}

}  // namespace HashListNames

}  // namespace kdxoffload
