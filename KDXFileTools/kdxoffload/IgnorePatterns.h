#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxoffload/GlobPattern.h"

namespace kdxoffload {

// What a folder's hash lists leave out, in the manner of .gitignore files: a pattern without "/" is for a name at any depth, one with a
// "/" before its end for a path from the top, one with a "/" at its end for folders only. "*" and "?" stand for anything but "/", "[]"
// for one of some bytes, "**" for anything; "\" takes the meaning from what follows; "!" in front takes in again what earlier patterns left out.
// What is below a folder that is left out is left out too.
class IgnorePatterns {
 public:
  IgnorePatterns() = default;
  explicit IgnorePatterns(const std::vector<std::string>& patterns);

  // Of this entry alone, whatever becomes of the folders above it.
  //   path   relative to the folder that has the lists
  [[nodiscard]] bool matches(std::string_view path, bool isFolder) const;
  // Of a file, by its path and by the folders above it.
  [[nodiscard]] bool leavesOut(std::string_view path) const;

  // The pattern that stands for this one name, at any depth.
  static std::string patternFor(std::string_view name);
  // What all hash lists leave out.
  static std::vector<std::string> usual();

 private:
  struct Rule {
    GlobPattern glob;
    bool isPath = false;
    bool isForFolders = false;
    bool takesIn = false;
  };
  std::vector<Rule> _rules;
};

}  // namespace kdxoffload
