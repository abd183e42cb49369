#include "KDXFileTools/kdxoffload/LegacyHashList.h"

#include <fmt/format.h>

#include <charconv>

#include "KDXFileTools/kdxoffload/HashFormat.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/ListPath.h"
#include "KDXFileTools/kdxoffload/ShownName.h"
#include "KDXFileTools/kdxoffload/XMLFile.h"
#include "digest/DigestStrings.h"

namespace kdxoffload {

namespace {

using pugi::xml_node;

std::string textIn(xml_node element) {
  return XMLFile::textIn(element).value_or("");
}

// Of the element with the name; none where that is not there or holds something else.
std::optional<FileDigest> digestIn(xml_node hash, const char* name, HashFormat format) {
  const auto value = hashValueFrom(format, textIn(hash.child(name)));
  return value ? fileDigestFrom(format, *value) : std::nullopt;
}

// The same digest with its bytes in the other order.
std::optional<FileDigest> littleEndianDigestIn(xml_node hash) {
  const auto value = hashValueFrom(HashFormat::xxh64, textIn(hash.child("xxhash64")));
  return value ? fileDigestFrom(HashFormat::xxh64, XXHash64BEasXXHash64(*value)) : std::nullopt;
}

std::optional<FileDigest> digestIn(xml_node hash) {
  if (const auto digest = digestIn(hash, "xxhash64be", HashFormat::xxh64)) return digest;
  if (const auto digest = littleEndianDigestIn(hash)) return digest;
  if (const auto digest = digestIn(hash, "sha1", HashFormat::sha1)) return digest;
  return digestIn(hash, "md5", HashFormat::md5);
}

std::optional<uint64_t> sizeIn(xml_node hash) {
  const std::string text = textIn(hash.child("size"));
  uint64_t size = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), size);
  const bool isNumber = end.ec == std::errc() && end.ptr == text.data() + text.size();
  return isNumber ? std::optional(size) : std::nullopt;
}

// Why the list is not to be used; none where it is.
std::optional<std::string> takeFile(xml_node hash, ListedFiles& files) {
  std::string path = textIn(hash.child("file"));
  while (path.starts_with("./")) path.erase(0, 2);
  if (!isListPath(path)) {
    return fmt::format("the path \"{}\" does not lead to something in the folder", shownName(path));
  }
  const std::optional<FileDigest> digest = digestIn(hash);
  if (!digest) return fmt::format("\"{}\" has no MD5, SHA1 or XXH64 digest", shownName(path));
  if (hash.child("size") && !sizeIn(hash)) return fmt::format("the size of \"{}\" is no number", shownName(path));
  files.push_back({.path = std::move(path), .size = sizeIn(hash), .digest = *digest});
  return std::nullopt;
}

std::optional<std::string> takeFiles(xml_node root, ListedFiles& files) {
  const std::string_view version = root.attribute("version").value();
  if (std::string_view(root.name()) != "hashlist" || !version.starts_with("1.")) return "it is no media hash list 1.x";
  for (const xml_node hash : root.children("hash")) {
    if (auto objection = takeFile(hash, files)) return objection;
  }
  return files.empty() ? std::optional<std::string>("there is no file in it") : std::nullopt;
}

}  // namespace

std::optional<ListedFiles> readLegacyHashList(std::string bytes, platform::ErrorPlace error) {
  const std::optional<XMLFile> file = XMLFile::parse(std::move(bytes), error);
  if (!file) return std::nullopt;
  ListedFiles files;
  auto objection = takeFiles(file->root(), files);
  if (!objection) return files;
  platform::fail(error, listError(std::move(*objection)));
  return std::nullopt;
}

}  // namespace kdxoffload
