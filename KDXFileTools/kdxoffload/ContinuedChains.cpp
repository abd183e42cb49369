#include "KDXFileTools/kdxoffload/ContinuedChains.h"

#include <algorithm>
#include <optional>

#include "KDXFileTools/kdxoffload/HashHistory.h"
#include "KDXFileTools/kdxoffload/HashListChain.h"
#include "KDXFileTools/kdxoffload/XMLFile.h"
#include "platform/FileContents.h"

namespace kdxoffload {

namespace {

using platform::ItemKind;

bool isChain(const Listing& card, EntryIndex index) {
  const Entry& entry = card.entries[index];
  const bool isNamed = entry.name == HashListChain::fileName && entry.parent != Entry::root;
  return isNamed && entry.facts.kind == ItemKind::file && card.entries[entry.parent].name == HashHistory::folderName;
}

std::optional<HashListChain> chainIn(const platform::Folder& root, const std::string& folder) {
  const auto lists = root.openFolder(folder, nullptr);
  if (!lists) return std::nullopt;
  const platform::FileDescriptor file = lists->openFile(HashListChain::fileName, nullptr);
  auto contents = file.isOpen() ? platform::contentsOf(file, XMLFile::largest, nullptr) : std::nullopt;
  return contents ? HashListChain::fromText(std::move(*contents), nullptr) : std::nullopt;
}

bool goesOnFrom(const HashListChain& start, const HashListChain& whole) {
  const auto [rest, next] = std::ranges::mismatch(start.links, whole.links);
  return rest == start.links.end() && next != whole.links.end();
}

}  // namespace

std::set<EntryIndex> continuedChains(const platform::Folder& cardRoot, const Listing& card,
                                     const platform::Folder& root, const DestinationListing& there) {
  std::set<EntryIndex> continued;
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    if (!isChain(card, index) || there[index].kind != ItemKind::file) continue;
    const std::string folder = card.folderOf(index);
    const auto whole = chainIn(root, folder);
    const auto start = whole ? chainIn(cardRoot, folder) : std::nullopt;
    if (start && goesOnFrom(*start, *whole)) continued.insert(index);
  }
  return continued;
}

}  // namespace kdxoffload
