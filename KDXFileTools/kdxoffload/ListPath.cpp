#include "KDXFileTools/kdxoffload/ListPath.h"

namespace kdxoffload {

bool isListName(std::string_view name) {
  constexpr std::string_view notInNames("/\0", 2);
  return !name.empty() && name != "." && name != ".." && name.find_first_of(notInNames) == std::string_view::npos;
}

bool isListPath(std::string_view path) {
  while (true) {
    const std::size_t slash = path.find('/');
    if (!isListName(path.substr(0, slash))) return false;
    if (slash == std::string_view::npos) return true;
    path.remove_prefix(slash + 1);
  }
}

}  // namespace kdxoffload
