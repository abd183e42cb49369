#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kdxoffload {

// What --exclude leaves out. A pattern without "/" is for a name at any depth, one with "/" for a path from the card's root
// (a "/" at its start changes nothing else). "*" and "?" stand for anything but "/", "[]" for one of some bytes, "**" for
// anything. What is below a folder that matches is left out too. Bytes, not characters, in the order given.
class ExcludePatterns {
 public:
  ExcludePatterns() = default;
  explicit ExcludePatterns(std::vector<std::string> patterns) : _patterns(std::move(patterns)) {}

  //   path   relative to the card
  [[nodiscard]] bool matches(std::string_view path) const;
  [[nodiscard]] const std::vector<std::string>& patterns() const { return _patterns; }

 private:
  std::vector<std::string> _patterns;
};

}  // namespace kdxoffload
