#pragma once

#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// Sentences about changes, for a person. If there are very many: the first ones, and the number of the others.
class Changes {
 public:
  void add(std::string sentence);
  [[nodiscard]] bool empty() const { return _sentences.empty(); }
  [[nodiscard]] std::vector<std::string> sentences() const;

 private:
  static constexpr std::size_t most = 100;
  std::vector<std::string> _sentences;
  std::size_t _left = 0;
};

// What was added to the card, removed from it or changed on it between two listings: kind, size, time, mode, target of a
// link, what could not be listed, what was left out.
Changes changesOfCard(const Listing& before, const Listing& after);

}  // namespace kdxoffload
