#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// The name of a frame: the last run of digits before the extension is its number. The texts are parts of the name.
struct FrameName {
  std::string_view prefix{};
  std::string_view digits{};
  std::string_view postfix{};
  uint32_t number = 0;
};

// None for a name without a number, or with a number that a sequence can't have.
std::optional<FrameName> frameNameOf(std::string_view name);

// Files of one folder for one job.
struct FoundSequence {
  std::string identifier{};          // without the folder
  std::vector<EntryIndex> frames{};  // in the order of their numbers
};

struct FoundSequences {
  std::vector<FoundSequence> sequences{};
  std::vector<std::string> warnings{};  // one for each group of files that has a gap
};

// What is known of the files, apart from their names.
struct FrameChoice {
  std::function<bool(EntryIndex)> isSmallEnough{};           // small enough for a frame
  std::function<bool(EntryIndex)> canBeFrame{};              // of these: a job can handle the name
  std::function<bool(EntryIndex, EntryIndex)> isSameWork{};  // one job may do both
};

// Finds the sequences in the folder with the entries from `first` to the one before `end`. A sequence has at least three files
// whose names differ only in one number of equal width, without a gap, and an identifier gives exactly these names. Gaps are
// looked for among all files of the folder, also those that need no work.
FoundSequences findSequences(const Listing& card, EntryIndex first, EntryIndex end, const FrameChoice& choice);

}  // namespace kdxoffload
