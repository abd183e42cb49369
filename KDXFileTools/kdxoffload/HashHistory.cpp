#include "KDXFileTools/kdxoffload/HashHistory.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "KDXFileTools/kdxoffload/HashListReader.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/ShownName.h"
#include "KDXFileTools/kdxoffload/XMLFile.h"
#include "digest/C4Digest.h"
#include "platform/FileContents.h"

namespace kdxoffload {

namespace {

using platform::ErrorPlace;
using platform::Folder;

constexpr std::string_view listExtension = ".mhl";

bool failFor(ErrorPlace error, std::string_view name, const std::optional<platform::Error>& why) {
  const std::string reason = why && why->description ? *why->description : "it can't be read";
  return platform::fail(error, listError(fmt::format("\"{}\": {}", shownName(name), reason)));
}

std::optional<std::string> contentsOf(const Folder& lists, const std::string& name, ErrorPlace error) {
  std::optional<platform::Error> why;
  const platform::FileDescriptor file = lists.openFile(name, &why);
  std::optional<std::string> contents =
      file.isOpen() ? platform::contentsOf(file, XMLFile::largest, &why) : std::nullopt;
  if (!contents) failFor(error, name, why);
  return contents;
}

std::optional<HashList> listFrom(const std::string& name, std::string contents, ErrorPlace error) {
  std::optional<platform::Error> why;
  std::optional<HashList> list = readHashList(std::move(contents), &why);
  if (!list) failFor(error, name, why);
  return list;
}

bool isThere(const Folder& folder, const std::string& name) {
  const auto facts = folder.factsOf(name, nullptr);
  return !facts || facts->kind != platform::ItemKind::absent;
}

// The generation in the name of a list; none where it is no such name.
std::optional<std::size_t> generationIn(std::string_view name) {
  constexpr std::size_t fewestDigits = 4;
  std::size_t generation = 0;
  const auto end = std::from_chars(name.data(), name.data() + name.size(), generation);
  const auto digits = static_cast<std::size_t>(end.ptr - name.data());
  const bool isList = name.ends_with(listExtension) && name.substr(digits).starts_with('_');
  return isList && end.ec == std::errc() && digits >= fewestDigits ? std::optional(generation) : std::nullopt;
}

}  // namespace

const HashHistory::Known* HashHistory::File::knownOf(HashFormat format) const {
  const auto found = std::ranges::find(known, format, &Known::format);
  return found == known.end() ? nullptr : &*found;
}

std::optional<HashHistory> HashHistory::read(const Folder& folder, ErrorPlace error) {
  if (!isThere(folder, folderName)) return HashHistory();
  const std::optional<Folder> lists = folder.openFolder(folderName, error);
  HashHistory history;
  if (!lists || !history.readChain(*lists, error) || !history.readUnnamed(*lists, error)) return std::nullopt;
  return history;
}

bool HashHistory::readChain(const Folder& lists, ErrorPlace error) {
  if (!isThere(lists, HashListChain::fileName)) return true;
  std::optional<std::string> contents = contentsOf(lists, HashListChain::fileName, error);
  if (!contents) return false;
  std::optional<platform::Error> why;
  const std::optional<HashListChain> chain = HashListChain::fromText(std::move(*contents), &why);
  if (!chain) return failFor(error, HashListChain::fileName, why);
  for (const HashListChain::Link& link : chain->links) {
    if (!readList(lists, link, error)) return false;
  }
  setChainWhole();
  return true;
}

bool HashHistory::readList(const Folder& lists, const HashListChain::Link& link, ErrorPlace error) {
  std::optional<std::string> contents = contentsOf(lists, link.fileName, error);
  if (!contents) return false;
  if (C4Digest::of(*contents) != link.c4) {
    return failFor(error, link.fileName, listError("it was changed after it was written"));
  }
  std::optional<HashList> list = listFrom(link.fileName, std::move(*contents), error);
  if (list) add(link, std::move(*list));
  return list.has_value();
}

bool HashHistory::readUnnamed(const Folder& lists, ErrorPlace error) {
  std::optional<std::vector<std::string>> names = lists.names(error);
  if (!names) return false;
  std::ranges::sort(*names);
  for (const std::string& name : *names) {
    const std::optional<std::size_t> generation = generationIn(name);
    if (!generation || std::ranges::count(_chain.links, name, &HashListChain::Link::fileName) != 0) continue;
    std::optional<std::string> contents;
    if (*generation == _chain.links.size() + 1) contents = contentsOf(lists, name, nullptr);
    const std::string c4 = contents ? C4Digest::of(*contents) : "";
    std::optional<HashList> list = contents ? listFrom(name, std::move(*contents), nullptr) : std::nullopt;
    if (list) {
      add({.fileName = name, .c4 = c4}, std::move(*list));
    } else {
      _strangers.push_back(name);
    }
  }
  return true;
}

const HashHistory::File* HashHistory::fileAt(std::string_view path) const {
  const auto found = _files.find(path);
  return found == _files.end() ? nullptr : &found->second;
}

HashList::Action HashHistory::actionFor(std::string_view path, HashFormat format, std::string_view value) const {
  const File* const file = fileAt(path);
  const Known* const known = file == nullptr ? nullptr : file->knownOf(format);
  if (known == nullptr) return HashList::Action::original;
  return known->value == value ? HashList::Action::verified : HashList::Action::failed;
}

void HashHistory::add(const HashListChain::Link& link, HashList list) {
  _chain.links.push_back(link);
  _ignored = std::move(list.ignored);
  for (HashList::File& file : list.files) take(std::move(file));
}

void HashHistory::take(HashList::File file) {
  File& mine = _files[std::move(file.path)];
  mine.size = file.size;
  mine.modified = file.modified;
  mine.hasFailed = std::ranges::count(file.hashes, HashList::Action::failed, &HashList::Hash::action) != 0;
  mine.generation = _chain.links.size();
  for (HashList::Hash& hash : file.hashes) {
    const bool isNew = hash.action != HashList::Action::failed && mine.knownOf(hash.format) == nullptr;
    if (isNew) mine.known.push_back({.format = hash.format, .value = std::move(hash.value)});
  }
}

}  // namespace kdxoffload
