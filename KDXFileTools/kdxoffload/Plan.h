#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "KDXFileTools/kdxoffload/DestinationSet.h"
#include "KDXFileTools/kdxoffload/Listing.h"
#include "KDXFileTools/kdxoffload/Preflight.h"

namespace kdxoffload {

enum class JobKind : uint8_t {
  copy,     // write the file, or the sequence, and prove it
  compare,  // read the file of the card and what stands at the destinations, and write nothing
};

// One piece of work on files. A plain value, small: there may be a hundred thousand.
struct Job {
  static constexpr uint32_t noSequence = UINT32_MAX;

  JobKind kind = JobKind::copy;
  bool replaces = false;           // a regular file at the final name is replaced; after a comparison: if it differs
  bool usesAlias = false;          // the job gets another name than the card's (see needsAlias)
  uint32_t first = 0;              // its files: positions in Plan::files
  uint32_t count = 1;              // more than one for a sequence
  uint32_t sequence = noSequence;  // position in Plan::sequences
  DestinationSet destinations{};
};

// Why a file, folder or link can't be made or proved at a destination. Known before anything is done.
enum class Obstacle : uint8_t {
  changedSinceProved,  // the file of the card is not the one that was proved here
  folderInTheWay,
  linkInTheWay,
  otherInTheWay,
  fileInTheWay,   // of a folder or a link
  differentLink,  // a link there leads elsewhere
  cardsOwnFile,   // the file there is the card's file itself
  sameNameTwice,  // two entries of the card have the same name for the destination
  notWritable,
  insideObstacle,  // a folder of the path has an obstacle
};

struct PlannedFailure {
  EntryIndex entry = 0;
  DestinationSet destinations{};
  Obstacle obstacle = Obstacle::folderInTheWay;
};

// Everything that an offload has to do. A plain value: the same listings, records and wishes give the same plan.
struct Plan {
  std::vector<EntryIndex> files{};        // of the jobs; the files of one job stand together, in frame order
  std::vector<std::string> sequences{};   // identifiers, without the folder: "A001_%%d_1001-1100.####.dpx"
  std::vector<Job> jobs{};                // big ones first in the order of the card, then small ones
  std::vector<DestinationSet> proved{};   // for every entry of the card: where it is proved already; for folders, empty
  std::vector<DestinationSet> folders{};  // for every entry of the card: where this folder has to be made
  // For every entry of the card: where this folder is there, and has to be opened to its owner for what is to be written in it.
  std::vector<DestinationSet> closed{};
  std::vector<DestinationSet> links{};  // the same for links
  std::vector<PlannedFailure> failures{};
  std::vector<std::string> warnings{};  // one for each group of frames with a gap
  std::vector<RoomNeeded> room{};       // at each destination
  uint64_t bytesToDo = 0;               // of the files of the jobs; a file counts once for each of its jobs

  [[nodiscard]] std::span<const EntryIndex> filesOf(const Job& job) const {
    return std::span(files).subspan(job.first, job.count);
  }
};

// What the plan depends on, apart from the listings and records.
struct PlanWishes {
  bool readBack = true;  // false: what was only copied counts as proved
  bool recheck = false;
  bool replace = false;
  uint32_t algorithm = 0;  // a proof with another algorithm is made again; 0: any algorithm will do
};

// One destination as the plan sees it. `records` has one record for each entry of the card, or is empty.
struct PlannedDestination {
  DestinationListing listing{};
  std::vector<FileRecord> records{};
  std::set<EntryIndex> continued{};                 // files that are kept there and go on (see continuedChains)
  std::map<EntryIndex, std::string> linkTargets{};  // of links there; without a target, a job looks at the link
  platform::Volume volume{};
};

// True for a proof of the file as it is on the card now.
bool isProofOf(const FileRecord& record, const platform::ItemFacts& onCard);

// A file of the card that has two digests was read wrongly once. Empties all records of such files, so that they are looked at
// again, or count as not proved.
void forgetWhatDisagrees(const Listing& card, std::span<PlannedDestination> destinations);

Plan makePlan(const Listing& card, std::span<const PlannedDestination> destinations, const PlanWishes& wishes);

// True for names that jobs can't handle: not UTF-8, with control characters (they would look like lines of output), too long
// for the temporary name, or ending like a temporary name. (The plan finds out if the temporary name is another entry.)
bool needsAlias(std::string_view name);

// Files below this size may be frames of a sequence.
inline constexpr uint64_t largestFrame = uint64_t{64} << 20;  // bytes
// Jobs of files up to this size are small: many run at once, and a batch shares one flush.
inline constexpr uint64_t largestSmallFile = uint64_t{4} << 20;  // bytes

}  // namespace kdxoffload
