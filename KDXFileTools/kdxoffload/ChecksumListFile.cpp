#include "KDXFileTools/kdxoffload/ChecksumListFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/ShownName.h"
#include "platform/FileContents.h"
#include "platform/NewFile.h"

namespace kdxoffload {

namespace {

using platform::ErrorPlace;
using platform::Folder;
using platform::ItemKind;
using platform::NewFile;

std::vector<std::string_view> sortedLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  std::ranges::sort(lines);
  return lines;
}

// True when nothing is lost with the list that is there.
bool saysNothingElse(const Folder& folder, const std::string& name, std::string_view text) {
  // One that says nothing else is not longer.
  const auto contents = platform::contentsOf(folder.openFile(name, nullptr), text.size(), nullptr);
  return contents && std::ranges::includes(sortedLines(text), sortedLines(*contents));
}

bool mayReplace(const Folder& folder, const std::string& name, std::string_view text, ListOrigin origin) {
  const auto facts = folder.factsOf(name, nullptr);
  if (!facts || facts->kind != ItemKind::file) return false;
  return origin == ListOrigin::ownFile || saysNothingElse(folder, name, text);
}

}  // namespace

bool writeChecksumList(const Folder& folder, const std::string& name, std::string_view text, ListOrigin origin,
                       ErrorPlace error) {
  const auto facts = folder.factsOf(name, error);
  if (!facts) return false;
  const bool isFree = facts->kind == ItemKind::absent;
  if (!isFree && !mayReplace(folder, name, text, origin)) {
    return platform::fail(error, listError(fmt::format("\"{}\" is there, and not of this program", shownName(name))));
  }
  std::optional<NewFile> file = NewFile::create(folder, name, error);
  if (!file || !file->write(text, error)) return false;
  return isFree ? file->give(error) : file->replace(error);
}

}  // namespace kdxoffload
