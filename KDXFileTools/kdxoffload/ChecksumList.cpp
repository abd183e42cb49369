#include "KDXFileTools/kdxoffload/ChecksumList.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "KDXFileTools/kdxoffload/HashFormat.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/ListPath.h"
#include "KDXFileTools/kdxoffload/ShownName.h"
#include "digest/KDXDigestContext.h"

namespace kdxoffload::ChecksumList {

namespace {

// Letters that a list can't hold as they are, and what they are called there behind a "\".
struct Escape {
  char letter;
  char name;
};
constexpr std::array escapes{Escape{'\\', '\\'}, Escape{'\n', 'n'}, Escape{'\r', 'r'}};

bool hasEscapes(uint32_t algorithm) {
  return algorithm != KDXDigestAlgorithmXXHash64BE;
}

std::string escaped(std::string_view path) {
  std::string text;
  for (const char letter : path) {
    const auto* const escape = std::ranges::find(escapes, letter, &Escape::letter);
    if (escape != escapes.end()) text += '\\';
    text += escape == escapes.end() ? letter : escape->name;
  }
  return text;
}

// None where a "\" stands before anything else.
std::optional<std::string> unescaped(std::string_view text) {
  std::string path;
  for (std::size_t index = 0; index < text.size(); ++index) {
    if (text[index] != '\\') {
      path += text[index];
      continue;
    }
    ++index;
    if (index == text.size()) return std::nullopt;
    const auto* const escape = std::ranges::find(escapes, text[index], &Escape::name);
    if (escape == escapes.end()) return std::nullopt;
    path += escape->letter;
  }
  return path;
}

// By its length alone, as those programs tell them apart too.
std::optional<FileDigest> digestFrom(std::string_view digits) {
  for (const HashFormat format : {HashFormat::md5, HashFormat::sha1, HashFormat::xxh64}) {
    if (const auto value = hashValueFrom(format, digits)) return fileDigestFrom(format, *value);
  }
  return std::nullopt;
}

std::optional<FileDigest> digestFrom(std::string_view name, std::string_view digits) {
  const auto found = digestFrom(digits);
  if (!found) return std::nullopt;
  const bool isNamed = (name == "MD5" && found->algorithm == KDXDigestAlgorithmMD5) ||
                       (name == "SHA1" && found->algorithm == KDXDigestAlgorithmSHA1) ||
                       (name == "XXH64" && found->algorithm == KDXDigestAlgorithmXXHash64BE);
  return isNamed ? found : std::nullopt;
}

// What a line says; without a digest where it is none.
struct Line {
  std::optional<FileDigest> digest{};
  std::string_view path{};
};

// "d41d8cd98f00b204e9800998ecf8427e  clip.mov", with a "*" for the second blank where the program was asked for that.
Line digestFirst(std::string_view line) {
  const std::size_t end = line.find(' ');
  if (end == std::string_view::npos || end + 2 > line.size()) return {};
  if (line[end + 1] != ' ' && line[end + 1] != '*') return {};
  return {.digest = digestFrom(line.substr(0, end)), .path = line.substr(end + 2)};
}

// "MD5 (clip.mov) = d41d8cd98f00b204e9800998ecf8427e".
Line nameFirst(std::string_view line) {
  constexpr std::string_view before = " (";
  constexpr std::string_view behind = ") = ";
  const std::size_t start = line.find(before);
  const std::size_t end = line.rfind(behind);
  if (start == std::string_view::npos || end == std::string_view::npos || end < start + before.size()) return {};
  const std::size_t path = start + before.size();
  return {.digest = digestFrom(line.substr(0, start), line.substr(end + behind.size())),
          .path = line.substr(path, end - path)};
}

// Why the line is not to be used; none and a file where it is.
std::optional<std::string> takeLine(std::string_view text, ListedFiles& files) {
  const bool isEscaped = text.starts_with('\\');
  if (isEscaped) text.remove_prefix(1);
  Line line = digestFirst(text);
  if (!line.digest) line = nameFirst(text);
  if (!line.digest) return "it has no MD5, SHA1 or XXH64 digest and name";
  std::optional<std::string> path = isEscaped ? unescaped(line.path) : std::string(line.path);
  while (path && path->starts_with("./")) path->erase(0, 2);
  if (!path || !isListPath(*path)) {
    return fmt::format("the path \"{}\" does not lead to something in the folder", shownName(line.path));
  }
  files.push_back({.path = std::move(*path), .size = std::nullopt, .digest = *line.digest});
  return std::nullopt;
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

// From a system that ends all of its lines so. A single one may be of a name that does.
void dropReturns(std::vector<std::string_view>& lines) {
  const auto hasReturn = [](std::string_view line) { return line.ends_with('\r'); };
  if (!std::ranges::all_of(lines, hasReturn)) return;
  for (std::string_view& line : lines) line.remove_suffix(1);
}

}  // namespace

std::optional<std::string> lineFor(std::string_view path, const FileDigest& digest) {
  // The name alone would be standard input.
  const std::string safe = path == "-" ? "./-" : std::string(path);
  const std::string hex = hashValueOf(digest);
  if (!hasEscapes(digest.algorithm)) {
    if (path.find('\n') != std::string_view::npos) return std::nullopt;
    return fmt::format("{}  {}\n", hex, safe);
  }
  const std::string text = escaped(safe);
  return fmt::format("{}{}  {}\n", text == safe ? "" : "\\", hex, text);
}

std::optional<ListedFiles> filesFrom(std::string_view text, platform::ErrorPlace error) {
  ListedFiles files;
  std::vector<std::string_view> lines = linesOf(text);
  dropReturns(lines);
  for (std::size_t index = 0; index < lines.size(); ++index) {
    if (lines[index].empty() || lines[index].starts_with('#')) continue;
    if (const auto objection = takeLine(lines[index], files)) {
      platform::fail(error, listError(fmt::format("line {}: {}", index + 1, *objection)));
      return std::nullopt;
    }
  }
  if (!files.empty()) return files;
  platform::fail(error, listError("there is no file in it"));
  return std::nullopt;
}

}  // namespace kdxoffload::ChecksumList
