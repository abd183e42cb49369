#include "KDXFileTools/kdxoffload/ExcludePatterns.h"

#include <algorithm>

namespace kdxoffload {

bool ExcludePatterns::matches(std::string_view path) const {
  return std::ranges::find(_patterns, path) != _patterns.end();
}

}  // namespace kdxoffload
