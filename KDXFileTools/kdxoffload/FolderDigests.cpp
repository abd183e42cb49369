#include "KDXFileTools/kdxoffload/FolderDigests.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include "KDXFileTools/kdxoffload/XMLWriter.h"
#include "digest/KDXDigestContext.h"

namespace kdxoffload {

namespace {

// Goes through the tree from its end: what is in a folder comes before the folder then, however deep it is.
class Gatherer {
 public:
  Gatherer(const Listing& tree, std::span<const FileDigest> digests, std::vector<bool> ignored, uint32_t algorithm);

  std::vector<std::optional<FolderDigests>> gather();

 private:
  // A folder, as far as what is in it was met.
  struct Folder {
    std::vector<FileDigest> contents{};
    std::vector<FileDigest> structures{};
    bool isWhole = true;
  };

  Folder& above(EntryIndex entry);
  void ignoreWhatIsBelow();
  void markUnlisted();
  void addToFolder(EntryIndex entry);
  std::optional<FolderDigests> endOf(Folder folder);
  FileDigest endDigest();
  FileDigest digestOf(std::vector<FileDigest> parts);
  FileDigest digestOf(std::string_view name, const FileDigest& part);
  void feed(const FileDigest& part);

  const Listing& _tree;
  std::span<const FileDigest> _digests;
  std::vector<bool> _ignored;
  uint32_t _algorithm;
  std::shared_ptr<KDXDigestContext> _context;
  std::vector<Folder> _folders;  // one for each entry, last the tree's own
  std::vector<std::optional<FolderDigests>> _results;
};

Gatherer::Gatherer(const Listing& tree, std::span<const FileDigest> digests, std::vector<bool> ignored,
                   uint32_t algorithm)
    : _tree(tree),
      _digests(digests),
      _ignored(std::move(ignored)),
      _algorithm(algorithm),
      _context(KDXDigestContext::contextWithAlgorithm(algorithm)),
      _folders(tree.entries.size() + 1),
      _results(tree.entries.size() + 1) {}

Gatherer::Folder& Gatherer::above(EntryIndex entry) {
  const EntryIndex parent = _tree.entries[entry].parent;
  return parent == Entry::root ? _folders.back() : _folders[parent];
}

void Gatherer::ignoreWhatIsBelow() {
  for (EntryIndex entry = 0; entry < _tree.entries.size(); ++entry) {
    const EntryIndex parent = _tree.entries[entry].parent;
    if (parent != Entry::root && _ignored[parent]) _ignored[entry] = true;
  }
}

bool isIn(std::string_view path, std::string_view folder) {
  return folder.empty() || path == folder || (path.starts_with(folder) && path[folder.size()] == '/');
}

// All folders that lead to something that could not be listed.
void Gatherer::markUnlisted() {
  for (const Unlisted& unlisted : _tree.unlisted) {
    _folders.back().isWhole = false;
    for (EntryIndex entry = 0; entry < _tree.entries.size(); ++entry) {
      const bool isFolder = _tree.entries[entry].facts.kind == platform::ItemKind::folder;
      if (isFolder && isIn(unlisted.path, _tree.pathOf(entry))) _folders[entry].isWhole = false;
    }
  }
}

void Gatherer::feed(const FileDigest& part) {
  _context->update(part.bytes.data(), _context->digest()->size());
}

FileDigest Gatherer::endDigest() {
  _context->finalize();
  FileDigest digest{.algorithm = _algorithm};
  std::ranges::copy(_context->digest().value(), digest.bytes.begin());
  return digest;
}

FileDigest Gatherer::digestOf(std::vector<FileDigest> parts) {
  std::ranges::sort(parts, {}, &FileDigest::bytes);
  _context->reset();
  for (const FileDigest& part : parts) feed(part);
  return endDigest();
}

FileDigest Gatherer::digestOf(std::string_view name, const FileDigest& part) {
  _context->reset();
  _context->update(name.data(), name.size());
  feed(part);
  return endDigest();
}

std::optional<FolderDigests> Gatherer::endOf(Folder folder) {
  if (!folder.isWhole) return std::nullopt;
  return FolderDigests{.content = digestOf(std::move(folder.contents)),
                       .structure = digestOf(std::move(folder.structures))};
}

void Gatherer::addToFolder(EntryIndex entry) {
  const Entry& item = _tree.entries[entry];
  if (item.facts.kind == platform::ItemKind::link) return;
  std::optional<FolderDigests> digests;
  if (item.facts.kind == platform::ItemKind::folder) {
    digests = _results[entry] = endOf(std::move(_folders[entry]));
  } else if (item.facts.kind == platform::ItemKind::file && _digests[entry].algorithm == _algorithm) {
    digests = FolderDigests{.content = _digests[entry], .structure = _digests[entry]};
  }
  if (!digests || !XMLWriter::canHold(item.name)) {
    above(entry).isWhole = false;
    return;
  }
  above(entry).contents.push_back(digests->content);
  above(entry).structures.push_back(digestOf(item.name, digests->structure));
}

std::vector<std::optional<FolderDigests>> Gatherer::gather() {
  if (!_context) return _results;
  // The length of a digest is known from the first one on.
  _context->finalize();
  ignoreWhatIsBelow();
  markUnlisted();
  for (auto entry = static_cast<EntryIndex>(_tree.entries.size()); entry > 0; --entry) {
    if (!_ignored[entry - 1]) addToFolder(entry - 1);
  }
  _results.back() = endOf(std::move(_folders.back()));
  return std::move(_results);
}

}  // namespace

std::vector<std::optional<FolderDigests>> FolderDigests::of(const Listing& tree, std::span<const FileDigest> digests,
                                                            const std::vector<bool>& ignored, uint32_t algorithm) {
  return Gatherer(tree, digests, ignored, algorithm).gather();
}

}  // namespace kdxoffload
