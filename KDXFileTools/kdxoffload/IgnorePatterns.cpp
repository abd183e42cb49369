#include "KDXFileTools/kdxoffload/IgnorePatterns.h"

namespace kdxoffload {

namespace {

constexpr std::string_view wildcards = "*?[";

// As GlobPattern takes it: there "\" is a letter like others, and what shall have no meaning stands in brackets.
std::string globOf(std::string_view pattern) {
  std::string glob;
  for (std::size_t index = 0; index < pattern.size(); ++index) {
    const bool isEscape = pattern[index] == '\\' && index + 1 < pattern.size();
    if (isEscape) ++index;
    const bool isWildcard = wildcards.find(pattern[index]) != std::string_view::npos;
    if (isEscape && isWildcard) {
      glob += '[';
      glob += pattern[index];
      glob += ']';
    } else {
      glob += pattern[index];
    }
  }
  return glob;
}

// Blanks at the end count for nothing, unless they are escaped.
std::string_view withoutBlanksAtEnd(std::string_view pattern) {
  while (pattern.ends_with(' ') && !pattern.ends_with("\\ ")) pattern.remove_suffix(1);
  return pattern;
}

bool takePrefix(std::string_view& text, char prefix) {
  const bool isThere = text.starts_with(prefix);
  if (isThere) text.remove_prefix(1);
  return isThere;
}

}  // namespace

IgnorePatterns::IgnorePatterns(const std::vector<std::string>& patterns) {
  for (const std::string& pattern : patterns) {
    std::string_view text = withoutBlanksAtEnd(pattern);
    if (text.starts_with('#')) continue;
    const bool takesIn = takePrefix(text, '!');
    const bool isForFolders = text.ends_with('/');
    if (isForFolders) text.remove_suffix(1);
    const bool isPath = text.find('/') != std::string_view::npos;
    takePrefix(text, '/');
    if (text.empty()) continue;
    _rules.push_back(
        {.glob = GlobPattern(globOf(text)), .isPath = isPath, .isForFolders = isForFolders, .takesIn = takesIn});
  }
}

bool IgnorePatterns::matches(std::string_view path, bool isFolder) const {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  for (auto rule = _rules.rbegin(); rule != _rules.rend(); ++rule) {
    if (rule->isForFolders && !isFolder) continue;
    if (rule->glob.matches(rule->isPath ? path : name)) return !rule->takesIn;
  }
  return false;
}

bool IgnorePatterns::leavesOut(std::string_view path) const {
  for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
    if (matches(path.substr(0, slash), true)) return true;
  }
  return matches(path, false);
}

std::string IgnorePatterns::patternFor(std::string_view name) {
  constexpr std::string_view special = "*?[\\ ";
  std::string pattern;
  if (name.starts_with('#') || name.starts_with('!')) pattern += '\\';
  for (const char letter : name) {
    if (special.find(letter) != std::string_view::npos) pattern += '\\';
    pattern += letter;
  }
  return pattern;
}

std::vector<std::string> IgnorePatterns::usual() {
  return {".DS_Store", "ascmhl", "ascmhl/"};
}

}  // namespace kdxoffload
