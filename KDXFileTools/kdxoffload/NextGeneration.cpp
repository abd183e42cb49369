#include "KDXFileTools/kdxoffload/NextGeneration.h"

#include <algorithm>

#include "KDXFileTools/kdxoffload/IgnorePatterns.h"
#include "KDXFileTools/kdxoffload/XMLWriter.h"

namespace kdxoffload {

namespace {

using Lists = std::vector<std::optional<HashList>>;

// Each pattern once, in the order in which they came.
void addPatterns(std::vector<std::string>& patterns, const std::vector<std::string>& more) {
  for (const std::string& pattern : more) {
    if (std::ranges::find(patterns, pattern) == patterns.end()) patterns.push_back(pattern);
  }
}

HashList emptyList(const HashHistories::Place& place, const GenerationFacts& facts) {
  HashList list;
  list.creator = facts.creator;
  list.process = facts.process;
  list.ignored = patternsOf(place, facts);
  return list;
}

HashList::File fileOf(const HashHistories& histories, std::size_t place, const ReadFile& file, HashFormat format) {
  const HashHistory& history = histories.places()[place].history;
  std::string path(histories.pathIn(place, file.path));
  std::string value = hashValueOf(file.digest);
  const HashList::Action action = history.actionFor(path, format, value);
  return {.path = std::move(path),
          .size = file.size,
          .created = std::nullopt,
          .modified = file.modified,
          .hashes = {{.format = format, .value = std::move(value), .action = action, .hashed = file.read}}};
}

HashList::Hash hashOf(const FileDigest& digest, int64_t time) {
  const HashFormat format = hashFormatOf(digest.algorithm).value_or(HashFormat::xxh64);
  return {.format = format, .value = hashValueOf(digest), .action = HashList::Action::none, .hashed = time};
}

HashList::FolderHashes hashesOf(const FolderDigests& digests, int64_t time) {
  return {.content = {hashOf(digests.content, time)}, .structure = {hashOf(digests.structure, time)}};
}

// A folder that has a history of its own is the top of that one.
void addFolder(const HashHistories& histories, Lists& lists, const std::string& path, const FolderDigests& digests) {
  const auto& places = histories.places();
  const auto own = std::ranges::find(places, path, &HashHistories::Place::folder);
  const std::size_t place =
      own == places.end() ? histories.placeOf(path) : static_cast<std::size_t>(own - places.begin());
  std::optional<HashList>& list = lists[place];
  if (!list) return;
  HashList::FolderHashes hashes = hashesOf(digests, list->creator.created);
  if (own != places.end()) {
    list->root = std::move(hashes);
  } else {
    list->folders.push_back(
        {.path = std::string(histories.pathIn(place, path)), .modified = std::nullopt, .hashes = std::move(hashes)});
  }
}

class Composer {
 public:
  Composer(const HashHistories& histories, const GenerationFacts& facts) : _histories(histories), _facts(facts) {
    for (const HashHistories::Place& place : histories.places()) {
      _empty.push_back(emptyList(place, facts));
      _patterns.emplace_back(_empty.back().ignored);
    }
    _lists.resize(_empty.size());
  }

  Lists compose() {
    for (const ReadFile& file : _facts.files) addFile(file);
    for (std::size_t place = 0; place < _lists.size(); ++place) {
      if (_lists[place]) beginAbove(place);
    }
    for (const auto& [path, digests] : _facts.folders) addFolder(_histories, _lists, path, digests);
    return std::move(_lists);
  }

 private:
  void begin(std::size_t place) {
    if (!_lists[place]) _lists[place] = _empty[place];
  }
  // The one above has to name the new list.
  void beginAbove(std::size_t place) {
    if (const auto above = _histories.places()[place].above) begin(*above);
  }
  void addFile(const ReadFile& file) {
    const std::size_t place = _histories.placeOf(file.path);
    const std::string_view path = _histories.pathIn(place, file.path);
    const auto format = hashFormatOf(file.digest.algorithm);
    if (!format || !XMLWriter::canHold(path) || _patterns[place].leavesOut(path)) return;
    begin(place);
    _lists[place]->files.push_back(fileOf(_histories, place, file, *format));
  }

  const HashHistories& _histories;
  const GenerationFacts& _facts;
  std::vector<HashList> _empty;
  std::vector<IgnorePatterns> _patterns;
  Lists _lists;
};

}  // namespace

std::vector<std::string> patternsOf(const HashHistories::Place& place, const GenerationFacts& facts) {
  std::vector<std::string> patterns;
  addPatterns(patterns, IgnorePatterns::usual());
  addPatterns(patterns, place.history.ignored());
  addPatterns(patterns, facts.ignored);
  return patterns;
}

Lists nextGeneration(const HashHistories& histories, const GenerationFacts& facts) {
  return Composer(histories, facts).compose();
}

}  // namespace kdxoffload
