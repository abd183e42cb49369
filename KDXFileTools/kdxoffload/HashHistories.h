#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxoffload/HashHistory.h"
#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// The history of a folder and those of folders further down in it. A file belongs to the deepest one above it. A plain value. Paths
// are relative to the folder at the top, which is "".
class HashHistories {
 public:
  struct Place {
    std::string folder{};
    HashHistory history{};
    std::optional<std::size_t> above{};  // position of the one that the folder belongs to; none at the top
  };

  // The folders of a tree that have a history, its top left out.
  static std::vector<std::string> foldersIn(const Listing& tree);

  // Those of these folders and of the top, which need not have one yet. None where one of them is not to be trusted; the error names it.
  static std::optional<HashHistories> read(const platform::Folder& root, const std::vector<std::string>& folders,
                                           platform::ErrorPlace error);

  // What is further down comes first, the top last.
  [[nodiscard]] const std::vector<Place>& places() const { return _places; }
  [[nodiscard]] HashHistory& historyAt(std::size_t place) { return _places[place].history; }
  [[nodiscard]] bool areEmpty() const;

  // Position of the place that the path belongs to.
  [[nodiscard]] std::size_t placeOf(std::string_view path) const;
  // The path as it stands in the lists of the place.
  [[nodiscard]] std::string_view pathIn(std::size_t place, std::string_view path) const;
  // What is known of the file there, or, where nothing is, in the places above.
  [[nodiscard]] const HashHistory::File* fileAt(std::string_view path) const;

 private:
  std::vector<Place> _places;
  std::map<std::string, std::size_t, std::less<>> _positions;  // by folder
};

}  // namespace kdxoffload
