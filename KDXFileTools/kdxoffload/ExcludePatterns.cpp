#include "KDXFileTools/kdxoffload/ExcludePatterns.h"

#include <algorithm>

namespace kdxoffload {

namespace {

// "Thumbs/" is meant for the folder.
std::string_view withoutSlashesAtEnd(std::string_view pattern) {
  while (pattern.size() > 1 && pattern.ends_with('/')) pattern.remove_suffix(1);
  return pattern;
}

}  // namespace

ExcludePatterns::ExcludePatterns(std::vector<std::string> patterns) : _patterns(std::move(patterns)) {
  for (const std::string& pattern : _patterns) {
    std::string_view text = withoutSlashesAtEnd(pattern);
    const bool isPath = text.find('/') != std::string_view::npos;
    if (isPath && text.starts_with('/')) text.remove_prefix(1);
    (isPath ? _paths : _names).emplace_back(text);
  }
}

bool ExcludePatterns::matches(std::string_view path) const {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  const auto standsFor = [](std::string_view text) {
    return [text](const GlobPattern& pattern) { return pattern.matches(text); };
  };
  return std::ranges::any_of(_names, standsFor(name)) || std::ranges::any_of(_paths, standsFor(path));
}

}  // namespace kdxoffload
