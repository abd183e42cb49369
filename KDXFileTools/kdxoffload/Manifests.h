#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/FileDigest.h"
#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// A file that stands at a destination as it was proved there. A plain value.
struct ProvedFile {
  EntryIndex entry = 0;
  FileDigest digest{};
  int64_t read = 0;          // when; nanoseconds since 1970
  bool isOfThisRun = false;  // or of an earlier one
};

// What there is to be said of one destination at the end of an offload. A plain value that owns all that it needs.
struct ManifestFacts {
  std::shared_ptr<const Listing> card{};
  std::string destination{};        // real path
  std::string shownDestination{};   // as given
  DestinationListing there{};       // at the end
  std::vector<bool> isProved{};     // for each entry of the card
  std::vector<ProvedFile> files{};  // those that are proved, in the order of the card
  uint32_t algorithm = 0;           // of their digests
  int64_t started = 0;              // the offload; nanoseconds since 1970
  bool wantsHashList = true;
  bool wantsChecksums = false;
  bool followsKilledRun = false;  // what the one before read is in no list yet
};

// What became of it. A plain value.
struct ManifestReport {
  std::vector<std::string> warnings{};        // sentences: what could not be written
  std::vector<std::string> leftOut{};         // paths of proved files that the hash list can't name
  std::vector<std::string> notInChecksums{};  // the same of the checksum list
};

// Writes for one destination what others can check the proof with, much later and with other programs:
//  - the next generation of its hash lists, with all files that were read since the last one. None where this run read nothing,
//    unless it follows one that was killed.
//  - a checksum list of all proved files, which keeps what it says of other files.
// Both are whole as soon as they have their names, whenever the process ends, and replace nobody else's file. Times of the
// destination's own folder and of folders of the card stay. What can't be written is a warning.
//   goesOn   called between steps
ManifestReport writeManifests(const ManifestFacts& facts, const std::function<void()>& goesOn);

}  // namespace kdxoffload
