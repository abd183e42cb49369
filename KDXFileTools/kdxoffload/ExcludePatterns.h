#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxoffload/GlobPattern.h"

namespace kdxoffload {

// What --exclude leaves out. A pattern without "/" matches a name at any depth, one with "/" a path from the card's root. (A
// "/" at the start makes a pattern one for paths; a "/" at the end is ignored.) "*" and "?" stand for anything except "/", "[]"
// for one of some bytes, "**" for anything. Everything below a folder that matches is left out too. Bytes, not characters.
class ExcludePatterns {
 public:
  ExcludePatterns() = default;
  explicit ExcludePatterns(std::vector<std::string> patterns);

  //   path   relative to the card
  [[nodiscard]] bool matches(std::string_view path) const;
  [[nodiscard]] const std::vector<std::string>& patterns() const { return _patterns; }

 private:
  std::vector<std::string> _patterns;
  std::vector<GlobPattern> _names;  // the patterns for names
  std::vector<GlobPattern> _paths;  // the patterns for paths
};

}  // namespace kdxoffload
