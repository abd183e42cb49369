#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// A file's name as a frame's: the last run of digits before the extension is its number. The texts are parts of the name.
struct FrameName {
  std::string_view prefix{};
  std::string_view digits{};
  std::string_view postfix{};
  uint32_t number = 0;
};

// None for a name without a number, or with one that a sequence can't have.
std::optional<FrameName> frameNameOf(std::string_view name);

// Files of one folder that one job takes.
struct FoundSequence {
  std::string identifier{};          // without the folder
  std::vector<EntryIndex> frames{};  // in the order of their numbers
};

struct FoundSequences {
  std::vector<FoundSequence> sequences{};
  std::vector<std::string> warnings{};  // one for each group of files that has a gap
};

// What is known of the files beside their names.
struct FrameChoice {
  std::function<bool(EntryIndex)> isSmallEnough{};           // for a frame
  std::function<bool(EntryIndex)> canBeFrame{};              // of those: that a job takes under its name
  std::function<bool(EntryIndex, EntryIndex)> isSameWork{};  // that one job may do for both
};

// Finds the sequences in the folder whose entries stand from `first` to the one before `end`: at least three files that
// differ in one number of equal width, without a gap, whose names an identifier gives back exactly. Gaps are looked for
// among all files of the folder, whatever is still to be done with them.
FoundSequences findSequences(const Listing& card, EntryIndex first, EntryIndex end, const FrameChoice& choice);

}  // namespace kdxoffload
