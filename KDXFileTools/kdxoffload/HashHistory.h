#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxoffload/HashList.h"
#include "KDXFileTools/kdxoffload/HashListChain.h"
#include "platform/Error.h"
#include "platform/Folder.h"

namespace kdxoffload {

// What the hash lists of a folder say of its files, one generation after the other. A plain value.
class HashHistory {
 public:
  static constexpr const char* folderName = "ascmhl";

  // What a later digest is compared with: the first one of its format that did not fail.
  struct Known {
    HashFormat format = HashFormat::xxh64;
    std::string value{};
    bool operator==(const Known&) const = default;
  };
  struct File {
    std::optional<uint64_t> size{};     // as in the latest list that has the file
    std::optional<int64_t> modified{};  // the same; nanoseconds since 1970
    std::vector<Known> known{};
    bool hasFailed = false;      // one of its digests in that list did
    std::size_t generation = 0;  // of that list

    [[nodiscard]] const Known* knownOf(HashFormat format) const;
  };
  using Files = std::map<std::string, File, std::less<>>;

  // That of the folder; one without generations where there is none. None where it is not to be trusted: the chain is damaged or has
  // a gap, a list that it names is missing, was changed, or can't be read. The error says which.
  static std::optional<HashHistory> read(const platform::Folder& folder, platform::ErrorPlace error);

  // Generation 1, 2, 3 and so on. A whole list that the chain does not name yet is among them when it is the next one: its writer
  // ended between the two steps.
  [[nodiscard]] const HashListChain& chain() const { return _chain; }
  // True when the chain file names all of them.
  [[nodiscard]] bool isChainWhole() const { return _linksInFile == _chain.links.size(); }
  [[nodiscard]] bool isEmpty() const { return _chain.links.empty(); }

  // All files of any generation. Paths are relative to the folder.
  [[nodiscard]] const Files& files() const { return _files; }
  [[nodiscard]] const File* fileAt(std::string_view path) const;
  // The patterns of the latest list.
  [[nodiscard]] const std::vector<std::string>& ignored() const { return _ignored; }
  // Names of what looks like a list in the folder of the lists and is none of the history.
  [[nodiscard]] const std::vector<std::string>& strangers() const { return _strangers; }

  // What comes of a digest of the file.
  [[nodiscard]] HashList::Action actionFor(std::string_view path, HashFormat format, std::string_view value) const;

  // The list is the next generation.
  void add(const HashListChain::Link& link, HashList list);
  // All of them are in the chain file.
  void setChainWhole() { _linksInFile = _chain.links.size(); }

 private:
  bool readChain(const platform::Folder& lists, platform::ErrorPlace error);
  bool readList(const platform::Folder& lists, const HashListChain::Link& link, platform::ErrorPlace error);
  bool readUnnamed(const platform::Folder& lists, platform::ErrorPlace error);
  void take(HashList::File file);

  HashListChain _chain;
  std::size_t _linksInFile = 0;
  Files _files;
  std::vector<std::string> _ignored;
  std::vector<std::string> _strangers;
};

}  // namespace kdxoffload
