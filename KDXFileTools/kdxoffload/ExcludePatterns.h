#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxoffload/GlobPattern.h"

namespace kdxoffload {

// What --exclude leaves out. A pattern without "/" is for a name at any depth, one with "/" for a path from the card's root
// (a "/" at its start changes nothing else, one at its end nothing at all). "*" and "?" stand for anything but "/", "[]" for one of some bytes, "**" for
// anything. What is below a folder that matches is left out too. Bytes, not characters, in the order given.
class ExcludePatterns {
 public:
  ExcludePatterns() = default;
  explicit ExcludePatterns(std::vector<std::string> patterns);

  //   path   relative to the card
  [[nodiscard]] bool matches(std::string_view path) const;
  [[nodiscard]] const std::vector<std::string>& patterns() const { return _patterns; }

 private:
  std::vector<std::string> _patterns;
  std::vector<GlobPattern> _names;  // those for names
  std::vector<GlobPattern> _paths;  // and those for paths
};

}  // namespace kdxoffload
