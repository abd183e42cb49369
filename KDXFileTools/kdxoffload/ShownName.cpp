#include "KDXFileTools/kdxoffload/ShownName.h"

namespace kdxoffload {

std::string shownName(std::string_view name) {
  return shownText(name);
}

std::string shownText(std::string_view text) {
  std::string shown(text);
  for (char& c : shown) {
    if (c < ' ' || c > '~') c = '?';
  }
  return shown;
}

}  // namespace kdxoffload
