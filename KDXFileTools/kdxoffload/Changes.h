#pragma once

#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// Sentences about what became different, for a person. Of very many the first ones, and how many there are more.
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

// What came to the card, went from it or changed on it between two listings: kind, size, time, mode, where a link leads,
// what could not be listed, what was left out.
Changes changesOfCard(const Listing& before, const Listing& after);

}  // namespace kdxoffload
