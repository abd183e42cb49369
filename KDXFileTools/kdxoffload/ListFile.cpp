#include "KDXFileTools/kdxoffload/ListFile.h"

#include <algorithm>
#include <array>

#include "KDXFileTools/kdxoffload/ChecksumList.h"
#include "KDXFileTools/kdxoffload/LegacyHashList.h"

namespace kdxoffload {

namespace {

constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";

// No line of a checksum list begins so.
bool isXML(std::string_view bytes) {
  if (bytes.starts_with(byteOrderMark)) bytes.remove_prefix(byteOrderMark.size());
  const std::size_t first = bytes.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && bytes[first] == '<';
}

}  // namespace

std::optional<ListedFiles> readListFile(std::string bytes, platform::ErrorPlace error) {
  return isXML(bytes) ? readLegacyHashList(std::move(bytes), error) : ChecksumList::filesFrom(bytes, error);
}

bool isNameOfListFile(std::string_view name) {
  constexpr std::array<std::string_view, 4> extensions{".mhl", ".md5", ".sha1", ".xxh64"};
  return std::ranges::any_of(extensions, [name](std::string_view extension) { return name.ends_with(extension); });
}

}  // namespace kdxoffload
