#include "KDXFileTools/kdxoffload/HashHistoryWriter.h"

#include <utility>

#include "KDXFileTools/kdxoffload/HashListWriter.h"
#include "KDXFileTools/kdxoffload/ListNames.h"
#include "digest/C4Digest.h"
#include "platform/FileURL.h"
#include "platform/NewFile.h"

namespace kdxoffload {

namespace {

using platform::ErrorPlace;
using platform::Folder;
using platform::NewFile;

std::optional<Folder> foldersOfLists(const Folder& root, const std::string& path, ErrorPlace error) {
  const std::optional<Folder> folder = root.openFolder(path, error);
  if (!folder || !folder->makeFolder(HashHistory::folderName, error) || !folder->sync(error)) return std::nullopt;
  return folder->openFolder(HashHistory::folderName, error);
}

// None when it could not be written.
std::optional<HashListChain::Link> writeList(const Folder& lists, const std::string& name, const HashList& list,
                                             ErrorPlace error) {
  std::optional<NewFile> file = NewFile::create(lists, name, error);
  if (!file) return std::nullopt;
  C4Digest digest;
  bool isWritten = true;
  writeHashList(list, [&](std::string_view bytes) {
    digest.update(bytes);
    isWritten = isWritten && file->write(bytes, error);
  });
  if (!isWritten || !file->give(error)) return std::nullopt;
  return HashListChain::Link{.fileName = name, .c4 = digest.finalize()};
}

bool writeChain(const Folder& lists, HashHistory& history, ErrorPlace error) {
  std::optional<NewFile> file = NewFile::create(lists, HashListChain::fileName, error);
  if (!file || !file->write(history.chain().text(), error) || !file->replace(error)) return false;
  history.setChainWhole();
  return true;
}

// The latest lists of the histories right below the place.
std::vector<HashList::Reference> referencesOf(const HashHistories& histories, std::size_t place) {
  std::vector<HashList::Reference> references;
  for (const HashHistories::Place& below : histories.places()) {
    if (below.above != place || below.history.isEmpty()) continue;
    const HashListChain::Link& latest = below.history.chain().links.back();
    const std::string_view folder = histories.pathIn(place, below.folder);
    std::string path = std::string(folder) + "/" + HashHistory::folderName + "/" + latest.fileName;
    references.push_back({.path = std::move(path), .c4 = latest.c4});
  }
  return references;
}

// A folder further down is named by itself.
std::string rootNameOf(const HashHistories::Place& place, const GenerationFacts& facts) {
  return place.folder.empty() ? facts.rootName
                              : ListNames::rootName(platform::FileURL("/" + place.folder).lastPathComponent());
}

bool writeGeneration(const Folder& root, HashHistories& histories, std::size_t place, HashList list,
                     const GenerationFacts& facts, ErrorPlace error) {
  HashHistory& history = histories.historyAt(place);
  const std::optional<Folder> lists = foldersOfLists(root, histories.places()[place].folder, error);
  if (!lists) return false;
  list.references = referencesOf(histories, place);
  const std::size_t generation = history.chain().links.size() + 1;
  const std::string rootName = rootNameOf(histories.places()[place], facts);
  const auto link = writeList(*lists, ListNames::hashList(generation, rootName, facts.started), list, error);
  if (!link) return false;
  history.add(*link, std::move(list));
  return writeChain(*lists, history, error);
}

bool enterUnnamed(const Folder& root, HashHistories& histories, std::size_t place, ErrorPlace error) {
  HashHistory& history = histories.historyAt(place);
  if (history.isChainWhole()) return true;
  const std::optional<Folder> lists = foldersOfLists(root, histories.places()[place].folder, error);
  return lists && writeChain(*lists, history, error);
}

}  // namespace

bool writeGenerations(const Folder& root, HashHistories& histories, const GenerationFacts& facts, ErrorPlace error) {
  std::vector<std::optional<HashList>> lists = nextGeneration(histories, facts);
  for (std::size_t place = 0; place < lists.size(); ++place) {
    std::optional<HashList>& list = lists[place];
    const bool isWritten = list ? writeGeneration(root, histories, place, std::move(*list), facts, error)
                                : enterUnnamed(root, histories, place, error);
    if (!isWritten) return false;
  }
  return true;
}

}  // namespace kdxoffload
