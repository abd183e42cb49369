#include "KDXFileTools/kdxoffload/ListNames.h"

#include <fmt/format.h>

#include "KDXFileTools/kdxoffload/DateTime.h"
#include "KDXFileTools/kdxoffload/HashFormat.h"
#include "platform/Text.h"

namespace kdxoffload::ListNames {

namespace {

bool isAllowed(char byte) {
  constexpr std::string_view notOnFAT = "\"*/:<>?\\|";
  return static_cast<unsigned char>(byte) >= ' ' && byte != '\x7f' && notOnFAT.find(byte) == std::string_view::npos;
}

// The length of the character that the text begins with; 0 where it begins with none.
std::size_t characterAt(std::string_view text) {
  constexpr std::size_t longest = 4;
  for (std::size_t length = 1; length <= longest && length <= text.size(); ++length) {
    if (platform::isUTF8(text.substr(0, length))) return length;
  }
  return 0;
}

}  // namespace

std::string rootName(std::string_view folderName) {
  constexpr std::size_t longest = 100;
  std::string name;
  while (!folderName.empty()) {
    const std::size_t length = characterAt(folderName);
    const bool isKept = length > 1 || (length == 1 && isAllowed(folderName.front()));
    const std::string_view piece = isKept ? folderName.substr(0, length) : "_";
    if (name.size() + piece.size() > longest) break;
    name += piece;
    folderName.remove_prefix(isKept ? length : 1);
  }
  return name.empty() ? "root" : name;
}

std::string hashList(std::size_t generation, std::string_view rootName, int64_t started) {
  return fmt::format("{:04}_{}_{}.mhl", generation, rootName, DateTime::inFileNames(started));
}

std::string report(std::string_view rootName, int64_t started) {
  return fmt::format("{}_{}_offload.html", rootName, DateTime::inFileNames(started));
}

std::string checksumList(std::string_view rootName, uint32_t algorithm) {
  const auto format = hashFormatOf(algorithm);
  return format ? fmt::format("{}.{}", rootName, nameOf(*format)) : "";
}

}  // namespace kdxoffload::ListNames
